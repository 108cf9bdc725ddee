#pragma once

#include "OperatorScript.h"
#include "SandboxStore.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kqsandbox {

class SandboxConsole;

/// The chat service's web side on loopback: the JSON chat service under its production and
/// beta paths, the SOAP management service, the file upload service and the uploaded files,
/// answering in the service's habits (JSON documents serialised into JSON strings, plain
/// quoted strings, arrays for the chat id and for polled messages).
///
/// Over HTTP polling the operator answers from the script: each visitor message gets its reply
/// at once, and "GetChatMessagesAlt" hands the replies out one a call.
class SandboxServer {
 public:
  struct TLS {
    std::string certFile;
    std::string keyFile;
  };
  /// Told one line per request and per chat event; called on the server's threads.
  using Log = std::function<void(const std::string& line)>;
  /// Told when a chat has been opened: (chat id, operator id). Called on the server's threads.
  using ChatOpened = std::function<void(const std::string& chatId, const std::string& operatorId)>;

  /// Plain HTTP, or HTTPS with `tls`. Throws std::runtime_error when the certificate cannot be
  /// used.
  SandboxServer(SandboxStore& store, OperatorScript script, std::optional<TLS> tls, Log log);
  ~SandboxServer();
  SandboxServer(const SandboxServer&) = delete;
  SandboxServer& operator=(const SandboxServer&) = delete;

  void setChatOpened(ChatOpened chatOpened);
  /// Serves `console` under /console (not owned; it must outlive the server's stop()). Call
  /// before start().
  void mountConsole(SandboxConsole& console);

  /// Listens on 127.0.0.1:`port` (0: a free port) on threads of its own. Throws
  /// std::runtime_error saying what to do when the port is taken.
  void start(int port);
  /// Stops listening and waits for the requests under way.
  void stop();

  [[nodiscard]] int port() const;
  /// "http://127.0.0.1:<port>" (https with TLS).
  [[nodiscard]] std::string origin() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kqsandbox
