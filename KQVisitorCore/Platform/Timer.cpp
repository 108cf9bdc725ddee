#include <KQVisitorCore/Platform/Timer.h>

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <algorithm>
#include <condition_variable>
#include <thread>

namespace kq {

struct Timer::Impl {
  Impl(const std::shared_ptr<TimerQueue>& timerQueue, Tick function)
      : queue(timerQueue), tick(std::make_shared<Tick>(std::move(function))) {}

  // Has the queue fire `timer` at `at`; marks the timer invalid when the queue is gone.
  void schedule(const std::shared_ptr<Timer>& timer, Clock::TimePoint at) KQ_REQUIRES(mutex);

  const std::weak_ptr<TimerQueue> queue;
  Mutex mutex;
  std::condition_variable tickFinished;
  std::shared_ptr<Tick> tick KQ_GUARDED_BY(mutex);
  bool valid KQ_GUARDED_BY(mutex) = true;
  bool firing KQ_GUARDED_BY(mutex) = false;
  std::thread::id firingThread KQ_GUARDED_BY(mutex);
  TimerQueue::TaskId pendingTask KQ_GUARDED_BY(mutex) = 0;
  Clock::TimePoint deadline KQ_GUARDED_BY(mutex);
};

Timer::Timer(Token, const std::shared_ptr<TimerQueue>& queue, Duration interval, bool repeats,
             Tick tick)
    : interval_(repeats ? std::max(interval, kMinimumRepeatingInterval)
                        : std::max(interval, Duration::zero())),
      repeats_(repeats),
      impl_(std::make_unique<Impl>(queue, std::move(tick))) {}

Timer::~Timer() = default;

TimerQueue::~TimerQueue() = default;

std::shared_ptr<Timer> Timer::scheduledTimer(const std::shared_ptr<TimerQueue>& queue,
                                             Duration interval, bool repeats, Tick tick) {
  auto timer = std::make_shared<Timer>(Token{}, queue, interval, repeats, std::move(tick));
  Impl& impl = *timer->impl_;
  MutexLock lock(impl.mutex);
  impl.schedule(timer, Clock::shared()->now() + timer->interval_);
  return timer;
}

void Timer::Impl::schedule(const std::shared_ptr<Timer>& timer, Clock::TimePoint at) {
  const auto target = queue.lock();
  if (!target) {
    valid = false;  // The queue is gone; nothing could ever run the tick.
    return;
  }
  deadline = at;
  // The queued task owns the timer, so a scheduled timer stays alive without its creator.
  pendingTask = target->scheduleAt(at, [self = timer] { self->fire(); });
}

void Timer::fire() {
  Impl& impl = *impl_;
  std::shared_ptr<Tick> tick;
  {
    MutexLock lock(impl.mutex);
    impl.pendingTask = 0;
    if (!impl.valid) {
      return;
    }
    impl.firing = true;
    impl.firingThread = std::this_thread::get_id();
    tick = impl.tick;  // A copy, so invalidate() inside the tick cannot destroy it while it runs.
  }
  (*tick)(*this);
  std::shared_ptr<Tick> released;
  {
    MutexLock lock(impl.mutex);
    impl.firing = false;
    if (impl.valid && repeats_) {
      Clock::TimePoint next = impl.deadline + interval_;
      const Clock::TimePoint now = Clock::shared()->now();
      if (next <= now) {
        next += ((now - next) / interval_ + 1) * interval_;
      }
      impl.schedule(shared_from_this(), next);
    } else if (impl.valid) {
      impl.valid = false;
      released = std::move(impl.tick);
    }
  }
  impl.tickFinished.notify_all();
  // `tick` and `released` are destroyed here, outside the lock.
}

void Timer::invalidate() {
  Impl& impl = *impl_;
  std::shared_ptr<Tick> released;
  TimerQueue::Task cancelled;
  {
    MutexLock lock(impl.mutex);
    if (impl.valid) {
      impl.valid = false;
      released = std::move(impl.tick);
      if (impl.pendingTask != 0) {
        if (const auto queue = impl.queue.lock()) {
          cancelled = queue->cancel(impl.pendingTask);
        }
        impl.pendingTask = 0;
      }
    }
    if (impl.firing && impl.firingThread != std::this_thread::get_id()) {
      while (impl.firing) {
        lock.wait(impl.tickFinished);
      }
    }
  }
  // The cancelled task may hold the last reference to this timer: release it last.
  released.reset();
  cancelled = nullptr;
}

bool Timer::isValid() const {
  MutexLock lock(impl_->mutex);
  return impl_->valid;
}

}  // namespace kq
