#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>

namespace kq::xmpp {

/// SASL ANONYMOUS: the server lets the client in without credentials and picks the account's
/// node itself; the stream's myJID() follows the address the server binds.
///
/// To resume a session, it sends the trace (RFC 4505) "resume NODE ID", NODE being the user the
/// server picked and ID the session's resumption id: a server that knows that id for that user
/// lets the login continue as that user; any other server ignores the trace, picks a new user,
/// and refuses the resumption, after which the stream logs in afresh.
class KQ_EXPORT XMPPAnonymousAuthentication : public XMPPSASLAuthentication {
 public:
  [[nodiscard]] std::string mechanismName() const override { return "ANONYMOUS"; }
  [[nodiscard]] XMPPElement authElement(const std::optional<XMPPJID>& myJID) override;
  [[nodiscard]] XMPPElement resumptionAuthElement(const std::optional<XMPPJID>& myJID,
                                                  const std::string& resumptionId) override;
};

}  // namespace kq::xmpp
