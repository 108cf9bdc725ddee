#include <KQVisitorCore/XMPP/detail/XMPPStreamController.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>

#include <asio/ssl/context.hpp>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

namespace kq::xmpp {

XMPPStreamController::XMPPStreamController(XMPPStream& stream, std::shared_ptr<XMPPQueue> queue,
                                           Guarded<XMPPStreamSettings>& settings,
                                           XMPPDelegateList<XMPPStreamDelegate>& delegates,
                                           Modules& modules)
    : stream_(stream),
      queue_(std::move(queue)),
      settings_(settings),
      delegates_(delegates),
      modules_(modules),
      management_(*this, [this](Clock::Duration delay, std::function<void()> task) {
        return scheduleFor(connection_, delay, std::move(task));
      }) {}

XMPPStreamController::~XMPPStreamController() = default;

std::shared_ptr<XMPPStream> XMPPStreamController::self() const {
  return stream_.shared_from_this();
}

void XMPPStreamController::notify(std::function<void(XMPPStreamDelegate&, XMPPStream&)> call) {
  delegates_.invoke([stream = self(), call = std::move(call)](XMPPStreamDelegate& delegate) {
    call(delegate, *stream);
  });
}

std::shared_ptr<Timer> XMPPStreamController::scheduleFor(
    const std::weak_ptr<XMPPStreamConnection>& current, Clock::Duration delay,
    std::function<void()> task) {
  std::weak_ptr<XMPPStream> weakStream = self();
  return Timer::scheduledTimer(queue_, delay, false,
                               [this, weakStream, current, task = std::move(task)](Timer&) {
                                 const auto stream = weakStream.lock();
                                 const auto alive = current.lock();
                                 if (stream && alive && connection_ == alive) {
                                   task();
                                 }
                               });
}

std::shared_ptr<Timer> XMPPStreamController::scheduleForSession(Clock::Duration delay,
                                                                std::function<void()> task) {
  std::weak_ptr<XMPPStream> weakStream = self();
  return Timer::scheduledTimer(
      queue_, delay, false, [this, weakStream, session = session_, task = std::move(task)](Timer&) {
        const auto stream = weakStream.lock();
        if (stream && session_ == session) {
          task();
        }
      });
}

// --- Connecting and closing --------------------------------------------------------------------

void XMPPStreamController::connect(std::chrono::duration<double> timeout) {
  ++session_;
  resuming_.reset();
  management_.reset();
  const std::string domain = openConnection(std::nullopt);
  iqs_.emplace(
      *this, settings_,
      [this](Clock::Duration delay, std::function<void()> task) {
        return scheduleForSession(delay, std::move(task));
      },
      domain);
  negotiation_->start(timeout);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketWillConnect(sender);
  });
  connection_->connect();
}

// A new connection with its negotiation, which resumes the session when `resumption` is given;
// answers the domain it connects to.
std::string XMPPStreamController::openConnection(
    std::optional<XMPPStreamNegotiation::Resumption> resumption) {
  const auto [host, port, domain] = settings_.with([](const XMPPStreamSettings& settings) {
    const std::string jidDomain = settings.myJID ? settings.myJID->domain() : std::string();
    return std::tuple(settings.hostName.empty() && settings.myJID ? jidDomain : settings.hostName,
                      settings.hostPort, jidDomain);
  });
  // Operations under way hold the stream through the owner, as they hold the connection.
  const std::shared_ptr<XMPPStreamConnection::Owner> owner(self(), this);
  connection_ = std::make_shared<XMPPStreamConnection>(queue_, owner, host, port);
  XMPPStreamSchedule schedule = [this, current = std::weak_ptr(connection_)](
                                    Clock::Duration delay, std::function<void()> task) {
    return scheduleFor(current, delay, std::move(task));
  };
  if (resumption) {
    negotiation_.emplace(*this, settings_, std::move(schedule), domain, std::move(*resumption));
  } else {
    negotiation_.emplace(*this, settings_, std::move(schedule), domain);
  }
  return domain;
}

