#include <KQVisitorCore/XMPP/XMPPReconnect.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>

#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPReconnectDelegate.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include <algorithm>

namespace kq::xmpp {

XMPPReconnectDelegate::~XMPPReconnectDelegate() = default;

struct XMPPReconnect::Settings {
  bool autoReconnect = true;
  Seconds reconnectDelay = kDefaultReconnectDelay;
  Seconds reconnectTimerInterval = kDefaultReconnectTimerInterval;
};

XMPPReconnect::XMPPReconnect(std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)),
      settings_(std::make_unique<Guarded<Settings>>()),
      delegates_(std::make_unique<XMPPDelegateList<XMPPReconnectDelegate>>()) {}

XMPPReconnect::~XMPPReconnect() = default;

bool XMPPReconnect::autoReconnect() const {
  return settings_->get(&Settings::autoReconnect);
}

void XMPPReconnect::setAutoReconnect(bool autoReconnect) {
  settings_->set(&Settings::autoReconnect, autoReconnect);
}

XMPPReconnect::Seconds XMPPReconnect::reconnectDelay() const {
  return settings_->get(&Settings::reconnectDelay);
}

void XMPPReconnect::setReconnectDelay(Seconds delay) {
  settings_->set(&Settings::reconnectDelay, delay);
}

XMPPReconnect::Seconds XMPPReconnect::reconnectTimerInterval() const {
  return settings_->get(&Settings::reconnectTimerInterval);
}

void XMPPReconnect::setReconnectTimerInterval(Seconds interval) {
  settings_->set(&Settings::reconnectTimerInterval, interval);
}

bool XMPPReconnect::isReconnecting() const {
  return reconnecting_.load();
}

void XMPPReconnect::addDelegate(const std::shared_ptr<XMPPReconnectDelegate>& delegate,
                                std::shared_ptr<DispatchQueue> queue) {
  delegates_->add(delegate, std::move(queue));
}

void XMPPReconnect::removeDelegate(const XMPPReconnectDelegate* delegate) {
  delegates_->remove(delegate);
}

void XMPPReconnect::runOnStreamQueue(std::function<void()> task) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  const auto self = std::static_pointer_cast<XMPPReconnect>(shared_from_this());
  detail::XMPPQueues::of(*stream)->async([self, task = std::move(task)] { task(); });
}

void XMPPReconnect::manualStart() {
  runOnStreamQueue([this] {
    const auto stream = xmppStream();
    if (stream && stream->isDisconnected() && !reconnecting_.load()) {
      startAttempts(Seconds::zero());
    }
  });
}

void XMPPReconnect::stop() {
  runOnStreamQueue([this] { stopAttempts(); });
}

void XMPPReconnect::willDeactivate() {
  stopAttempts();
}

void XMPPReconnect::streamDidConnect() {
  stopAttempts();
}

void XMPPReconnect::streamDidAuthenticate() {
  shouldReconnect_ = true;
}

void XMPPReconnect::streamWasToldToDisconnect() {
  shouldReconnect_ = false;
  stopAttempts();
}

void XMPPReconnect::streamDidDisconnect(const std::optional<KQError>& error) {
  if (!shouldReconnect_ || !autoReconnect()) {
    return;
  }
  if (!reconnecting_.load()) {
    startAttempts(reconnectDelay());
  }
  const auto self = std::static_pointer_cast<XMPPReconnect>(shared_from_this());
  delegates_->invoke([self, error](XMPPReconnectDelegate& delegate) {
    delegate.xmppReconnectDidDetectAccidentalDisconnect(*self, error);
  });
}

void XMPPReconnect::startAttempts(Seconds firstDelay) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  stopAttempts();
  reconnecting_ = true;
  const auto queue = detail::XMPPQueues::of(*stream);
  std::weak_ptr<XMPPReconnect> weak = std::static_pointer_cast<XMPPReconnect>(shared_from_this());
  const Seconds interval = reconnectTimerInterval();
  auto startRepeating = [weak, queue, interval] {
    const auto self = weak.lock();
    if (!self || interval <= Seconds::zero()) {
      return;
    }
    self->timer_ = Timer::scheduledTimer(
        queue, std::chrono::duration_cast<Clock::Duration>(interval), true, [weak](Timer&) {
          if (const auto owner = weak.lock()) {
            owner->attempt();
          }
        });
  };
  if (firstDelay <= Seconds::zero()) {
    attempt();
    startRepeating();
    return;
  }
  firstAttempt_ =
      Timer::scheduledTimer(queue, std::chrono::duration_cast<Clock::Duration>(firstDelay), false,
                            [weak, startRepeating](Timer&) {
                              if (const auto self = weak.lock()) {
                                self->firstAttempt_.reset();
                                self->attempt();
                                startRepeating();
                              }
                            });
}

void XMPPReconnect::stopAttempts() {
  reconnecting_ = false;
  if (firstAttempt_) {
    firstAttempt_->invalidate();
    firstAttempt_.reset();
  }
  if (timer_) {
    timer_->invalidate();
    timer_.reset();
  }
}

void XMPPReconnect::attempt() {
  const auto stream = xmppStream();
  if (!stream || !stream->isDisconnected() || !reconnecting_.load()) {
    return;
  }
  const auto self = std::static_pointer_cast<XMPPReconnect>(shared_from_this());
  delegates_->ask(
      [self](XMPPReconnectDelegate& delegate) {
        return delegate.xmppReconnectShouldAttemptAutoReconnect(*self);
      },
      [self](const std::vector<bool>& answers) {
        const bool allowed = std::all_of(answers.begin(), answers.end(), [](bool b) { return b; });
        const auto current = self->xmppStream();
        if (allowed && current && current->isDisconnected() && self->reconnecting_.load()) {
          current->connectWithTimeout(XMPPStreamTimeoutNone);
        }
      },
      detail::XMPPQueues::of(*stream));
}

}  // namespace kq::xmpp
