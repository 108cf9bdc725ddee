#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq::xmpp {

class XMPPModule;
class XMPPQueue;
class XMPPSASLAuthentication;
class XMPPStreamDelegate;
namespace detail {
struct XMPPQueues;
}  // namespace detail

/// Whether the stream upgrades to TLS (STARTTLS) after opening.
enum class XMPPStreamStartTLSPolicy {
  /// Never ask for TLS; a server that requires it is left with an error.
  None = 0,
  /// Upgrade whenever the server offers TLS, continue in the clear when it does not.
  Preferred = 1,
  /// Upgrade, and give up with an error when the server does not offer TLS.
  Required = 2,
};

/// Where the stream is in its life.
enum class XMPPStreamState {
  /// No connection: before the first connect, and after did-disconnect.
  Disconnected,
  /// Resolving the host and opening the TCP connection.
  Connecting,
  /// Opening the XML stream, TLS, authentication and resource binding.
  Negotiating,
  /// Open and negotiated: before authentication (ready for authenticate()) or after it.
  Connected,
};

/// The connect timeout that means none.
inline constexpr std::chrono::duration<double> XMPPStreamTimeoutNone{-1.0};

/// An XMPP client stream over TCP, with STARTTLS, SASL and resource binding.
///
/// The stream runs on a queue of its own (one thread with an event loop) where it
/// does its socket I/O, parsing and module work. Every public method is thread-safe: it reads
/// the stream's state at once and posts the work to the queue. Delegates are called on the
/// queue each was added with, in the order they were added; modules (XMPPModule) hear of each
/// event first, on the stream's queue.
///
/// Each connection starts from a clean state: nothing of an earlier connection (its parser, its
/// write queue, its IQs waiting for an answer) reaches a later one.
///
/// Until the resource is bound, the socket acknowledges each packet from the server at once
/// (TCP_QUICKACK on Linux): a server whose small writes wait for our acknowledgement (Nagle)
/// would otherwise stall the login by the delayed-acknowledgement time, about 40 ms, after the
/// TLS handshake. What one read from the socket brings is handed to each delegate queue in one
/// go (DispatchQueue::Batch), so a queue waiting for events is woken once per read.
///
/// The stream stays alive while a connection is open (its I/O holds it); disconnect() and the
/// did-disconnect event let it go. When its last reference goes away on the stream's own
/// thread, the stream is destroyed there and its thread is joined when the process exits.
class KQ_EXPORT XMPPStream : public std::enable_shared_from_this<XMPPStream> {
 public:
  /// Error domain and codes of the stream's own errors (did-disconnect, failed calls).
  static constexpr const char* kErrorDomain = "XMPPStreamErrorDomain";
  /// The codes of errors in kErrorDomain.
  enum ErrorCode : long {
    kErrorInvalidState = 1,             ///< connect or authenticate called in the wrong state.
    kErrorInvalidProperty = 2,          ///< connect called before myJID() was set.
    kErrorUnsupportedAction = 3,        ///< authenticate without a mechanism the server offers.
    kErrorConnectTimeout = 4,           ///< No did-connect in time.
    kErrorSocket = 5,                   ///< Resolving the host, connecting or TCP I/O failed.
    kErrorTLS = 6,                      ///< TLS failed, was refused, or is missing where required.
    kErrorServerClosed = 7,             ///< The server closed the stream or the connection.
    kErrorStreamError = 8,              ///< The server sent a `<stream:error/>`.
    kErrorProtocol = 9,                 ///< The server refused or garbled a step of the login.
    kErrorNotConnected = 10,            ///< An element was not sent: no connection.
    kErrorNegotiationTimeout = 11,      ///< The login outlasted negotiationTimeout().
    kErrorKeepAliveTimeout = 12,        ///< The keep-alive ping had no answer in time.
    kErrorAcknowledgementTimeout = 13,  ///< The server acknowledged no stanzas in time.
  };

  /// A duration in seconds, the unit of the stream's time-outs and intervals.
  using Seconds = std::chrono::duration<double>;
  /// The default of negotiationTimeout().
  static constexpr Seconds kDefaultNegotiationTimeout{30.0};
  /// The default of keepAliveInterval().
  static constexpr Seconds kDefaultKeepAliveInterval{60.0};
  /// The default of keepAliveTimeout().
  static constexpr Seconds kDefaultKeepAliveTimeout{20.0};
  /// The default of acknowledgementTimeout().
  static constexpr Seconds kDefaultAcknowledgementTimeout{10.0};
  /// The default of resumptionTimeout().
  static constexpr Seconds kDefaultResumptionTimeout{60.0};

