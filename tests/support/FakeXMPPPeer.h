#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace kq::test {

/// A scripted XMPP server for unit tests: it listens on 127.0.0.1 (a free port), accepts one
/// client at a time, and lets the test read what the client sent and answer by hand. Reads wait
/// at most kPatience; a read that runs out of patience fails the test (ADD_FAILURE) and returns
/// what arrived. Used from the test's thread only.
class FakeXMPPPeer {
 public:
  FakeXMPPPeer();
  ~FakeXMPPPeer();
  FakeXMPPPeer(const FakeXMPPPeer&) = delete;
  FakeXMPPPeer& operator=(const FakeXMPPPeer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }

  /// Waits for the next client; closes the previous connection first. False on timeout.
  bool accept();
  /// Reads until `marker` has arrived; returns everything received before and including it
  /// (what follows stays for the next read).
  std::string receiveUntil(std::string_view marker);
  /// Everything received until the client closes the connection (or kPatience passes).
  std::string receiveUntilClosed();
  void send(std::string_view text) const;
  /// Closes the connection to the client (the listening socket stays).
  void closeConnection();
  /// Stops listening: later connection attempts are refused.
  void stopListening();

  // --- Common steps of a scripted session -------------------------------------------------

  /// The stream header a server sends.
  static std::string serverHeader();
  /// Stream features offering SASL `mechanisms` (space-separated).
  static std::string features(std::string_view mechanisms);
  /// Accepts a client and answers its stream header with features offering `mechanisms`.
  bool openStream(std::string_view mechanisms = "ANONYMOUS PLAIN");
  /// The id attribute of the first element in `stanza`.
  static std::string idOf(std::string_view stanza);
  /// Reads the client's <auth/>, answers success, reads the restarted stream header, offers
  /// binding and binds the resource to `boundJID`. Returns the bind request.
  std::string completeAuthentication(std::string_view boundJID);

 private:
  /// Appends what arrives before `deadline` to the buffer: "" when something did, else why not.
  std::string_view readMore(std::chrono::steady_clock::time_point deadline);

  std::uint16_t port_ = 0;
  int listener_ = -1;
  int connection_ = -1;
  std::string buffer_;
};

}  // namespace kq::test
