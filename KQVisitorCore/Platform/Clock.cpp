#include <KQVisitorCore/Platform/Clock.h>

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Platform/detail/ManualClock.h>

#include <algorithm>
#include <map>
#include <vector>

namespace kq {
namespace {

class SystemClock final : public Clock {
 public:
  [[nodiscard]] TimePoint now() const override { return std::chrono::steady_clock::now(); }

  void waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                 TimePoint deadline, TimePoint realLimit) override {
    const TimePoint until = std::min(deadline, realLimit);
    if (until == TimePoint::max()) {
      condition.wait(lock);
    } else {
      condition.wait_until(lock, until);
    }
  }
};

struct SharedClock {
  std::shared_ptr<Clock> clock = std::make_shared<SystemClock>();
};

// Never destroyed: queue threads (timers of a stream, a singleton's queues) may still read the
// clock while the process exits.
Guarded<SharedClock>& sharedClock() {
  static auto* clock = new Guarded<SharedClock>;
  return *clock;
}

struct TimeObservers {
  std::uint64_t nextKey = 1;
  std::map<std::uint64_t, std::function<void()>> byKey;
};

Guarded<TimeObservers>& timeObservers() {
  static auto* observers = new Guarded<TimeObservers>;  // never destroyed, like the clock
  return *observers;
}

}  // namespace

Clock::~Clock() = default;

void Clock::notifyTimeChanged() {
  DispatchQueue::wakeAll();
  std::vector<std::function<void()>> observers;
  timeObservers().with([&](const TimeObservers& registry) {
    for (const auto& [key, observer] : registry.byKey) {
      observers.push_back(observer);
    }
  });
  for (const auto& observer : observers) {
    observer();
  }
}

std::uint64_t Clock::addTimeObserver(std::function<void()> observer) {
  return timeObservers().with([&](TimeObservers& registry) {
    const std::uint64_t key = registry.nextKey++;
    registry.byKey.emplace(key, std::move(observer));
    return key;
  });
}

void Clock::removeTimeObserver(std::uint64_t key) {
  std::function<void()> removed;
  timeObservers().with([&](TimeObservers& registry) {
    const auto found = registry.byKey.find(key);
    if (found != registry.byKey.end()) {
      removed = std::move(found->second);
      registry.byKey.erase(found);
    }
  });
  // `removed` is destroyed here, outside the lock.
}

std::shared_ptr<Clock> Clock::shared() {
  return sharedClock().get(&SharedClock::clock);
}

void Clock::setShared(std::shared_ptr<Clock> clock) {
  // The clock replaced is released outside the lock.
  sharedClock().set(
      &SharedClock::clock,
      clock ? std::move(clock) : std::shared_ptr<Clock>(std::make_shared<SystemClock>()));
  notifyTimeChanged();
}

ManualClock::ManualClock() : ticks_(std::chrono::steady_clock::now().time_since_epoch().count()) {}

Clock::TimePoint ManualClock::now() const {
  return TimePoint(Duration(ticks_.load()));
}

void ManualClock::waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                            TimePoint deadline, TimePoint realLimit) {
  // Manual time only moves in advance(), which wakes every queue; real time bounds the wait.
  if (now() >= deadline) {
    return;
  }
  if (realLimit == TimePoint::max()) {
    condition.wait(lock);
  } else {
    condition.wait_until(lock, realLimit);
  }
}

void ManualClock::advance(Duration by) {
  if (by <= Duration::zero()) {
    return;
  }
  ticks_.fetch_add(by.count());
  notifyTimeChanged();
}

}  // namespace kq
