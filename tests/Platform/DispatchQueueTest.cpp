#include <KQVisitorCore/Platform/DispatchQueue.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::ManualClockScope;

// In order, one at a time on one thread of the queue's own; sync() runs on the queue, and
// inline when called from it (else it would deadlock).
TEST(DispatchQueueTest, SerialQueueRunsTasksInOrderOnItsOwnThread) {
  auto queue = DispatchQueue::create("kq.test.serial");
  std::vector<int> order;  // written on the queue only, read after a sync with it
  std::vector<std::thread::id> threads;
  bool onQueue = true;
  for (int i = 0; i < 100; ++i) {
    queue->async([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
      onQueue = onQueue && queue->isCurrent() && !DispatchQueue::main()->isCurrent();
    });
  }
  bool nestedRan = false;
  queue->sync([&] {
    onQueue = onQueue && queue->isCurrent();
    queue->sync([&] { nestedRan = true; });
  });
  EXPECT_TRUE(nestedRan);
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[i], i);
    EXPECT_EQ(threads[i], threads[0]);
  }
  EXPECT_TRUE(onQueue);
  EXPECT_NE(threads[0], std::this_thread::get_id());
  EXPECT_FALSE(queue->isCurrent());
}

// Main-queue tasks run on the pumping thread, never inside async(); one pump runs only what
// was there when it began, so a task that resubmits itself cannot hold it.
TEST(DispatchQueueTest, MainQueueRunsOnThePumpingThreadOnePassAtATime) {
  std::function<void()> resubmit;
  int runs = 0;
  std::thread::id where;
  resubmit = [&] {
    where = std::this_thread::get_id();
    if (++runs < 1000) {
      DispatchQueue::main()->async(resubmit);
    }
  };
  DispatchQueue::main()->async(resubmit);
  EXPECT_EQ(runs, 0) << "a task must not run inside the call that submits it";
  EXPECT_EQ(DispatchQueue::main()->pump(), 1U);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(where, std::this_thread::get_id());
  EXPECT_TRUE(DispatchQueue::main()->isCurrent());
  EXPECT_EQ(DispatchQueue::main()->pump(), 1U);
  EXPECT_EQ(runs, 2);
  test::drainMainQueue();
  EXPECT_EQ(runs, 1000);
}

TEST(DispatchQueueTest, RunReturnsAfterStopFromATaskOrAnotherThread) {
  std::vector<int> order;
  DispatchQueue::main()->async([&] { order.push_back(1); });
  DispatchQueue::main()->async([&] {
    order.push_back(2);
    DispatchQueue::main()->stop();
  });
  DispatchQueue::main()->async([&] { order.push_back(3); });
  DispatchQueue::main()->run();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  test::drainMainQueue();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));

  // From another thread, once run() has started (which the task proves): with nothing left to
  // run, run() returns only because of the stop.
  std::atomic<bool> stopCalled{false};
  std::thread stopper([&] {
    std::promise<void> running;
    DispatchQueue::main()->async([&] { running.set_value(); });
    running.get_future().wait();
    stopCalled = true;
    DispatchQueue::main()->stop();
  });
  DispatchQueue::main()->run();
  EXPECT_TRUE(stopCalled.load());
  stopper.join();
  EXPECT_EQ(DispatchQueue::main()->pump(), 0U);
}

