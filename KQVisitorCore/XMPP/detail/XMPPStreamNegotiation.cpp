#include <KQVisitorCore/XMPP/detail/XMPPStreamNegotiation.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamManagement.h>

#include <utility>
#include <vector>

namespace kq::xmpp {

namespace {

std::string escapeAttribute(std::string_view text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&': result += "&amp;"; break;
      case '<': result += "&lt;"; break;
      case '>': result += "&gt;"; break;
      case '\'': result += "&apos;"; break;
      case '"': result += "&quot;"; break;
      default: result += c;
    }
  }
  return result;
}

}  // namespace

XMPPStreamNegotiation::XMPPStreamNegotiation(Host& host, Guarded<XMPPStreamSettings>& settings,
                                             XMPPStreamSchedule schedule, std::string domain)
    : host_(host),
      settings_(settings),
      schedule_(std::move(schedule)),
      domain_(std::move(domain)) {}

XMPPStreamNegotiation::XMPPStreamNegotiation(Host& host, Guarded<XMPPStreamSettings>& settings,
                                             XMPPStreamSchedule schedule, std::string domain,
                                             Resumption resumption)
    : XMPPStreamNegotiation(host, settings, std::move(schedule), std::move(domain)) {
  resumption_ = std::move(resumption);
}

XMPPStreamNegotiation::~XMPPStreamNegotiation() {
  stop();
}

// --- Time-outs ---------------------------------------------------------------------------------

void XMPPStreamNegotiation::start(std::chrono::duration<double> timeout) {
  armNegotiationTimer();
  if (timeout < std::chrono::duration<double>::zero()) {
    return;
  }
  connectTimer_ = schedule_(clockDuration(timeout), [this, timeout] {
    if (phase_ >= Phase::Ready) {
      return;
    }
    host_.connectDidTimeOut(streamError(
        XMPPStream::kErrorConnectTimeout,
        "The connection timed out: the stream was not connected within " + secondsText(timeout)));
  });
}

void XMPPStreamNegotiation::stop() {
  invalidateTimer(negotiationTimer_);
  invalidateTimer(connectTimer_);
}

// Bounds the wait for the server from now: from the start of the connection to did-connect, and
// from authenticate() to did-authenticate.
void XMPPStreamNegotiation::armNegotiationTimer() {
  const XMPPStream::Seconds timeout = settings_.get(&XMPPStreamSettings::negotiationTimeout);
  invalidateTimer(negotiationTimer_);
  if (timeout <= XMPPStream::Seconds::zero()) {
    return;
  }
  negotiationTimer_ = schedule_(clockDuration(timeout), [this, timeout] {
    if (phase_ == Phase::Ready || phase_ == Phase::Authenticated) {
      return;  // waiting for the host, not for the server
    }
    if (phase_ < Phase::Ready) {
      host_.connectDidTimeOut(
          streamError(XMPPStream::kErrorConnectTimeout,
                      "The connection timed out: the server did not open the stream within " +
                          secondsText(timeout)));
      return;
    }
    host_.fail(streamError(
        XMPPStream::kErrorNegotiationTimeout,
        "The login timed out: the server did not complete it within " + secondsText(timeout)));
  });
}

// --- The stream and its features ---------------------------------------------------------------

void XMPPStreamNegotiation::openStream() {
  if (phase_ == Phase::Authenticating) {
    // After SASL success this runs inside the parser's callback: the parser is replaced once
    // the current chunk has been parsed.
    host_.restartParser(true);
    phase_ = Phase::OpeningAfterAuth;
  } else {
    host_.restartParser(false);
    phase_ = Phase::Opening;
  }
  host_.send("<?xml version='1.0'?><stream:stream to='" + escapeAttribute(domain_) +
             "' version='1.0' xmlns='jabber:client' "
             "xmlns:stream='http://etherx.jabber.org/streams'>");
}

