#pragma once

// What the service commands (call, soap, upload) share: their JSON-lines output, KEY=VALUE
// parameters, and waiting for callbacks that arrive on the HTTP session's thread.

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <optional>
#include <string>

namespace kqchat {

/// Writes `line` as one line of compact JSON on stdout and flushes it. Thread-safe: lines from
/// several threads never interleave.
void printJSONLine(const nlohmann::ordered_json& line);

/// {"domain": ..., "code": ..., "userInfo": {...}} of an error.
nlohmann::ordered_json errorJSON(const kq::KQError& error);

/// Adds one command-line parameter to `parameters`: KEY=VALUE sets the string VALUE, KEY:=JSON
/// sets a JSON value (a number, true, an object...). Returns what is wrong with `argument`, if
/// anything.
std::optional<std::string> addParameter(const std::string& argument,
                                        nlohmann::ordered_json& parameters);

/// A flag that one thread raises and another waits for.
class Completion {
 public:
  /// Raises the flag and wakes the waiter, under the lock: the waiter may destroy the flag as
  /// soon as it sees it raised.
  void signal() {
    kq::MutexLock lock(mutex_);
    done_ = true;
    condition_.notify_all();
  }
  void wait() {
    kq::MutexLock lock(mutex_);
    while (!done_) {
      lock.wait(condition_);
    }
  }

 private:
  kq::Mutex mutex_;
  std::condition_variable condition_;
  bool done_ KQ_GUARDED_BY(mutex_) = false;
};

}  // namespace kqchat
