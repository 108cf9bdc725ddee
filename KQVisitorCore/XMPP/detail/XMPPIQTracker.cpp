#include <KQVisitorCore/XMPP/detail/XMPPIQTracker.h>

#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>

#include <utility>

namespace kq::xmpp {

XMPPIQTracker::XMPPIQTracker(Host& host, const Guarded<XMPPStreamSettings>& settings,
                             XMPPStreamSchedule schedule, std::string domain)
    : host_(host),
      settings_(settings),
      schedule_(std::move(schedule)),
      domain_(std::move(domain)) {}

XMPPIQTracker::~XMPPIQTracker() {
  invalidateTimer(keepAliveTimer_);
  for (auto& [id, pending] : pending_) {
    invalidateTimer(pending.timer);
  }
}

// --- IQs waiting for an answer -----------------------------------------------------------------

void XMPPIQTracker::track(const std::string& id, std::chrono::duration<double> timeout,
                          Response response) {
  Pending pending{std::move(response), nullptr};
  if (timeout >= std::chrono::duration<double>::zero()) {
    pending.timer = schedule_(clockDuration(timeout), [this, id] {
      const auto found = pending_.find(id);
      if (found != pending_.end()) {
        auto expired = std::move(found->second);
        pending_.erase(found);
        expired.response(std::nullopt);
      }
    });
  }
  pending_[id] = std::move(pending);
}

bool XMPPIQTracker::answer(const XMPPIQ& iq) {
  if (!iq.isResultIQ() && !iq.isErrorIQ()) {
    return false;
  }
  const auto id = iq.elementID();
  if (!id) {
    return false;
  }
  const auto found = pending_.find(*id);
  if (found == pending_.end()) {
    return false;
  }
  auto answered = std::move(found->second);
  pending_.erase(found);
  invalidateTimer(answered.timer);
  answered.response(iq);
  return true;
}

void XMPPIQTracker::close() {
  closed_ = true;
  invalidateTimer(keepAliveTimer_);
  auto pending = std::move(pending_);
  pending_.clear();
  for (auto& [id, waiting] : pending) {
    invalidateTimer(waiting.timer);
    waiting.response(std::nullopt);
  }
}

// --- Keep-alive --------------------------------------------------------------------------------

void XMPPIQTracker::startKeepAlive() {
  lastReceived_ = Clock::shared()->now();
  scheduleKeepAlive(clockDuration(settings_.get(&XMPPStreamSettings::keepAliveInterval)));
}

void XMPPIQTracker::didReceive() {
  // Reads only stamp the time; the timer looks at the stamp when it fires, so a busy connection
  // costs no timer work per read.
  if (keepAliveTimer_) {
    lastReceived_ = Clock::shared()->now();
  }
}

void XMPPIQTracker::scheduleKeepAlive(Clock::Duration delay) {
  invalidateTimer(keepAliveTimer_);
  if (settings_.get(&XMPPStreamSettings::keepAliveInterval) <= XMPPStream::Seconds::zero()) {
    return;
  }
  keepAliveTimer_ = schedule_(delay, [this] { checkKeepAlive(); });
}

void XMPPIQTracker::checkKeepAlive() {
  const auto interval = clockDuration(settings_.get(&XMPPStreamSettings::keepAliveInterval));
  const auto quiet = Clock::shared()->now() - lastReceived_;
  if (quiet < interval) {
    scheduleKeepAlive(interval - quiet);
    return;
  }
  const XMPPStream::Seconds timeout = settings_.get(&XMPPStreamSettings::keepAliveTimeout);
  XMPPIQ ping("get", XMPPJID::jidWithString(domain_), XMPPStream::generateUUID(),
              XMPPElement("ping", kXMPPPingNamespace));
  // Any answer, a result or an error, shows the connection carries packets. The connection's
  // close answers with nothing too, when the stream is ending anyway.
  track(*ping.elementID(), timeout, [this, timeout](const std::optional<XMPPIQ>& answer) {
    if (closed_) {
      return;
    }
    if (!answer) {
      host_.keepAliveDidTimeOut(
          streamError(XMPPStream::kErrorKeepAliveTimeout,
                      "The connection is dead: the server did not answer a ping within " +
                          secondsText(timeout)));
      return;
    }
    scheduleKeepAlive(clockDuration(settings_.get(&XMPPStreamSettings::keepAliveInterval)));
  });
  host_.sendPing(ping);
}

}  // namespace kq::xmpp
