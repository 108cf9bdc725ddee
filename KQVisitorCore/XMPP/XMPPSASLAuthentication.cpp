#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>

#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>

namespace kq::xmpp {

namespace {

XMPPElement authElementFor(const std::string& mechanism) {
  XMPPElement auth("auth", kXMPPSASLNamespace);
  auth.addAttributeWithName("mechanism", mechanism);
  return auth;
}

}  // namespace

XMPPSASLAuthentication::~XMPPSASLAuthentication() = default;

std::optional<XMPPElement> XMPPSASLAuthentication::responseToChallenge(
    const XMPPElement& /*challenge*/) {
  return std::nullopt;  // single-step mechanisms get no challenge
}

XMPPElement XMPPSASLAuthentication::resumptionAuthElement(const std::optional<XMPPJID>& myJID,
                                                          const std::string& /*resumptionId*/) {
  return authElement(myJID);
}

XMPPElement XMPPAnonymousAuthentication::authElement(const std::optional<XMPPJID>& /*myJID*/) {
  return authElementFor(mechanismName());
}

XMPPElement XMPPAnonymousAuthentication::resumptionAuthElement(const std::optional<XMPPJID>& myJID,
                                                               const std::string& resumptionId) {
  XMPPElement auth = authElementFor(mechanismName());
  if (myJID && myJID->user()) {
    auth.setStringValue(base64Encode("resume " + *myJID->user() + " " + resumptionId));
  }
  return auth;
}

XMPPElement XMPPPlainAuthentication::authElement(const std::optional<XMPPJID>& myJID) {
  XMPPElement auth = authElementFor(mechanismName());
  const std::string user = myJID && myJID->user() ? *myJID->user() : std::string();
  auth.setStringValue(base64Encode(std::string(1, '\0') + user + std::string(1, '\0') + password_));
  return auth;
}

}  // namespace kq::xmpp
