#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace kq::test {

/// A TCP socket listening on 127.0.0.1 at a free port, which it writes to `port`. Throws
/// std::runtime_error when it cannot.
inline int listenOnLoopback(std::uint16_t& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return fd;
}

/// A port on 127.0.0.1 where nothing listens (connections are refused).
inline int unusedPort() {
  std::uint16_t port = 0;
  ::close(listenOnLoopback(port));
  return port;
}

/// A TCP socket connected to 127.0.0.1:`port`; -1 when the connection fails.
inline int connectToLoopback(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace kq::test