void XMPPStreamController::disconnect() {
  if (!connection_) {
    if (resuming_) {
      modules_.wasToldToDisconnect();
      end(std::nullopt);  // between two tries to resume
    }
    return;
  }
  connection_->setToldToDisconnect();
  modules_.wasToldToDisconnect();
  if (!connection_) {
    return;  // a module closed it
  }
  if (resuming_ || connection_->holdsWrites()) {
    // No stream to end: not connected, in the TLS handshake, or a try to resume.
    close(std::nullopt);
    return;
  }
  connection_->closeAfterWriting("</stream:stream>");
}

void XMPPStreamController::close(const std::optional<KQError>& error, bool mayResume) {
  if (!connection_) {
    return;
  }
  // The connection goes with its state; operations still under way hold it until their
  // handlers run and find it is no longer the stream's.
  const auto closing = std::move(connection_);
  connection_.reset();
  closing->shutdown();
  negotiation_->stop();
  management_.connectionDidEnd();
  const bool wasLive =
      resuming_ || negotiation_->phase() == XMPPStreamNegotiation::Phase::Authenticated;
  // A stream the server ended, politely or with a stream error, ended its session too.
  if (mayResume && error && !closing->wasToldToDisconnect() && wasLive &&
      management_.isResumable() && !closing->serverEndedStream() &&
      error->code != XMPPStream::kErrorStreamError) {
    suspend(*error);
    return;
  }
  if (closing->wasToldToDisconnect()) {
    end(std::nullopt);
  } else {
    end(resuming_ ? std::optional(resuming_->error) : error);
  }
}

// Ends the session: the stream is disconnected, and stanzas that were never written are
// reported as not sent.
void XMPPStreamController::end(const std::optional<KQError>& error) {
  ++session_;
  if (resuming_) {
    invalidateTimer(resuming_->timer);
    resuming_.reset();
  }
  settings_.with([](XMPPStreamSettings& settings) {
    settings.state = XMPPStreamState::Disconnected;
    settings.secure = false;
    settings.authenticated = false;
    settings.authenticating = false;
    settings.mechanisms.clear();
  });
  const auto unwritten = management_.reset();
  iqs_->close();
  for (const auto& element : unwritten) {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidFailToSendElement(
          sender, element,
          streamError(XMPPStream::kErrorNotConnected,
                      "The stream disconnected before it could send this"));
    });
  }
  modules_.didDisconnect(error);
  notify([error](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidDisconnect(sender, error);
  });
}

// --- Resuming a session ------------------------------------------------------------------------

// The connection of a resumable session ended with `error`: tries again at once, then after 1,
// 2 and 4 s between tries, until the resumption time-out.
void XMPPStreamController::suspend(const KQError& error) {
  if (!resuming_) {
    const auto timeout = settings_.get(&XMPPStreamSettings::resumptionTimeout);
    resuming_.emplace(Resuming{error, Clock::shared()->now() + clockDuration(timeout), 0, nullptr});
    iqs_->stopKeepAlive();
    notify([error](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamWillResume(sender, error);
    });
  }
  if (Clock::shared()->now() >= resuming_->deadline) {
    end(resuming_->error);
    return;
  }
  invalidateTimer(resuming_->timer);  // the bound on the try that just failed
  const int attempts = resuming_->attempts++;
  if (attempts == 0) {
    queue_->async([this, stream = self(), session = session_] {
      if (session_ == session && resuming_ && !connection_) {
        attemptResumption();
      }
    });
    return;
  }
  const auto delay = clockDuration(std::chrono::seconds(1 << std::min(attempts - 1, 2)));
  resuming_->timer = scheduleForSession(delay, [this] { attemptResumption(); });
}

void XMPPStreamController::attemptResumption() {
  if (!authentication_) {
    end(resuming_->error);
    return;
  }
  openConnection(
      XMPPStreamNegotiation::Resumption{management_.resumptionId(), management_.resumeRequest()});
  negotiation_->start(XMPPStreamTimeoutNone);
  auto bound = settings_.get(&XMPPStreamSettings::acknowledgementTimeout);
  if (bound <= XMPPStream::Seconds::zero()) {
    bound = settings_.get(&XMPPStreamSettings::negotiationTimeout);
  }
  if (bound > XMPPStream::Seconds::zero()) {
    resuming_->timer = scheduleFor(connection_, clockDuration(bound), [this, bound] {
      close(streamError(XMPPStream::kErrorConnectTimeout,
                        "Resuming the session timed out: no answer within " + secondsText(bound)));
    });
  }
  connection_->connect();
}

