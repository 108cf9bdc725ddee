#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPDelegateList.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPParser.h>
#include <KQVisitorCore/XMPP/XMPPQueue.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>
#include <KQVisitorCore/XMPP/XMPPTransport.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <uuid/uuid.h>
#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/ssl/context.hpp>

#include <algorithm>
#include <array>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <sstream>

namespace kq::xmpp {

XMPPStreamDelegate::~XMPPStreamDelegate() = default;

namespace {

using asio::ip::tcp;

KQError streamError(long code, const std::string& description) {
  KQError error{XMPPStream::kErrorDomain, code, nlohmann::ordered_json::object()};
  error.userInfo["NSLocalizedDescription"] = description;
  return error;
}

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

bool isAddress(const std::string& name) {
  asio::error_code error;
  asio::ip::make_address(name, error);
  return !error;
}

// Where the connection is in its negotiation.
enum class Phase {
  Resolving,
  Opening,           // stream header sent, waiting for features
  StartingTLS,       // <starttls/> sent, waiting for <proceed/>
  Securing,          // TLS handshake (or asking the delegates for settings)
  Ready,             // negotiated, not authenticated
  Authenticating,    // SASL exchange
  OpeningAfterAuth,  // stream restarted after SASL success, waiting for features
  Binding,
  StartingSession,
  Authenticated,
};

Clock::Duration clockDuration(std::chrono::duration<double> duration) {
  return std::chrono::duration_cast<Clock::Duration>(duration);
}

std::string secondsText(std::chrono::duration<double> duration) {
  std::ostringstream text;
  text << duration.count() << " s";
  return text.str();
}

void invalidate(std::shared_ptr<Timer>& timer) {
  if (timer) {
    timer->invalidate();
    timer.reset();
  }
}

}  // namespace

// One TCP connection and everything that lives and dies with it: the socket, the parser, the
// negotiation's progress, what waits to be written, the timers and the IQs waiting for an
// answer. A new connection starts from a new object, so nothing of an earlier one can leak into
// it. Every asynchronous operation holds the connection.
struct Connection {
  explicit Connection(asio::io_context& context) : resolver(context), socket(context) {}

  tcp::resolver resolver;
  tcp::socket socket;
  std::unique_ptr<XMPPTransport> transport;  // once connected
  std::array<char, 16384> readBuffer{};
  std::unique_ptr<XMPPParser> parser;

  Phase phase = Phase::Resolving;
  bool restartParserAfterChunk = false;
  bool startTLSAfterChunk = false;
  std::string host;
  std::uint16_t port = 0;
  std::string domain;

  std::deque<std::string> held;  // written while connecting or securing: sent after that
  bool waitingToWrite = false;   // the transport keeps bytes until the socket takes them
  bool closeAfterWriting = false;
  bool toldToDisconnect = false;

  bool sessionRequired = false;
  std::string bindID;
  std::string sessionID;
  std::shared_ptr<XMPPSASLAuthentication> authentication;

  std::shared_ptr<Timer> negotiationTimer;  // while waiting for the server to negotiate
  std::shared_ptr<Timer> connectTimer;      // the caller's bound on reaching did-connect
  std::shared_ptr<Timer> keepAliveTimer;    // once authenticated: the next liveness check
  Clock::TimePoint lastReceived;

  struct Tracker {
    std::function<void(const std::optional<XMPPIQ>&)> response;
    std::shared_ptr<Timer> timer;
  };
  std::map<std::string, Tracker> trackers;
};

struct XMPPStream::Impl {
  explicit Impl(XMPPStream& stream) : owner(stream), queue(XMPPQueue::create("kq.xmpp.stream")) {}

  // Public state, read from any thread.
  mutable std::mutex mutex;
  std::string hostName;                                                   // guarded by mutex
  std::uint16_t hostPort = 5222;                                          // guarded by mutex
  std::optional<XMPPJID> myJID;                                           // guarded by mutex
  XMPPStreamStartTLSPolicy policy = XMPPStreamStartTLSPolicy::Preferred;  // guarded by mutex
  bool backgrounding = false;                                             // guarded by mutex
  Seconds negotiationTimeout = kDefaultNegotiationTimeout;                // guarded by mutex
  Seconds keepAliveInterval = kDefaultKeepAliveInterval;                  // guarded by mutex
  Seconds keepAliveTimeout = kDefaultKeepAliveTimeout;                    // guarded by mutex
  XMPPStreamState state = XMPPStreamState::Disconnected;                  // guarded by mutex
  bool secure = false;                                                    // guarded by mutex
  bool authenticated = false;                                             // guarded by mutex
  bool authenticating = false;                                            // guarded by mutex
  std::vector<std::string> mechanisms;                                    // guarded by mutex

  XMPPStream& owner;
  const std::shared_ptr<XMPPQueue> queue;
  XMPPDelegateList<XMPPStreamDelegate> delegates;

  // Everything below is used on the stream's queue only.
  std::shared_ptr<Connection> connection;          // null while disconnected
  std::shared_ptr<asio::ssl::context> tlsContext;  // built once, kept across reconnects
  std::vector<std::shared_ptr<XMPPModule>> modules;

  std::shared_ptr<XMPPStream> self() { return owner.shared_from_this(); }

  template <class Value>
  Value setting(Value Impl::*field) {
    std::scoped_lock lock(mutex);
    return this->*field;
  }

  void setState(XMPPStreamState newState) {
    std::scoped_lock lock(mutex);
    state = newState;
  }

  template <class Call>
  void forEachModule(Call call) {
    const auto snapshot = modules;  // a hook may activate or deactivate modules
    for (const auto& module : snapshot) {
      call(*module);
    }
  }

  void notify(std::function<void(XMPPStreamDelegate&, XMPPStream&)> call) {
    delegates.invoke([stream = self(), call = std::move(call)](XMPPStreamDelegate& delegate) {
      call(delegate, *stream);
    });
  }

