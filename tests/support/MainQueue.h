#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace kq {
class TimerQueue;
}  // namespace kq

namespace kq::test {

/// Generous bound for waits on real work (a server answering, a thread finishing). Reaching it
/// means the awaited thing never happened, not that the machine was slow.
inline constexpr std::chrono::seconds kPatience{30};

/// Pumps the main queue on the calling thread until `done` answers true; false if `patience`
/// passes first.
bool runMainQueueUntil(const std::function<bool()>& done,
                       std::chrono::steady_clock::duration patience = kPatience);

/// Runs every main-queue task that is due now, until none is left.
void drainMainQueue();

/// Waits until `queue` has run every task and timer tick that is due now (on Clock::shared()),
/// then drains the main queue, where those may have posted. Call it before asserting that
/// something did not happen.
void flushQueue(const std::shared_ptr<TimerQueue>& queue);

}  // namespace kq::test
