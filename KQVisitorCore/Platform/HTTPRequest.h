#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/HTTPHeaderFields.h>

#include <chrono>
#include <optional>
#include <string>

namespace kq {

/// What an HTTPSession task sends: a plain value, copied into the task when it starts.
struct KQ_EXPORT HTTPRequest {
  /// The platform's default: a request waits this long without any data moving before it fails.
  static constexpr std::chrono::milliseconds kDefaultTimeoutInterval{60000};

  HTTPRequest() = default;
  /// A GET of `requestURL` with no body, failing after `timeout` without data moving.
  explicit HTTPRequest(std::string requestURL,
                       std::chrono::milliseconds timeout = kDefaultTimeoutInterval)
      : url(std::move(requestURL)), timeoutInterval(timeout) {}

  /// An absolute http or https URL, already escaped.
  std::string url;
  /// Sent as written ("GET", "POST", or any other token, in any case). A request whose method is
  /// not a valid HTTP token fails through its completion; it is never sent.
  std::string httpMethod = "GET";
  /// Header fields sent after the ones the transport adds (Host, Content-Length, ...); a field
  /// set here replaces the transport's field of the same name. Values holding a line break make
  /// the request fail through its completion.
  HTTPHeaderFields allHTTPHeaderFields;
  /// The body; nullopt sends none. An empty string sends "Content-Length: 0".
  std::optional<std::string> httpBody;
  /// The request fails with a time-out error once this long passes without any byte sent or
  /// received (connecting included), as the platform's request time-out did.
  std::chrono::milliseconds timeoutInterval = kDefaultTimeoutInterval;

  /// Sets header `field` to `value`, replacing any field of that name (HTTPHeaderFields::setValue).
  void setValue(std::string value, std::string_view field) {
    allHTTPHeaderFields.setValue(std::move(value), field);
  }
  /// The value of the first header field named `field` (in any case); nullopt when none is set.
  [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return allHTTPHeaderFields.valueForHTTPHeaderField(field);
  }
};

}  // namespace kq