  // Runs `task` on the stream's queue after `delay`, only while `current` is still the stream's
  // connection.
  std::shared_ptr<Timer> scheduleFor(const std::shared_ptr<Connection>& current,
                                     Clock::Duration delay, std::function<void(Impl&)> task);

  // Connecting and closing.
  void startConnect(std::chrono::duration<double> timeout);
  void onResolved(const std::shared_ptr<Connection>& current,
                  const tcp::resolver::results_type& endpoints);
  void onTCPConnected(const std::shared_ptr<Connection>& current);
  void armNegotiationTimer();
  void requestDisconnect();
  void close(const std::optional<KQError>& error);

  // Reading, parsing and writing.
  void newParser(Connection& current);
  void openStream();
  void read(const std::shared_ptr<Connection>& current);
  // Receives what the socket has next into the read buffer and runs `next` with the outcome on
  // the stream's queue, while `current` is still the stream's connection.
  void receive(const std::shared_ptr<Connection>& current,
               void (Impl::*next)(const std::shared_ptr<Connection>&, const asio::error_code&,
                                  std::size_t));
  void readReceived(const std::shared_ptr<Connection>& current, const asio::error_code& error,
                    std::size_t length);
  void readDecrypted(const std::shared_ptr<Connection>& current);
  void endReading(const std::shared_ptr<Connection>& current, const XMPPTransport::Result& result);
  bool onRead(const std::shared_ptr<Connection>& current, std::size_t length);
  void write(std::string_view text);
  void waitToWrite(const std::shared_ptr<Connection>& current);
  void closeLater(const std::shared_ptr<Connection>& current, std::optional<KQError> error);
  static void ackQuicklyWhileNegotiating(Connection& current);
  void sendNow(XMPPElement element);

  // Negotiation.
  void handleElement(const XMPPElement& element);
  void handleFeatures(const XMPPElement& features);
  void beginTLS();
  void handshake(const XMPPTLSSettings& settings);
  void continueHandshake(const std::shared_ptr<Connection>& current);
  void handshakeReceived(const std::shared_ptr<Connection>& current, const asio::error_code& error,
                         std::size_t length);
  void becomeReady(const XMPPElement& features);
  void startAuthentication(const std::shared_ptr<XMPPSASLAuthentication>& authentication);
  void handleSASL(const XMPPElement& element);
  void handleBindResult(const XMPPIQ& iq);
  void finishAuthentication();

  // Liveness of an authenticated connection.
  void scheduleKeepAlive(Clock::Duration delay);
  void checkKeepAlive();

  // Stanzas.
  void dispatchIQ(const XMPPIQ& iq);
  void dispatchMessage(const XMPPMessage& message);
  void dispatchPresence(const XMPPPresence& presence);
  void trackIQ(const std::string& id, std::chrono::duration<double> timeout,
               std::function<void(const std::optional<XMPPIQ>&)> response);
};

std::shared_ptr<Timer> XMPPStream::Impl::scheduleFor(const std::shared_ptr<Connection>& current,
                                                     Clock::Duration delay,
                                                     std::function<void(Impl&)> task) {
  std::weak_ptr<XMPPStream> weakStream = self();
  std::weak_ptr<Connection> weakConnection = current;
  return Timer::scheduledTimer(queue, delay, false,
                               [weakStream, weakConnection, task = std::move(task)](Timer&) {
                                 const auto stream = weakStream.lock();
                                 const auto alive = weakConnection.lock();
                                 if (stream && alive && stream->impl_->connection == alive) {
                                   task(*stream->impl_);
                                 }
                               });
}

// --- Connecting and closing ------------------------------------------------------------------

void XMPPStream::Impl::startConnect(std::chrono::duration<double> timeout) {
  connection = std::make_shared<Connection>(*queue->ioContext());
  auto current = connection;
  {
    std::scoped_lock lock(mutex);
    current->host = hostName.empty() && myJID ? myJID->domain() : hostName;
    current->port = hostPort;
    current->domain = myJID ? myJID->domain() : std::string();
  }
  armNegotiationTimer();
  if (timeout >= std::chrono::duration<double>::zero()) {
    current->connectTimer = scheduleFor(current, clockDuration(timeout), [timeout](Impl& impl) {
      if (impl.connection->phase >= Phase::Ready) {
        return;
      }
      impl.notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
        delegate.xmppStreamConnectDidTimeout(sender);
      });
      impl.close(streamError(
          kErrorConnectTimeout,
          "The connection timed out: the stream was not connected within " + secondsText(timeout)));
    });
  }
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketWillConnect(sender);
  });
  auto stream = self();
  current->resolver.async_resolve(
      current->host, std::to_string(current->port),
      [stream, current](const asio::error_code& error, const tcp::resolver::results_type& found) {
        Impl& impl = *stream->impl_;
        const auto turn = impl.queue->turn();
        if (impl.connection != current) {
          return;
        }
        if (error) {
          impl.close(streamError(kErrorSocket,
                                 "Cannot resolve " + current->host + ": " + error.message()));
          return;
        }
        impl.onResolved(current, found);
      });
}

void XMPPStream::Impl::onResolved(const std::shared_ptr<Connection>& current,
                                  const tcp::resolver::results_type& endpoints) {
  auto stream = self();
  asio::async_connect(
      current->socket, endpoints,
      [stream, current](const asio::error_code& error, const tcp::endpoint&) {
        Impl& impl = *stream->impl_;
        const auto turn = impl.queue->turn();
        if (impl.connection != current) {
          return;
        }
        if (error) {
          impl.close(streamError(kErrorSocket, "Cannot connect to " + current->host + ":" +
                                                   std::to_string(current->port) + ": " +
                                                   error.message()));
          return;
        }
        impl.onTCPConnected(current);
      });
}

void XMPPStream::Impl::onTCPConnected(const std::shared_ptr<Connection>& current) {
  asio::error_code ignored;
  current->socket.set_option(tcp::no_delay(true), ignored);
  current->transport = std::make_unique<XMPPTransport>(current->socket.native_handle());
  auto held = std::move(current->held);
  current->held.clear();
  for (const auto& text : held) {
    write(text);
  }
  setState(XMPPStreamState::Negotiating);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketDidConnect(sender);
  });
  openStream();
  read(current);
}

