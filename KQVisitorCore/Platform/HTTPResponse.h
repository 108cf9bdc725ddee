#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/HTTPHeaderFields.h>

#include <string>

namespace kq {

/// The head of an HTTP answer, as an HTTPSession task received it. Any status counts as an
/// answer: telling a 500 from a 200 is the caller's business, not the transport's.
struct KQ_EXPORT HTTPResponse {
  /// The URL that answered (after redirects).
  std::string url;
  /// The HTTP status code of the final answer.
  long statusCode = 0;
  /// The header fields of the final answer, in the order received.
  HTTPHeaderFields allHeaderFields;

  /// The value of the first received header field named `field` (in any case); nullopt when
  /// the answer had none.
  [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const {
    return allHeaderFields.valueForHTTPHeaderField(field);
  }
};

}  // namespace kq
