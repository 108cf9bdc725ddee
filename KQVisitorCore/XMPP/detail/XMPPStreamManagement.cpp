#include <KQVisitorCore/XMPP/detail/XMPPStreamManagement.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace kq::xmpp {

std::optional<std::uint32_t> XMPPStreamManagement::counterValue(
    const std::optional<std::string>& text) {
  std::uint32_t value = 0;
  if (!text || text->empty()) {
    return std::nullopt;
  }
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) {
    return std::nullopt;
  }
  return value;
}

XMPPStreamManagement::XMPPStreamManagement(Host& host, XMPPStreamSchedule schedule)
    : host_(host), schedule_(std::move(schedule)) {}

XMPPStreamManagement::~XMPPStreamManagement() {
  invalidateTimer(ackTimer_);
}

std::string XMPPStreamManagement::enable(std::chrono::duration<double> ackTimeout) {
  reset();
  enabled_ = true;
  ackTimeout_ = ackTimeout;
  return "<enable xmlns='urn:xmpp:sm:3' resume='true'/>";
}

bool XMPPStreamManagement::receive(const XMPPElement& element) {
  if (element.xmlns() != kXMPPStreamManagementNamespace) {
    return false;
  }
  const std::string name = element.name();
  if (name == "r") {
    XMPPElement answer("a", kXMPPStreamManagementNamespace);
    answer.addAttributeWithName("h", std::to_string(received_));
    host_.sendNonza(answer.XMLString());
  } else if (name == "a") {
    if (const auto handled = counterValue(element.attributeStringValueForName("h"))) {
      acknowledge(*handled);
    }
    requestOut_ = false;
    invalidateTimer(ackTimer_);
    if (!kept_.empty() && kept_.front().written) {
      requestAcknowledgement();  // what went after the last request
    }
  } else if (name == "enabled" && enabled_) {
    const auto resume = element.attributeStringValueForName("resume");
    if (resume == "true" || resume == "1") {
      resumptionId_ = element.attributeStringValueForName("id").value_or("");
    }
    if (const auto max = counterValue(element.attributeStringValueForName("max"))) {
      window_ = std::chrono::seconds(*max);
    }
    countingReceived_ = true;
  } else if (name == "failed") {
    reset();  // the server would not turn it on: the stream goes on without it
  }
  return true;
}

void XMPPStreamManagement::didSend(const XMPPElement& stanza) {
  if (!enabled_) {
    return;
  }
  kept_.push_back({stanza, true});
  if (!requestOut_) {
    requestAcknowledgement();
  }
}

void XMPPStreamManagement::hold(const XMPPElement& stanza) {
  kept_.push_back({stanza, false});
}

void XMPPStreamManagement::acknowledge(std::uint32_t handled) {
  // Counters wrap at 2^32; the difference is what this answer acknowledges.
  std::uint32_t newly = handled - acknowledged_;
  acknowledged_ = handled;
  while (newly > 0 && !kept_.empty() && kept_.front().written) {
    kept_.pop_front();
    --newly;
  }
}

void XMPPStreamManagement::requestAcknowledgement() {
  requestOut_ = true;
  host_.sendNonza("<r xmlns='urn:xmpp:sm:3'/>");
  if (ackTimeout_ <= std::chrono::duration<double>::zero()) {
    return;
  }
  const auto timeout = ackTimeout_;
  ackTimer_ = schedule_(clockDuration(timeout), [this, timeout] {
    host_.acknowledgementDidTimeOut(
        streamError(XMPPStream::kErrorAcknowledgementTimeout,
                    "The connection is dead: the server did not acknowledge what was sent within " +
                        secondsText(timeout)));
  });
}

void XMPPStreamManagement::connectionDidEnd() {
  requestOut_ = false;
  invalidateTimer(ackTimer_);
}

std::string XMPPStreamManagement::resumeRequest() const {
  XMPPElement request("resume", kXMPPStreamManagementNamespace);
  request.addAttributeWithName("previd", resumptionId_);
  request.addAttributeWithName("h", std::to_string(received_));
  return request.XMLString();
}

std::vector<XMPPElement> XMPPStreamManagement::didResume(std::uint32_t handled) {
  acknowledge(handled);
  std::vector<XMPPElement> again;
  again.reserve(kept_.size());
  for (auto& kept : kept_) {
    again.push_back(std::move(kept.stanza));
  }
  kept_.clear();
  return again;
}

std::vector<XMPPElement> XMPPStreamManagement::reset() {
  std::vector<XMPPElement> unwritten;
  for (auto& kept : kept_) {
    if (!kept.written) {
      unwritten.push_back(std::move(kept.stanza));
    }
  }
  kept_.clear();
  connectionDidEnd();
  enabled_ = false;
  countingReceived_ = false;
  resumptionId_.clear();
  window_.reset();
  received_ = 0;
  acknowledged_ = 0;
  return unwritten;
}

}  // namespace kq::xmpp
