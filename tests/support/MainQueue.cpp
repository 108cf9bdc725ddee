#include "tests/support/MainQueue.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>

#include <gtest/gtest.h>

#include <future>

namespace kq::test {

bool runMainQueueUntil(const std::function<bool()>& done,
                       std::chrono::steady_clock::duration patience) {
  const auto giveUp = std::chrono::steady_clock::now() + patience;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= giveUp) {
      return false;
    }
    DispatchQueue::main()->pump(std::chrono::milliseconds(20));
  }
  return true;
}

void drainMainQueue() {
  while (DispatchQueue::main()->pump() > 0) {
  }
}

void flushQueue(const std::shared_ptr<TimerQueue>& queue) {
  if (queue != DispatchQueue::main()) {
    // Due timed tasks run earliest deadline first, so a task due now runs after all of them.
    auto ran = std::make_shared<std::promise<void>>();
    auto done = ran->get_future();
    if (queue->scheduleAt(Clock::shared()->now(), [ran] { ran->set_value(); }) == 0) {
      ADD_FAILURE() << "flushQueue: the queue has stopped";
    } else if (done.wait_for(kPatience) != std::future_status::ready) {
      ADD_FAILURE() << "flushQueue: the queue did not run its due tasks";
    }
  }
  drainMainQueue();
}

}  // namespace kq::test
