#include "tests/support/MainQueue.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>

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

}  // namespace kq::test
