#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPQueue.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

namespace kq::xmpp {
namespace {

using namespace std::chrono_literals;

TEST(XMPPQueueTest, TimersTickOnTheQueuesOwnThreadInDeadlineOrder) {
  test::ManualClockScope clock;
  auto queue = XMPPQueue::create("kq.test.xmpp");
  std::mutex mutex;
  std::vector<int> order;
  bool allOnQueue = true;
  std::vector<std::shared_ptr<Timer>> timers;
  for (const int seconds : {3, 1, 2, 1}) {
    timers.push_back(
        Timer::scheduledTimer(queue, std::chrono::seconds(seconds), false, [&, seconds](Timer&) {
          std::scoped_lock lock(mutex);
          order.push_back(seconds);
          allOnQueue = allOnQueue && queue->isCurrent();
        }));
  }
  auto repeating = Timer::scheduledTimer(queue, 2s, true, [&](Timer&) {
    std::scoped_lock lock(mutex);
    order.push_back(20);
  });
  timers[0]->invalidate();  // the 3 s timer never ticks

  test::flushQueue(queue);
  {
    std::scoped_lock lock(mutex);
    EXPECT_TRUE(order.empty()) << "nothing is due before the clock moves";
  }
  clock->advance(1s);
  test::flushQueue(queue);
  {
    std::scoped_lock lock(mutex);
    EXPECT_EQ(order, (std::vector<int>{1, 1}));
  }
  clock->advance(5s);
  test::flushQueue(queue);
  repeating->invalidate();
  clock->advance(10s);
  test::flushQueue(queue);
  std::scoped_lock lock(mutex);
  // The repeating timer missed two of its beats while the clock jumped: it ticks once, not in
  // a burst, and not after it was stopped.
  EXPECT_EQ(order, (std::vector<int>{1, 1, 2, 20}));
  EXPECT_TRUE(allOnQueue);
}

TEST(XMPPQueueTest, AStreamReleasedOnItsOwnThreadIsFreedWithoutTheMainQueue) {
  auto stream = XMPPStream::create();
  const std::weak_ptr<XMPPStream> gone = stream;
  XMPPQueue* queue = stream->streamQueue().get();
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
