// The fault relay that the reconnection tests and the soak benchmark put between a client and
// its server: plain sockets on both sides, so that what each side sees is the kernel's word.
// (What a silent drop holds back, and lets through at its end, the chat survival test shows:
// the visitor's stream notices the drop by a missing acknowledgement, its resume attempt
// connects during the drop, and every line arrives once it ends.)

#include "tests/support/FaultRelay.h"

#include "tests/support/Loopback.h"
#include "tests/support/MainQueue.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kq::test {
namespace {

// A socket closed at the end of its scope. A read or an accept on it waits kPatience at most.
class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {
    const timeval patience{kPatience.count(), 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Socket() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  [[nodiscard]] int fd() const { return fd_; }
  void send(const std::string& text) const {
    ASSERT_EQ(::send(fd_, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  // What arrives: the bytes, "(closed)" at the end of the stream, "error: NAME" when the read
  // fails (EAGAIN when nothing came).
  [[nodiscard]] std::string read() const {
    char buffer[256];
    const ssize_t size = ::recv(fd_, buffer, sizeof buffer, 0);
    if (size < 0) {
      return std::string("error: ") + strerrorname_np(errno);
    }
    return size == 0 ? "(closed)" : std::string(buffer, static_cast<std::size_t>(size));
  }

 private:
  const int fd_;
};

// The target server's side of the next connection the relay makes; -1 when none comes.
int acceptFrom(const Socket& listener) {
  return ::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC);
}

class FaultRelayTest : public ::testing::Test {
 protected:
  std::uint16_t targetPort_ = 0;
  Socket listener_{listenOnLoopback(targetPort_)};
  FaultRelay relay_{targetPort_};
};

// (Forwarding, and a close passed on, every use of the relay shows.)
TEST_F(FaultRelayTest, AResetEndsTheClientsSideWithAResetAndTheServersWithAClose) {
  const Socket client(connectToLoopback(relay_.port()));
  const Socket server(acceptFrom(listener_));
  ASSERT_GE(server.fd(), 0);
  client.send("ping");
  ASSERT_EQ(server.read(), "ping");  // the relay holds the connection
  relay_.reset();
  EXPECT_EQ(client.read(), "error: ECONNRESET");
  EXPECT_EQ(server.read(), "(closed)");
  EXPECT_EQ(relay_.counts().accepted, 1);
}

}  // namespace
}  // namespace kq::test
