#include <KQVisitorCore/XMPP/XMPPTimer.h>

#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPQueue.h>

namespace kq::xmpp {

std::shared_ptr<XMPPTimer> XMPPTimer::scheduledTimer(const std::shared_ptr<XMPPQueue>& queue,
                                                     Clock::Duration interval, bool repeats,
                                                     Tick tick) {
  std::shared_ptr<XMPPTimer> timer(new XMPPTimer);
  auto shared = std::make_shared<Tick>(std::move(tick));
  std::weak_ptr<XMPPQueue> weakQueue = queue;
  timer->timer_ =
      Timer::scheduledTimer(queue->timerQueue(), interval, repeats,
                            [weakQueue, valid = timer->valid_, shared, repeats](Timer& /*timer*/) {
                              const auto target = weakQueue.lock();
                              if (!target || !valid->load()) {
                                return;
                              }
                              target->async([valid, shared, repeats] {
                                // Checked again on the queue: an invalidate() made there since
                                // wins.
                                if (!repeats ? valid->exchange(false) : valid->load()) {
                                  (*shared)();
                                }
                              });
                            });
  return timer;
}

XMPPTimer::~XMPPTimer() {
  invalidate();
}

void XMPPTimer::invalidate() {
  valid_->store(false);
  if (timer_) {
    timer_->invalidate();
  }
}

}  // namespace kq::xmpp