// The session cannot be resumed: it ends with the error that ended its connection.
void XMPPStreamController::giveUpResuming() {
  if (connection_) {
    close(resuming_->error, false);
  } else {
    end(resuming_->error);
  }
}

void XMPPStreamController::negotiationDidResume(std::uint32_t handled) {
  connection_->stopQuickAcks();
  invalidateTimer(resuming_->timer);
  resuming_.reset();
  for (const auto& stanza : management_.didResume(handled)) {
    writeStanza(stanza);
  }
  iqs_->startKeepAlive();
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidResume(sender);
  });
}

void XMPPStreamController::negotiationDidNotResume(const KQError& /*error*/) {
  giveUpResuming();
}

// --- The connection's events -------------------------------------------------------------------

bool XMPPStreamController::isCurrent(const XMPPStreamConnection& connection) const {
  return connection_.get() == &connection;
}

void XMPPStreamController::connectionDidConnectSocket() {
  if (!resuming_) {
    settings_.set(&XMPPStreamSettings::state, XMPPStreamState::Negotiating);
    notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamSocketDidConnect(sender);
    });
  }
  negotiation_->openStream();
}

void XMPPStreamController::connectionDidReceive() {
  iqs_->didReceive();
}

void XMPPStreamController::connectionDidReceiveElement(const XMPPElement& element) {
  if (element.xmlns() == kXMPPStreamNamespace && element.name() == "error") {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidReceiveError(sender, element);
    });
    const auto children = element.children();
    const std::string condition = children.empty() ? "undefined" : children.front().name();
    close(streamError(XMPPStream::kErrorStreamError, "Stream error: " + condition));
    return;
  }
  if (negotiation_->phase() != XMPPStreamNegotiation::Phase::Resuming &&
      management_.receive(element)) {
    return;
  }
  if (negotiation_->receive(element)) {
    return;
  }
  management_.didReceiveStanza();
  const std::string name = element.name();
  if (name == "iq") {
    dispatchIQ(XMPPIQ(element));
  } else if (name == "message") {
    dispatchMessage(XMPPMessage(element));
  } else if (name == "presence") {
    dispatchPresence(XMPPPresence(element));
  }
}

void XMPPStreamController::connectionWillSecure() {
  if (resuming_ && tlsSettings_) {
    connection_->startTLS(*tlsSettings_, tlsContext_);  // as the delegates said last time
    return;
  }
  auto stream = self();
  auto current = connection_;
  auto settings = std::make_shared<XMPPTLSSettings>();
  delegates_.ask(
      [stream, settings](XMPPStreamDelegate& delegate) {
        delegate.xmppStreamWillSecureWithSettings(*stream, *settings);
        return true;
      },
      [this, stream, current, settings](const std::vector<bool>& /*answers*/) {
        if (connection_ == current) {
          tlsSettings_ = *settings;
          connection_->startTLS(*settings, tlsContext_);
        }
      },
      queue_);
}

void XMPPStreamController::connectionDidSecure() {
  if (!resuming_) {
    settings_.set(&XMPPStreamSettings::secure, true);
    notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidSecure(sender);
    });
  }
  negotiation_->openStream();
}

void XMPPStreamController::connectionDidEnd(const std::optional<KQError>& error) {
  close(error);
}

// --- The negotiation's and the keep-alive's requests -------------------------------------------

void XMPPStreamController::write(std::string_view text) {
  if (connection_) {
    connection_->write(text);
  }
}

void XMPPStreamController::writeStanza(const XMPPElement& stanza) {
  write(stanza.XMLString());
  management_.didSend(stanza);
}

void XMPPStreamController::send(std::string_view text) {
  write(text);
}

void XMPPStreamController::sendPing(const XMPPIQ& ping) {
  writeStanza(ping);
}

void XMPPStreamController::sendNonza(std::string_view text) {
  write(text);
}

void XMPPStreamController::acknowledgementDidTimeOut(const KQError& error) {
  close(error);
}

void XMPPStreamController::restartParser(bool afterChunk) {
  connection_->restartParser(afterChunk);
}

