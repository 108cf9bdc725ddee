#pragma once

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

namespace kqsandbox {

/// The sandbox's XMPP server: Prosody run as a child process with a configuration of our own
/// (domain "localhost", rooms at conference.localhost, visitors anonymous, operators with a
/// password, stream management with resumption), kept in a folder of the data folder, its log
/// in prosody.log there. The rooms keep an archive in data/ of that folder, which outlives a
/// restart of the server (and of the sandbox, with --data); everything else is in memory. A
/// server that stops on its own is started again, and each step is told to the log, so that a
/// restart is something the visitor's side lives through.
class ProsodyProcess {
 public:
  struct Options {
    std::filesystem::path folder;                            ///< configuration, data and log
    int port = 0;                                            ///< 0: a free port
    std::map<std::string, std::string> accounts;             ///< operator name -> password
    std::optional<std::pair<std::string, std::string>> tls;  ///< (certificate, key) files
  };
  using Log = std::function<void(const std::string& line)>;

  /// Starts Prosody and waits until it takes clients. Throws std::runtime_error saying what to
  /// do when Prosody is missing, the port is taken or the server does not start.
  ProsodyProcess(Options options, Log log);
  /// Stops the server (SIGTERM) and waits for it.
  ~ProsodyProcess();
  ProsodyProcess(const ProsodyProcess&) = delete;
  ProsodyProcess& operator=(const ProsodyProcess&) = delete;

  [[nodiscard]] int port() const { return options_.port; }

 private:
  void writeConfiguration() const;
  // Runs the server until told to stop, starting it again when it ends on its own.
  void supervise();
  // Starts the server; its output's reading end, or -1.
  int launch();
  void stop();

  Options options_;
  Log log_;
  std::string program_;
  kq::Mutex mutex_;
  std::condition_variable changed_;
  int pid_ KQ_GUARDED_BY(mutex_) = -1;
  bool ready_ KQ_GUARDED_BY(mutex_) = false;
  bool failed_ KQ_GUARDED_BY(mutex_) = false;
  bool stopping_ KQ_GUARDED_BY(mutex_) = false;
  std::string startLog_ KQ_GUARDED_BY(mutex_);  // the output of the current start
  std::thread supervisor_;
};

}  // namespace kqsandbox
