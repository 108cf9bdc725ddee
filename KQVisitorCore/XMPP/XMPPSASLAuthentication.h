#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <optional>
#include <string>

namespace kq::xmpp {

/// One SASL mechanism, driven by XMPPStream::authenticate on the stream's queue.
class KQ_EXPORT XMPPSASLAuthentication {
 public:
  XMPPSASLAuthentication() = default;
  XMPPSASLAuthentication(const XMPPSASLAuthentication&) = delete;
  XMPPSASLAuthentication& operator=(const XMPPSASLAuthentication&) = delete;
  virtual ~XMPPSASLAuthentication();

  /// The mechanism's name as the server lists it ("ANONYMOUS", "PLAIN").
  [[nodiscard]] virtual std::string mechanismName() const = 0;
  /// The `<auth/>` element that opens the exchange for the account `myJID`.
  [[nodiscard]] virtual XMPPElement authElement(const std::optional<XMPPJID>& myJID) = 0;
  /// The `<auth/>` element that logs in again as the bound address `myJID` to resume its session
  /// `resumptionId` (stream management) on a new connection: authElement() unless the
  /// mechanism must ask for that user.
  [[nodiscard]] virtual XMPPElement resumptionAuthElement(const std::optional<XMPPJID>& myJID,
                                                          const std::string& resumptionId);
  /// The answer to a server `<challenge/>`; nullopt aborts the exchange. The default answers
  /// nullopt, for mechanisms of a single step.
  virtual std::optional<XMPPElement> responseToChallenge(const XMPPElement& challenge);
};

}  // namespace kq::xmpp
