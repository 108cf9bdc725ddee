#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace kq::test {

/// Collects the library's log lines while it exists (it installs itself as the log sink and
/// restores stderr when destroyed). Thread-safe.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] std::vector<std::string> lines() const;
  /// True when some line contains `text`.
  [[nodiscard]] bool contains(const std::string& text) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace kq::test