void XMPPStream::Impl::armNegotiationTimer() {
  const Seconds timeout = setting(&Impl::negotiationTimeout);
  invalidate(connection->negotiationTimer);
  if (timeout <= Seconds::zero()) {
    return;
  }
  connection->negotiationTimer =
      scheduleFor(connection, clockDuration(timeout), [timeout](Impl& impl) {
        const Phase phase = impl.connection->phase;
        if (phase == Phase::Ready || phase == Phase::Authenticated) {
          return;  // waiting for the host, not for the server
        }
        if (phase < Phase::Ready) {
          impl.notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
            delegate.xmppStreamConnectDidTimeout(sender);
          });
          impl.close(streamError(kErrorConnectTimeout,
                                 "The connection timed out: the server did not open the stream "
                                 "within " +
                                     secondsText(timeout)));
          return;
        }
        impl.close(streamError(
            kErrorNegotiationTimeout,
            "The login timed out: the server did not complete it within " + secondsText(timeout)));
      });
}

void XMPPStream::Impl::requestDisconnect() {
  if (!connection) {
    return;
  }
  connection->toldToDisconnect = true;
  forEachModule([](XMPPModule& module) { module.streamWasToldToDisconnect(); });
  if (!connection) {
    return;  // a module closed it
  }
  const Phase phase = connection->phase;
  if (phase == Phase::Resolving || phase == Phase::Securing) {
    close(std::nullopt);
    return;
  }
  connection->closeAfterWriting = true;
  write("</stream:stream>");
}

void XMPPStream::Impl::close(const std::optional<KQError>& error) {
  if (!connection) {
    return;
  }
  // The connection object goes with its state; operations still under way hold it until their
  // handlers run and find it is no longer the stream's.
  const auto closing = std::move(connection);
  connection.reset();
  asio::error_code ignored;
  closing->resolver.cancel();
  closing->socket.shutdown(tcp::socket::shutdown_both, ignored);
  closing->socket.close(ignored);
  if (closing->parser) {
    closing->parser->stop();  // this may run inside the parser's callback: no later element
  }
  invalidate(closing->negotiationTimer);
  invalidate(closing->connectTimer);
  invalidate(closing->keepAliveTimer);
  auto pending = std::move(closing->trackers);
  closing->trackers.clear();
  {
    std::scoped_lock lock(mutex);
    state = XMPPStreamState::Disconnected;
    secure = false;
    authenticated = false;
    authenticating = false;
    mechanisms.clear();
  }
  const std::optional<KQError> reported = closing->toldToDisconnect ? std::nullopt : error;
  for (auto& [id, tracker] : pending) {
    invalidate(tracker.timer);
    tracker.response(std::nullopt);
  }
  forEachModule([&reported](XMPPModule& module) { module.streamDidDisconnect(reported); });
  notify([reported](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidDisconnect(sender, reported);
  });
}

// --- Reading, parsing and writing -------------------------------------------------------------

void XMPPStream::Impl::newParser(Connection& current) {
  // The parser belongs to the connection and runs only inside onRead, which holds it.
  current.parser = std::make_unique<XMPPParser>(
      XMPPParser::Mode::Stream,
      XMPPParser::Callbacks{
          .didReadRoot = nullptr,
          .didReadElement = [this](const XMPPElement& element) { handleElement(element); },
          .didEnd =
              [this] { close(streamError(kErrorServerClosed, "The server closed the stream")); },
          .didFail = [this](const KQError& error) { close(error); }});
}

void XMPPStream::Impl::openStream() {
  Connection& current = *connection;
  if (current.phase == Phase::Authenticating) {
    // After SASL success this runs inside the parser's callback: the parser is replaced once
    // the current chunk has been parsed.
    current.restartParserAfterChunk = true;
    current.phase = Phase::OpeningAfterAuth;
  } else {
    newParser(current);
    current.phase = Phase::Opening;
  }
  write("<?xml version='1.0'?><stream:stream to='" + escapeAttribute(current.domain) +
        "' version='1.0' xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>");
}

// Receives the server's next bytes, parses them and goes on receiving.
void XMPPStream::Impl::read(const std::shared_ptr<Connection>& current) {
  receive(current, &Impl::readReceived);
}

// asio receives as soon as the socket is readable, or at once when it already is: no readiness
// wait is re-armed per read (asio's one try at once finds a drained socket empty, and then
// waits).
void XMPPStream::Impl::receive(const std::shared_ptr<Connection>& current,
                               void (Impl::*next)(const std::shared_ptr<Connection>&,
                                                  const asio::error_code&, std::size_t)) {
  auto stream = self();
  current->socket.async_receive(
      asio::buffer(current->readBuffer),
      [stream, current, next](const asio::error_code& error, std::size_t length) {
        Impl& impl = *stream->impl_;
        const auto turn = impl.queue->turn();
        if (impl.connection != current) {
          return;
        }
        (impl.*next)(current, error, length);
      });
}

void XMPPStream::Impl::readReceived(const std::shared_ptr<Connection>& current,
                                    const asio::error_code& error, std::size_t length) {
  XMPPTransport& transport = *current->transport;
  if (error) {
    XMPPTransport::Result result;
    if (error == asio::error::eof) {
      result = transport.end();
    } else {
      result.error = error.message();
    }
    endReading(current, result);
    return;
  }
  if (!transport.isTLS()) {
    if (onRead(current, length)) {
      read(current);
    }
    return;
  }
  // TLS copies the bytes, so the buffer is free for the data it decrypts.
  transport.receive(current->readBuffer.data(), length);
  readDecrypted(current);
}

