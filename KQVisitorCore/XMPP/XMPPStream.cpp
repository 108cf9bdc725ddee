#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/XMPP/XMPPDelegateList.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPParser.h>
#include <KQVisitorCore/XMPP/XMPPQueue.h>
#include <KQVisitorCore/XMPP/XMPPSASLAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>
#include <KQVisitorCore/XMPP/XMPPTimer.h>

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <uuid/uuid.h>
#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/ssl/context.hpp>
#include <asio/ssl/stream.hpp>
#include <asio/write.hpp>

#include <algorithm>
#include <array>
#include <deque>
#include <future>
#include <map>
#include <mutex>

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
  Idle,
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

}  // namespace

// One TCP connection and what rides on it. Every asynchronous operation holds the connection, so
// it outlives the operations started on it even after the stream has moved on.
struct Connection {
  explicit Connection(asio::io_context& context) : resolver(context), socket(context) {}
  tcp::resolver resolver;
  tcp::socket socket;
  std::unique_ptr<asio::ssl::stream<tcp::socket&>> tls;
  std::array<char, 16384> readBuffer{};
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
  XMPPStreamState state = XMPPStreamState::Disconnected;                  // guarded by mutex
  bool secure = false;                                                    // guarded by mutex
  bool authenticated = false;                                             // guarded by mutex
  bool authenticating = false;                                            // guarded by mutex
  std::vector<std::string> mechanisms;                                    // guarded by mutex

  XMPPStream& owner;
  const std::shared_ptr<XMPPQueue> queue;
  XMPPDelegateList<XMPPStreamDelegate> delegates;

  // Everything below is used on the stream's queue only.
  std::shared_ptr<Connection> connection;
  std::shared_ptr<asio::ssl::context> tlsContext;  // built once, kept across reconnects
  std::unique_ptr<XMPPParser> parser;
  bool restartParserAfterChunk = false;
  bool startTLSAfterChunk = false;
  Phase phase = Phase::Idle;
  std::string connectHost;
  std::uint16_t connectPort = 0;
  std::string domain;
  std::deque<std::string> writeQueue;
  bool writing = false;
  bool closeAfterWriting = false;
  bool toldToDisconnect = false;
  bool sessionRequired = false;
  std::string bindID;
  std::string sessionID;
  std::shared_ptr<XMPPSASLAuthentication> authentication;
  std::shared_ptr<XMPPTimer> connectTimer;
  struct Tracker {
    std::function<void(const std::optional<XMPPIQ>&)> response;
    std::shared_ptr<XMPPTimer> timer;
  };
  std::map<std::string, Tracker> trackers;
  std::vector<std::shared_ptr<XMPPModule>> modules;

  std::shared_ptr<XMPPStream> self() { return owner.shared_from_this(); }

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

  void notify(const std::function<void(XMPPStreamDelegate&, XMPPStream&)>& call) {
    auto stream = self();
    delegates.invoke([stream, call](XMPPStreamDelegate& delegate) { call(delegate, *stream); });
  }

  // Connecting and closing.
  void startConnect(std::chrono::duration<double> timeout);
  void onResolved(const std::shared_ptr<Connection>& connection,
                  const tcp::resolver::results_type& endpoints);
  void onTCPConnected(const std::shared_ptr<Connection>& connection);
  void requestDisconnect();
  void close(const std::optional<KQError>& error);

  // Reading, parsing and writing.
  void newParser();
  void openStream();
  void read(const std::shared_ptr<Connection>& connection);
  void onRead(const std::shared_ptr<Connection>& connection, std::size_t length);
  void write(std::string text);
  void writeNext();
  void sendNow(XMPPElement element);

  // Negotiation.
  void handleElement(const XMPPElement& element);
  void handleFeatures(const XMPPElement& features);
  void beginTLS();
  void handshake(const XMPPTLSSettings& settings);
  void becomeReady(const XMPPElement& features);
  void startAuthentication(const std::shared_ptr<XMPPSASLAuthentication>& authentication);
  void handleSASL(const XMPPElement& element);
  void handleBindResult(const XMPPIQ& iq);
  void finishAuthentication();

  // Stanzas.
  void dispatchIQ(const XMPPIQ& iq);
  void dispatchMessage(const XMPPMessage& message);
  void dispatchPresence(const XMPPPresence& presence);
  void trackIQ(const std::string& id, std::chrono::duration<double> timeout,
               std::function<void(const std::optional<XMPPIQ>&)> response);
};

