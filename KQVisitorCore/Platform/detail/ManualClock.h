#pragma once

#include <KQVisitorCore/Platform/Clock.h>

#include <atomic>

namespace kq {

/// A clock that moves only when told to. Queues waiting for a deadline on it are woken by
/// advance(), so that timers due at the new time run in deadline order; a queue driven by the
/// host (the main queue) runs them at its next pump().
class KQ_EXPORT ManualClock final : public Clock {
 public:
  /// Starts at the system's monotonic time of creation.
  ManualClock();

  [[nodiscard]] TimePoint now() const override;
  void waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                 TimePoint deadline, TimePoint realLimit) override;

  /// Moves the time forward by `by` (negative values are ignored) and wakes every queue.
  void advance(Duration by);

 private:
  std::atomic<Duration::rep> ticks_;
};

}  // namespace kq
