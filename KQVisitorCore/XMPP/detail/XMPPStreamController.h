#pragma once

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>
#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>
#include <KQVisitorCore/XMPP/detail/XMPPIQTracker.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamConnection.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamManagement.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamNegotiation.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamSettings.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

class XMPPQueue;
class XMPPSASLAuthentication;
class XMPPStream;

/// A stream's work on its queue: one session at a time, from connect() to its close, over one
/// connection at a time. The parts of a connection live and die with it (its bytes:
/// XMPPStreamConnection; the negotiation: XMPPStreamNegotiation); those of the session last
/// until it ends (the IQs waiting for answers and the keep-alive: XMPPIQTracker; stream
/// management: XMPPStreamManagement). It joins them, hands the stanzas that arrive to the
/// modules and then the delegates, and tells them of every event.
///
/// A session the server keeps for us outlives a connection that ends with an error: the
/// controller resumes it over new connections, quietly (the delegates hear only will-resume and
/// did-resume), until the server resumes it, refuses, or the resumption time-out passes.
/// Otherwise each session starts with new parts, so nothing of an earlier one reaches a later
/// one. Internal to the library. Used on the stream's queue only (or by a thread holding a turn
/// of it).
class XMPPStreamController final : public XMPPStreamConnection::Owner,
                                   public XMPPStreamNegotiation::Host,
                                   public XMPPIQTracker::Host,
                                   public XMPPStreamManagement::Host {
 public:
  /// The stream's modules, told of events before the delegates. XMPPModule's hooks are the
  /// stream's own to call, so the stream implements this.
  class Modules {
   public:
    virtual ~Modules() = default;
    virtual void didConnect() = 0;
    virtual void didAuthenticate() = 0;
    virtual void wasToldToDisconnect() = 0;
    virtual void didDisconnect(const std::optional<KQError>& error) = 0;
    /// Every module hears of `iq`; true when one of them handled it.
    virtual bool didReceiveIQ(const XMPPIQ& iq) = 0;
    virtual void didReceiveMessage(const XMPPMessage& message) = 0;
    virtual void didReceivePresence(const XMPPPresence& presence) = 0;
    virtual void willSendElement(XMPPElement& element) = 0;
    virtual void didSendElement(const XMPPElement& element) = 0;
  };

  /// The controller of `stream`, working on `queue` with the stream's `settings`, `delegates`
  /// and `modules`, which outlive it.
  XMPPStreamController(XMPPStream& stream, std::shared_ptr<XMPPQueue> queue,
                       Guarded<XMPPStreamSettings>& settings,
                       XMPPDelegateList<XMPPStreamDelegate>& delegates, Modules& modules);
  ~XMPPStreamController() override;
  XMPPStreamController(const XMPPStreamController&) = delete;
  XMPPStreamController& operator=(const XMPPStreamController&) = delete;

  // What the stream's public methods run on its queue.

  /// Starts a connection; `timeout` (when not negative) bounds the time until did-connect.
  void connect(std::chrono::duration<double> timeout);
  /// Ends the connection after what was sent; at once when there is no stream to end yet.
  void disconnect();
  /// Authenticates, or tells the delegates the stream could not (not ready).
  void authenticate(const std::shared_ptr<XMPPSASLAuthentication>& authentication);
  /// Sends `element` with the modules' hooks, or tells the delegates it could not be sent.
  void sendElement(XMPPElement element);
  /// Sends `iq` (whose id is `id`) and hands its answer to `response`; nullopt at once when the
  /// stream carries no stanzas.
  void sendIQ(const XMPPIQ& iq, const std::string& id, std::chrono::duration<double> timeout,
              XMPPIQTracker::Response response);

 private:
  std::shared_ptr<XMPPStream> self() const;
  void notify(std::function<void(XMPPStreamDelegate&, XMPPStream&)> call);
  std::shared_ptr<Timer> scheduleFor(const std::weak_ptr<XMPPStreamConnection>& current,
                                     Clock::Duration delay, std::function<void()> task);
  std::shared_ptr<Timer> scheduleForSession(Clock::Duration delay, std::function<void()> task);
  std::string openConnection(std::optional<XMPPStreamNegotiation::Resumption> resumption);
  void close(const std::optional<KQError>& error, bool mayResume = true);
  void end(const std::optional<KQError>& error);
  void suspend(const KQError& error);
  void attemptResumption();
  void giveUpResuming();
  void write(std::string_view text);
  void writeStanza(const XMPPElement& stanza);

  void dispatchIQ(const XMPPIQ& iq);
  void dispatchMessage(const XMPPMessage& message);
  void dispatchPresence(const XMPPPresence& presence);

  // XMPPStreamConnection::Owner
  [[nodiscard]] bool isCurrent(const XMPPStreamConnection& connection) const override;
  void connectionDidConnectSocket() override;
  void connectionDidReceive() override;
  void connectionDidReceiveElement(const XMPPElement& element) override;
  void connectionWillSecure() override;
  void connectionDidSecure() override;
  void connectionDidEnd(const std::optional<KQError>& error) override;

  // XMPPStreamNegotiation::Host, XMPPIQTracker::Host and XMPPStreamManagement::Host
  void send(std::string_view text) override;
  void sendPing(const XMPPIQ& ping) override;
  void sendNonza(std::string_view text) override;
  void acknowledgementDidTimeOut(const KQError& error) override;
  void negotiationDidResume(std::uint32_t handled) override;
  void negotiationDidNotResume(const KQError& error) override;
  void restartParser(bool afterChunk) override;
  void secureAfterChunk() override;
  void fail(const KQError& error) override;
  void connectDidTimeOut(const KQError& error) override;
  void negotiationDidConnect() override;
  void negotiationDidNotAuthenticate(const XMPPElement& failure) override;
  void negotiationDidAuthenticate() override;
  void keepAliveDidTimeOut(const KQError& error) override;

  XMPPStream& stream_;
  const std::shared_ptr<XMPPQueue> queue_;
  Guarded<XMPPStreamSettings>& settings_;
  XMPPDelegateList<XMPPStreamDelegate>& delegates_;
  Modules& modules_;

  // A session being resumed: from the cut to did-resume, or to its end.
  struct Resuming {
    KQError error;  // what ended its connection, reported if it cannot be resumed
    Clock::TimePoint deadline;
    int attempts = 0;
    std::shared_ptr<Timer> timer;  // the next attempt, or the bound on the one under way
  };

  std::shared_ptr<XMPPStreamConnection> connection_;  // null while disconnected
  // The current connection's, or the last one's until the next starts.
  std::optional<XMPPStreamNegotiation> negotiation_;
  // The current session's, or the last one's until the next starts.
  std::optional<XMPPIQTracker> iqs_;
  XMPPStreamManagement management_;
  std::optional<Resuming> resuming_;
  std::uint64_t session_ = 0;  // counts sessions: a timer of an earlier one does nothing
  std::shared_ptr<XMPPSASLAuthentication> authentication_;  // the last login's, to resume
  std::optional<XMPPTLSSettings> tlsSettings_;              // the delegates' last answer, to resume
  std::shared_ptr<asio::ssl::context> tlsContext_;          // built once, kept across connections
};

}  // namespace kq::xmpp