// Parses all that TLS can decrypt of what was received, then goes on receiving.
void XMPPStream::Impl::readDecrypted(const std::shared_ptr<Connection>& current) {
  for (;;) {
    const XMPPTransport::Result result =
        current->transport->read(current->readBuffer.data(), current->readBuffer.size());
    if (result.error || result.closed) {
      endReading(current, result);
      return;
    }
    if (result.bytes == 0) {
      break;  // all read: receive more
    }
    if (!onRead(current, result.bytes)) {
      return;
    }
  }
  if (current->transport->hasPending()) {
    waitToWrite(current);  // reading made TLS answer, and the socket did not take it all
  }
  read(current);
}

// Closes the connection whose reading ended: silently when the user asked for it.
void XMPPStream::Impl::endReading(const std::shared_ptr<Connection>& current,
                                  const XMPPTransport::Result& result) {
  if (current->toldToDisconnect) {
    close(std::nullopt);
  } else if (result.error) {
    close(streamError(current->transport->isTLS() ? kErrorTLS : kErrorSocket,
                      "Reading failed: " + *result.error));
  } else {
    close(streamError(kErrorServerClosed, "The server closed the connection"));
  }
}

// Until the resource is bound, every packet from the server is acknowledged at once. The server's
// replies are small writes that its Nagle algorithm holds back until the previous one is
// acknowledged; a delayed acknowledgement from us (up to 40 ms, typically after the TLS 1.3
// session tickets) would stall the login each time. Quick-ack mode lasts until the next data we
// send, so it is asked for again after each read and each write; setting it also sends an
// acknowledgement that is being held.
void XMPPStream::Impl::ackQuicklyWhileNegotiating(Connection& current) {
#ifdef TCP_QUICKACK
  if (current.phase != Phase::Authenticated && current.socket.is_open()) {
    const int on = 1;
    setsockopt(current.socket.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  }
#endif
}

// Parses what one read brought; false when reading must not go on (the connection closed, or
// TLS starts).
bool XMPPStream::Impl::onRead(const std::shared_ptr<Connection>& current, std::size_t length) {
  ackQuicklyWhileNegotiating(*current);
  if (current->keepAliveTimer) {
    current->lastReceived = Clock::shared()->now();
  }
  {
    // What one read brings (often several stanzas, each for several delegates) reaches each
    // delegate queue in one go.
    const DispatchQueue::Batch batch;
    current->parser->parseData(current->readBuffer.data(), length);
  }
  if (connection != current) {
    return false;  // closed while parsing
  }
  if (current->restartParserAfterChunk) {
    current->restartParserAfterChunk = false;
    newParser(*current);
  }
  if (current->startTLSAfterChunk) {
    current->startTLSAfterChunk = false;
    beginTLS();
    return false;  // reading goes on over TLS after the handshake
  }
  return true;
}

// Hands `text` to the transport, which sends at once what the socket takes. It never closes the
// connection itself: a failure is reported from a task of its own, so that callers may go on
// using the connection after writing.
void XMPPStream::Impl::write(std::string_view text) {
  const auto& current = connection;
  if (!current) {
    return;
  }
  if (!current->transport || current->phase == Phase::Securing) {
    current->held.emplace_back(text);
    return;
  }
  const XMPPTransport::Result result = current->transport->write(text);
  if (result.error) {
    closeLater(current, streamError(current->transport->isTLS() ? kErrorTLS : kErrorSocket,
                                    "Writing failed: " + *result.error));
    return;
  }
  ackQuicklyWhileNegotiating(*current);
  if (current->transport->hasPending()) {
    waitToWrite(current);
  } else if (current->closeAfterWriting) {
    closeLater(current, std::nullopt);
  }
}

// Waits for the socket to take what the transport keeps, and sends it.
void XMPPStream::Impl::waitToWrite(const std::shared_ptr<Connection>& current) {
  if (current->waitingToWrite) {
    return;
  }
  current->waitingToWrite = true;
  auto stream = self();
  current->socket.async_wait(
      tcp::socket::wait_write, [stream, current](const asio::error_code& error) {
        Impl& impl = *stream->impl_;
        const auto turn = impl.queue->turn();
        current->waitingToWrite = false;
        if (impl.connection != current) {
          return;
        }
        const XMPPTransport::Result result = current->transport->flush();
        if (error || result.error) {
          impl.close(streamError(current->transport->isTLS() ? kErrorTLS : kErrorSocket,
                                 "Writing failed: " + (error ? error.message() : *result.error)));
          return;
        }
        ackQuicklyWhileNegotiating(*current);
        if (current->transport->hasPending()) {
          impl.waitToWrite(current);
        } else if (current->closeAfterWriting) {
          impl.close(std::nullopt);
        }
      });
}

// Closes `current` from a task of its own, if it is still the stream's connection then.
void XMPPStream::Impl::closeLater(const std::shared_ptr<Connection>& current,
                                  std::optional<KQError> error) {
  auto stream = self();
  queue->async([stream, current, error = std::move(error)] {
    Impl& impl = *stream->impl_;
    if (impl.connection == current) {
      impl.close(error);
    }
  });
}

void XMPPStream::Impl::sendNow(XMPPElement element) {
  if (!connection || connection->closeAfterWriting ||
      (connection->phase != Phase::Ready && connection->phase != Phase::Authenticated)) {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidFailToSendElement(
          sender, element, streamError(kErrorNotConnected, "The stream is not connected"));
    });
    return;
  }
  forEachModule([&element](XMPPModule& module) { module.streamWillSendElement(element); });
  write(element.XMLString());
  forEachModule([&element](XMPPModule& module) { module.streamDidSendElement(element); });
}

// --- Negotiation ---------------------------------------------------------------------------------

