#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/TimerQueue.h>

#include <functional>
#include <memory>

namespace kq {

/// A one-shot or repeating timer whose ticks run on a queue (a DispatchQueue, or any other
/// TimerQueue such as an XMPP stream's), timed by Clock::shared().
///
/// A scheduled timer keeps itself alive until it is invalidated (or, for a one-shot timer, has
/// fired), as a run loop keeps its timers. A repeating timer keeps its rhythm: each deadline is
/// the previous one plus the interval, and deadlines missed while the queue was busy are
/// skipped, not fired in a burst.
class KQ_EXPORT Timer : public std::enable_shared_from_this<Timer> {
 public:
  /// An interval, measured on Clock::shared().
  using Duration = Clock::Duration;
  /// The timer's work, run on the timer's queue and given the timer that fired (which it may
  /// invalidate).
  using Tick = std::function<void(Timer&)>;

  /// Repeating intervals shorter than this are raised to it.
  static constexpr Duration kMinimumRepeatingInterval = std::chrono::microseconds(100);

  /// Schedules `tick` on `queue` after `interval`, and then every `interval` when `repeats`.
  /// `tick` runs on `queue`, never beside another tick of this timer.
  static std::shared_ptr<Timer> scheduledTimer(const std::shared_ptr<TimerQueue>& queue,
                                               Duration interval, bool repeats, Tick tick);

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer();

  /// Stops the timer: once this returns, no tick starts, also not one already queued. From
  /// another thread it waits for a tick in progress to finish; from inside a tick it returns at
  /// once and the running tick is the last. Releases the tick function. Idempotent.
  void invalidate();

  /// True until invalidate() is called, a one-shot timer has fired, or its queue was found
  /// released when scheduling the next tick.
  [[nodiscard]] bool isValid() const;
  /// The interval the timer was scheduled with (a repeating one's, after raising it to
  /// kMinimumRepeatingInterval; a negative one-shot interval reads as zero).
  [[nodiscard]] Duration timeInterval() const { return interval_; }

  /// Lets only Timer make timers with the public constructor below.
  struct Token {
   private:
    friend class Timer;
    Token() = default;
  };
  /// Use scheduledTimer(); the token keeps this constructor to it.
  Timer(Token, const std::shared_ptr<TimerQueue>& queue, Duration interval, bool repeats,
        Tick tick);

 private:
  // The queue, the tick and the schedule, under the timer's lock; defined in Timer.cpp.
  struct Impl;

  void fire();

  const Duration interval_;
  const bool repeats_;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace kq
