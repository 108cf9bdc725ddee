#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <KQVisitorCore/XMPP/XMPPQueue.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

namespace kq::xmpp {

XMPPModule::XMPPModule(std::shared_ptr<DispatchQueue> dispatchQueue)
    : ownQueue_(dispatchQueue ? XMPPQueue::onDispatchQueue(std::move(dispatchQueue)) : nullptr) {
  moduleQueue_ = ownQueue_;
}

XMPPModule::~XMPPModule() = default;

bool XMPPModule::activate(const std::shared_ptr<XMPPStream>& stream) {
  if (!stream) {
    return false;
  }
  {
    std::scoped_lock lock(mutex_);
    if (!stream_.expired()) {
      return false;
    }
    stream_ = stream;
    if (!ownQueue_) {
      moduleQueue_ = stream->streamQueue();
    }
  }
  stream->registerModule(shared_from_this());
  return true;
}

void XMPPModule::deactivate() {
  std::shared_ptr<XMPPStream> stream;
  {
    std::scoped_lock lock(mutex_);
    stream = stream_.lock();
    stream_.reset();
  }
  if (stream) {
    stream->unregisterModule(this);
  }
}

std::shared_ptr<XMPPStream> XMPPModule::xmppStream() const {
  std::scoped_lock lock(mutex_);
  return stream_.lock();
}

std::shared_ptr<XMPPQueue> XMPPModule::moduleQueue() const {
  std::scoped_lock lock(mutex_);
  return moduleQueue_;
}

}  // namespace kq::xmpp
