#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kq::xmpp {
namespace {

using namespace std::chrono_literals;

TEST(XMPPQueueTest, TasksFromEveryThreadRunInTheOrderEachThreadGaveThem) {
  auto queue = XMPPQueue::create("kq.test.xmpp.order");
  constexpr int kPerThread = 2000;
  std::mutex mutex;
  std::vector<std::vector<int>> seen(3);
  bool allOnQueue = true;
  auto record = [&](int thread, int index) {
    std::scoped_lock lock(mutex);
    seen[static_cast<std::size_t>(thread)].push_back(index);
    allOnQueue = allOnQueue && queue->isCurrent();
  };
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kPerThread; ++i) {
        queue->async([&, thread, i] { record(thread, i); });
      }
    });
  }
  // The queue's own thread submits too, from inside its tasks: each runs after the ones queued
  // before it.
  std::promise<void> chainDone;
  std::function<void(int)> chain = [&](int i) {
    record(2, i);
    if (i + 1 < kPerThread) {
      queue->async([&, i] { chain(i + 1); });
    } else {
      chainDone.set_value();
    }
  };
  queue->async([&] { chain(0); });
  for (auto& thread : threads) {
    thread.join();
  }
  // One queue for everybody: a task given after the threads ended runs after all of theirs.
  std::promise<void> threadsDone;
  queue->async([&] { threadsDone.set_value(); });
  ASSERT_EQ(threadsDone.get_future().wait_for(test::kPatience), std::future_status::ready);
  ASSERT_EQ(chainDone.get_future().wait_for(test::kPatience), std::future_status::ready);
  std::scoped_lock lock(mutex);
  for (const auto& indices : seen) {
    ASSERT_EQ(indices.size(), static_cast<std::size_t>(kPerThread));
    EXPECT_TRUE(std::is_sorted(indices.begin(), indices.end()));
  }
  EXPECT_TRUE(allOnQueue);
}

// The queue's thread sleeps until another thread says there is work.
TEST(XMPPQueueTest, TasksGivenWhileATaskRunsAreNotLeftWaiting) {
  auto queue = XMPPQueue::create("kq.test.xmpp.busy");
  std::promise<void> later;
  std::promise<void> last;
  queue->async([&] { std::thread([&] { queue->async([&] { later.set_value(); }); }).join(); });
  ASSERT_EQ(later.get_future().wait_for(test::kPatience), std::future_status::ready);
  std::thread([&] { queue->async([&] { last.set_value(); }); }).join();
  ASSERT_EQ(last.get_future().wait_for(test::kPatience), std::future_status::ready);
}

// A turn lets another thread run the queue's work while the queue is idle.
TEST(XMPPQueueTest, ATurnIsGivenOnlyWhileTheQueueIsIdleAndHoldsTheQueueBack) {
  auto queue = XMPPQueue::create("kq.test.xmpp.turn");
  std::atomic<bool> turnHeld{false};
  std::atomic<bool> ranDuringTurn{false};
  std::promise<void> ran;
  auto hasRun = ran.get_future();
  {
    auto turn = queue->tryTurn();
    ASSERT_TRUE(turn);
    turnHeld = true;
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_FALSE(queue->tryTurn());  // one turn per thread
    std::thread([&] { EXPECT_FALSE(queue->tryTurn()); }).join();
    queue->async([&] {
      ranDuringTurn = turnHeld.load();
      ran.set_value();
    });
    // Given time to run, the task still waits (a slow machine only makes this wait longer).
    EXPECT_EQ(hasRun.wait_for(100ms), std::future_status::timeout);
    turnHeld = false;
  }
  EXPECT_FALSE(queue->isCurrent());
  ASSERT_EQ(hasRun.wait_for(test::kPatience), std::future_status::ready);
  EXPECT_FALSE(ranDuringTurn);

  // While a task runs, nobody else gets the queue.
  std::promise<void> started;
  std::promise<void> release;
  std::promise<void> finished;
  auto released = release.get_future();
  queue->async([&] {
    EXPECT_FALSE(queue->tryTurn());  // on the queue already
    started.set_value();
    released.wait();
    finished.set_value();
  });
  started.get_future().wait();
  EXPECT_FALSE(queue->tryTurn());
  release.set_value();
  ASSERT_EQ(finished.get_future().wait_for(test::kPatience), std::future_status::ready);

  // A forwarding queue never gives one: its work belongs to the queue it forwards to.
  EXPECT_FALSE(XMPPQueue::onDispatchQueue(DispatchQueue::main())->tryTurn());
}

TEST(XMPPQueueTest, ATaskThatReleasesTheQueueDropsTheTasksBehindIt) {
  auto queue = XMPPQueue::create("kq.test.xmpp.release");
  XMPPQueue* raw = queue.get();
  std::promise<void> go;
  std::promise<void> released;
  // Tells when what a task captured is released.
  std::shared_ptr<int> capture(new int(0), [&released](const int* value) {
    delete value;
    released.set_value();
  });
  raw->async([queue = std::move(queue), goFuture = go.get_future().share()]() mutable {
    goFuture.wait();
    queue.reset();
  });
  raw->async([capture] { ADD_FAILURE() << "a task behind the release ran"; });
  capture.reset();
  go.set_value();
  EXPECT_EQ(released.get_future().wait_for(test::kPatience), std::future_status::ready)
      << "the dropped task's captures are released";
}

TEST(XMPPQueueTest, TimersTickOnTheQueuesOwnThreadInDeadlineOrder) {
  test::ManualClockScope clock;
  auto queue = XMPPQueue::create("kq.test.xmpp");
  std::mutex mutex;
  std::vector<int> order;
  bool allOnQueue = true;
  std::vector<std::shared_ptr<Timer>> timers;
  for (const int seconds : {3, 1, 2, 1}) {
    const int index = static_cast<int>(timers.size());
    timers.push_back(
        Timer::scheduledTimer(queue, std::chrono::seconds(seconds), false, [&, index](Timer&) {
          std::scoped_lock lock(mutex);
          order.push_back(index);
          allOnQueue = allOnQueue && queue->isCurrent();
        }));
  }
  timers[0]->invalidate();  // the 3 s timer never ticks
  const auto ticked = [&] {
    test::flushQueue(queue);
    std::scoped_lock lock(mutex);
    return order;
  };

  EXPECT_TRUE(ticked().empty()) << "nothing is due before the clock moves";
  clock->advance(1s);
  EXPECT_EQ(ticked(), (std::vector<int>{1, 3})) << "equal deadlines in the order given";
  clock->advance(5s);
  EXPECT_EQ(ticked(), (std::vector<int>{1, 3, 2}));
  std::scoped_lock lock(mutex);
  EXPECT_TRUE(allOnQueue);
}

TEST(XMPPQueueTest, AStreamReleasedOnItsOwnThreadIsFreedWithoutTheMainQueue) {
  auto stream = XMPPStream::create();
  const std::weak_ptr<XMPPStream> gone = stream;
  XMPPQueue* queue = detail::XMPPQueues::of(*stream).get();
  // The last reference goes away inside a task on the stream's own thread (the queue goes with
  // it); the host never pumps the main queue meanwhile.
  queue->async([held = std::move(stream)]() mutable { held.reset(); });
  const auto giveUp = std::chrono::steady_clock::now() + test::kPatience;
  while (!gone.expired() && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_TRUE(gone.expired());
}

}  // namespace
}  // namespace kq::xmpp