// --- Connecting and closing ------------------------------------------------------------------

void XMPPStream::Impl::startConnect(std::chrono::duration<double> timeout) {
  {
    std::scoped_lock lock(mutex);
    connectHost = hostName.empty() && myJID ? myJID->domain() : hostName;
    connectPort = hostPort;
    domain = myJID ? myJID->domain() : std::string();
  }
  toldToDisconnect = false;
  closeAfterWriting = false;
  writeQueue.clear();
  writing = false;
  phase = Phase::Resolving;
  connection = std::make_shared<Connection>(*queue->ioContext());
  if (timeout >= std::chrono::duration<double>::zero()) {
    std::weak_ptr<XMPPStream> weak = self();
    connectTimer = XMPPTimer::scheduledTimer(
        queue, std::chrono::duration_cast<Clock::Duration>(timeout), false, [weak] {
          const auto stream = weak.lock();
          if (!stream) {
            return;
          }
          Impl& impl = *stream->impl_;
          if (impl.phase == Phase::Idle || impl.phase == Phase::Ready ||
              impl.phase >= Phase::Authenticating) {
            return;
          }
          impl.notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
            delegate.xmppStreamConnectDidTimeout(sender);
          });
          impl.close(streamError(kErrorConnectTimeout, "The connection timed out"));
        });
  }
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketWillConnect(sender);
  });
  auto stream = self();
  auto current = connection;
  current->resolver.async_resolve(
      connectHost, std::to_string(connectPort),
      [stream, current](const asio::error_code& error, const tcp::resolver::results_type& found) {
        Impl& impl = *stream->impl_;
        if (impl.connection != current) {
          return;
        }
        if (error) {
          impl.close(streamError(kErrorSocket,
                                 "Cannot resolve " + impl.connectHost + ": " + error.message()));
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
        if (impl.connection != current) {
          return;
        }
        if (error) {
          impl.close(streamError(kErrorSocket,
                                 "Cannot connect to " + impl.connectHost + ": " + error.message()));
          return;
        }
        impl.onTCPConnected(current);
      });
}

void XMPPStream::Impl::onTCPConnected(const std::shared_ptr<Connection>& current) {
  asio::error_code ignored;
  current->socket.set_option(tcp::no_delay(true), ignored);
  setState(XMPPStreamState::Negotiating);
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamSocketDidConnect(sender);
  });
  openStream();
  read(current);
}

void XMPPStream::Impl::requestDisconnect() {
  if (!connection) {
    return;
  }
  toldToDisconnect = true;
  forEachModule([](XMPPModule& module) { module.streamWasToldToDisconnect(); });
  const bool streamOpen = phase != Phase::Resolving && phase != Phase::Securing;
  if (!streamOpen) {
    close(std::nullopt);
    return;
  }
  write("</stream:stream>");
  closeAfterWriting = true;
}

void XMPPStream::Impl::close(const std::optional<KQError>& error) {
  if (!connection) {
    return;
  }
  auto closing = std::move(connection);
  connection.reset();
  asio::error_code ignored;
  closing->resolver.cancel();
  closing->socket.shutdown(tcp::socket::shutdown_both, ignored);
  closing->socket.close(ignored);
  if (parser) {
    parser->stop();  // this may run inside the parser's callback: no later element
  }
  if (connectTimer) {
    connectTimer->invalidate();
    connectTimer.reset();
  }
  phase = Phase::Idle;
  writeQueue.clear();
  writing = false;
  closeAfterWriting = false;
  authentication.reset();
  auto pending = std::move(trackers);
  trackers.clear();
  {
    std::scoped_lock lock(mutex);
    state = XMPPStreamState::Disconnected;
    secure = false;
    authenticated = false;
    authenticating = false;
    mechanisms.clear();
  }
  const std::optional<KQError> reported = toldToDisconnect ? std::nullopt : error;
  for (auto& [id, tracker] : pending) {
    if (tracker.timer) {
      tracker.timer->invalidate();
    }
    tracker.response(std::nullopt);
  }
  forEachModule([&reported](XMPPModule& module) { module.streamDidDisconnect(reported); });
  notify([reported](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidDisconnect(sender, reported);
  });
}