  /// A new disconnected stream with its own queue, owned by the caller (and, while a
  /// connection is open, by that connection's work too).
  static std::shared_ptr<XMPPStream> create();

  XMPPStream(const XMPPStream&) = delete;
  XMPPStream& operator=(const XMPPStream&) = delete;
  ~XMPPStream();

  // --- Settings (read when a connection starts) -------------------------------------------

  /// The host to connect to; empty means the domain of myJID().
  [[nodiscard]] std::string hostName() const;
  /// Sets hostName().
  void setHostName(std::string hostName);
  /// The TCP port; 5222 until set.
  [[nodiscard]] std::uint16_t hostPort() const;
  /// Sets hostPort().
  void setHostPort(std::uint16_t hostPort);
  /// The account's address. Set before connecting; after authentication it is the address the
  /// server bound (with SASL ANONYMOUS the server picks the user part).
  [[nodiscard]] std::optional<XMPPJID> myJID() const;
  /// Sets myJID(); nullopt clears it.
  void setMyJID(std::optional<XMPPJID> jid);
  /// Whether the stream upgrades to TLS; XMPPStreamStartTLSPolicy::Preferred until set.
  [[nodiscard]] XMPPStreamStartTLSPolicy startTLSPolicy() const;
  /// Sets startTLSPolicy().
  void setStartTLSPolicy(XMPPStreamStartTLSPolicy policy);
  /// Keep the connection while the application is in the background. Kept for hosts that ask;
  /// on Linux a connection is never suspended, so the flag changes nothing.
  [[nodiscard]] bool enableBackgroundingOnSocket() const;
  /// Sets enableBackgroundingOnSocket().
  void setEnableBackgroundingOnSocket(bool enable);

  /// How long the stream waits for the server while it negotiates: from the start of the TCP
  /// connect to did-connect, and again from authenticate() to did-authenticate (the time in
  /// between is the caller's). A server that accepts the connection and then says nothing, or
  /// never finishes the login, ends the connection with did-disconnect and an error
  /// (kErrorConnectTimeout before did-connect, with xmppStreamConnectDidTimeout, and
  /// kErrorNegotiationTimeout during the login). Zero or less: no bound. 30 s until set.
  [[nodiscard]] Seconds negotiationTimeout() const;
  /// Sets negotiationTimeout().
  void setNegotiationTimeout(Seconds timeout);
  /// Liveness of an authenticated stream: after keepAliveInterval() without anything received,
  /// the stream sends an XMPP ping (urn:xmpp:ping) to the server; when no answer (result or
  /// error) arrives within keepAliveTimeout(), the connection is taken for dead and ends with
  /// did-disconnect and kErrorKeepAliveTimeout. Interval zero or less: no checks. 60 s and 20 s
  /// until set.
  [[nodiscard]] Seconds keepAliveInterval() const;
  /// Sets keepAliveInterval().
  void setKeepAliveInterval(Seconds interval);
  /// How long the keep-alive ping waits for its answer (see keepAliveInterval()).
  [[nodiscard]] Seconds keepAliveTimeout() const;
  /// Sets keepAliveTimeout().
  void setKeepAliveTimeout(Seconds timeout);

  /// Stream management (XEP-0198), used whenever the server offers it: after each stanza the
  /// stream asks the server to acknowledge what it has received (one request out at a time)
  /// and keeps every stanza until it is acknowledged. When an acknowledgement is still missing
  /// after acknowledgementTimeout(), the link is taken for dead at once, without waiting for
  /// the keep-alive. Zero or less: no bound. 10 s until set.
  [[nodiscard]] Seconds acknowledgementTimeout() const;
  /// Sets acknowledgementTimeout().
  void setAcknowledgementTimeout(Seconds timeout);
  /// When the connection of a session the server agreed to keep ends with an error, the stream
  /// resumes the session over a new connection (xmppStreamWillResume): at once, then after 1,
  /// 2 and 4 s between tries, each bounded by acknowledgementTimeout(). It logs in again as
  /// before (an anonymous login asks, in its trace, for the user whose session it resumes) and
  /// asks the server to resume instead of binding a resource; there is no new login for the
  /// host, no rejoin, and what either side had sent without an acknowledgement is sent again,
  /// once. Meanwhile the stream stays connected and authenticated, and stanzas sent go once it
  /// has resumed. When the server refuses (restarted, session expired), or resumptionTimeout()
  /// passes, did-disconnect follows with the error that ended the connection, and stanzas never
  /// written are reported as not sent. A server without stream management sees the stream as
  /// it would be without it. 60 s until set.
  [[nodiscard]] Seconds resumptionTimeout() const;
  /// Sets resumptionTimeout().
  void setResumptionTimeout(Seconds timeout);

