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

TEST(DispatchQueueTest, SerialQueueRunsTasksInOrderOnItsOwnThread) {
  auto queue = DispatchQueue::create("kq.test.serial");
  std::mutex mutex;
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::vector<bool> onQueue;
  std::promise<void> done;
  for (int i = 0; i < 100; ++i) {
    queue->async([&, i] {
      std::scoped_lock lock(mutex);
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
      onQueue.push_back(queue->isCurrent() && !DispatchQueue::main()->isCurrent());
    });
  }
  queue->async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(test::kPatience), std::future_status::ready);

  std::scoped_lock lock(mutex);
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[i], i);
    EXPECT_EQ(threads[i], threads[0]);
    EXPECT_TRUE(onQueue[i]);
  }
  EXPECT_NE(threads[0], std::this_thread::get_id());
  EXPECT_FALSE(queue->isCurrent());
}

TEST(DispatchQueueTest, MainQueueRunsOnThePumpingThreadAndNeverInsideAsync) {
  bool ran = false;
  std::thread::id where;
  DispatchQueue::main()->async([&] {
    ran = true;
    where = std::this_thread::get_id();
  });
  EXPECT_FALSE(ran) << "a task must not run inside the call that submits it";
  test::drainMainQueue();
  EXPECT_TRUE(ran);
  EXPECT_EQ(where, std::this_thread::get_id());
  EXPECT_TRUE(DispatchQueue::main()->isCurrent());
}

TEST(DispatchQueueTest, PumpDoesNotRunTasksSubmittedDuringThePump) {
  // A task that resubmits itself forever must not hold the pump.
  std::function<void()> resubmit;
  int runs = 0;
  resubmit = [&] {
    ++runs;
    if (runs < 1000) {
      DispatchQueue::main()->async(resubmit);
    }
  };
  DispatchQueue::main()->async(resubmit);
  EXPECT_EQ(DispatchQueue::main()->pump(), 1U);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(DispatchQueue::main()->pump(), 1U);
  EXPECT_EQ(runs, 2);
  test::drainMainQueue();
  EXPECT_EQ(runs, 1000);
}

TEST(DispatchQueueTest, RunReturnsAfterStopFromATask) {
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
}

TEST(DispatchQueueTest, StopFromAnotherThreadEndsRun) {
  std::atomic<bool> stopCalled{false};
  bool ranBeforeStop = false;
  std::thread stopper([&] {
    // Stop only once run() has started, which this task proves.
    std::promise<void> running;
    DispatchQueue::main()->async([&] {
      ranBeforeStop = true;
      running.set_value();
    });
    running.get_future().wait();
    stopCalled = true;
    DispatchQueue::main()->stop();
  });
  DispatchQueue::main()->run();
  // run() returned only because of the stop, and with nothing left to run it would have waited.
  EXPECT_TRUE(stopCalled.load());
  EXPECT_TRUE(ranBeforeStop);
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
}

TEST(DispatchQueueTest, ManualClockWakesASerialQueueWaitingForADeadline) {
  ManualClockScope clock;
  auto queue = DispatchQueue::create("kq.test.delay");
  std::promise<void> fired;
  queue->asyncAfter(1h, [&] { fired.set_value(); });
  auto future = fired.get_future();
  // Not due: the queue must be waiting, not running it on the real clock.
  queue->sync([] {});
  EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
  clock->advance(1h);
  EXPECT_EQ(future.wait_for(test::kPatience), std::future_status::ready);
}

TEST(DispatchQueueTest, SyncRunsOnTheQueueAndInlineOnItsOwnThread) {
  auto queue = DispatchQueue::create("kq.test.sync");
  bool onQueue = false;
  bool nestedRan = false;
  queue->sync([&] {
    onQueue = queue->isCurrent();
    queue->sync([&] { nestedRan = true; });  // would deadlock if not run inline
  });
  EXPECT_TRUE(onQueue);
  EXPECT_TRUE(nestedRan);
}

TEST(DispatchQueueTest, ABatchHoldsTasksBackAndSubmitsThemInOrderWhenItEnds) {
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
    // Held, even by the nested batch's end: nothing has reached the main queue yet.
    test::drainMainQueue();
    EXPECT_TRUE(mainOrder.empty());

    // A delayed task submits what is held first, so that it cannot overtake it.
    DispatchQueue::main()->asyncAfter(DispatchQueue::Duration::zero(),
                                      [&] { mainOrder.push_back("m3"); });
    test::drainMainQueue();
    EXPECT_EQ(mainOrder, (std::vector<std::string>{"m1", "m2", "m3"}));

    // So does sync(), which would otherwise wait for a task that is held back forever.
    serial->async([&] { serialOrder.push_back("s2"); });
    serial->sync([&] { serialOrder.push_back("sync"); });
    EXPECT_EQ(serialOrder, (std::vector<std::string>{"s1", "s2", "sync"}));

    DispatchQueue::main()->async([&] { mainOrder.push_back("m4"); });
    test::drainMainQueue();
    EXPECT_EQ(mainOrder.size(), 3U);
  }
  test::drainMainQueue();
  EXPECT_EQ(mainOrder, (std::vector<std::string>{"m1", "m2", "m3", "m4"}));
}

TEST(DispatchQueueTest, ABatchIsTheCallingThreadsOwn) {
  // Another thread's submissions are not held by this thread's batch.
  const DispatchQueue::Batch batch;
  bool ran = false;
  std::thread([&] { DispatchQueue::main()->async([&] { ran = true; }); }).join();
  test::drainMainQueue();
  EXPECT_TRUE(ran);
}

TEST(DispatchQueueTest, DestroyingAQueueDropsPendingTasksAndReleasesWhatTheyHold) {
  // The running task holds the last reference to its queue and drops it: the queue is destroyed
  // on its own thread while further tasks wait behind that task.
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
