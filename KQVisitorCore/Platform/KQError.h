#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace kq {

/// An error as the library reports it through its callbacks.
///
/// Library errors carry the human-readable message as `domain`, a code of 400, 500 or 1001 and
/// one user-information entry "status" with a small integer. Transport errors keep the domain
/// and code of the layer that failed (for example "CURLE" and libcurl's code) and describe
/// themselves under "NSLocalizedDescription".
struct KQ_EXPORT KQError {
  /// The message of a library error, the failing layer's name otherwise.
  std::string domain;
  /// 400, 500 or 1001 for a library error, the layer's own code otherwise.
  long code = 0;
  /// Further information, a JSON object: {"status": n} for a library error; what went wrong
  /// under "NSLocalizedDescription" for a transport error.
  nlohmann::ordered_json userInfo = nlohmann::ordered_json::object();

  /// A library error: `domain` is the message, userInfo is {"status": status}.
  static KQError withStatus(std::string domain, long code, long status);

  /// The "status" entry when it holds an integer.
  [[nodiscard]] std::optional<long> status() const;

  /// "Error Domain=<domain> Code=<code> UserInfo=<userInfo as JSON>", for logs.
  [[nodiscard]] std::string description() const;
};

}  // namespace kq
