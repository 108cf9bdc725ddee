#pragma once

#include <string>

namespace kq::test {

/// A fresh folder under $TMPDIR (or /tmp), removed with its contents on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  /// path() + "/" + name.
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Writes `contents` to `path`, replacing it.
void writeFile(const std::string& path, const std::string& contents);
/// The contents of `path`; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace kq::test
