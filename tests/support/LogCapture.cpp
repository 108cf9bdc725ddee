#include "tests/support/LogCapture.h"

#include <KQVisitorCore/Platform/Log.h>

#include <algorithm>

namespace kq::test {

LogCapture::LogCapture() {
  setLogSink([this](std::string_view line) {
    std::scoped_lock lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  setLogSink(nullptr);
}

std::vector<std::string> LogCapture::lines() const {
  std::scoped_lock lock(mutex_);
  return lines_;
}

bool LogCapture::contains(const std::string& text) const {
  std::scoped_lock lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace kq::test