// --- Reading, parsing and writing -------------------------------------------------------------

void XMPPStream::Impl::newParser() {
  parser = std::make_unique<XMPPParser>(
      XMPPParser::Mode::Stream,
      XMPPParser::Callbacks{
          .didReadRoot = nullptr,
          .didReadElement = [this](const XMPPElement& element) { handleElement(element); },
          .didEnd =
              [this] { close(streamError(kErrorServerClosed, "The server closed the stream")); },
          .didFail = [this](const KQError& error) { close(error); }});
}

void XMPPStream::Impl::openStream() {
  // After SASL success this runs inside the parser's callback: the parser is replaced once the
  // current chunk has been parsed (restartParserAfterChunk).
  if (phase != Phase::Authenticating) {
    newParser();
  }
  if (phase == Phase::Authenticating) {
    phase = Phase::OpeningAfterAuth;
  } else {
    phase = Phase::Opening;
  }
  write("<?xml version='1.0'?><stream:stream to='" + escapeAttribute(domain) +
        "' version='1.0' xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>");
}

void XMPPStream::Impl::read(const std::shared_ptr<Connection>& current) {
  auto stream = self();
  auto handler = [stream, current](const asio::error_code& error, std::size_t length) {
    Impl& impl = *stream->impl_;
    if (impl.connection != current) {
      return;
    }
    if (error) {
      if (impl.toldToDisconnect) {
        impl.close(std::nullopt);
      } else if (error == asio::error::eof) {
        impl.close(streamError(kErrorServerClosed, "The server closed the connection"));
      } else {
        impl.close(streamError(current->tls ? kErrorTLS : kErrorSocket,
                               "Reading failed: " + error.message()));
      }
      return;
    }
    impl.onRead(current, length);
  };
  if (current->tls) {
    current->tls->async_read_some(asio::buffer(current->readBuffer), handler);
  } else {
    current->socket.async_read_some(asio::buffer(current->readBuffer), handler);
  }
}

void XMPPStream::Impl::onRead(const std::shared_ptr<Connection>& current, std::size_t length) {
  parser->parseData(current->readBuffer.data(), length);
  if (connection != current) {
    return;  // closed while parsing
  }
  if (restartParserAfterChunk) {
    restartParserAfterChunk = false;
    newParser();
  }
  if (startTLSAfterChunk) {
    startTLSAfterChunk = false;
    beginTLS();
    return;  // reading continues over TLS after the handshake
  }
  read(current);
}

void XMPPStream::Impl::write(std::string text) {
  if (!connection) {
    return;
  }
  writeQueue.push_back(std::move(text));
  writeNext();
}

void XMPPStream::Impl::writeNext() {
  if (writing || writeQueue.empty() || !connection || phase == Phase::Securing ||
      phase == Phase::Resolving) {
    return;
  }
  writing = true;
  auto stream = self();
  auto current = connection;
  auto handler = [stream, current](const asio::error_code& error, std::size_t /*length*/) {
    Impl& impl = *stream->impl_;
    if (impl.connection != current) {
      return;
    }
    impl.writing = false;
    if (error) {
      impl.close(streamError(current->tls ? kErrorTLS : kErrorSocket,
                             "Writing failed: " + error.message()));
      return;
    }
    impl.writeQueue.pop_front();
    if (impl.writeQueue.empty() && impl.closeAfterWriting) {
      impl.close(std::nullopt);
      return;
    }
    impl.writeNext();
  };
  const std::string& front = writeQueue.front();
  if (current->tls) {
    asio::async_write(*current->tls, asio::buffer(front), handler);
  } else {
    asio::async_write(current->socket, asio::buffer(front), handler);
  }
}

void XMPPStream::Impl::sendNow(XMPPElement element) {
  if (!connection || closeAfterWriting ||
      (phase != Phase::Ready && phase != Phase::Authenticated)) {
    notify([element](XMPPStreamDelegate& delegate, XMPPStream& sender) {
      delegate.xmppStreamDidFailToSendElement(
          sender, element, streamError(kErrorNotConnected, "The stream is not connected"));
    });
    return;
  }
  forEachModule([&element](XMPPModule& module) { module.streamWillSendElement(element); });
  write(element.XMLString());
}

// --- Negotiation ---------------------------------------------------------------------------------

