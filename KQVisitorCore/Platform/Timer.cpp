#include <KQVisitorCore/Platform/Timer.h>

#include <algorithm>

namespace kq {

Timer::Timer(Token, const std::shared_ptr<TimerQueue>& queue, Duration interval, bool repeats,
             Tick tick)
    : queue_(queue),
      interval_(repeats ? std::max(interval, kMinimumRepeatingInterval)
                        : std::max(interval, Duration::zero())),
      repeats_(repeats),
      tick_(std::make_shared<Tick>(std::move(tick))) {}

Timer::~Timer() = default;

TimerQueue::~TimerQueue() = default;

std::shared_ptr<Timer> Timer::scheduledTimer(const std::shared_ptr<TimerQueue>& queue,
                                             Duration interval, bool repeats, Tick tick) {
  auto timer = std::make_shared<Timer>(Token{}, queue, interval, repeats, std::move(tick));
  std::scoped_lock lock(timer->mutex_);
  timer->scheduleLocked(Clock::shared()->now() + timer->interval_);
  return timer;
}

void Timer::scheduleLocked(Clock::TimePoint deadline) {
  const auto queue = queue_.lock();
  if (!queue) {
    valid_ = false;  // The queue is gone; nothing could ever run the tick.
    return;
  }
  deadline_ = deadline;
  // The queued task owns the timer, so a scheduled timer stays alive without its creator.
  pendingTask_ = queue->scheduleAt(deadline, [self = shared_from_this()] { self->fire(); });
}

void Timer::fire() {
  std::shared_ptr<Tick> tick;
  {
    std::scoped_lock lock(mutex_);
    pendingTask_ = 0;
    if (!valid_) {
      return;
    }
    firing_ = true;
    firingThread_ = std::this_thread::get_id();
    tick = tick_;  // A copy, so invalidate() inside the tick cannot destroy it while it runs.
  }
  (*tick)(*this);
  std::shared_ptr<Tick> released;
  {
    std::scoped_lock lock(mutex_);
    firing_ = false;
    if (valid_ && repeats_) {
      Clock::TimePoint next = deadline_ + interval_;
      const Clock::TimePoint now = Clock::shared()->now();
      if (next <= now) {
        next += ((now - next) / interval_ + 1) * interval_;
      }
      scheduleLocked(next);
    } else if (valid_) {
      valid_ = false;
      released = std::move(tick_);
    }
  }
  tickFinished_.notify_all();
  // `tick` and `released` are destroyed here, outside the lock.
}

void Timer::invalidate() {
  std::shared_ptr<Tick> released;
  TimerQueue::Task cancelled;
  {
    std::unique_lock lock(mutex_);
    if (valid_) {
      valid_ = false;
      released = std::move(tick_);
      if (pendingTask_ != 0) {
        if (const auto queue = queue_.lock()) {
          cancelled = queue->cancel(pendingTask_);
        }
        pendingTask_ = 0;
      }
    }
    if (firing_ && firingThread_ != std::this_thread::get_id()) {
      tickFinished_.wait(lock, [this] { return !firing_; });
    }
  }
  // The cancelled task may hold the last reference to this timer: release it last.
  released.reset();
  cancelled = nullptr;
}

bool Timer::isValid() const {
  std::scoped_lock lock(mutex_);
  return valid_;
}

}  // namespace kq
