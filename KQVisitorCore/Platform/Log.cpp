#include <KQVisitorCore/Platform/Log.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <unistd.h>

#include <memory>

namespace kq {
namespace {

struct Installed {
  std::shared_ptr<const LogSink> sink;
};

Guarded<Installed>& installed() {
  static Guarded<Installed> installed;
  return installed;
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
  const std::shared_ptr<const LogSink> sink = installed().get(&Installed::sink);
  if (sink) {
    (*sink)(line);
  } else {
    writeToStderr(line);
  }
}

void setLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement =
      sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  installed().set(&Installed::sink, std::move(replacement));
}

}  // namespace kq
