#include <KQVisitorCore/XMPP/detail/XMPPStreamConnection.h>

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamErrors.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ssl/context.hpp>

#include <utility>

namespace kq::xmpp {

namespace {

using asio::ip::tcp;

bool isAddress(const std::string& name) {
  asio::error_code error;
  asio::ip::make_address(name, error);
  return !error;
}

}  // namespace

XMPPStreamConnection::XMPPStreamConnection(std::shared_ptr<XMPPQueue> queue,
                                           const std::shared_ptr<Owner>& owner, std::string host,
                                           std::uint16_t port)
    : queue_(std::move(queue)),
      owner_(*owner),
      ownerLife_(owner),
      host_(std::move(host)),
      port_(port),
      resolver_(*queue_->ioContext()),
      socket_(*queue_->ioContext()) {}

XMPPStreamConnection::~XMPPStreamConnection() = default;

// --- Connecting and shutting down --------------------------------------------------------------

void XMPPStreamConnection::connect() {
  resolver_.async_resolve(
      host_, std::to_string(port_),
      [owner = ownerLife_.lock(), self = shared_from_this()](
          const asio::error_code& error, const tcp::resolver::results_type& found) {
        const auto turn = self->queue_->turn();
        if (!owner->isCurrent(*self)) {
          return;
        }
        if (error) {
          owner->connectionDidEnd(streamError(
              XMPPStream::kErrorSocket, "Cannot resolve " + self->host_ + ": " + error.message()));
          return;
        }
        self->onResolved(found);
      });
}

void XMPPStreamConnection::onResolved(const tcp::resolver::results_type& endpoints) {
  asio::async_connect(
      socket_, endpoints,
      [owner = ownerLife_.lock(), self = shared_from_this()](const asio::error_code& error,
                                                             const tcp::endpoint&) {
        const auto turn = self->queue_->turn();
        if (!owner->isCurrent(*self)) {
          return;
        }
        if (error) {
          owner->connectionDidEnd(streamError(
              XMPPStream::kErrorSocket, "Cannot connect to " + self->host_ + ":" +
                                            std::to_string(self->port_) + ": " + error.message()));
          return;
        }
        self->onTCPConnected();
      });
}

void XMPPStreamConnection::onTCPConnected() {
  asio::error_code ignored;
  socket_.set_option(tcp::no_delay(true), ignored);
  transport_ = std::make_unique<XMPPTransport>(socket_.native_handle());
  auto held = std::move(held_);
  held_.clear();
  for (const auto& text : held) {
    write(text);
  }
  owner_.connectionDidConnectSocket();
  read();
}

void XMPPStreamConnection::shutdown() {
  asio::error_code ignored;
  resolver_.cancel();
  socket_.shutdown(tcp::socket::shutdown_both, ignored);
  socket_.close(ignored);
  if (parser_) {
    parser_->stop();  // this may run inside the parser's callback: no later element
  }
}

// --- Reading and parsing -----------------------------------------------------------------------

void XMPPStreamConnection::restartParser(bool afterChunk) {
  if (afterChunk) {
    restartParserAfterChunk_ = true;
    return;
  }
  // The parser runs only inside onRead, which holds the connection.
  parser_ = std::make_unique<XMPPParser>(
      XMPPParser::Mode::Stream,
      XMPPParser::Callbacks{
          .didReadRoot = nullptr,
          .didReadElement =
              [this](const XMPPElement& element) { owner_.connectionDidReceiveElement(element); },
          .didEnd =
              [this] {
                serverEndedStream_ = true;
                owner_.connectionDidEnd(
                    streamError(XMPPStream::kErrorServerClosed, "The server closed the stream"));
              },
          .didFail = [this](const KQError& error) { owner_.connectionDidEnd(error); }});
}

// Receives the server's next bytes, parses them and goes on receiving.
void XMPPStreamConnection::read() {
  receive(&XMPPStreamConnection::readReceived);
}

// Receives what the socket has next into the read buffer and runs `next` with the outcome on
// the stream's queue, while the connection is still the stream's. asio receives as soon as the
// socket is readable, or at once when it already is: no readiness wait is re-armed per read
// (asio's one try at once finds a drained socket empty, and then waits).
void XMPPStreamConnection::receive(Next next) {
  socket_.async_receive(asio::buffer(readBuffer_),
                        [owner = ownerLife_.lock(), self = shared_from_this(), next](
                            const asio::error_code& error, std::size_t length) {
                          const auto turn = self->queue_->turn();
                          if (!owner->isCurrent(*self)) {
                            return;
                          }
                          ((*self).*next)(error, length);
                        });
}

void XMPPStreamConnection::readReceived(const asio::error_code& error, std::size_t length) {
  if (error) {
    XMPPTransport::Result result;
    if (error == asio::error::eof) {
      result = transport_->end();
    } else {
      result.error = error.message();
    }
    endReading(result);
    return;
  }
  if (!transport_->isTLS()) {
    if (onRead(length)) {
      read();
    }
    return;
  }
  // TLS copies the bytes, so the buffer is free for the data it decrypts.
  transport_->receive(readBuffer_.data(), length);
  readDecrypted();
}

// Parses all that TLS can decrypt of what was received, then goes on receiving.
void XMPPStreamConnection::readDecrypted() {
  for (;;) {
    const XMPPTransport::Result result = transport_->read(readBuffer_.data(), readBuffer_.size());
    if (result.error || result.closed) {
      endReading(result);
      return;
    }
    if (result.bytes == 0) {
      break;  // all read: receive more
    }
    if (!onRead(result.bytes)) {
      return;
    }
  }
  if (transport_->hasPending()) {
    waitToWrite();  // reading made TLS answer, and the socket did not take it all
  }
  read();
}

// Ends the connection whose reading ended: silently when the user asked for it.
void XMPPStreamConnection::endReading(const XMPPTransport::Result& result) {
  if (toldToDisconnect_) {
    owner_.connectionDidEnd(std::nullopt);
  } else if (result.error) {
    owner_.connectionDidEnd(streamError(ioErrorCode(), "Reading failed: " + *result.error));
  } else {
    owner_.connectionDidEnd(
        streamError(XMPPStream::kErrorServerClosed, "The server closed the connection"));
  }
}

// Until the resource is bound, every packet from the server is acknowledged at once. The server's
// replies are small writes that its Nagle algorithm holds back until the previous one is
// acknowledged; a delayed acknowledgement from us (up to 40 ms, typically after the TLS 1.3
// session tickets) would stall the login each time. Quick-ack mode lasts until the next data we
// send, so it is asked for again after each read and each write; setting it also sends an
// acknowledgement that is being held.
void XMPPStreamConnection::ackQuicklyWhileNegotiating() {
#ifdef TCP_QUICKACK
  if (quickAcks_ && socket_.is_open()) {
    const int on = 1;
    setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  }
#endif
}

// Parses what one read brought; false when reading must not go on (the connection closed, or
// TLS starts).
bool XMPPStreamConnection::onRead(std::size_t length) {
  ackQuicklyWhileNegotiating();
  owner_.connectionDidReceive();
  {
    // What one read brings (often several stanzas, each for several delegates) reaches each
    // delegate queue in one go.
    const DispatchQueue::Batch batch;
    parser_->parseData(readBuffer_.data(), length);
  }
  if (!owner_.isCurrent(*this)) {
    return false;  // closed while parsing
  }
  if (restartParserAfterChunk_) {
    restartParserAfterChunk_ = false;
    restartParser(false);
  }
  if (secureAfterChunk_) {
    secureAfterChunk_ = false;
    owner_.connectionWillSecure();
    return false;  // reading goes on over TLS after the handshake
  }
  return true;
}

// --- Writing -----------------------------------------------------------------------------------

void XMPPStreamConnection::write(std::string_view text) {
  if (holdsWrites()) {
    held_.emplace_back(text);
    return;
  }
  const XMPPTransport::Result result = transport_->write(text);
  if (result.error) {
    closeLater(streamError(ioErrorCode(), "Writing failed: " + *result.error));
    return;
  }
  ackQuicklyWhileNegotiating();
  if (transport_->hasPending()) {
    waitToWrite();
  } else if (closeAfterWriting_) {
    closeLater(std::nullopt);
  }
}

void XMPPStreamConnection::closeAfterWriting(std::string_view text) {
  closeAfterWriting_ = true;
  write(text);
}

// Waits for the socket to take what the transport keeps, and sends it.
void XMPPStreamConnection::waitToWrite() {
  if (waitingToWrite_) {
    return;
  }
  waitingToWrite_ = true;
  socket_.async_wait(
      tcp::socket::wait_write,
      [owner = ownerLife_.lock(), self = shared_from_this()](const asio::error_code& error) {
        const auto turn = self->queue_->turn();
        self->waitingToWrite_ = false;
        if (!owner->isCurrent(*self)) {
          return;
        }
        const XMPPTransport::Result result = self->transport_->flush();
        if (error || result.error) {
          owner->connectionDidEnd(streamError(
              self->ioErrorCode(), "Writing failed: " + (error ? error.message() : *result.error)));
          return;
        }
        self->ackQuicklyWhileNegotiating();
        if (self->transport_->hasPending()) {
          self->waitToWrite();
        } else if (self->closeAfterWriting_) {
          owner->connectionDidEnd(std::nullopt);
        }
      });
}

// Ends the connection from a task of its own, if it is still the stream's then.
void XMPPStreamConnection::closeLater(std::optional<KQError> error) {
  queue_->async([owner = ownerLife_.lock(), self = shared_from_this(), error = std::move(error)] {
    if (owner->isCurrent(*self)) {
      owner->connectionDidEnd(error);
    }
  });
}

long XMPPStreamConnection::ioErrorCode() const {
  return transport_->isTLS() ? XMPPStream::kErrorTLS : XMPPStream::kErrorSocket;
}

// --- TLS ---------------------------------------------------------------------------------------

void XMPPStreamConnection::secureAfterChunk() {
  secureAfterChunk_ = true;
  securing_ = true;
  parser_->stop();
}

void XMPPStreamConnection::startTLS(const XMPPTLSSettings& settings,
                                    std::shared_ptr<asio::ssl::context>& context) {
  if (!context) {
    auto built = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    built->set_default_verify_paths();
    const std::string caFile = KQVisitorConfig::shared().caFile;
    if (!caFile.empty()) {
      asio::error_code error;
      built->load_verify_file(caFile, error);
      if (error) {
        log("XMPPStream: cannot load the CA file ", caFile, ": ", error.message());
      }
    }
    built->set_verify_mode(asio::ssl::verify_peer);
    context = std::move(built);
  }
  std::string name;
  if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Host) {
    name = host_;
  } else if (settings.peerNameCheck == XMPPTLSSettings::PeerNameCheck::Name) {
    name = settings.peerName;
  }
  const bool started = transport_->startTLS(context->native_handle(), [&name](SSL* ssl) {
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
    owner_.connectionDidEnd(
        streamError(XMPPStream::kErrorTLS, "TLS failed: OpenSSL could not start a session"));
    return;
  }
  continueHandshake();
}

// Takes the handshake as far as what was received allows, then receives the server's next bytes.
void XMPPStreamConnection::continueHandshake() {
  const XMPPTransport::Result result = transport_->handshake();
  if (result.error) {
    owner_.connectionDidEnd(streamError(XMPPStream::kErrorTLS, "TLS failed: " + *result.error));
    return;
  }
  if (transport_->hasPending()) {
    waitToWrite();
  }
  if (!transport_->handshakeDone()) {
    receive(&XMPPStreamConnection::handshakeReceived);
    return;
  }
  securing_ = false;  // no longer holding writes back
  auto held = std::move(held_);
  held_.clear();
  for (const auto& text : held) {
    write(text);
  }
  owner_.connectionDidSecure();
  readDecrypted();  // the server's first bytes may have come with the handshake's last
}

void XMPPStreamConnection::handshakeReceived(const asio::error_code& error, std::size_t length) {
  if (error == asio::error::eof) {
    const XMPPTransport::Result end = transport_->end();
    owner_.connectionDidEnd(streamError(
        XMPPStream::kErrorTLS,
        "TLS failed: " +
            (end.closed ? "the server closed the connection during the handshake" : *end.error)));
    return;
  }
  if (error) {
    owner_.connectionDidEnd(streamError(XMPPStream::kErrorTLS, "TLS failed: " + error.message()));
    return;
  }
  transport_->receive(readBuffer_.data(), length);
  continueHandshake();
}

}  // namespace kq::xmpp