void XMPPStream::Impl::handleElement(const XMPPElement& element) {
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
    if (name == "proceed" && phase == Phase::StartingTLS) {
      startTLSAfterChunk = true;
      parser->stop();
    } else {
      close(streamError(kErrorTLS, "The server refused to start TLS"));
    }
    return;
  }
  if (xmlns == kXMPPSASLNamespace) {
    handleSASL(element);
    return;
  }
  if (phase == Phase::Binding || phase == Phase::StartingSession) {
    if (name == "iq") {
      handleBindResult(XMPPIQ(element));
    }
    return;
  }
  if (phase != Phase::Ready && phase != Phase::Authenticated) {
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
  if (phase == Phase::OpeningAfterAuth) {
    const auto bind = features.elementForName("bind", kXMPPBindNamespace);
    if (!bind) {
      close(streamError(kErrorProtocol, "The server offers no resource binding"));
      return;
    }
    const auto session = features.elementForName("session", kXMPPSessionNamespace);
    sessionRequired = session && !session->elementForName("optional");
    XMPPElement bindRequest("bind", kXMPPBindNamespace);
    std::optional<XMPPJID> jid;
    {
      std::scoped_lock lock(mutex);
      jid = myJID;
    }
    if (jid && jid->resource()) {
      bindRequest.addChildElement("resource").setStringValue(*jid->resource());
    }
    bindID = generateUUID();
    phase = Phase::Binding;
    write(XMPPIQ("set", std::nullopt, bindID, bindRequest).XMLString());
    return;
  }
  if (phase != Phase::Opening) {
    return;
  }
  XMPPStreamStartTLSPolicy tlsPolicy = XMPPStreamStartTLSPolicy::Preferred;
  bool isSecure = false;
  {
    std::scoped_lock lock(mutex);
    tlsPolicy = policy;
    isSecure = secure;
  }
  if (!isSecure) {
    const auto startTLS = features.elementForName("starttls", kXMPPTLSNamespace);
    const bool required = startTLS && startTLS->elementForName("required");
    if (startTLS && tlsPolicy != XMPPStreamStartTLSPolicy::None) {
      phase = Phase::StartingTLS;
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
  phase = Phase::Securing;
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
  current->tls = std::make_unique<asio::ssl::stream<tcp::socket&>>(current->socket, *tlsContext);
  SSL* ssl = current->tls->native_handle();
  std::string name;
  if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Host) {
    name = connectHost;
  } else if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Name) {
    name = settings.peerName;
  }
  if (!name.empty()) {
    if (isAddress(name)) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str());
    } else {
      SSL_set1_host(ssl, name.c_str());
      // SSL_set_tlsext_host_name, without the macro's C cast.
      SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
               const_cast<char*>(name.c_str()));
    }
  }
  auto stream = self();
  current->tls->async_handshake(
      asio::ssl::stream_base::client, [stream, current](const asio::error_code& error) {
        Impl& impl = *stream->impl_;
        if (impl.connection != current) {
          return;
        }
        if (error) {
          std::string reason = error.message();
          const long verify = SSL_get_verify_result(current->tls->native_handle());
          if (verify != X509_V_OK) {
            reason = X509_verify_cert_error_string(verify);
          }
          impl.close(streamError(kErrorTLS, "TLS failed: " + reason));
          return;
        }
        {
          std::scoped_lock lock(impl.mutex);
          impl.secure = true;
        }
        impl.notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
          delegate.xmppStreamDidSecure(sender);
        });
        impl.openStream();
        impl.read(current);
      });
}

