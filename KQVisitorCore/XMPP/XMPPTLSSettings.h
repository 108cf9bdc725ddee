#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>

namespace kq::xmpp {

/// How the stream checks the server's certificate; delegates fill it in
/// XMPPStreamDelegate::xmppStreamWillSecureWithSettings before the TLS handshake.
///
/// The certificate chain is always verified against the system's trusted authorities and the
/// configured caFile. What changes is the name the certificate must carry.
struct KQ_EXPORT XMPPTLSSettings {
  /// The name the server's certificate must carry.
  enum class PeerNameCheck {
    /// The host name the stream connected to (the default).
    Host,
    /// `peerName`: a host name, or an IP address matched against the certificate's IP entries.
    Name,
    /// No name check.
    None,
  };

  /// Which name is checked; PeerNameCheck::Host until a delegate changes it.
  PeerNameCheck peerNameCheck = PeerNameCheck::Host;
  /// The name checked with PeerNameCheck::Name (unused with the others).
  std::string peerName;

  /// Sets the peer name: a name checks against it, nullopt switches the name check off.
  void setPeerName(std::optional<std::string> name) {
    if (name) {
      peerNameCheck = PeerNameCheck::Name;
      peerName = std::move(*name);
    } else {
      peerNameCheck = PeerNameCheck::None;
      peerName.clear();
    }
  }
};

}  // namespace kq::xmpp
