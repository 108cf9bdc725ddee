#include "tests/support/ProsodyServer.h"

#include "tests/support/MainQueue.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <chrono>
#include <stdexcept>

namespace kq::test {

namespace {

std::uint16_t freePort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(probe);
  if (!bound) {
    throw std::runtime_error("cannot find a free port");
  }
  return ntohs(address.sin_port);
}

}  // namespace

ProsodyServer::ProsodyServer(Options options) : options_(std::move(options)) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    port_ = freePort();
    launch();
    if (waitUntilReady()) {
      return;
    }
    stop();  // most likely the port was taken in between: try another
  }
  throw std::runtime_error("Prosody did not start; its log:\n" + log_);
}

ProsodyServer::~ProsodyServer() {
  stop();
}

std::string ProsodyServer::caFile() const {
  return options_.tls ? directory_.file("certs/ca.pem") : std::string();
}

bool ProsodyServer::isAvailable() {
  return ::access("/usr/bin/prosody", X_OK) == 0;
}

void ProsodyServer::start() {
  launch();
  if (!waitUntilReady()) {
    throw std::runtime_error("Prosody did not start again; its log:\n" + log_);
  }
}

void ProsodyServer::launch() {
  {
    std::scoped_lock lock(mutex_);
    ready_ = false;
    failed_ = false;
    log_.clear();
  }
  std::vector<std::string> arguments = {KQ_SOURCE_DIR "/scripts/xmpp-test-server",
                                        directory_.path(), std::to_string(port_)};
  if (!options_.tls) {
    arguments.push_back("--no-tls");
  }
  for (const auto& name : options_.certificateNames) {
    arguments.push_back("--host");
    arguments.push_back(name);
  }
  for (const auto& [name, password] : options_.accounts) {
    arguments.push_back("--account");
    arguments.push_back(std::string(name).append("=").append(password));
  }
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make a pipe for Prosody");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
  const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  if (spawned != 0) {
    ::close(pipeEnds[0]);
    pid_ = -1;
    throw std::runtime_error("cannot run " + arguments[0]);
  }
  output_ = pipeEnds[0];
  // Reads the server's log until it ends, so that the server never blocks on a full pipe.
  reader_ = std::thread([this, fd = output_] {
    std::string pending;
    char chunk[4096];
    while (true) {
      const ssize_t length = ::read(fd, chunk, sizeof chunk);
      if (length <= 0) {
        break;
      }
      std::scoped_lock lock(mutex_);
      log_.append(chunk, static_cast<std::size_t>(length));
      if (log_.find("Failed to open server port") != std::string::npos) {
        failed_ = true;
      } else if (log_.find("Activated service 'c2s'") != std::string::npos) {
        ready_ = true;
      }
      changed_.notify_all();
    }
    std::scoped_lock lock(mutex_);
    failed_ = failed_ || !ready_;
    changed_.notify_all();
  });
}

bool ProsodyServer::waitUntilReady() {
  {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return ready_ || failed_; });
    if (failed_ || !ready_) {
      return false;
    }
  }
  return streamAnswers();
}

bool ProsodyServer::streamAnswers() const {
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port_);
  bool answered = false;
  if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string header =
        "<?xml version='1.0'?><stream:stream to='localhost' version='1.0' "
        "xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>";
    ::send(client, header.data(), header.size(), MSG_NOSIGNAL);
    std::string received;
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
    answered = received.find("</stream:features>") != std::string::npos;
  }
  ::close(client);
  return answered;
}

void ProsodyServer::pause() {
  if (pid_ > 0) {
    ::kill(pid_, SIGSTOP);
  }
}

void ProsodyServer::resume() {
  if (pid_ > 0) {
    ::kill(pid_, SIGCONT);
  }
}

void ProsodyServer::stop() {
  if (pid_ > 0) {
    ::kill(pid_, SIGCONT);  // a frozen server would not act on SIGTERM
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  if (reader_.joinable()) {
    reader_.join();
  }
  if (output_ >= 0) {
    ::close(output_);
    output_ = -1;
  }
}

}  // namespace kq::test
