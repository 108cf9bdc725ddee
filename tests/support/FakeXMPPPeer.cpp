#include "tests/support/FakeXMPPPeer.h"

#include "tests/support/Loopback.h"
#include "tests/support/MainQueue.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

namespace kq::test {

namespace {

// Waits until `fd` is readable or `deadline` passes. The test's thread runs the main queue, and
// the client under test answers the server there: keep pumping it while waiting.
bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, 0) > 0) {
      return true;
    }
    DispatchQueue::main()->pump(std::chrono::milliseconds(5));
  }
  return false;
}

}  // namespace

FakeXMPPPeer::FakeXMPPPeer() : listener_(listenOnLoopback(port_)) {}

FakeXMPPPeer::~FakeXMPPPeer() {
  closeConnection();
  stopListening();
}

bool FakeXMPPPeer::accept() {
  closeConnection();
  if (!waitReadable(listener_, std::chrono::steady_clock::now() + kPatience)) {
    ADD_FAILURE() << "FakeXMPPPeer: no client connected";
    return false;
  }
  connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (connection_ < 0) {
    ADD_FAILURE() << "FakeXMPPPeer: accept failed";
    return false;
  }
  const int yes = 1;
  ::setsockopt(connection_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  buffer_.clear();
  return true;
}

std::string_view FakeXMPPPeer::readMore(std::chrono::steady_clock::time_point deadline) {
  if (connection_ < 0) {
    return "no client";
  }
  if (!waitReadable(connection_, deadline)) {
    return "timed out";
  }
  char chunk[1 << 16];
  const ssize_t length = ::recv(connection_, chunk, sizeof chunk, 0);
  if (length <= 0) {
    return "the client closed";
  }
  buffer_.append(chunk, static_cast<std::size_t>(length));
  return {};
}

std::string FakeXMPPPeer::receiveUntil(std::string_view marker) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::size_t found = 0;
  std::size_t from = 0;  // what was searched already cannot hold the whole marker
  while ((found = buffer_.find(marker, from)) == std::string::npos) {
    from = buffer_.size() - std::min(buffer_.size(), marker.size() - 1);
    if (const auto failure = readMore(deadline); !failure.empty()) {
      ADD_FAILURE() << "FakeXMPPPeer: \"" << marker << "\" never arrived (" << failure
                    << "); got: " << buffer_;
      return std::exchange(buffer_, {});
    }
  }
  std::string result = buffer_.substr(0, found + marker.size());
  buffer_.erase(0, result.size());
  return result;
}

std::string FakeXMPPPeer::receiveUntilClosed() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  std::string_view failure;
  do {
    failure = readMore(deadline);
  } while (failure.empty());
  if (failure == "timed out") {
    ADD_FAILURE() << "FakeXMPPPeer: the client never closed; got: " << buffer_;
  }
  return std::exchange(buffer_, {});
}

void FakeXMPPPeer::send(std::string_view text) const {
  std::size_t sent = 0;
  while (sent < text.size() && connection_ >= 0) {
    const ssize_t length =
        ::send(connection_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (length <= 0) {
      return;  // the client went away; the test checks what it saw
    }
    sent += static_cast<std::size_t>(length);
  }
}

void FakeXMPPPeer::closeConnection() {
  if (connection_ >= 0) {
    ::close(connection_);
    connection_ = -1;
  }
}

void FakeXMPPPeer::stopListening() {
  if (listener_ >= 0) {
    ::close(listener_);
    listener_ = -1;
  }
}

std::string FakeXMPPPeer::serverHeader() {
  return "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
         "xmlns:stream='http://etherx.jabber.org/streams' id='fake' from='localhost' "
         "version='1.0'>";
}

std::string FakeXMPPPeer::features(std::string_view mechanisms) {
  std::string text = "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>";
  std::istringstream words{std::string(mechanisms)};
  for (std::string word; words >> word;) {
    text += "<mechanism>" + word + "</mechanism>";
  }
  text += "</mechanisms></stream:features>";
  return text;
}

std::string FakeXMPPPeer::idOf(std::string_view stanza) {
  const auto start = stanza.find("id=\"") + 4;
  return std::string(stanza.substr(start, stanza.find('"', start) - start));
}

bool FakeXMPPPeer::openStream(std::string_view mechanisms) {
  if (!accept()) {
    return false;
  }
  receiveUntil("'http://etherx.jabber.org/streams'>");
  send(serverHeader() + features(mechanisms));
  return !::testing::Test::HasFailure();
}

std::string FakeXMPPPeer::completeAuthentication(std::string_view boundJID) {
  receiveUntil("<auth");
  if (!receiveUntil(">").ends_with("/>")) {
    receiveUntil("</auth>");
  }
  send("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
  receiveUntil("'http://etherx.jabber.org/streams'>");
  send(serverHeader() +
       "<stream:features><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>"
       "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'><optional/></session>"
       "</stream:features>");
  std::string request = receiveUntil("</iq>");
  send("<iq type='result' id='" + idOf(request) +
       "'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>" + std::string(boundJID) +
       "</jid></bind></iq>");
  return request;
}

}  // namespace kq::test
