#include "ProsodyProcess.h"

#include "ProsodyAuthModule.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace kqsandbox {

namespace {

namespace fs = std::filesystem;
constexpr auto kStartPatience = std::chrono::seconds(30);

// The Prosody program: the first "prosody" on PATH, then the Debian place.
std::string findProsody() {
  const char* path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const auto candidate = fs::path(folder) / "prosody";
    if (!folder.empty() && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate.string();
    }
  }
  return ::access("/usr/bin/prosody", X_OK) == 0 ? "/usr/bin/prosody" : std::string();
}

// A loopback port nothing listens on now.
int freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

// A Lua string literal.
std::string lua(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

ProsodyProcess::ProsodyProcess(Options options, Log log)
    : options_(std::move(options)), log_(std::move(log)), program_(findProsody()) {
  if (program_.empty()) {
    throw std::runtime_error(
        "Prosody, the XMPP server, is not installed: install it with 'apt-get install prosody' "
        "(scripts/install-deps does).");
  }
  if (options_.port == 0) {
    options_.port = freePort();
  }
  fs::create_directories(options_.folder / "data");
  fs::create_directories(options_.folder / "plugins");
  writeConfiguration();
  supervisor_ = std::thread([this] { supervise(); });
  const auto deadline = std::chrono::steady_clock::now() + kStartPatience;
  kq::MutexLock lock(mutex_);
  while (!ready_ && !failed_ && lock.waitUntil(changed_, deadline) != std::cv_status::timeout) {
  }
  if (!ready_) {
    const std::string output = startLog_;
    const bool portTaken = output.find("Failed to open server port") != std::string::npos;
    lock.unlock();
    stop();
    throw std::runtime_error(
        portTaken ? "cannot start Prosody: the XMPP port " + std::to_string(options_.port) +
                        " is taken. Stop what uses it, or choose another with --xmpp-port."
                  : "Prosody did not start; its output:\n" + output);
  }
}

ProsodyProcess::~ProsodyProcess() {
  stop();
}

void ProsodyProcess::stop() {
  {
    kq::MutexLock lock(mutex_);
    stopping_ = true;
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
    }
  }
  if (supervisor_.joinable()) {
    supervisor_.join();
  }
}

void ProsodyProcess::writeConfiguration() const {
  const auto& folder = options_.folder;
  std::ofstream(folder / "plugins" / "mod_auth_kq_visitor.lua") << kProsodyAuthModule;
  std::ostringstream accounts;
  for (const auto& [name, password] : options_.accounts) {
    accounts << "  [" << lua(name) << "] = " << lua(password) << ";\n";
  }
  std::ofstream config(folder / "prosody.cfg.lua");
  config << "-- Written by kqvisitor-sandbox at each start.\n"
         << "run_as_root = true\n"
         << "pidfile = " << lua((folder / "prosody.pid").string()) << "\n"
         << "data_path = " << lua((folder / "data").string()) << "\n"
         << "plugin_paths = { " << lua((folder / "plugins").string()) << " }\n"
         << "log = { { levels = { min = \"info\" }, to = \"console\" } }\n"
         // Stream management: a client whose connection drops resumes its session, and what
         // the server sent in between is not lost.
         << "modules_enabled = { \"roster\", \"saslauth\", \"tls\", \"disco\", \"ping\", "
            "\"presence\", \"message\", \"iq\", \"smacks\" }\n"
         << "modules_disabled = { \"s2s\" }\n"
         << "c2s_ports = { " << options_.port << " }\n"
         << "c2s_interfaces = { \"127.0.0.1\" }\n"
         << "s2s_ports = { }\n"
         << "c2s_require_encryption = false\n"
         << "allow_unencrypted_plain_auth = true\n"
         << "authentication = \"kq_visitor\"\n"
         // Everything in memory but the rooms and their archive, kept in data/ so that they
         // outlive a restart of the server: a room's members catch up on what they missed.
         << "default_storage = \"memory\"\n"
         << "storage = { muc_log = \"internal\", persistent = \"internal\", "
            "config = \"internal\", state = \"internal\" }\n"
         << "kq_accounts = {\n"
         << accounts.str() << "}\n";
  if (options_.tls) {
    config << "ssl = { certificate = " << lua(options_.tls->first)
           << "; key = " << lua(options_.tls->second) << "; }\n";
  } else {
    config << "modules_disabled = { \"s2s\", \"tls\" }\n";
  }
  config << "\nVirtualHost \"localhost\"\n\nComponent \"conference.localhost\" \"muc\"\n"
         << "  restrict_room_creation = false\n"
         // A room that empties (every server stops so) would be destroyed, and its archive
         // with it: chat rooms persist until they are destroyed on purpose.
         << "  muc_room_default_persistent = true\n"
         << "  modules_enabled = { \"muc_mam\" }\n";
  if (!config) {
    throw std::runtime_error("cannot write the XMPP server's configuration in " + folder.string());
  }
}

