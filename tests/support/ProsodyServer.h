#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kq::test {

/// A real Prosody XMPP server for integration tests, run as a child process by
/// scripts/xmpp-test-server on a free loopback port, with a throw-away configuration, data
/// folder and certificate. Domain "localhost", rooms at conference.localhost; visitors log in
/// anonymously, the configured accounts with a password.
class ProsodyServer {
 public:
  struct Options {
    /// Offer STARTTLS.
    bool tls = true;
    /// Names the certificate carries (the client checks the host it connects to against them).
    std::vector<std::string> certificateNames = {"127.0.0.1", "localhost"};
    /// Accounts that log in with SASL PLAIN: name -> password.
    std::map<std::string, std::string> accounts;
  };

  /// Starts the server and waits until it answers a stream with its features. Throws
  /// std::runtime_error when it does not start.
  explicit ProsodyServer(Options options);
  /// Stops the server.
  ~ProsodyServer();
  ProsodyServer(const ProsodyServer&) = delete;
  ProsodyServer& operator=(const ProsodyServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// The authority that signed the server's certificate (empty without TLS).
  [[nodiscard]] std::string caFile() const;

  /// Stops the server (SIGTERM, then waits for it to end).
  void stop();
  /// Starts it again on the same port, with the same certificate and data.
  void start();
  /// Freezes the server (SIGSTOP): the kernel still accepts connections and data, nobody
  /// answers, as with a server or a network that died silently.
  void pause();
  /// Lets a frozen server run again (SIGCONT).
  void resume();

  /// True when the installed Prosody can run here.
  static bool isAvailable();

 private:
  void launch();
  bool waitUntilReady();
  bool streamAnswers() const;

  Options options_;
  TemporaryDirectory directory_;
  std::uint16_t port_ = 0;
  pid_t pid_ = -1;
  int output_ = -1;
  std::thread reader_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ready_ = false;   // guarded by mutex_
  bool failed_ = false;  // guarded by mutex_
  std::string log_;      // guarded by mutex_
};

}  // namespace kq::test
