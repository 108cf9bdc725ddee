#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>

#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>

#include <openssl/evp.h>

#include <vector>

namespace kq::xmpp {

namespace {

std::string base64(const std::string& data) {
  std::vector<unsigned char> encoded(4 * ((data.size() + 2) / 3) + 1);
  const int length = EVP_EncodeBlock(encoded.data(),
                                     reinterpret_cast<const unsigned char*>(data.data()),
                                     static_cast<int>(data.size()));
  return std::string(reinterpret_cast<const char*>(encoded.data()),
                     static_cast<std::size_t>(length));
}

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

XMPPElement XMPPAnonymousAuthentication::authElement(const std::optional<XMPPJID>& /*myJID*/) {
  return authElementFor(mechanismName());
}

XMPPElement XMPPPlainAuthentication::authElement(const std::optional<XMPPJID>& myJID) {
  XMPPElement auth = authElementFor(mechanismName());
  const std::string user = myJID && myJID->user() ? *myJID->user() : std::string();
  auth.setStringValue(base64(std::string(1, '\0') + user + std::string(1, '\0') + password_));
  return auth;
}

}  // namespace kq::xmpp
