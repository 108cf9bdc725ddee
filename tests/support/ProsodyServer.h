#pragma once

#include "tests/support/BackgroundChild.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kq::test {

/// A real Prosody XMPP server for integration tests, run by scripts/xmpp-test-server on a free
/// loopback port, with a throw-away configuration, data folder and certificate. Domain
/// "localhost", rooms at conference.localhost; visitors log in anonymously, the configured
/// accounts with a password.
class ProsodyServer {
 public:
  struct Options {
    bool tls = true;          ///< offer STARTTLS
    bool roomArchive = true;  ///< rooms keep an archive (XEP-0313) that survives a restart
    /// Names the certificate carries (the client checks the host it connects to against them).
    std::vector<std::string> certificateNames = {"127.0.0.1", "localhost"};
    std::map<std::string, std::string> accounts;  ///< name -> password, logging in with PLAIN
  };

  /// Starts the server and waits until it answers a stream with its features. Throws
  /// std::runtime_error when Prosody is not installed or does not start.
  explicit ProsodyServer(Options options);
  ~ProsodyServer() { stop(); }

  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// The authority that signed the server's certificate (empty without TLS).
  [[nodiscard]] std::string caFile() const;

  void stop() { process_.reset(); }  ///< SIGTERM, then waits for it to end
  /// Starts it again on the same port, with the same certificate and data.
  void start();

 private:
  bool launch();
  [[nodiscard]] bool streamAnswers() const;

  Options options_;
  TemporaryDirectory directory_;
  std::uint16_t port_ = 0;
  std::unique_ptr<BackgroundChild> process_;
};

}  // namespace kq::test