void XMPPStream::Impl::handleElement(const XMPPElement& element) {
  Connection& current = *connection;
  const std::string name = element.name();
  const std::string xmlns = element.xmlns();
  if (xmlns == kXMPPStreamNamespace) {
    if (name == "features") {
      handleFeatures(element);
    } else if (name == "error") {
      notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
        delegate.xmppStreamDidReceiveError(sender, element);
      });
      const auto children = element.children();
      const std::string condition = children.empty() ? "undefined" : children.front().name();
      close(streamError(kErrorStreamError, "Stream error: " + condition));
    }
    return;
  }
  if (xmlns == kXMPPTLSNamespace) {
    if (name == "proceed" && current.phase == Phase::StartingTLS) {
      current.startTLSAfterChunk = true;
      current.parser->stop();
    } else {
      close(streamError(kErrorTLS, "The server refused to start TLS"));
    }
    return;
  }
  if (xmlns == kXMPPSASLNamespace) {
    handleSASL(element);
    return;
  }
  if (current.phase == Phase::Binding || current.phase == Phase::StartingSession) {
    if (name == "iq") {
      handleBindResult(XMPPIQ(element));
    }
    return;
  }
  if (current.phase != Phase::Ready && current.phase != Phase::Authenticated) {
    return;  // no stanzas before the stream is negotiated
  }
  if (name == "iq") {
    dispatchIQ(XMPPIQ(element));
  } else if (name == "message") {
    dispatchMessage(XMPPMessage(element));
  } else if (name == "presence") {
    dispatchPresence(XMPPPresence(element));
  }
}

void XMPPStream::Impl::handleFeatures(const XMPPElement& features) {
  Connection& current = *connection;
  if (current.phase == Phase::OpeningAfterAuth) {
    const auto bind = features.elementForName("bind", kXMPPBindNamespace);
    if (!bind) {
      close(streamError(kErrorProtocol, "The server offers no resource binding"));
      return;
    }
    const auto session = features.elementForName("session", kXMPPSessionNamespace);
    current.sessionRequired = session && !session->elementForName("optional");
    XMPPElement bindRequest("bind", kXMPPBindNamespace);
    const auto jid = setting(&Impl::myJID);
    if (jid && jid->resource()) {
      bindRequest.addChildElement("resource").setStringValue(*jid->resource());
    }
    current.bindID = generateUUID();
    current.phase = Phase::Binding;
    write(XMPPIQ("set", std::nullopt, current.bindID, bindRequest).XMLString());
    return;
  }
  if (current.phase != Phase::Opening) {
    return;
  }
  const auto tlsPolicy = setting(&Impl::policy);
  if (!setting(&Impl::secure)) {
    const auto startTLS = features.elementForName("starttls", kXMPPTLSNamespace);
    const bool required = startTLS && startTLS->elementForName("required");
    if (startTLS && tlsPolicy != XMPPStreamStartTLSPolicy::None) {
      current.phase = Phase::StartingTLS;
      write("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
      return;
    }
    if (tlsPolicy == XMPPStreamStartTLSPolicy::Required) {
      close(streamError(kErrorTLS, "The server does not offer TLS, which the stream requires"));
      return;
    }
    if (required) {
      close(streamError(kErrorTLS, "The server requires TLS, which the stream does not use"));
      return;
    }
  }
  becomeReady(features);
}

void XMPPStream::Impl::beginTLS() {
  connection->phase = Phase::Securing;
  auto stream = self();
  auto current = connection;
  auto settings = std::make_shared<XMPPTLSSettings>();
  delegates.ask(
      [stream, settings](XMPPStreamDelegate& delegate) {
        delegate.xmppStreamWillSecureWithSettings(*stream, *settings);
        return true;
      },
      [stream, current, settings](const std::vector<bool>& /*answers*/) {
        Impl& impl = *stream->impl_;
        if (impl.connection == current) {
          impl.handshake(*settings);
        }
      },
      queue);
}

void XMPPStream::Impl::handshake(const XMPPTLSSettings& settings) {
  if (!tlsContext) {
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    context->set_default_verify_paths();
    const std::string caFile = KQVisitorConfig::shared().caFile;
    if (!caFile.empty()) {
      asio::error_code error;
      context->load_verify_file(caFile, error);
      if (error) {
        log("XMPPStream: cannot load the CA file ", caFile, ": ", error.message());
      }
    }
    context->set_verify_mode(asio::ssl::verify_peer);
    tlsContext = std::move(context);
  }
  auto current = connection;
  std::string name;
  if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Host) {
    name = current->host;
  } else if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Name) {
    name = settings.peerName;
  }
  const bool started = current->transport->startTLS(tlsContext->native_handle(), [&name](SSL* ssl) {
    if (name.empty()) {
      return;
    }
    if (isAddress(name)) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
    } else {
      SSL_set1_host(ssl, name.c_str());
      // SSL_set_tlsext_host_name, without the macro's C cast.
      SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
               const_cast<char*>(name.c_str()));
    }
  });
  if (!started) {
    close(streamError(kErrorTLS, "TLS failed: OpenSSL could not start a session"));
    return;
  }
  continueHandshake(current);
}

// Takes the handshake as far as what was received allows, then receives the server's next bytes.
void XMPPStream::Impl::continueHandshake(const std::shared_ptr<Connection>& current) {
  const XMPPTransport::Result result = current->transport->handshake();
  if (result.error) {
    close(streamError(kErrorTLS, "TLS failed: " + *result.error));
    return;
  }
  if (current->transport->hasPending()) {
    waitToWrite(current);
  }
  if (!current->transport->handshakeDone()) {
    receive(current, &Impl::handshakeReceived);
    return;
  }
  {
    std::scoped_lock lock(mutex);
    secure = true;
  }
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidSecure(sender);
  });
  auto held = std::move(current->held);
  current->held.clear();
  current->phase = Phase::Opening;  // no longer holding writes back
  for (const auto& text : held) {
    write(text);
  }
  openStream();
  readDecrypted(current);  // the server's first bytes may have come with the handshake's last
}

void XMPPStream::Impl::handshakeReceived(const std::shared_ptr<Connection>& current,
                                         const asio::error_code& error, std::size_t length) {
  if (error == asio::error::eof) {
    const XMPPTransport::Result end = current->transport->end();
    close(streamError(
        kErrorTLS,
        "TLS failed: " +
            (end.closed ? "the server closed the connection during the handshake" : *end.error)));
    return;
  }
  if (error) {
    close(streamError(kErrorTLS, "TLS failed: " + error.message()));
    return;
  }
  current->transport->receive(current->readBuffer.data(), length);
  continueHandshake(current);
}

