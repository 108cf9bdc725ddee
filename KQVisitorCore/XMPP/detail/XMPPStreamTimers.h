#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Timer.h>

#include <chrono>
#include <functional>
#include <memory>

namespace kq::xmpp {

/// How a part of a stream sets its time-outs: runs `task` on the stream's queue after `delay`,
/// only while the connection the part serves is still the stream's (a tick that comes late for
/// an earlier connection does nothing), and answers the timer.
using XMPPStreamSchedule =
    std::function<std::shared_ptr<Timer>(Clock::Duration delay, std::function<void()> task)>;

inline Clock::Duration clockDuration(std::chrono::duration<double> duration) {
  return std::chrono::duration_cast<Clock::Duration>(duration);
}

/// Stops `timer`, if there is one, and lets it go.
inline void invalidateTimer(std::shared_ptr<Timer>& timer) {
  if (timer) {
    timer->invalidate();
    timer.reset();
  }
}

}  // namespace kq::xmpp
