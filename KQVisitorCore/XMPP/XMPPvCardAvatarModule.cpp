#include <KQVisitorCore/XMPP/XMPPvCardAvatarModule.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPvCardTempModule.h>

namespace kq::xmpp {

XMPPvCardAvatarModule::XMPPvCardAvatarModule(std::shared_ptr<XMPPvCardTempModule> vCardTempModule,
                                             std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)), vCardTempModule_(std::move(vCardTempModule)) {}

XMPPvCardAvatarModule::~XMPPvCardAvatarModule() = default;

std::optional<std::string> XMPPvCardAvatarModule::photoDataForJID(const XMPPJID& jid) const {
  return vCardTempModule_->xmppvCardTempModuleStorage()->photoDataForJID(jid);
}

void XMPPvCardAvatarModule::streamDidReceivePresence(const XMPPPresence& presence) {
  const auto update = presence.elementForName("x", kXMPPvCardAvatarNamespace);
  const auto photo = update ? update->elementForName("photo") : std::nullopt;
  const auto from = presence.from();
  if (!photo || !from) {
    return;
  }
  const std::string announced = photo->stringValue();
  const auto stored = vCardTempModule_->xmppvCardTempModuleStorage()->photoHashForJID(*from);
  if (!stored || *stored != announced) {
    vCardTempModule_->fetchvCardTempForJID(*from, true);
  }
}

void XMPPvCardAvatarModule::streamWillSendElement(XMPPElement& element) {
  if (element.name() != "presence" || element.attributeStringValueForName("type") ||
      element.elementForName("x", kXMPPvCardAvatarNamespace)) {
    return;
  }
  const auto stream = xmppStream();
  const auto me = stream ? stream->myJID() : std::nullopt;
  const auto hash =
      me ? vCardTempModule_->xmppvCardTempModuleStorage()->photoHashForJID(*me) : std::nullopt;
  if (!hash) {
    return;  // our vCard is not known: nothing to announce yet
  }
  XMPPElement x = element.addChildElement("x", kXMPPvCardAvatarNamespace);
  XMPPElement photo = x.addChildElement("photo");
  if (!hash->empty()) {
    photo.setStringValue(*hash);
  }
}

}  // namespace kq::xmpp