void XMPPStream::Impl::becomeReady(const XMPPElement& features) {
  std::vector<std::string> offered;
  if (const auto list = features.elementForName("mechanisms", kXMPPSASLNamespace)) {
    for (const auto& mechanism : list->elementsForName("mechanism")) {
      offered.push_back(mechanism.stringValue());
    }
  }
  connection->phase = Phase::Ready;
  invalidate(connection->connectTimer);
  invalidate(connection->negotiationTimer);  // the host decides when to authenticate
  {
    std::scoped_lock lock(mutex);
    mechanisms = std::move(offered);
    state = XMPPStreamState::Connected;
  }
  forEachModule([](XMPPModule& module) { module.streamDidConnect(); });
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidConnect(sender);
  });
}

void XMPPStream::Impl::startAuthentication(
    const std::shared_ptr<XMPPSASLAuthentication>& newAuthentication) {
  if (!connection || connection->phase != Phase::Ready) {
    {
      std::scoped_lock lock(mutex);
      authenticating = false;
    }
    XMPPElement failure("failure", kXMPPSASLNamespace);
    failure.addChildElement("temporary-auth-failure");
    notify([failure](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidNotAuthenticate(sender, failure);
    });
    return;
  }
  connection->authentication = newAuthentication;
  connection->phase = Phase::Authenticating;
  armNegotiationTimer();
  std::optional<XMPPJID> jid;
  {
    std::scoped_lock lock(mutex);
    jid = myJID;
    state = XMPPStreamState::Negotiating;
  }
  write(newAuthentication->authElement(jid).XMLString());
}

void XMPPStream::Impl::handleSASL(const XMPPElement& element) {
  Connection& current = *connection;
  if (current.phase != Phase::Authenticating || !current.authentication) {
    close(streamError(kErrorProtocol, "Unexpected SASL element <" + element.name() + ">"));
    return;
  }
  const std::string name = element.name();
  if (name == "challenge") {
    const auto response = current.authentication->responseToChallenge(element);
    write(response ? response->XMLString()
                   : std::string("<abort xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"));
  } else if (name == "success") {
    openStream();  // the server expects a new stream at once
  } else if (name == "failure") {
    current.authentication.reset();
    current.phase = Phase::Ready;
    invalidate(current.negotiationTimer);
    {
      std::scoped_lock lock(mutex);
      authenticating = false;
      state = XMPPStreamState::Connected;
    }
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidNotAuthenticate(sender, element);
    });
  }
}

void XMPPStream::Impl::handleBindResult(const XMPPIQ& iq) {
  Connection& current = *connection;
  const auto id = iq.elementID();
  if (current.phase == Phase::StartingSession && id == current.sessionID) {
    if (iq.isResultIQ()) {
      finishAuthentication();
    } else {
      close(streamError(kErrorProtocol, "The server refused to start the session"));
    }
    return;
  }
  if (current.phase != Phase::Binding || id != current.bindID) {
    return;
  }
  if (!iq.isResultIQ()) {
    close(streamError(kErrorProtocol, "The server refused to bind a resource"));
    return;
  }
  const auto bind = iq.elementForName("bind", kXMPPBindNamespace);
  const auto jidElement = bind ? bind->elementForName("jid") : std::nullopt;
  const auto jid = jidElement ? XMPPJID::jidWithString(jidElement->stringValue()) : std::nullopt;
  if (!jid) {
    close(streamError(kErrorProtocol, "The server bound no usable address"));
    return;
  }
  {
    std::scoped_lock lock(mutex);
    myJID = jid;
  }
  if (current.sessionRequired) {
    current.sessionID = generateUUID();
    current.phase = Phase::StartingSession;
    write(XMPPIQ("set", std::nullopt, current.sessionID,
                 XMPPElement("session", kXMPPSessionNamespace))
              .XMLString());
    return;
  }
  finishAuthentication();
}

void XMPPStream::Impl::finishAuthentication() {
  Connection& current = *connection;
  current.phase = Phase::Authenticated;
  current.authentication.reset();
  invalidate(current.negotiationTimer);
  {
    std::scoped_lock lock(mutex);
    authenticating = false;
    authenticated = true;
    state = XMPPStreamState::Connected;
  }
  current.lastReceived = Clock::shared()->now();
  scheduleKeepAlive(clockDuration(setting(&Impl::keepAliveInterval)));
  forEachModule([](XMPPModule& module) { module.streamDidAuthenticate(); });
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidAuthenticate(sender);
  });
}

// --- Liveness
// --------------------------------------------------------------------------------------

void XMPPStream::Impl::scheduleKeepAlive(Clock::Duration delay) {
  invalidate(connection->keepAliveTimer);
  if (setting(&Impl::keepAliveInterval) <= Seconds::zero()) {
    return;
  }
  connection->keepAliveTimer =
      scheduleFor(connection, delay, [](Impl& impl) { impl.checkKeepAlive(); });
}

void XMPPStream::Impl::checkKeepAlive() {
  // Reads only stamp the time; the timer looks at the stamp when it fires, so a busy connection
  // costs no timer work per read.
  const auto interval = clockDuration(setting(&Impl::keepAliveInterval));
  const auto quiet = Clock::shared()->now() - connection->lastReceived;
  if (quiet < interval) {
    scheduleKeepAlive(interval - quiet);
    return;
  }
  const Seconds timeout = setting(&Impl::keepAliveTimeout);
  XMPPIQ ping("get", XMPPJID::jidWithString(connection->domain), generateUUID(),
              XMPPElement("ping", kXMPPPingNamespace));
  const auto id = *ping.elementID();
  std::weak_ptr<Connection> pinged = connection;
  std::weak_ptr<XMPPStream> weak = self();
  // Any answer, a result or an error, shows the connection carries packets.
  trackIQ(id, timeout, [weak, pinged, timeout](const std::optional<XMPPIQ>& answer) {
    const auto stream = weak.lock();
    const auto current = pinged.lock();
    if (!stream || !current || stream->impl_->connection != current) {
      return;
    }
    Impl& impl = *stream->impl_;
    if (!answer) {
      impl.close(streamError(kErrorKeepAliveTimeout,
                             "The connection is dead: the server did not answer a ping within " +
                                 secondsText(timeout)));
      return;
    }
    impl.scheduleKeepAlive(clockDuration(impl.setting(&Impl::keepAliveInterval)));
  });
  write(ping.XMLString());
}

