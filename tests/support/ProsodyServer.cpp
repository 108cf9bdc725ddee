#include "tests/support/ProsodyServer.h"

#include "tests/support/Loopback.h"
#include "tests/support/MainQueue.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
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
  if (!options_.streamManagement) {
    arguments.emplace_back("--no-smacks");
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

bool ProsodyServer::streamAnswers() const {
  const int client = connectToLoopback(port_);
  std::string received;
  if (client >= 0) {
    const std::string header =
        "<?xml version='1.0'?><stream:stream to='localhost' version='1.0' "
        "xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>";
    ::send(client, header.data(), header.size(), MSG_NOSIGNAL);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (received.find("</stream:features>") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
      pollfd waiting{client, POLLIN, 0};
      if (::poll(&waiting, 1, 1000) <= 0) {
        continue;
      }
      char chunk[4096];
      const ssize_t length = ::recv(client, chunk, sizeof chunk, 0);
      if (length <= 0) {
        break;
      }
      received.append(chunk, static_cast<std::size_t>(length));
    }
  }
  ::close(client);
  return received.find("</stream:features>") != std::string::npos;
}

}  // namespace kq::test
