#include <KQVisitorCore/Platform/Log.h>

#include <unistd.h>

#include <memory>
#include <mutex>

namespace kq {
namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<const LogSink>& installedSink() {
  static std::shared_ptr<const LogSink> sink;
  return sink;
}

void writeToStderr(std::string_view line) {
  std::string text(line);
  text.push_back('\n');
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written <= 0) {
      return;  // Nowhere left to report a failing stderr.
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
}

}  // namespace

void log(std::string_view line) {
  std::shared_ptr<const LogSink> sink;
  {
    std::scoped_lock lock(sinkMutex());
    sink = installedSink();
  }
  if (sink) {
    (*sink)(line);
  } else {
    writeToStderr(line);
  }
}

void setLogSink(LogSink sink) {
  auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  std::scoped_lock lock(sinkMutex());
  installedSink() = std::move(replacement);
}

}  // namespace kq
