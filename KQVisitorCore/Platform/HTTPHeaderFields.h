#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kq {

/// HTTP header fields in the order they were set or received. Names compare without regard to
/// case, as HTTP says; the spelling of the first setter is kept on the wire.
class KQ_EXPORT HTTPHeaderFields {
 public:
  /// A field's name and value.
  using Field = std::pair<std::string, std::string>;

  /// Sets `field` to `value`, replacing every earlier field of the same name in place.
  void setValue(std::string value, std::string_view field);
  /// Adds a field after the others, keeping earlier ones of the same name (received headers).
  void addValue(std::string value, std::string field);
  /// The value of the first field named `field`; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

  /// Every field, in order, names spelled as set or received.
  [[nodiscard]] const std::vector<Field>& fields() const { return fields_; }
  /// True when there is no field.
  [[nodiscard]] bool empty() const { return fields_.empty(); }
  /// Removes every field.
  void clear() { fields_.clear(); }

 private:
  std::vector<Field> fields_;
};

}  // namespace kq