void XMPPStream::Impl::becomeReady(const XMPPElement& features) {
  std::vector<std::string> offered;
  if (const auto list = features.elementForName("mechanisms", kXMPPSASLNamespace)) {
    for (const auto& mechanism : list->elementsForName("mechanism")) {
      offered.push_back(mechanism.stringValue());
    }
  }
  phase = Phase::Ready;
  if (connectTimer) {
    connectTimer->invalidate();
    connectTimer.reset();
  }
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
  if (phase != Phase::Ready) {
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
  authentication = newAuthentication;
  phase = Phase::Authenticating;
  std::optional<XMPPJID> jid;
  {
    std::scoped_lock lock(mutex);
    jid = myJID;
    state = XMPPStreamState::Negotiating;
  }
  write(authentication->authElement(jid).XMLString());
}

void XMPPStream::Impl::handleSASL(const XMPPElement& element) {
  if (phase != Phase::Authenticating || !authentication) {
    close(streamError(kErrorProtocol, "Unexpected SASL element <" + element.name() + ">"));
    return;
  }
  const std::string name = element.name();
  if (name == "challenge") {
    const auto response = authentication->responseToChallenge(element);
    write(response ? response->XMLString()
                   : std::string("<abort xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"));
  } else if (name == "success") {
    // The server expects a new stream at once; the parser restarts after this chunk.
    restartParserAfterChunk = true;
    openStream();
  } else if (name == "failure") {
    authentication.reset();
    phase = Phase::Ready;
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
  const auto id = iq.elementID();
  if (phase == Phase::StartingSession && id == sessionID) {
    if (iq.isResultIQ()) {
      finishAuthentication();
    } else {
      close(streamError(kErrorProtocol, "The server refused to start the session"));
    }
    return;
  }
  if (phase != Phase::Binding || id != bindID) {
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
  if (sessionRequired) {
    sessionID = generateUUID();
    phase = Phase::StartingSession;
    write(XMPPIQ("set", std::nullopt, sessionID, XMPPElement("session", kXMPPSessionNamespace))
              .XMLString());
    return;
  }
  finishAuthentication();
}

void XMPPStream::Impl::finishAuthentication() {
  phase = Phase::Authenticated;
  authentication.reset();
  {
    std::scoped_lock lock(mutex);
    authenticating = false;
    authenticated = true;
    state = XMPPStreamState::Connected;
  }
  forEachModule([](XMPPModule& module) { module.streamDidAuthenticate(); });
  notify([](XMPPStreamDelegate& delegate, XMPPStream& sender) {
    delegate.xmppStreamDidAuthenticate(sender);
  });
}

// --- Stanzas -------------------------------------------------------------------------------------

void XMPPStream::Impl::dispatchIQ(const XMPPIQ& iq) {
  if (iq.isResultIQ() || iq.isErrorIQ()) {
    if (const auto id = iq.elementID()) {
      const auto found = trackers.find(*id);
      if (found != trackers.end()) {
        auto tracker = std::move(found->second);
        trackers.erase(found);
        if (tracker.timer) {
          tracker.timer->invalidate();
        }
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
  Tracker tracker{std::move(response), nullptr};
  if (timeout >= std::chrono::duration<double>::zero()) {
    std::weak_ptr<XMPPStream> weak = self();
    tracker.timer = XMPPTimer::scheduledTimer(
        queue, std::chrono::duration_cast<Clock::Duration>(timeout), false, [weak, id] {
          const auto stream = weak.lock();
          if (!stream) {
            return;
          }
          auto& pending = stream->impl_->trackers;
          const auto found = pending.find(id);
          if (found != pending.end()) {
            auto expired = std::move(found->second);
            pending.erase(found);
            expired.response(std::nullopt);
          }
        });
  }
  trackers[id] = std::move(tracker);
}

// --- XMPPStream ----------------------------------------------------------------------------------

XMPPStream::XMPPStream() : impl_(std::make_unique<Impl>(*this)) {}

XMPPStream::~XMPPStream() = default;

std::shared_ptr<XMPPStream> XMPPStream::create() {
  // OpenSSL sets itself up on first use, keeping some state on the thread that triggers it;
  // doing it here puts that on the creating thread (normally the main thread) rather than on a
  // stream's thread.
  static std::once_flag once;
  std::call_once(once, [] { OPENSSL_init_ssl(0, nullptr); });
  XMPPParser::initialize();
  // A task on the stream's own thread may hold the last reference. Destroying the stream there
  // would leave that thread tearing down libxml2 and OpenSSL state while nothing waits for it,
  // even while the process exits and those libraries clean up: such a stream is destroyed on
  // the main queue instead, which joins the stream's thread.
  return std::shared_ptr<XMPPStream>(new XMPPStream, [](XMPPStream* stream) {
    if (stream->impl_->queue->isCurrent()) {
      DispatchQueue::main()->async([stream] { delete stream; });
    } else {
      delete stream;
    }
  });
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
  auto self = shared_from_this();
  impl_->queue->async([self, copy = element.copy()] { self->impl_->sendNow(copy); });
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
    if (!impl.connection || (impl.phase != Phase::Ready && impl.phase != Phase::Authenticated)) {
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