void XMPPStreamController::secureAfterChunk() {
  connection_->secureAfterChunk();
}

void XMPPStreamController::fail(const KQError& error) {
  close(error);
}

void XMPPStreamController::connectDidTimeOut(const KQError& error) {
  if (resuming_) {
    close(error);
    return;
  }
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamConnectDidTimeout(sender);
  });
  close(error);
}

void XMPPStreamController::negotiationDidConnect() {
  if (resuming_) {
    negotiation_->authenticate(authentication_);  // logs in again as before, then resumes
    return;
  }
  modules_.didConnect();
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidConnect(sender);
  });
}

void XMPPStreamController::negotiationDidNotAuthenticate(const XMPPElement& failure) {
  if (resuming_) {
    giveUpResuming();
    return;
  }
  notify([failure](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidNotAuthenticate(sender, failure);
  });
}

void XMPPStreamController::negotiationDidAuthenticate() {
  connection_->stopQuickAcks();
  if (negotiation_->offersStreamManagement()) {
    // Before anything the host sends on did-authenticate, so that all of it is counted.
    write(management_.enable(settings_.get(&XMPPStreamSettings::acknowledgementTimeout)));
  }
  iqs_->startKeepAlive();
  modules_.didAuthenticate();
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidAuthenticate(sender);
  });
}

void XMPPStreamController::keepAliveDidTimeOut(const KQError& error) {
  close(error);
}

// --- Authenticating and sending ----------------------------------------------------------------

void XMPPStreamController::authenticate(
    const std::shared_ptr<XMPPSASLAuthentication>& authentication) {
  if (connection_ && negotiation_->canAuthenticate()) {
    authentication_ = authentication;
    negotiation_->authenticate(authentication);
    return;
  }
  settings_.set(&XMPPStreamSettings::authenticating, false);
  XMPPElement failure("failure", kXMPPSASLNamespace);
  failure.addChildElement("temporary-auth-failure");
  negotiationDidNotAuthenticate(failure);
}

void XMPPStreamController::sendElement(XMPPElement element) {
  if (resuming_) {
    modules_.willSendElement(element);
    management_.hold(element);  // goes once the session has resumed
    modules_.didSendElement(element);
    return;
  }
  if (!connection_ || connection_->isClosing() || !negotiation_->carriesStanzas()) {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidFailToSendElement(
          sender, element,
          streamError(XMPPStream::kErrorNotConnected, "The stream is not connected"));
    });
    return;
  }
  modules_.willSendElement(element);
  writeStanza(element);
  modules_.didSendElement(element);
}

void XMPPStreamController::sendIQ(const XMPPIQ& iq, const std::string& id,
                                  std::chrono::duration<double> timeout,
                                  XMPPIQTracker::Response response) {
  if (!resuming_ && (!connection_ || !negotiation_->carriesStanzas())) {
    response(std::nullopt);
    return;
  }
  iqs_->track(id, timeout, std::move(response));
  sendElement(iq);
}

// --- Stanzas -----------------------------------------------------------------------------------

void XMPPStreamController::dispatchIQ(const XMPPIQ& iq) {
  if (iqs_->answer(iq)) {
    return;  // a tracked answer goes to its caller only
  }
  const bool handled = modules_.didReceiveIQ(iq);
  auto stream = self();
  delegates_.ask(
      [stream, iq](XMPPStreamDelegate& delegate) {
        return delegate.xmppStreamDidReceiveIQ(*stream, iq);
      },
      [this, stream, iq, handled](const std::vector<bool>& answers) {
        const bool anyDelegate = std::find(answers.begin(), answers.end(), true) != answers.end();
        if (!handled && !anyDelegate && iq.requiresResponse()) {
          sendElement(XMPPIQ::errorIQ(iq, "cancel", "service-unavailable"));
        }
      },
      queue_);
}

void XMPPStreamController::dispatchMessage(const XMPPMessage& message) {
  modules_.didReceiveMessage(message);
  notify([message](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidReceiveMessage(sender, message);
  });
}

void XMPPStreamController::dispatchPresence(const XMPPPresence& presence) {
  modules_.didReceivePresence(presence);
  notify([presence](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidReceivePresence(sender, presence);
  });
}

}  // namespace kq::xmpp