int ProsodyProcess::launch() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    return -1;
  }
  std::string config = (options_.folder / "prosody.cfg.lua").string();
  std::string program = program_;
  std::string foreground = "-F";
  std::string configFlag = "--config";
  char* argv[] = {program.data(), foreground.data(), configFlag.data(), config.data(), nullptr};
  kq::MutexLock lock(mutex_);
  pid_t pid = -1;
  if (!stopping_) {
    const pid_t parent = ::getpid();
    pid = ::fork();
    if (pid == 0) {
      // Only async-signal-safe calls until exec. The server goes when the sandbox goes, however
      // it ends; and it must not inherit the sandbox's blocked SIGINT and SIGTERM.
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != parent) {
        ::_exit(127);
      }
      ::dup2(ends[1], STDOUT_FILENO);
      ::dup2(ends[1], STDERR_FILENO);
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::execve(program.c_str(), argv, environ);
      ::_exit(127);
    }
  }
  const int spawned = pid > 0 ? 0 : -1;
  ::close(ends[1]);
  if (spawned != 0) {
    ::close(ends[0]);
    return -1;
  }
  pid_ = pid;
  ready_ = false;
  startLog_.clear();
  return ends[0];
}

void ProsodyProcess::supervise() {
  std::ofstream log(options_.folder / "prosody.log", std::ios::app);
  for (bool again = false;; again = true) {
    const int output = launch();
    if (output < 0) {
      kq::MutexLock lock(mutex_);
      startLog_ += "cannot run " + program_;
      failed_ = true;
      changed_.notify_all();
      return;
    }
    char chunk[4096];
    ssize_t length = 0;
    while ((length = ::read(output, chunk, sizeof chunk)) > 0) {
      log.write(chunk, length);
      log.flush();
      bool becameReady = false;
      {
        kq::MutexLock lock(mutex_);
        if (!ready_) {
          startLog_.append(chunk, static_cast<std::size_t>(length));
          if (startLog_.find("Failed to open server port") != std::string::npos) {
            failed_ = true;
          } else if (startLog_.find("Activated service 'c2s'") != std::string::npos) {
            ready_ = becameReady = true;
          }
          changed_.notify_all();
        }
      }
      if (becameReady && again) {
        log_("the XMPP server takes clients again on 127.0.0.1:" + std::to_string(options_.port));
      }
    }
    ::close(output);
    pid_t pid = -1;
    bool wasReady = false;
    {
      kq::MutexLock lock(mutex_);
      pid = pid_;
      wasReady = ready_;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::string startOutput;
    {
      kq::MutexLock lock(mutex_);
      pid_ = -1;
      if (stopping_ || !wasReady) {
        failed_ = failed_ || !wasReady;
        changed_.notify_all();
        if (stopping_ || !again) {
          return;  // the constructor reports a first start that failed
        }
        startOutput = startLog_;
      }
    }
    if (!wasReady) {
      log_("the XMPP server did not start again, so chats over XMPP cannot go on: see " +
           (options_.folder / "prosody.log").string() + " and restart the sandbox. Its output:\n" +
           startOutput);
      return;
    }
    const std::string how = WIFSIGNALED(status)
                                ? std::string("killed by SIG") + sigabbrev_np(WTERMSIG(status))
                                : "exit status " + std::to_string(WEXITSTATUS(status));
    log_("the XMPP server stopped on its own (" + how + "); starting it again");
  }
}

}  // namespace kqsandbox
