#include "tests/support/ProsodyServer.h"

#include "tests/support/Loopback.h"
#include "tests/support/MainQueue.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdexcept>

namespace kq::test {

ProsodyServer::ProsodyServer(Options options) : options_(std::move(options)) {
  if (::access("/usr/bin/prosody", X_OK) != 0) {
    throw std::runtime_error("Prosody is not installed (scripts/install-deps installs it)");
  }
  std::string log;
  for (int attempt = 0; attempt < 5; ++attempt) {
    port_ = unusedPort();
    if (launch()) {
      return;
    }
    log = process_->output();
    stop();  // most likely the port was taken in between: try another
  }
  throw std::runtime_error("Prosody did not start; its log:\n" + log);
}

std::string ProsodyServer::caFile() const {
  return options_.tls ? directory_.file("certs/ca.pem") : std::string();
}

void ProsodyServer::start() {
  if (!launch()) {
    throw std::runtime_error("Prosody did not start again; its log:\n" + process_->output());
  }
}

bool ProsodyServer::launch() {
  std::vector<std::string> arguments = {KQ_SOURCE_DIR "/scripts/xmpp-test-server",
                                        directory_.path(), std::to_string(port_)};
  if (!options_.tls) {
    arguments.emplace_back("--no-tls");
  }
  if (!options_.roomArchive) {
    arguments.emplace_back("--no-archive");
  }
  for (const auto& name : options_.certificateNames) {
    arguments.insert(arguments.end(), {"--host", name});
  }
  for (const auto& [name, password] : options_.accounts) {
    arguments.insert(arguments.end(), {"--account", name + "=" + password});
  }
  process_ = std::make_unique<BackgroundChild>(arguments);
  // A port taken meanwhile is logged before the c2s service is reported (on no ports).
  return process_->waitForOutput("Activated service 'c2s'") &&
         process_->output().find("Failed to open server port") == std::string::npos &&
         streamAnswers();
}

// Each read waits kPatience at most: a failed connection or a silent server ends the loop.
bool ProsodyServer::streamAnswers() const {
  const int client = connectToLoopback(port_);
  const timeval patience{kPatience.count(), 0};
  ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const std::string header =
      "<?xml version='1.0'?><stream:stream to='localhost' version='1.0' "
      "xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>";
  ::send(client, header.data(), header.size(), MSG_NOSIGNAL);
  std::string received;
  char chunk[4096];
  ssize_t length = 0;
  while (received.find("</stream:features>") == std::string::npos &&
         (length = ::recv(client, chunk, sizeof chunk, 0)) > 0) {
    received.append(chunk, static_cast<std::size_t>(length));
  }
  ::close(client);
  return received.find("</stream:features>") != std::string::npos;
}

}  // namespace kq::test
