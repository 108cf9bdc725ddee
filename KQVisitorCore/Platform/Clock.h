#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace kq {

/// The time base of every queue deadline and timer interval in the library. The system's
/// monotonic clock is the default; tests install a ManualClock and move time themselves.
class KQ_EXPORT Clock {
 public:
  /// A length of time on this clock.
  using Duration = std::chrono::steady_clock::duration;
  /// A moment on this clock.
  using TimePoint = std::chrono::steady_clock::time_point;

  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock();

  /// The clock's current time. Thread-safe.
  [[nodiscard]] virtual TimePoint now() const = 0;

  /// Blocks on `condition` (with `lock` held on entry, as for a condition variable) until it is
  /// notified, this clock reaches `deadline`, or the real monotonic time reaches `realLimit`.
  /// Spurious returns are allowed; callers re-check their state.
  virtual void waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                         TimePoint deadline, TimePoint realLimit = TimePoint::max()) = 0;

  /// The clock in use, process-wide. Never null.
  static std::shared_ptr<Clock> shared();

  /// Installs `clock` (null restores the system clock) and wakes every queue so that waits are
  /// measured on the new clock. Install a clock before scheduling the timers that should use it.
  static void setShared(std::shared_ptr<Clock> clock);

  /// Tells every queue waiting for a deadline, and every time observer, that the time moved or
  /// the clock was replaced. Clocks whose time jumps call it.
  static void notifyTimeChanged();

  /// Registers `observer`, called by notifyTimeChanged() on the thread that changed the time
  /// (never under a lock of the clock's), for event loops that keep timers of their own. Answers
  /// a key for removeTimeObserver(). An observer may still run once while it is being removed:
  /// it keeps what it uses alive by itself.
  static std::uint64_t addTimeObserver(std::function<void()> observer);
  /// Unregisters the observer that addTimeObserver() answered `key` for; an unknown key does
  /// nothing. The observer is released on the calling thread, outside the clock's lock.
  static void removeTimeObserver(std::uint64_t key);
};

}  // namespace kq
