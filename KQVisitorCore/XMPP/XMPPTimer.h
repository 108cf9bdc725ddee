#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Export.h>

#include <atomic>
#include <functional>
#include <memory>

namespace kq {
class Timer;
}  // namespace kq

namespace kq::xmpp {

class XMPPQueue;

/// A one-shot or repeating timer whose ticks run on an XMPPQueue. Time is measured by
/// kq::Timer on Clock::shared(), so a ManualClock drives it in tests.
class KQ_EXPORT XMPPTimer {
 public:
  using Tick = std::function<void()>;

  /// Runs `tick` on `queue` after `interval` (and every `interval` when `repeats`).
  static std::shared_ptr<XMPPTimer> scheduledTimer(const std::shared_ptr<XMPPQueue>& queue,
                                                   Clock::Duration interval, bool repeats,
                                                   Tick tick);

  XMPPTimer(const XMPPTimer&) = delete;
  XMPPTimer& operator=(const XMPPTimer&) = delete;
  ~XMPPTimer();

  /// Stops the timer. Called on the timer's queue, no tick runs after it returns; from another
  /// thread, a tick already under way may finish. Idempotent.
  void invalidate();

 private:
  XMPPTimer() = default;
  std::shared_ptr<Timer> timer_;
  std::shared_ptr<std::atomic<bool>> valid_ = std::make_shared<std::atomic<bool>>(true);
};

}  // namespace kq::xmpp
