#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;
using BIO = struct bio_st;

namespace kq::xmpp {

/// The bytes of one XMPP connection over a connected non-blocking socket: plain at first, TLS
/// once startTLS() is called. Internal to the library.
///
/// No call ever waits. Writing sends what the socket takes at once; what it cannot take yet is
/// kept, in order, and sent by flush(), so that a write can be made from whichever thread holds
/// the stream's queue without involving the event loop. Reading is the event loop's: the stream
/// receives from the socket as it becomes readable and hands the bytes to receive(), so a read
/// costs no readiness check of its own. TLS runs over memory buffers: OpenSSL never touches the
/// socket itself, which keeps writes free of SIGPIPE and lets a record be sent in as many pieces
/// as the socket asks for.
/// Not thread-safe.
class XMPPTransport {
 public:
  /// What a call left: data read, the peer's clean close, or a failure described for the user.
  struct Result {
    std::size_t bytes = 0;  // read: the peer's bytes delivered (0, nothing else set: wait)
    bool closed = false;    // the peer closed the connection cleanly
    std::optional<std::string> error;
  };

  /// Works on `socket`, which it does not own and makes non-blocking.
  explicit XMPPTransport(int socket);
  ~XMPPTransport();
  XMPPTransport(const XMPPTransport&) = delete;
  XMPPTransport& operator=(const XMPPTransport&) = delete;

  /// Starts TLS as the client; `configure` may set the peer name checks on the new session.
  /// False when OpenSSL could not make a session.
  bool startTLS(SSL_CTX* context, const std::function<void(SSL*)>& configure);
  [[nodiscard]] bool isTLS() const { return ssl_ != nullptr; }

  /// Advances the TLS handshake over what was received. Done when `handshakeDone()`; otherwise
  /// receive more (and, if hasPending(), wait to write). On failure, `error` says why, naming a
  /// certificate's fault when the certificate was refused.
  Result handshake();
  [[nodiscard]] bool handshakeDone() const { return handshakeDone_; }

  /// Takes `size` bytes received from the socket, for TLS to decrypt.
  void receive(const char* data, std::size_t size);

  /// Decrypts up to `capacity` bytes of the peer's data from what was received into `buffer`
  /// (TLS only; without TLS the received bytes are the data). 0 bytes and nothing else set:
  /// receive more.
  Result read(char* buffer, std::size_t capacity);

  /// What the socket's end means: a clean close, or with TLS, one only after the peer's TLS
  /// close (otherwise the error "stream truncated").
  [[nodiscard]] Result end() const;

  /// Takes all of `data`; what the socket cannot take now is kept for flush(). Fails only
  /// when the connection is broken.
  Result write(std::string_view data);

  /// Sends what was kept; wait to write while hasPending().
  Result flush();
  [[nodiscard]] bool hasPending() const { return !pending_.empty(); }

 private:
  // Moves what TLS produced to the socket (or to pending_).
  Result sendTLSOutput();
  // Sends `data` after what is pending, keeping the rest.
  Result send(std::string_view data);
  [[nodiscard]] std::string describeTLSFailure(int code, int status) const;

  int socket_;
  SSL* ssl_ = nullptr;
  BIO* input_ = nullptr;   // owned by ssl_: the socket's bytes for TLS to read
  BIO* output_ = nullptr;  // owned by ssl_: TLS's bytes for the socket
  bool handshakeDone_ = false;
  std::string pending_;          // bytes the socket has not taken yet
  std::size_t pendingSent_ = 0;  // of pending_, already sent
};

}  // namespace kq::xmpp
