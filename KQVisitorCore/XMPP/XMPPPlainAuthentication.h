#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>

#include <string>

namespace kq::xmpp {

/// SASL PLAIN: the user part of myJID and a password, sent in the clear inside the stream (use
/// it over TLS).
class KQ_EXPORT XMPPPlainAuthentication : public XMPPSASLAuthentication {
 public:
  /// Logs in as the user part of myJID with `password`.
  explicit XMPPPlainAuthentication(std::string password) : password_(std::move(password)) {}

  [[nodiscard]] std::string mechanismName() const override { return "PLAIN"; }
  [[nodiscard]] XMPPElement authElement(const std::optional<XMPPJID>& myJID) override;

 private:
  std::string password_;
};

}  // namespace kq::xmpp
