#include <KQVisitorCore/XMPP/XMPPvCardTempModule.h>

#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>

namespace kq::xmpp {

namespace {
constexpr std::chrono::duration<double> kvCardTimeout{60.0};
}  // namespace

XMPPvCardTempModuleDelegate::~XMPPvCardTempModuleDelegate() = default;

XMPPvCardTempModule::XMPPvCardTempModule(std::shared_ptr<XMPPvCardMemoryStorage> storage,
                                         std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)),
      storage_(std::move(storage)),
      delegates_(std::make_unique<XMPPDelegateList<XMPPvCardTempModuleDelegate>>()) {}

XMPPvCardTempModule::~XMPPvCardTempModule() = default;

void XMPPvCardTempModule::addDelegate(const std::shared_ptr<XMPPvCardTempModuleDelegate>& delegate,
                                      std::shared_ptr<DispatchQueue> queue) {
  delegates_->add(delegate, std::move(queue));
}

void XMPPvCardTempModule::removeDelegate(const XMPPvCardTempModuleDelegate* delegate) {
  delegates_->remove(delegate);
}

void XMPPvCardTempModule::fetchvCardTempForJID(const XMPPJID& jid, bool ignoreStorage) {
  const auto stream = xmppStream();
  if (!stream || (!ignoreStorage && storage_->vCardTempForJID(jid))) {
    return;
  }
  const XMPPJID bare = jid.bareJID();
  std::weak_ptr<XMPPvCardTempModule> weak =
      std::static_pointer_cast<XMPPvCardTempModule>(shared_from_this());
  stream->sendIQ(
      XMPPIQ("get", bare, std::nullopt, XMPPElement("vCard", kXMPPvCardTempNamespace)),
      kvCardTimeout, [weak, bare](const std::optional<XMPPIQ>& response) {
        const auto self = weak.lock();
        if (!self || !response || !response->isResultIQ()) {
          return;
        }
        const auto vCard = response->elementForName("vCard", kXMPPvCardTempNamespace);
        const XMPPElement stored = vCard ? *vCard : XMPPElement("vCard", kXMPPvCardTempNamespace);
        self->storage_->setvCardTemp(stored, bare);
        self->delegates_->invoke([self, stored, bare](XMPPvCardTempModuleDelegate& delegate) {
          delegate.xmppvCardTempModuleDidReceivevCardTemp(*self, stored, bare);
        });
      });
}

std::optional<XMPPElement> XMPPvCardTempModule::myvCardTemp() const {
  const auto stream = xmppStream();
  const auto me = stream ? stream->myJID() : std::nullopt;
  return me ? storage_->vCardTempForJID(*me) : std::nullopt;
}

bool XMPPvCardTempModule::streamDidReceiveIQ(const XMPPIQ& iq) {
  if (!iq.isGetIQ() || !iq.elementForName("vCard", kXMPPvCardTempNamespace)) {
    return false;
  }
  const auto stream = xmppStream();
  if (!stream) {
    return false;
  }
  const auto mine = myvCardTemp();
  stream->sendElement(
      XMPPIQ::resultIQ(iq, mine ? *mine : XMPPElement("vCard", kXMPPvCardTempNamespace)));
  return true;
}

}  // namespace kq::xmpp
