#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>

namespace kq::xmpp {

struct XMPPModule::State {
  std::weak_ptr<XMPPStream> stream;
  std::shared_ptr<XMPPQueue> moduleQueue;
};

XMPPModule::XMPPModule(std::shared_ptr<DispatchQueue> dispatchQueue)
    : state_(std::make_unique<Guarded<State>>()),
      ownQueue_(dispatchQueue ? XMPPQueue::onDispatchQueue(std::move(dispatchQueue)) : nullptr) {
  state_->set(&State::moduleQueue, ownQueue_);
}

XMPPModule::~XMPPModule() = default;

bool XMPPModule::activate(const std::shared_ptr<XMPPStream>& stream) {
  if (!stream) {
    return false;
  }
  const bool activated = state_->with([&](State& state) {
    if (!state.stream.expired()) {
      return false;
    }
    state.stream = stream;
    if (!ownQueue_) {
      state.moduleQueue = stream->streamQueue();
    }
    return true;
  });
  if (!activated) {
    return false;
  }
  stream->registerModule(shared_from_this());
  return true;
}

void XMPPModule::deactivate() {
  const std::shared_ptr<XMPPStream> stream = state_->with([](State& state) {
    auto active = state.stream.lock();
    state.stream.reset();
    return active;
  });
  if (stream) {
    stream->unregisterModule(this);
  }
}

std::shared_ptr<XMPPStream> XMPPModule::xmppStream() const {
  return state_->with([](const State& state) { return state.stream.lock(); });
}

std::shared_ptr<XMPPQueue> XMPPModule::moduleQueue() const {
  return state_->get(&State::moduleQueue);
}

}  // namespace kq::xmpp
