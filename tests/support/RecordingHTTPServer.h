#pragma once

#include "tests/support/Loopback.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kq::test {

/// One request as a RecordingHTTPServer received it.
struct RecordedRequest {
  std::string method;
  std::string target;  ///< path and query exactly as on the request line
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  int remotePort = 0;  ///< tells connections apart: keep-alive reuse keeps the port

  /// The value of the header field `name` (any case); nullopt when it was not sent.
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;
};

/// What a RecordingHTTPServer answers.
struct ScriptedResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json; charset=utf-8";
  std::vector<std::pair<std::string, std::string>> headers;
};

/// A real HTTP or HTTPS server on 127.0.0.1 (cpp-httplib, TCP_NODELAY on, keep-alive) that
/// records every request and answers each with the next scripted response, or with the
/// default one when the script has run out. Thread-safe.
class RecordingHTTPServer {
 public:
  struct TLS {
    std::string certFile;
    std::string keyFile;
  };

  /// Plain HTTP, or HTTPS with `tls`.
  explicit RecordingHTTPServer(std::optional<TLS> tls = std::nullopt);
  ~RecordingHTTPServer();
  RecordingHTTPServer(const RecordingHTTPServer&) = delete;
  RecordingHTTPServer& operator=(const RecordingHTTPServer&) = delete;

  /// "http://127.0.0.1:<port>" (https with TLS).
  [[nodiscard]] std::string origin() const;

  /// Answers every request not otherwise scripted.
  void setDefaultResponse(ScriptedResponse response);
  /// Answers the next request not yet answered.
  void enqueueResponse(ScriptedResponse response);
  /// Decides the answer to each request first: a request it answers nullopt for takes the
  /// script's next response. Called on the server's threads, one request at a time; it must not
  /// call the server.
  using Responder = std::function<std::optional<ScriptedResponse>(const RecordedRequest&)>;
  void setResponder(Responder responder);
  /// Holds each answer back until release() (for tests of time-outs and cancellation).
  void holdResponses();
  void release();

  /// Every request so far, in arrival order.
  [[nodiscard]] std::vector<RecordedRequest> requests() const;
  /// Waits (up to kPatience) until `count` requests have arrived; false if they never do.
  bool waitForRequests(std::size_t count) const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

/// A TCP server on 127.0.0.1 that reads whole HTTP/1.1 requests and answers each with raw
/// bytes, then closes the connection: for what a server library would not pass on as sent
/// (a lower-case method, a multipart body it parses away) or would not write. Thread-safe.
class RawHTTPServer {
 public:
  /// `rawResponse` answers every request not otherwise scripted.
  explicit RawHTTPServer(std::string rawResponse);
  ~RawHTTPServer();
  RawHTTPServer(const RawHTTPServer&) = delete;
  RawHTTPServer& operator=(const RawHTTPServer&) = delete;

  [[nodiscard]] std::string origin() const;
  /// Answers the next request not yet answered.
  void enqueueResponse(std::string rawResponse);
  /// Each request's bytes, head and body, in arrival order.
  [[nodiscard]] std::vector<std::string> rawRequests() const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

/// A complete raw HTTP/1.1 answer with `body`.
std::string rawResponse(int status, const std::string& body);

}  // namespace kq::test