// --- Stanzas -------------------------------------------------------------------------------------

void XMPPStream::Impl::dispatchIQ(const XMPPIQ& iq) {
  if (iq.isResultIQ() || iq.isErrorIQ()) {
    if (const auto id = iq.elementID()) {
      auto& trackers = connection->trackers;
      const auto found = trackers.find(*id);
      if (found != trackers.end()) {
        auto tracker = std::move(found->second);
        trackers.erase(found);
        invalidate(tracker.timer);
        tracker.response(iq);
        return;
      }
    }
  }
  bool handled = false;
  forEachModule([&](XMPPModule& module) { handled = module.streamDidReceiveIQ(iq) || handled; });
  auto stream = self();
  delegates.ask(
      [stream, iq](XMPPStreamDelegate& delegate) {
        return delegate.xmppStreamDidReceiveIQ(*stream, iq);
      },
      [stream, iq, handled](const std::vector<bool>& answers) {
        const bool anyDelegate = std::find(answers.begin(), answers.end(), true) != answers.end();
        if (!handled && !anyDelegate && iq.requiresResponse()) {
          stream->impl_->sendNow(XMPPIQ::errorIQ(iq, "cancel", "service-unavailable"));
        }
      },
      queue);
}

void XMPPStream::Impl::dispatchMessage(const XMPPMessage& message) {
  forEachModule([&message](XMPPModule& module) { module.streamDidReceiveMessage(message); });
  notify([message](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidReceiveMessage(sender, message);
  });
}

void XMPPStream::Impl::dispatchPresence(const XMPPPresence& presence) {
  forEachModule([&presence](XMPPModule& module) { module.streamDidReceivePresence(presence); });
  notify([presence](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidReceivePresence(sender, presence);
  });
}

void XMPPStream::Impl::trackIQ(const std::string& id, std::chrono::duration<double> timeout,
                               std::function<void(const std::optional<XMPPIQ>&)> response) {
  Connection::Tracker tracker{std::move(response), nullptr};
  if (timeout >= std::chrono::duration<double>::zero()) {
    tracker.timer = scheduleFor(connection, clockDuration(timeout), [id](Impl& impl) {
      auto& pending = impl.connection->trackers;
      const auto found = pending.find(id);
      if (found != pending.end()) {
        auto expired = std::move(found->second);
        pending.erase(found);
        expired.response(std::nullopt);
      }
    });
  }
  connection->trackers[id] = std::move(tracker);
}

// --- XMPPStream ----------------------------------------------------------------------------------

XMPPStream::XMPPStream() : impl_(std::make_unique<Impl>(*this)) {}

XMPPStream::~XMPPStream() = default;

std::shared_ptr<XMPPStream> XMPPStream::create() {
  // OpenSSL sets itself up on first use, keeping some state on the thread that triggers it;
  // doing it here puts that on the creating thread (normally the main thread) rather than on a
  // stream's thread. Without an exit handler: a stream's thread may still close its TLS session
  // while the process exits.
  static std::once_flag once;
  std::call_once(once, [] { OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr); });
  XMPPParser::initialize();
  return std::shared_ptr<XMPPStream>(new XMPPStream);
}

std::string XMPPStream::hostName() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->hostName;
}

void XMPPStream::setHostName(std::string hostName) {
  std::scoped_lock lock(impl_->mutex);
  impl_->hostName = std::move(hostName);
}

std::uint16_t XMPPStream::hostPort() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->hostPort;
}

void XMPPStream::setHostPort(std::uint16_t hostPort) {
  std::scoped_lock lock(impl_->mutex);
  impl_->hostPort = hostPort;
}

std::optional<XMPPJID> XMPPStream::myJID() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->myJID;
}

void XMPPStream::setMyJID(std::optional<XMPPJID> jid) {
  std::scoped_lock lock(impl_->mutex);
  impl_->myJID = std::move(jid);
}

XMPPStreamStartTLSPolicy XMPPStream::startTLSPolicy() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->policy;
}

void XMPPStream::setStartTLSPolicy(XMPPStreamStartTLSPolicy policy) {
  std::scoped_lock lock(impl_->mutex);
  impl_->policy = policy;
}

bool XMPPStream::enableBackgroundingOnSocket() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->backgrounding;
}

void XMPPStream::setEnableBackgroundingOnSocket(bool enable) {
  std::scoped_lock lock(impl_->mutex);
  impl_->backgrounding = enable;
}

XMPPStream::Seconds XMPPStream::negotiationTimeout() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->negotiationTimeout;
}

void XMPPStream::setNegotiationTimeout(Seconds timeout) {
  std::scoped_lock lock(impl_->mutex);
  impl_->negotiationTimeout = timeout;
}

XMPPStream::Seconds XMPPStream::keepAliveInterval() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->keepAliveInterval;
}

void XMPPStream::setKeepAliveInterval(Seconds interval) {
  std::scoped_lock lock(impl_->mutex);
  impl_->keepAliveInterval = interval;
}

XMPPStream::Seconds XMPPStream::keepAliveTimeout() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->keepAliveTimeout;
}

void XMPPStream::setKeepAliveTimeout(Seconds timeout) {
  std::scoped_lock lock(impl_->mutex);
  impl_->keepAliveTimeout = timeout;
}

XMPPStreamState XMPPStream::state() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->state;
}

bool XMPPStream::isConnecting() const {
  const XMPPStreamState current = state();
  return current == XMPPStreamState::Connecting || current == XMPPStreamState::Negotiating;
}

