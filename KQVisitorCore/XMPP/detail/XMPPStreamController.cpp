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
      modules_(modules) {}

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

// --- Connecting and closing --------------------------------------------------------------------

void XMPPStreamController::connect(std::chrono::duration<double> timeout) {
  const auto [host, port, domain] = settings_.with([](const XMPPStreamSettings& settings) {
    const std::string jidDomain = settings.myJID ? settings.myJID->domain() : std::string();
    return std::tuple(settings.hostName.empty() && settings.myJID ? jidDomain : settings.hostName,
                      settings.hostPort, jidDomain);
  });
  // Operations under way hold the stream through the owner, as they hold the connection.
  const std::shared_ptr<XMPPStreamConnection::Owner> owner(self(), this);
  connection_ = std::make_shared<XMPPStreamConnection>(queue_, owner, host, port);
  const XMPPStreamSchedule schedule = [this, current = std::weak_ptr(connection_)](
                                          Clock::Duration delay, std::function<void()> task) {
    return scheduleFor(current, delay, std::move(task));
  };
  negotiation_.emplace(*this, settings_, schedule, domain);
  iqs_.emplace(*this, settings_, schedule, domain);
  negotiation_->start(timeout);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketWillConnect(sender);
  });
  connection_->connect();
}

void XMPPStreamController::disconnect() {
  if (!connection_) {
    return;
  }
  connection_->setToldToDisconnect();
  modules_.wasToldToDisconnect();
  if (!connection_) {
    return;  // a module closed it
  }
  if (connection_->holdsWrites()) {
    close(std::nullopt);  // no stream to end yet: not connected, or in the TLS handshake
    return;
  }
  connection_->closeAfterWriting("</stream:stream>");
}

void XMPPStreamController::close(const std::optional<KQError>& error) {
  if (!connection_) {
    return;
  }
  // The connection goes with its state; operations still under way hold it until their
  // handlers run and find it is no longer the stream's.
  const auto closing = std::move(connection_);
  connection_.reset();
  closing->shutdown();
  negotiation_->stop();
  settings_.with([](XMPPStreamSettings& settings) {
    settings.state = XMPPStreamState::Disconnected;
    settings.secure = false;
    settings.authenticated = false;
    settings.authenticating = false;
    settings.mechanisms.clear();
  });
  const std::optional<KQError> reported = closing->wasToldToDisconnect() ? std::nullopt : error;
  iqs_->close();
  modules_.didDisconnect(reported);
  notify([reported](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidDisconnect(sender, reported);
  });
}

// --- The connection's events -------------------------------------------------------------------

bool XMPPStreamController::isCurrent(const XMPPStreamConnection& connection) const {
  return connection_.get() == &connection;
}

void XMPPStreamController::connectionDidConnectSocket() {
  settings_.set(&XMPPStreamSettings::state, XMPPStreamState::Negotiating);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketDidConnect(sender);
  });
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
  if (negotiation_->receive(element)) {
    return;
  }
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
          connection_->startTLS(*settings, tlsContext_);
        }
      },
      queue_);
}

void XMPPStreamController::connectionDidSecure() {
  settings_.set(&XMPPStreamSettings::secure, true);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidSecure(sender);
  });
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

void XMPPStreamController::send(std::string_view text) {
  write(text);
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
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamConnectDidTimeout(sender);
  });
  close(error);
}

void XMPPStreamController::negotiationDidConnect() {
  modules_.didConnect();
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidConnect(sender);
  });
}

void XMPPStreamController::negotiationDidNotAuthenticate(const XMPPElement& failure) {
  notify([failure](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidNotAuthenticate(sender, failure);
  });
}

void XMPPStreamController::negotiationDidAuthenticate() {
  connection_->stopQuickAcks();
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
    negotiation_->authenticate(authentication);
    return;
  }
  settings_.set(&XMPPStreamSettings::authenticating, false);
  XMPPElement failure("failure", kXMPPSASLNamespace);
  failure.addChildElement("temporary-auth-failure");
  negotiationDidNotAuthenticate(failure);
}

void XMPPStreamController::sendElement(XMPPElement element) {
  if (!connection_ || connection_->isClosing() || !negotiation_->carriesStanzas()) {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidFailToSendElement(
          sender, element,
          streamError(XMPPStream::kErrorNotConnected, "The stream is not connected"));
    });
    return;
  }
  modules_.willSendElement(element);
  write(element.XMLString());
  modules_.didSendElement(element);
}

void XMPPStreamController::sendIQ(const XMPPIQ& iq, const std::string& id,
                                  std::chrono::duration<double> timeout,
                                  XMPPIQTracker::Response response) {
  if (!connection_ || !negotiation_->carriesStanzas()) {
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
