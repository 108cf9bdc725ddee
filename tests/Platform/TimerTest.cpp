#include <KQVisitorCore/Platform/Timer.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::ManualClockScope;

// Once per interval on its queue; deadlines missed while nobody ran the queue give one tick,
// not a burst, and the next stays on the interval's grid.
TEST(TimerTest, RepeatingTimerTicksOncePerIntervalOnItsQueueSkippingMissedTicks) {
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
  clock->advance(11s);  // at 22.999 s: the deadlines of 12 s to 22 s have passed
  test::drainMainQueue();
  EXPECT_EQ(ticks, 6);
  clock->advance(1001ms);  // at 24 s: the next deadline on the 2 s grid
  test::drainMainQueue();
  EXPECT_EQ(ticks, 7);
  timer->invalidate();
}

// Invalidated from inside its own tick, by a task queued ahead of a tick that is already in
// the queue (one pump takes both), or from another thread while its tick is due, a timer ticks
// no more.
TEST(TimerTest, InvalidateStopsEveryLaterTickWhereverItIsCalled) {
  ManualClockScope clock;
  int selfStopped = 0;
  int stoppedQueued = 0;
  std::atomic<int> stoppedElsewhere = 0;
  auto self = Timer::scheduledTimer(DispatchQueue::main(), 1s, true, [&](Timer& timer) {
    if (++selfStopped == 2) {
      timer.invalidate();
      EXPECT_FALSE(timer.isValid());
    }
  });
  auto queued =
      Timer::scheduledTimer(DispatchQueue::main(), 1s, true, [&](Timer&) { ++stoppedQueued; });
  DispatchQueue::main()->async([&] { queued->invalidate(); });
  auto elsewhere =
      Timer::scheduledTimer(DispatchQueue::main(), 1s, true, [&](Timer&) { ++stoppedElsewhere; });
  clock->advance(1s);  // every tick is due, none has run
  std::thread([&] { elsewhere->invalidate(); }).join();
  for (int i = 0; i < 5; ++i) {
    test::drainMainQueue();
    clock->advance(1s);
  }
  test::drainMainQueue();
  EXPECT_EQ(selfStopped, 2);
  EXPECT_EQ(stoppedQueued, 0);
  EXPECT_EQ(stoppedElsewhere.load(), 0);
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

// A one-shot timer keeps itself alive until it fires, fires once, then releases its tick and
// what that captured; timers made and stopped during a tick are honoured.
TEST(TimerTest, OneShotTimersFireOnceAndHonourChangesMadeDuringATick) {
  ManualClockScope clock;
  std::vector<std::string> events;
  auto captured = std::make_shared<int>(0);
  std::weak_ptr<int> watch = captured;
  std::shared_ptr<Timer> victim = Timer::scheduledTimer(
      DispatchQueue::main(), 2s, false, [&](Timer&) { events.push_back("victim"); });
  std::shared_ptr<Timer> child;
  std::weak_ptr<Timer> parent =
      Timer::scheduledTimer(DispatchQueue::main(), 1s, false, [&, captured](Timer&) {
        events.push_back("parent");
        victim->invalidate();
        child = Timer::scheduledTimer(DispatchQueue::main(), 1s, false,
                                      [&](Timer&) { events.push_back("child"); });
      });
  captured.reset();
  EXPECT_FALSE(parent.expired()) << "a scheduled timer keeps itself alive";
  for (int i = 0; i < 3; ++i) {
    clock->advance(1s);
    test::drainMainQueue();
  }
  clock->advance(5s);
  test::drainMainQueue();
  EXPECT_EQ(events, (std::vector<std::string>{"parent", "child"}));
  EXPECT_TRUE(watch.expired()) << "the tick and what it captured are released after firing";
  EXPECT_TRUE(parent.expired());
}

}  // namespace
}  // namespace kq
