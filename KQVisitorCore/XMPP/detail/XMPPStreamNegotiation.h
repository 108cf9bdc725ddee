#pragma once

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamSettings.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamTimers.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

class XMPPSASLAuthentication;

/// The client's side of negotiating one connection's XML stream: opening it, STARTTLS as the
/// policy says, SASL, resource binding and the session, each bounded by the negotiation
/// time-out. It decides on what the server sends and on the host's authenticate(), keeps the
/// stream's public state (XMPPStreamSettings) up to date as it goes, and leaves the bytes and
/// the telling of delegates and modules to its Host. Internal to the library.
///
/// One per connection, used on the stream's queue only.
class XMPPStreamNegotiation {
 public:
  /// Where the negotiation is; a phase before Ready is still connecting.
  enum class Phase {
    Resolving,         // no XML stream yet: resolving, connecting
    Opening,           // stream header sent, waiting for features
    StartingTLS,       // <starttls/> sent, waiting for <proceed/>
    Securing,          // TLS handshake (or asking the delegates for settings)
    Ready,             // negotiated, not authenticated
    Authenticating,    // SASL exchange
    OpeningAfterAuth,  // stream restarted after SASL success, waiting for features
    Binding,
    StartingSession,
    Resuming,  // <resume/> sent instead of binding, waiting for <resumed/>
    Authenticated,
  };

  /// What the negotiation needs of the stream. Called on the stream's queue.
  class Host {
   public:
    virtual ~Host() = default;
    /// Writes `text` to the server.
    virtual void send(std::string_view text) = 0;
    /// Reads the server's next XML stream with a new parser: now, or (`afterChunk`) once the
    /// chunk being parsed is done.
    virtual void restartParser(bool afterChunk) = 0;
    /// Starts TLS once the chunk being parsed is done (the server agreed to it).
    virtual void secureAfterChunk() = 0;
    /// Ends the connection with `error`.
    virtual void fail(const KQError& error) = 0;
    /// The stream was not connected in time: the delegates hear of it, then the connection
    /// ends with `error`.
    virtual void connectDidTimeOut(const KQError& error) = 0;
    /// Outcomes, told after the public state has changed.
    virtual void negotiationDidConnect() = 0;
    virtual void negotiationDidNotAuthenticate(const XMPPElement& failure) = 0;
    virtual void negotiationDidAuthenticate() = 0;
    /// The server resumed the session, having handled `handled` of our stanzas.
    virtual void negotiationDidResume(std::uint32_t handled) = 0;
    /// The server would not resume the session: `error` says why.
    virtual void negotiationDidNotResume(const KQError& error) = 0;
  };

  /// What resuming a session needs: its id and the request that resumes it.
  struct Resumption {
    std::string id;
    std::string request;
  };

  /// A negotiation of a stream to `domain`, reading its settings from and keeping its state in
  /// `settings`, with time-outs set through `schedule`.
  XMPPStreamNegotiation(Host& host, Guarded<XMPPStreamSettings>& settings,
                        XMPPStreamSchedule schedule, std::string domain);
  /// A negotiation that resumes a session after SASL instead of binding a resource. It leaves
  /// the stream's public state as it is: the session it resumes is still connected for the host.
  XMPPStreamNegotiation(Host& host, Guarded<XMPPStreamSettings>& settings,
                        XMPPStreamSchedule schedule, std::string domain, Resumption resumption);
  /// Invalidates its timers.
  ~XMPPStreamNegotiation();
  XMPPStreamNegotiation(const XMPPStreamNegotiation&) = delete;
  XMPPStreamNegotiation& operator=(const XMPPStreamNegotiation&) = delete;

  /// The connection is starting: bounds it by the negotiation time-out and, when `timeout` is
  /// not negative, by `timeout` up to did-connect.
  void start(std::chrono::duration<double> timeout);
  /// Stops the time-outs; the connection is closing.
  void stop();

  /// Opens a new XML stream: at the start, after TLS, and after SASL success.
  void openStream();
  /// Handles `element` from the server; false when it is a stanza for the stream to hand on
  /// (only once negotiated). Not for <stream:error>, which ends any stream.
  bool receive(const XMPPElement& element);
  /// Starts SASL with `authentication`; only when canAuthenticate().
  void authenticate(const std::shared_ptr<XMPPSASLAuthentication>& authentication);

  [[nodiscard]] Phase phase() const { return phase_; }
  /// Whether the server offered stream management once authenticated.
  [[nodiscard]] bool offersStreamManagement() const { return streamManagementOffered_; }
  [[nodiscard]] bool canAuthenticate() const { return phase_ == Phase::Ready; }
  /// Negotiated: stanzas may flow (before authentication too).
  [[nodiscard]] bool carriesStanzas() const {
    return phase_ == Phase::Ready || phase_ == Phase::Authenticated;
  }

 private:
  void armNegotiationTimer();
  void handleFeatures(const XMPPElement& features);
  void becomeReady(const XMPPElement& features);
  void handleSASL(const XMPPElement& element);
  void handleBindResult(const XMPPIQ& iq);
  void finishAuthentication();
  void resume(const XMPPElement& features);
  void handleResumption(const XMPPElement& element);
  // Changes the stream's public state, unless this negotiation resumes a session.
  template <class Change>
  void updateSettings(Change change) {
    if (!resumption_) {
      settings_.with(change);
    }
  }

  Host& host_;
  Guarded<XMPPStreamSettings>& settings_;
  const XMPPStreamSchedule schedule_;
  const std::string domain_;

  Phase phase_ = Phase::Resolving;
  bool sessionRequired_ = false;
  std::string bindID_;
  std::string sessionID_;
  bool streamManagementOffered_ = false;
  std::optional<Resumption> resumption_;
  std::shared_ptr<XMPPSASLAuthentication> authentication_;
  std::shared_ptr<Timer> negotiationTimer_;  // while waiting for the server to negotiate
  std::shared_ptr<Timer> connectTimer_;      // the caller's bound on reaching did-connect
};

}  // namespace kq::xmpp
