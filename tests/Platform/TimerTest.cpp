#include <KQVisitorCore/Platform/Timer.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <thread>
#include <vector>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::ManualClockScope;

TEST(TimerTest, RepeatingTimerTicksOncePerIntervalOnItsQueue) {
  ManualClockScope clock;
  int ticks = 0;
  bool onMain = true;
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), 2s, true, [&](Timer&) {
    ++ticks;
    onMain = onMain && DispatchQueue::main()->isCurrent();
  });
  test::drainMainQueue();
  EXPECT_EQ(ticks, 0);
  clock->advance(1999ms);
  test::drainMainQueue();
  EXPECT_EQ(ticks, 0);
  for (int expected = 1; expected <= 5; ++expected) {
    clock->advance(2s);
    test::drainMainQueue();
    EXPECT_EQ(ticks, expected);
  }
  EXPECT_TRUE(onMain);
  timer->invalidate();
}

TEST(TimerTest, RepeatingTimerSkipsMissedTicksInsteadOfBursting) {
  ManualClockScope clock;
  int ticks = 0;
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), 2s, true, [&](Timer&) { ++ticks; });
  clock->advance(11s);  // five deadlines passed while nobody ran the queue
  test::drainMainQueue();
  EXPECT_EQ(ticks, 1);
  clock->advance(1s);  // next deadline stays on the 2 s grid: 12 s
  test::drainMainQueue();
  EXPECT_EQ(ticks, 2);
  timer->invalidate();
}

TEST(TimerTest, InvalidateFromInsideATickMakesItTheLast) {
  ManualClockScope clock;
  int ticks = 0;
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), 1s, true, [&](Timer& self) {
    if (++ticks == 2) {
      self.invalidate();
      EXPECT_FALSE(self.isValid());
    }
  });
  for (int i = 0; i < 5; ++i) {
    clock->advance(1s);
    test::drainMainQueue();
  }
  EXPECT_EQ(ticks, 2);
}

TEST(TimerTest, InvalidateStopsATickThatIsAlreadyQueued) {
  ManualClockScope clock;
  int ticks = 0;
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), 1s, true, [&](Timer&) { ++ticks; });
  // The task is queued before the tick becomes due, so the pump takes both in one pass: the
  // tick is already in the queue, behind the task, when the task invalidates the timer.
  DispatchQueue::main()->async([&] { timer->invalidate(); });
  clock->advance(1s);
  test::drainMainQueue();
  clock->advance(5s);
  test::drainMainQueue();
  EXPECT_EQ(ticks, 0);
}

TEST(TimerTest, InvalidateFromAnotherThreadStopsADueTick) {
  ManualClockScope clock;
  auto queue = DispatchQueue::create("kq.test.timer");
  std::atomic<int> ticks = 0;
  auto timer = Timer::scheduledTimer(queue, 1s, true, [&](Timer&) { ++ticks; });
  std::promise<void> busy;
  std::promise<void> release;
  queue->async([&] {
    busy.set_value();
    release.get_future().wait();
  });
  busy.get_future().wait();
  clock->advance(1s);  // due while the queue is busy
  timer->invalidate();
  release.set_value();
  queue->sync([] {});
  clock->advance(5s);
  queue->sync([] {});
  EXPECT_EQ(ticks.load(), 0);
}

TEST(TimerTest, InvalidateFromAnotherThreadWaitsForATickInProgress) {
  auto queue = DispatchQueue::create("kq.test.timer-wait");
  std::promise<void> started;
  std::promise<void> release;
  auto released = release.get_future().share();
  std::atomic<bool> finished = false;
  auto timer = Timer::scheduledTimer(queue, 0s, false, [&](Timer&) {
    started.set_value();
    released.wait();
    finished = true;
  });
  started.get_future().wait();
  std::atomic<bool> finishedWhenInvalidateReturned = false;
  std::thread invalidator([&] {
    timer->invalidate();
    finishedWhenInvalidateReturned = finished.load();
  });
  release.set_value();
  invalidator.join();
  EXPECT_TRUE(finishedWhenInvalidateReturned);
}

TEST(TimerTest, ManyTimersFireInDeadlineOrder) {
  ManualClockScope clock;
  std::mt19937 random(42);
  std::uniform_int_distribution<int> milliseconds(1, 5000);
  std::vector<std::pair<int, int>> expected;  // (deadline, index)
  std::vector<int> fired;
  std::vector<std::shared_ptr<Timer>> timers;
  for (int i = 0; i < 200; ++i) {
    const int deadline = milliseconds(random);
    expected.emplace_back(deadline, i);
    timers.push_back(Timer::scheduledTimer(DispatchQueue::main(),
                                           std::chrono::milliseconds(deadline), false,
                                           [&fired, i](Timer&) { fired.push_back(i); }));
  }
  std::stable_sort(expected.begin(), expected.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  clock->advance(5s);
  test::drainMainQueue();
  ASSERT_EQ(fired.size(), expected.size());
  for (size_t i = 0; i < fired.size(); ++i) {
    EXPECT_EQ(fired[i], expected[i].second) << "position " << i;
  }
}

TEST(TimerTest, TimersCreatedAndStoppedDuringATickAreHonoured) {
  ManualClockScope clock;
  std::vector<std::string> events;
  std::shared_ptr<Timer> victim = Timer::scheduledTimer(
      DispatchQueue::main(), 2s, false, [&](Timer&) { events.push_back("victim"); });
  std::shared_ptr<Timer> child;
  auto parent = Timer::scheduledTimer(DispatchQueue::main(), 1s, false, [&](Timer&) {
    events.push_back("parent");
    victim->invalidate();
    child = Timer::scheduledTimer(DispatchQueue::main(), 1s, false,
                                  [&](Timer&) { events.push_back("child"); });
  });
  clock->advance(1s);
  test::drainMainQueue();
  clock->advance(1s);
  test::drainMainQueue();
  EXPECT_EQ(events, (std::vector<std::string>{"parent", "child"}));
}

TEST(TimerTest, AOneShotTimerFiresOnceAndReleasesItsTick) {
  ManualClockScope clock;
  int fires = 0;
  auto captured = std::make_shared<int>(0);
  std::weak_ptr<int> watch = captured;
  std::weak_ptr<Timer> timer = Timer::scheduledTimer(DispatchQueue::main(), 1s, false,
                                                     [captured, &fires](Timer&) { ++fires; });
  captured.reset();
  EXPECT_FALSE(timer.expired()) << "a scheduled timer keeps itself alive";
  clock->advance(1s);
  test::drainMainQueue();
  clock->advance(5s);
  test::drainMainQueue();
  EXPECT_EQ(fires, 1);
  EXPECT_TRUE(watch.expired()) << "the tick and what it captured are released after firing";
  EXPECT_TRUE(timer.expired());
}

}  // namespace
}  // namespace kq
