#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>

namespace kq::xmpp {

/// SASL ANONYMOUS: the server lets the client in without credentials and picks the account's
/// node itself; the stream's myJID() follows the address the server binds.
class KQ_EXPORT XMPPAnonymousAuthentication : public XMPPSASLAuthentication {
 public:
  [[nodiscard]] std::string mechanismName() const override { return "ANONYMOUS"; }
  [[nodiscard]] XMPPElement authElement(const std::optional<XMPPJID>& myJID) override;
};

}  // namespace kq::xmpp
