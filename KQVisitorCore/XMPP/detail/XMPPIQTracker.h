#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamSettings.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamTimers.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

/// The IQs one connection waits on an answer for, each with its time-out, and the liveness of
/// the connection once authenticated: after keepAliveInterval without anything received it
/// pings the server, and when no answer comes within keepAliveTimeout it tells its Host the
/// connection is dead. Internal to the library.
///
/// One per session: a session that resumes over a new connection keeps its IQs waiting. Used on
/// the stream's queue only.
class XMPPIQTracker {
 public:
  /// The answer to a tracked IQ: its result or error, or nullopt after the time-out or when the
  /// connection closes.
  using Response = std::function<void(const std::optional<XMPPIQ>&)>;

  /// What the keep-alive needs of the stream. Called on the stream's queue.
  class Host {
   public:
    virtual ~Host() = default;
    /// Sends the stanza `ping` to the server.
    virtual void sendPing(const XMPPIQ& ping) = 0;
    /// The server did not answer a ping in time: the connection ends with `error`.
    virtual void keepAliveDidTimeOut(const KQError& error) = 0;
  };

  /// A tracker for a connection to `domain` (the pings' address), reading the keep-alive
  /// settings from `settings` when it needs them, with time-outs set through `schedule`.
  XMPPIQTracker(Host& host, const Guarded<XMPPStreamSettings>& settings,
                XMPPStreamSchedule schedule, std::string domain);
  /// Invalidates its timers; answers nothing.
  ~XMPPIQTracker();
  XMPPIQTracker(const XMPPIQTracker&) = delete;
  XMPPIQTracker& operator=(const XMPPIQTracker&) = delete;

  /// Waits for the answer to the IQ `id`: `response` gets it, or nullopt once `timeout` has
  /// passed (a negative one never passes). An IQ tracked under an id already waiting takes its
  /// place; the earlier one's time-out still counts for the id.
  void track(const std::string& id, std::chrono::duration<double> timeout, Response response);
  /// Hands a result or error IQ to the response waiting for its id; false when none does.
  bool answer(const XMPPIQ& iq);

  /// The stream is authenticated (or resumed): the keep-alive starts counting from now.
  void startKeepAlive();
  /// The connection is gone while its session is resumed: no liveness checks until then.
  void stopKeepAlive() { invalidateTimer(keepAliveTimer_); }
  /// Something arrived from the server.
  void didReceive();

  /// The connection is closing: stops the keep-alive and answers every IQ still waiting with
  /// nullopt, in the order of their ids.
  void close();

 private:
  struct Pending {
    Response response;
    std::shared_ptr<Timer> timer;
  };

  void scheduleKeepAlive(Clock::Duration delay);
  void checkKeepAlive();

  Host& host_;
  const Guarded<XMPPStreamSettings>& settings_;
  const XMPPStreamSchedule schedule_;
  const std::string domain_;

  std::map<std::string, Pending> pending_;
  std::shared_ptr<Timer> keepAliveTimer_;  // once authenticated: the next liveness check
  Clock::TimePoint lastReceived_;
  bool closed_ = false;
};

}  // namespace kq::xmpp