TEST(DispatchQueueTest, DelayedTasksRunInDeadlineOrderUnderAManualClock) {
  ManualClockScope clock;
  std::vector<int> order;
  const int delays[] = {5, 1, 4, 1, 3, 2, 9, 0};
  for (int i = 0; i < 8; ++i) {
    DispatchQueue::main()->asyncAfter(std::chrono::seconds(delays[i]),
                                      [&order, i] { order.push_back(i); });
  }
  test::drainMainQueue();
  EXPECT_EQ(order, (std::vector<int>{7})) << "only the task with no delay is due";
  clock->advance(1s);
  test::drainMainQueue();
  EXPECT_EQ(order, (std::vector<int>{7, 1, 3})) << "equal deadlines keep submission order";
  clock->advance(10s);
  test::drainMainQueue();
  EXPECT_EQ(order, (std::vector<int>{7, 1, 3, 5, 4, 2, 0, 6}));

  // A serial queue waiting for a deadline waits on the manual clock, not the real one.
  auto queue = DispatchQueue::create("kq.test.delay");
  std::promise<void> fired;
  queue->asyncAfter(1h, [&] { fired.set_value(); });
  auto future = fired.get_future();
  queue->sync([] {});
  EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
  clock->advance(1h);
  EXPECT_EQ(future.wait_for(test::kPatience), std::future_status::ready);
}

TEST(DispatchQueueTest, ABatchHoldsTheThreadsTasksBackAndSubmitsThemInOrderWhenItEnds) {
  auto serial = DispatchQueue::create("kq.test.batch");
  std::vector<std::string> mainOrder;
  std::vector<std::string> serialOrder;  // written on `serial` only, read after a sync with it
  {
    const DispatchQueue::Batch batch;
    DispatchQueue::main()->async([&] { mainOrder.push_back("m1"); });
    serial->async([&] { serialOrder.push_back("s1"); });
    {
      const DispatchQueue::Batch nested;
      DispatchQueue::main()->async([&] { mainOrder.push_back("m2"); });
    }
    // Held, even by the nested batch's end; another thread's submissions are not held.
    std::thread([&] {
      DispatchQueue::main()->async([&] { mainOrder.push_back("other"); });
    }).join();
    test::drainMainQueue();
    EXPECT_EQ(mainOrder, std::vector<std::string>{"other"});

    // A delayed task submits what is held first, so that it cannot overtake it.
    DispatchQueue::main()->asyncAfter(DispatchQueue::Duration::zero(),
                                      [&] { mainOrder.push_back("m3"); });
    test::drainMainQueue();
    EXPECT_EQ(mainOrder, (std::vector<std::string>{"other", "m1", "m2", "m3"}));

    // So does sync(), which would otherwise wait for a task that is held back forever.
    serial->async([&] { serialOrder.push_back("s2"); });
    serial->sync([&] { serialOrder.push_back("sync"); });
    EXPECT_EQ(serialOrder, (std::vector<std::string>{"s1", "s2", "sync"}));

    DispatchQueue::main()->async([&] { mainOrder.push_back("m4"); });
    test::drainMainQueue();
    EXPECT_EQ(mainOrder.size(), 4U);
  }
  test::drainMainQueue();
  EXPECT_EQ(mainOrder, (std::vector<std::string>{"other", "m1", "m2", "m3", "m4"}));
}

// The running task drops the last reference to its queue: the queue is destroyed on its own
// thread while further tasks wait behind that task.
TEST(DispatchQueueTest, DestroyingAQueueDropsPendingTasksAndReleasesWhatTheyHold) {
  auto held = std::make_shared<int>(7);
  std::weak_ptr<int> watch = held;
  auto queue = DispatchQueue::create("kq.test.drop");
  DispatchQueue* raw = queue.get();
  std::promise<void> go;
  auto goFuture = go.get_future().share();
  std::promise<bool> done;
  raw->async([queue = std::move(queue), goFuture, &done, &watch]() mutable {
    goFuture.wait();
    queue.reset();
    done.set_value(watch.expired());
  });
  raw->async([held] { ADD_FAILURE() << "a dropped task ran"; });
  raw->asyncAfter(std::chrono::hours(1), [held] { ADD_FAILURE() << "a dropped delayed task ran"; });
  held.reset();
  go.set_value();
  auto released = done.get_future();
  ASSERT_EQ(released.wait_for(test::kPatience), std::future_status::ready);
  EXPECT_TRUE(released.get()) << "the dropped tasks' captures are released with the queue";
}

}  // namespace
}  // namespace kq
