#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/Foundation.h>

#include <functional>
#include <string>
#include <string_view>

namespace kq {

/// Receives every diagnostic line of the library, without a trailing newline. Called on the
/// thread that logs; it must not call back into the library's logging.
using LogSink = std::function<void(std::string_view line)>;

/// Writes one diagnostic line. There are no levels. By default lines go to stderr, each with a
/// single write so that lines from several threads never interleave.
KQ_EXPORT void log(std::string_view line);

/// Writes the concatenation of the parts as one line; each part is written as "%@" would write
/// it (see describe), so an absent string reads "(null)".
template <class... Parts>
void log(const Parts&... parts) requires(sizeof...(Parts) > 1) {
  std::string line;
  (line.append(describe(parts)), ...);
  log(std::string_view(line));
}

/// Replaces the sink; an empty function restores the stderr default. Thread-safe.
KQ_EXPORT void setLogSink(LogSink sink);

}  // namespace kq