bool XMPPStream::isAuthenticated() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->authenticated;
}

bool XMPPStream::isAuthenticating() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->authenticating;
}

bool XMPPStream::isSecure() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->secure;
}

std::vector<std::string> XMPPStream::supportedAuthenticationMechanisms() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->mechanisms;
}

bool XMPPStream::supportsAnonymousAuthentication() const {
  const auto offered = supportedAuthenticationMechanisms();
  return std::find(offered.begin(), offered.end(), "ANONYMOUS") != offered.end();
}

bool XMPPStream::supportsPlainAuthentication() const {
  const auto offered = supportedAuthenticationMechanisms();
  return std::find(offered.begin(), offered.end(), "PLAIN") != offered.end();
}

bool XMPPStream::connectWithTimeout(std::chrono::duration<double> timeout, KQError* error) {
  {
    std::scoped_lock lock(impl_->mutex);
    std::optional<KQError> refusal;
    if (impl_->state != XMPPStreamState::Disconnected) {
      refusal = streamError(kErrorInvalidState,
                            "Attempting to connect while already connected or connecting.");
    } else if (!impl_->myJID) {
      refusal = streamError(kErrorInvalidProperty, "You must set myJID before calling connect.");
    }
    if (refusal) {
      if (error != nullptr) {
        *error = *refusal;
      }
      return false;
    }
    impl_->state = XMPPStreamState::Connecting;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, timeout] { self->impl_->startConnect(timeout); });
  return true;
}

void XMPPStream::disconnect() {
  auto self = shared_from_this();
  impl_->queue->async([self] { self->impl_->requestDisconnect(); });
}

bool XMPPStream::authenticate(const std::shared_ptr<XMPPSASLAuthentication>& authentication,
                              KQError* error) {
  std::optional<KQError> refusal;
  {
    std::scoped_lock lock(impl_->mutex);
    if (!authentication) {
      refusal = streamError(kErrorUnsupportedAction, "No authentication given.");
    } else if (impl_->state != XMPPStreamState::Connected || impl_->authenticated ||
               impl_->authenticating) {
      refusal = streamError(kErrorInvalidState,
                            "Please wait until the stream is connected and not authenticated.");
    } else if (std::find(impl_->mechanisms.begin(), impl_->mechanisms.end(),
                         authentication->mechanismName()) == impl_->mechanisms.end()) {
      refusal = streamError(kErrorUnsupportedAction,
                            "The server does not support " + authentication->mechanismName() + ".");
    } else {
      impl_->authenticating = true;
    }
  }
  if (refusal) {
    if (error != nullptr) {
      *error = *refusal;
    }
    return false;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, authentication] { self->impl_->startAuthentication(authentication); });
  return true;
}

void XMPPStream::sendElement(const XMPPElement& element) {
  if (const auto turn = impl_->queue->tryTurn()) {
    impl_->sendNow(element.copy());
    return;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, copy = element.copy()] { self->impl_->sendNow(copy); });
}

void XMPPStream::sendElement(XMPPElement&& element) {
  if (!element.isSoleHandleOnTree()) {
    sendElement(static_cast<const XMPPElement&>(element));
    return;
  }
  if (const auto turn = impl_->queue->tryTurn()) {
    impl_->sendNow(std::move(element));
    return;
  }
  auto self = shared_from_this();
  impl_->queue->async([self, owned = std::move(element)] { self->impl_->sendNow(owned); });
}

void XMPPStream::sendIQ(const XMPPIQ& iq, std::chrono::duration<double> timeout,
                        std::function<void(const std::optional<XMPPIQ>&)> response) {
  XMPPIQ copy(iq.copy());
  auto id = copy.elementID();
  if (!id) {
    id = generateUUID();
    copy.addAttributeWithName("id", *id);
  }
  auto self = shared_from_this();
  impl_->queue->async([self, copy, id = *id, timeout, response = std::move(response)]() mutable {
    Impl& impl = *self->impl_;
    if (!impl.connection || (impl.connection->phase != Phase::Ready &&
                             impl.connection->phase != Phase::Authenticated)) {
      response(std::nullopt);
      return;
    }
    impl.trackIQ(id, timeout, std::move(response));
    impl.sendNow(copy);
  });
}

std::string XMPPStream::generateUUID() {
  uuid_t uuid;
  uuid_generate(uuid);
  std::array<char, 37> text{};
  uuid_unparse_upper(uuid, text.data());
  return std::string(text.data());
}

void XMPPStream::addDelegate(const std::shared_ptr<XMPPStreamDelegate>& delegate,
                             std::shared_ptr<DispatchQueue> queue) {
  impl_->delegates.add(delegate, std::move(queue));
}

void XMPPStream::removeDelegate(const XMPPStreamDelegate* delegate) {
  impl_->delegates.remove(delegate);
}

const std::shared_ptr<XMPPQueue>& XMPPStream::streamQueue() const {
  return impl_->queue;
}

std::vector<std::shared_ptr<XMPPModule>> XMPPStream::registeredModules() const {
  if (impl_->queue->isCurrent()) {
    return impl_->modules;
  }
  std::promise<std::vector<std::shared_ptr<XMPPModule>>> promise;
  auto future = promise.get_future();
  impl_->queue->async([this, &promise] { promise.set_value(impl_->modules); });
  return future.get();
}

void XMPPStream::registerModule(const std::shared_ptr<XMPPModule>& module) {
  auto self = shared_from_this();
  impl_->queue->async([self, module] {
    self->impl_->modules.push_back(module);
    module->didActivate();
  });
}

void XMPPStream::unregisterModule(const XMPPModule* module) {
  auto self = shared_from_this();
  impl_->queue->async([self, module] {
    auto& modules = self->impl_->modules;
    const auto found = std::find_if(modules.begin(), modules.end(),
                                    [module](const auto& entry) { return entry.get() == module; });
    if (found == modules.end()) {
      return;
    }
    auto removed = *found;
    modules.erase(found);
    removed->willDeactivate();
  });
}

}  // namespace kq::xmpp
