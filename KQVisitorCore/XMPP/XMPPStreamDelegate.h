#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPTLSSettings.h>

#include <optional>

namespace kq::xmpp {

class XMPPStream;

/// What a stream tells its delegates. Every method runs on the queue the delegate was added
/// with (XMPPStream::addDelegate), never inside a call into the stream, and does nothing unless
/// overridden. Stanzas handed over are shared with other delegates: read them, or copy() them.
class KQ_EXPORT XMPPStreamDelegate {
 public:
  XMPPStreamDelegate() = default;
  XMPPStreamDelegate(const XMPPStreamDelegate&) = delete;
  XMPPStreamDelegate& operator=(const XMPPStreamDelegate&) = delete;
  virtual ~XMPPStreamDelegate();

  /// The TCP connection is about to be opened.
  virtual void xmppStreamSocketWillConnect(XMPPStream& /*sender*/) {}
  /// The TCP connection is open; the XML stream is being opened.
  virtual void xmppStreamSocketDidConnect(XMPPStream& /*sender*/) {}
  /// TLS is about to start: adjust `settings`. The delegates are asked one after the other and
  /// the handshake waits for all of them.
  virtual void xmppStreamWillSecureWithSettings(XMPPStream& /*sender*/,
                                                XMPPTLSSettings& /*settings*/) {}
  /// The TLS handshake succeeded.
  virtual void xmppStreamDidSecure(XMPPStream& /*sender*/) {}
  /// The stream is open and negotiated (TLS done where it applies): ready to authenticate.
  virtual void xmppStreamDidConnect(XMPPStream& /*sender*/) {}
  /// Authentication and resource binding succeeded; myJID() is the bound address.
  virtual void xmppStreamDidAuthenticate(XMPPStream& /*sender*/) {}
  /// The server refused the authentication: `error` is its `<failure/>` element.
  virtual void xmppStreamDidNotAuthenticate(XMPPStream& /*sender*/, const XMPPElement& /*error*/) {}
  /// An IQ arrived. Answer true when this delegate handles it; when no module or delegate
  /// does, the stream answers a get or set with a service-unavailable error.
  virtual bool xmppStreamDidReceiveIQ(XMPPStream& /*sender*/, const XMPPIQ& /*iq*/) {
    return false;
  }
  /// A `<message/>` arrived.
  virtual void xmppStreamDidReceiveMessage(XMPPStream& /*sender*/, const XMPPMessage& /*message*/) {
  }
  /// A `<presence/>` arrived.
  virtual void xmppStreamDidReceivePresence(XMPPStream& /*sender*/,
                                            const XMPPPresence& /*presence*/) {}
  /// The server sent a stream error (`<stream:error/>`); the stream is closed next.
  virtual void xmppStreamDidReceiveError(XMPPStream& /*sender*/, const XMPPElement& /*error*/) {}
  /// `element` could not be sent: the stream was not connected, or it disconnected before
  /// writing the element (XMPPStream::kErrorNotConnected).
  virtual void xmppStreamDidFailToSendElement(XMPPStream& /*sender*/,
                                              const XMPPElement& /*element*/,
                                              const KQError& /*error*/) {}
  /// The connection of a session the server keeps (stream management) ended with `error`: the
  /// stream stays connected and authenticated while it resumes the session on a new
  /// connection. did-resume follows, or did-disconnect with `error` when it cannot.
  virtual void xmppStreamWillResume(XMPPStream& /*sender*/, const KQError& /*error*/) {}
  /// The session goes on over a new connection, with no new login: what either side sent in
  /// between and the other had not acknowledged has been sent again.
  virtual void xmppStreamDidResume(XMPPStream& /*sender*/) {}
  /// The connect timeout passed before the stream was connected; the stream disconnects.
  virtual void xmppStreamConnectDidTimeout(XMPPStream& /*sender*/) {}
  /// The stream is closed: `error` says why, nullopt after disconnect() was asked for.
  virtual void xmppStreamDidDisconnect(XMPPStream& /*sender*/,
                                       const std::optional<KQError>& /*error*/) {}
};

}  // namespace kq::xmpp