bool XMPPStreamNegotiation::receive(const XMPPElement& element) {
  const std::string name = element.name();
  const std::string xmlns = element.xmlns();
  if (xmlns == kXMPPStreamNamespace) {
    if (name == "features") {
      handleFeatures(element);
    }
    return true;
  }
  if (xmlns == kXMPPTLSNamespace) {
    if (name == "proceed" && phase_ == Phase::StartingTLS) {
      phase_ = Phase::Securing;
      host_.secureAfterChunk();
    } else {
      host_.fail(streamError(XMPPStream::kErrorTLS, "The server refused to start TLS"));
    }
    return true;
  }
  if (xmlns == kXMPPSASLNamespace) {
    handleSASL(element);
    return true;
  }
  if (phase_ == Phase::Resuming) {
    handleResumption(element);
    return true;
  }
  if (phase_ == Phase::Binding || phase_ == Phase::StartingSession) {
    if (name == "iq") {
      handleBindResult(XMPPIQ(element));
    }
    return true;
  }
  return !carriesStanzas();  // no stanzas before the stream is negotiated
}

void XMPPStreamNegotiation::handleFeatures(const XMPPElement& features) {
  if (phase_ == Phase::OpeningAfterAuth && resumption_) {
    resume(features);
    return;
  }
  if (phase_ == Phase::OpeningAfterAuth) {
    streamManagementOffered_ =
        features.elementForName("sm", kXMPPStreamManagementNamespace).has_value();
    const auto bind = features.elementForName("bind", kXMPPBindNamespace);
    if (!bind) {
      host_.fail(streamError(XMPPStream::kErrorProtocol, "The server offers no resource binding"));
      return;
    }
    const auto session = features.elementForName("session", kXMPPSessionNamespace);
    sessionRequired_ = session && !session->elementForName("optional");
    XMPPElement bindRequest("bind", kXMPPBindNamespace);
    const auto jid = settings_.get(&XMPPStreamSettings::myJID);
    if (jid && jid->resource()) {
      bindRequest.addChildElement("resource").setStringValue(*jid->resource());
    }
    bindID_ = XMPPStream::generateUUID();
    phase_ = Phase::Binding;
    host_.send(XMPPIQ("set", std::nullopt, bindID_, bindRequest).XMLString());
    return;
  }
  if (phase_ != Phase::Opening) {
    return;
  }
  const auto policy = settings_.get(&XMPPStreamSettings::policy);
  if (!settings_.get(&XMPPStreamSettings::secure)) {
    const auto startTLS = features.elementForName("starttls", kXMPPTLSNamespace);
    const bool required = startTLS && startTLS->elementForName("required");
    if (startTLS && policy != XMPPStreamStartTLSPolicy::None) {
      phase_ = Phase::StartingTLS;
      host_.send("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
      return;
    }
    if (policy == XMPPStreamStartTLSPolicy::Required) {
      host_.fail(streamError(XMPPStream::kErrorTLS,
                             "The server does not offer TLS, which the stream requires"));
      return;
    }
    if (required) {
      host_.fail(streamError(XMPPStream::kErrorTLS,
                             "The server requires TLS, which the stream does not use"));
      return;
    }
  }
  becomeReady(features);
}

void XMPPStreamNegotiation::becomeReady(const XMPPElement& features) {
  std::vector<std::string> offered;
  if (const auto list = features.elementForName("mechanisms", kXMPPSASLNamespace)) {
    for (const auto& mechanism : list->elementsForName("mechanism")) {
      offered.push_back(mechanism.stringValue());
    }
  }
  phase_ = Phase::Ready;
  invalidateTimer(connectTimer_);
  invalidateTimer(negotiationTimer_);  // the host decides when to authenticate
  updateSettings([&offered](XMPPStreamSettings& settings) {
    settings.mechanisms = std::move(offered);
    settings.state = XMPPStreamState::Connected;
  });
  host_.negotiationDidConnect();
}

// --- Authentication, binding and the session ---------------------------------------------------

void XMPPStreamNegotiation::authenticate(
    const std::shared_ptr<XMPPSASLAuthentication>& authentication) {
  authentication_ = authentication;
  phase_ = Phase::Authenticating;
  armNegotiationTimer();
  updateSettings(
      [](XMPPStreamSettings& settings) { settings.state = XMPPStreamState::Negotiating; });
  const auto jid = settings_.get(&XMPPStreamSettings::myJID);
  host_.send((resumption_ ? authentication->resumptionAuthElement(jid, resumption_->id)
                          : authentication->authElement(jid))
                 .XMLString());
}

void XMPPStreamNegotiation::handleSASL(const XMPPElement& element) {
  if (phase_ != Phase::Authenticating || !authentication_) {
    host_.fail(streamError(XMPPStream::kErrorProtocol,
                           "Unexpected SASL element <" + element.name() + ">"));
    return;
  }
  const std::string name = element.name();
  if (name == "challenge") {
    const auto response = authentication_->responseToChallenge(element);
    host_.send(response ? response->XMLString()
                        : std::string("<abort xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"));
  } else if (name == "success") {
    openStream();  // the server expects a new stream at once
  } else if (name == "failure") {
    authentication_.reset();
    phase_ = Phase::Ready;
    invalidateTimer(negotiationTimer_);
    updateSettings([](XMPPStreamSettings& settings) {
      settings.authenticating = false;
      settings.state = XMPPStreamState::Connected;
    });
    host_.negotiationDidNotAuthenticate(element);
  }
}

void XMPPStreamNegotiation::handleBindResult(const XMPPIQ& iq) {
  const auto id = iq.elementID();
  if (phase_ == Phase::StartingSession && id == sessionID_) {
    if (iq.isResultIQ()) {
      finishAuthentication();
    } else {
      host_.fail(
          streamError(XMPPStream::kErrorProtocol, "The server refused to start the session"));
    }
    return;
  }
  if (phase_ != Phase::Binding || id != bindID_) {
    return;
  }
  if (!iq.isResultIQ()) {
    host_.fail(streamError(XMPPStream::kErrorProtocol, "The server refused to bind a resource"));
    return;
  }
  const auto bind = iq.elementForName("bind", kXMPPBindNamespace);
  const auto jidElement = bind ? bind->elementForName("jid") : std::nullopt;
  const auto jid = jidElement ? XMPPJID::jidWithString(jidElement->stringValue()) : std::nullopt;
  if (!jid) {
    host_.fail(streamError(XMPPStream::kErrorProtocol, "The server bound no usable address"));
    return;
  }
  settings_.set(&XMPPStreamSettings::myJID, jid);
  if (sessionRequired_) {
    sessionID_ = XMPPStream::generateUUID();
    phase_ = Phase::StartingSession;
    host_.send(
        XMPPIQ("set", std::nullopt, sessionID_, XMPPElement("session", kXMPPSessionNamespace))
            .XMLString());
    return;
  }
  finishAuthentication();
}

// --- Resuming a session -----------------------------------------------------------------------

void XMPPStreamNegotiation::resume(const XMPPElement& features) {
  if (!features.elementForName("sm", kXMPPStreamManagementNamespace)) {
    host_.negotiationDidNotResume(streamError(XMPPStream::kErrorProtocol,
                                              "The server no longer offers to resume the session"));
    return;
  }
  phase_ = Phase::Resuming;
  host_.send(resumption_->request);
}

void XMPPStreamNegotiation::handleResumption(const XMPPElement& element) {
  if (element.xmlns() != kXMPPStreamManagementNamespace) {
    return;  // nothing else is meant to come before the answer
  }
  const auto handled = XMPPStreamManagement::counterValue(element.attributeStringValueForName("h"));
  if (element.name() == "resumed" && handled) {
    phase_ = Phase::Authenticated;
    authentication_.reset();
    invalidateTimer(negotiationTimer_);
    host_.negotiationDidResume(*handled);
  } else if (element.name() == "resumed") {
    // Without the count, what to send again is a guess: lines would be lost or repeated.
    host_.negotiationDidNotResume(streamError(
        XMPPStream::kErrorProtocol, "The server resumed the session without saying what it had"));
  } else if (element.name() == "failed") {
    const auto children = element.children();
    host_.negotiationDidNotResume(streamError(
        XMPPStream::kErrorProtocol,
        "The server would not resume the session: " +
            (children.empty() ? std::string("no reason given") : children.front().name())));
  }
}

void XMPPStreamNegotiation::finishAuthentication() {
  phase_ = Phase::Authenticated;
  authentication_.reset();
  invalidateTimer(negotiationTimer_);
  settings_.with([](XMPPStreamSettings& settings) {
    settings.authenticating = false;
    settings.authenticated = true;
    settings.state = XMPPStreamState::Connected;
  });
  host_.negotiationDidAuthenticate();
}

}  // namespace kq::xmpp
