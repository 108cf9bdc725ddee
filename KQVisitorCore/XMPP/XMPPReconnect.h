#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace kq {
class Timer;
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

template <class Delegate>
class XMPPDelegateList;

class XMPPReconnectDelegate;

/// Reconnects a stream that was lost by accident.
///
/// A loss is an accident when the stream had authenticated and was not told to disconnect.
/// After one, the module waits reconnectDelay() and tries to connect, then tries again every
/// reconnectTimerInterval() while the stream is disconnected, until a connection succeeds, the
/// stream is told to disconnect, stop() is called or the module is deactivated. Each attempt is
/// first put to the delegates (xmppReconnectShouldAttemptAutoReconnect). Timing is kq::Timer
/// time, so a ManualClock drives it.
class KQ_EXPORT XMPPReconnect : public XMPPModule {
 public:
  /// A duration in seconds.
  using Seconds = std::chrono::duration<double>;
  /// The default of reconnectDelay().
  static constexpr Seconds kDefaultReconnectDelay{2.0};
  /// The default of reconnectTimerInterval().
  static constexpr Seconds kDefaultReconnectTimerInterval{20.0};

  /// An inactive module; activate() it on a stream. `dispatchQueue` is handed to XMPPModule;
  /// the attempts, their timers and the delegates' answers are handled on the stream's queue.
  explicit XMPPReconnect(std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPReconnect() override;

  /// Whether accidental losses are followed by attempts (true until set).
  [[nodiscard]] bool autoReconnect() const;
  /// Sets autoReconnect(); read at the next loss. Thread-safe.
  void setAutoReconnect(bool autoReconnect);
  /// The wait before the first attempt after a loss; zero or less attempts at once.
  [[nodiscard]] Seconds reconnectDelay() const;
  /// Sets reconnectDelay(); read when attempts start. Thread-safe.
  void setReconnectDelay(Seconds delay);
  /// The interval of further attempts; zero or less makes no further attempts.
  [[nodiscard]] Seconds reconnectTimerInterval() const;
  /// Sets reconnectTimerInterval(); read when attempts start. Thread-safe.
  void setReconnectTimerInterval(Seconds interval);

  /// When the stream is disconnected and no attempts are running: tries to connect now and
  /// every reconnectTimerInterval() after that, as after an accident. Does nothing otherwise,
  /// nor when the module is inactive. Posted to the stream's queue: returns at once.
  void manualStart();
  /// Stops the attempts until the next accident or manualStart(). Posted to the stream's queue:
  /// returns at once.
  void stop();
  /// True while attempts are scheduled.
  [[nodiscard]] bool isReconnecting() const;

  /// Adds `delegate`, held weakly and called on `queue`.
  void addDelegate(const std::shared_ptr<XMPPReconnectDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
  /// Removes `delegate`; calls already posted for it are dropped.
  void removeDelegate(const XMPPReconnectDelegate* delegate);

 protected:
  void willDeactivate() override;
  void streamDidConnect() override;
  void streamDidAuthenticate() override;
  void streamWasToldToDisconnect() override;
  void streamDidDisconnect(const std::optional<KQError>& error) override;

 private:
  void startAttempts(Seconds firstDelay);
  void stopAttempts();
  void attempt();
  void runOnStreamQueue(std::function<void()> task);

  // The settings, under their own lock; defined in XMPPReconnect.cpp.
  struct Settings;
  const std::unique_ptr<Guarded<Settings>> settings_;
  std::atomic<bool> reconnecting_{false};

  // On the stream's queue.
  bool shouldReconnect_ = false;
  std::shared_ptr<Timer> firstAttempt_;
  std::shared_ptr<Timer> timer_;

  std::unique_ptr<XMPPDelegateList<XMPPReconnectDelegate>> delegates_;
};

}  // namespace kq::xmpp
