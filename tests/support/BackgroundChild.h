#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kq::test {

/// A program running beside the test (a server), its stdout and stderr read together on a
/// thread of its own. Destruction ends it with SIGTERM (SIGKILL after kPatience) and waits.
class BackgroundChild {
 public:
  /// Starts `arguments` (the program first) with this process's environment plus
  /// `environment`; with `withInput` its standard input is a pipe that send() writes to,
  /// otherwise it reads nothing. Throws std::runtime_error when it cannot be started.
  explicit BackgroundChild(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment = {},
                           bool withInput = false);
  ~BackgroundChild();
  BackgroundChild(const BackgroundChild&) = delete;
  BackgroundChild& operator=(const BackgroundChild&) = delete;

  [[nodiscard]] std::string output() const;  ///< everything it has written so far
  [[nodiscard]] int occurrences(const std::string& text) const;  ///< in its output so far
  /// Waits (up to kPatience) until its output holds `text` `times` times; false when it ends
  /// or the time runs out first.
  bool waitForOutput(const std::string& text, int times = 1) const;
  /// Ends it with SIGTERM and returns its exit status (-1 when it did not exit normally).
  int stop();
  void send(const std::string& text) const;  ///< to its standard input (made withInput)
  /// Ends its standard input, then waits (up to kPatience) for it to exit; its exit status, or
  /// -1 when it did not exit normally or in time (it is then stopped).
  int finishInput();

 private:
  pid_t pid_ = 0;
  int input_ = -1;  // the writing end of its standard input
  int status_ = -1;
  bool stopped_ = false;
  [[nodiscard]] int countLocked(const std::string& text) const;
  std::thread reader_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string output_;  // guarded by mutex_
  bool ended_ = false;  // guarded by mutex_: its output has closed
};

}  // namespace kq::test