  // --- State --------------------------------------------------------------------------------

  /// Where the stream is now (it may have moved on by the time the caller looks).
  [[nodiscard]] XMPPStreamState state() const;
  /// state() is XMPPStreamState::Disconnected.
  [[nodiscard]] bool isDisconnected() const { return state() == XMPPStreamState::Disconnected; }
  /// Connecting or negotiating: a connection is under way but not ready.
  [[nodiscard]] bool isConnecting() const;
  /// state() is XMPPStreamState::Connected.
  [[nodiscard]] bool isConnected() const { return state() == XMPPStreamState::Connected; }
  /// Logged in and bound to a resource (did-authenticate has come), until did-disconnect.
  [[nodiscard]] bool isAuthenticated() const;
  /// authenticate() was accepted and its outcome has not come yet.
  [[nodiscard]] bool isAuthenticating() const;
  /// TLS is on.
  [[nodiscard]] bool isSecure() const;
  /// The SASL mechanisms the server offered (known once connected).
  [[nodiscard]] std::vector<std::string> supportedAuthenticationMechanisms() const;
  /// The server offered SASL ANONYMOUS.
  [[nodiscard]] bool supportsAnonymousAuthentication() const;
  /// The server offered SASL PLAIN.
  [[nodiscard]] bool supportsPlainAuthentication() const;

  // --- Connecting -----------------------------------------------------------------------------

  /// Starts connecting to hostName():hostPort() as myJID(). Answers false with `error` (when
  /// given) if the stream is not disconnected or myJID() is not set; otherwise true, and the
  /// outcome arrives as did-connect or did-disconnect. `timeout` bounds the time until
  /// did-connect (XMPPStreamTimeoutNone: no bound of the caller's; negotiationTimeout() still
  /// applies).
  bool connectWithTimeout(std::chrono::duration<double> timeout, KQError* error = nullptr);

  /// Closes the stream after the elements already handed to sendElement have been written;
  /// did-disconnect follows with no error. Does nothing when disconnected.
  void disconnect();

  /// Authenticates with `authentication` (SASL). Answers false with `error` when the stream is
  /// not connected, is already authenticated or authenticating, or the server does not offer
  /// the mechanism; otherwise true, and did-authenticate or did-not-authenticate follows.
  bool authenticate(const std::shared_ptr<XMPPSASLAuthentication>& authentication,
                    KQError* error = nullptr);

  // --- Sending ----------------------------------------------------------------------------------

  /// Sends a copy of `element` (taken now, on the calling thread). Sent only while connected;
  /// otherwise did-fail-to-send-element reports it. Elements sent from one thread leave in the
  /// order they were sent; between threads there is no order.
  ///
  /// When the stream's queue is idle, the element is written on the calling thread before this
  /// returns, as the stream's queue would write it (delegates still hear of it on their
  /// queues); what the socket cannot take at once, and every element sent while the queue is
  /// busy, is written by the stream's own thread. The call never waits for the network.
  void sendElement(const XMPPElement& element);
  /// The same; a temporary element that no other handle shares is sent as it is, not copied.
  void sendElement(XMPPElement&& element);

  /// Sends the IQ `iq` (given an id when it has none) and calls `response` on the stream's queue
  /// with the matching result or error, or with nullopt when `timeout` passes first or the
  /// stream disconnects.
  void sendIQ(const XMPPIQ& iq, std::chrono::duration<double> timeout,
              std::function<void(const std::optional<XMPPIQ>&)> response);

  /// A new unique id for a stanza.
  static std::string generateUUID();

  // --- Delegates and modules ------------------------------------------------------------------

  /// Adds `delegate` (held weakly), to be called on `queue`.
  void addDelegate(const std::shared_ptr<XMPPStreamDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
  /// Removes `delegate`; calls already posted for it are dropped.
  void removeDelegate(const XMPPStreamDelegate* delegate);

  /// The active modules, in order of activation (read on the stream's queue, waited for).
  [[nodiscard]] std::vector<std::shared_ptr<XMPPModule>> registeredModules() const;

 private:
  // The stream's settings, state, delegates and modules, and the controller of its work on its
  // queue; private to XMPPStream.cpp.
  struct Impl;
  friend class XMPPModule;
  friend struct detail::XMPPQueues;
  // The stream's own queue (internal: reached through detail::XMPPQueues).
  [[nodiscard]] const std::shared_ptr<XMPPQueue>& streamQueue() const;
  XMPPStream();
  void registerModule(const std::shared_ptr<XMPPModule>& module);
  void unregisterModule(const XMPPModule* module);

  std::unique_ptr<Impl> impl_;
};

}  // namespace kq::xmpp
