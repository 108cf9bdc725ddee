#include <KQVisitorCore/XMPP/detail/XMPPTransport.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kq::xmpp {

namespace {

// Bytes moved from TLS to the socket per call: one TLS record and more.
constexpr std::size_t kChunk = 16384;

bool wouldBlock(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

int clampedSize(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

}  // namespace

XMPPTransport::XMPPTransport(int socket) : socket_(socket) {
  const int flags = fcntl(socket_, F_GETFL, 0);
  if (flags >= 0) {
    fcntl(socket_, F_SETFL, flags | O_NONBLOCK);
  }
}

XMPPTransport::~XMPPTransport() {
  if (ssl_ != nullptr) {
    SSL_free(ssl_);  // and both memory buffers with it
  }
}

bool XMPPTransport::startTLS(SSL_CTX* context, const std::function<void(SSL*)>& configure) {
  ssl_ = SSL_new(context);
  if (ssl_ == nullptr) {
    return false;
  }
  input_ = BIO_new(BIO_s_mem());
  output_ = BIO_new(BIO_s_mem());
  if (input_ == nullptr || output_ == nullptr) {
    BIO_free(input_);
    BIO_free(output_);
    SSL_free(ssl_);
    ssl_ = nullptr;
    input_ = output_ = nullptr;
    return false;
  }
  BIO_set_mem_eof_return(input_, -1);  // an empty buffer means "more to come", not the end
  SSL_set_bio(ssl_, input_, output_);
  SSL_set_connect_state(ssl_);
  if (configure) {
    configure(ssl_);
  }
  return true;
}

XMPPTransport::Result XMPPTransport::handshake() {
  ERR_clear_error();
  const int status = SSL_do_handshake(ssl_);
  const int code = SSL_get_error(ssl_, status);
  Result result = sendTLSOutput();
  if (result.error) {
    return result;
  }
  if (status == 1) {
    handshakeDone_ = true;
  } else if (code != SSL_ERROR_WANT_READ) {
    result.error = describeTLSFailure(code, status);
  }
  return result;
}

void XMPPTransport::receive(const char* data, std::size_t size) {
  // A memory buffer takes everything it is given.
  BIO_write(input_, data, clampedSize(size));
}

XMPPTransport::Result XMPPTransport::read(char* buffer, std::size_t capacity) {
  Result result;
  // Everything received has been decrypted and delivered: TLS could only ask for more.
  if (BIO_ctrl_pending(input_) == 0 && SSL_has_pending(ssl_) == 0) {
    return result;
  }
  ERR_clear_error();
  const int count = SSL_read(ssl_, buffer, clampedSize(capacity));
  const int code = SSL_get_error(ssl_, count);
  // Reading may have made TLS answer the peer (a key update).
  if (BIO_ctrl_pending(output_) > 0) {
    Result sent = sendTLSOutput();
    if (sent.error) {
      return sent;
    }
  }
  if (count > 0) {
    result.bytes = static_cast<std::size_t>(count);
  } else if (code == SSL_ERROR_ZERO_RETURN) {
    result.closed = true;
  } else if (code != SSL_ERROR_WANT_READ) {
    result.error = describeTLSFailure(code, count);
  }
  return result;
}

XMPPTransport::Result XMPPTransport::end() const {
  Result result;
  if (ssl_ == nullptr || (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) != 0) {
    result.closed = true;
  } else {
    result.error = "stream truncated";
  }
  return result;
}

XMPPTransport::Result XMPPTransport::write(std::string_view data) {
  if (ssl_ == nullptr) {
    return send(data);
  }
  while (!data.empty()) {
    ERR_clear_error();
    // A memory buffer never refuses bytes: TLS takes all of them or fails.
    const int count = SSL_write(ssl_, data.data(), clampedSize(data.size()));
    if (count <= 0) {
      Result result;
      result.error = describeTLSFailure(SSL_get_error(ssl_, count), count);
      return result;
    }
    data.remove_prefix(static_cast<std::size_t>(count));
  }
  return sendTLSOutput();
}

XMPPTransport::Result XMPPTransport::flush() {
  Result result;
  while (pendingSent_ < pending_.size()) {
    const ssize_t count = ::send(socket_, pending_.data() + pendingSent_,
                                 pending_.size() - pendingSent_, MSG_NOSIGNAL);
    if (count >= 0) {
      pendingSent_ += static_cast<std::size_t>(count);
    } else if (errno == EINTR) {
      continue;
    } else {
      if (!wouldBlock(errno)) {
        result.error = std::strerror(errno);
      }
      return result;
    }
  }
  pending_.clear();
  pendingSent_ = 0;
  return result;
}

XMPPTransport::Result XMPPTransport::send(std::string_view data) {
  if (!pending_.empty()) {
    pending_.append(data);  // after what is waiting, to keep the order
    return flush();
  }
  Result result;
  while (!data.empty()) {
    const ssize_t count = ::send(socket_, data.data(), data.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      data.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EINTR) {
      continue;
    } else {
      if (wouldBlock(errno)) {
        pending_.assign(data);
        pendingSent_ = 0;
      } else {
        result.error = std::strerror(errno);
      }
      return result;
    }
  }
  return result;
}

XMPPTransport::Result XMPPTransport::sendTLSOutput() {
  Result result;
  // Not cleared (16 KB on every write): only what BIO_read fills is used.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
  std::array<char, kChunk> chunk;
  while (BIO_ctrl_pending(output_) > 0) {
    const int count = BIO_read(output_, chunk.data(), static_cast<int>(chunk.size()));
    if (count <= 0) {
      break;
    }
    result = send(std::string_view(chunk.data(), static_cast<std::size_t>(count)));
    if (result.error) {
      return result;
    }
  }
  return result;
}

std::string XMPPTransport::describeTLSFailure(int code, int status) const {
  const long verify = SSL_get_verify_result(ssl_);
  if (!handshakeDone_ && verify != X509_V_OK) {
    return X509_verify_cert_error_string(verify);
  }
  if (const unsigned long error = ERR_get_error(); error != 0) {
    const char* reason = ERR_reason_error_string(error);
    const char* library = ERR_lib_error_string(error);
    std::string text = reason != nullptr ? reason : "TLS error " + std::to_string(error);
    if (library != nullptr) {
      text += std::string(" (") + library + ")";
    }
    return text;
  }
  if (code == SSL_ERROR_SYSCALL && status < 0) {
    return std::strerror(errno);
  }
  return "TLS error " + std::to_string(code);
}

}  // namespace kq::xmpp
