#pragma once

// Small helpers that keep Foundation's rules where the library's behaviour depends on them:
// reading a number from the front of a string, and writing values as "%@" writes them.

#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json_fwd.hpp>

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kq {

/// The text written for an absent value.
inline constexpr std::string_view kNullDescription = "(null)";

/// Reads a decimal integer from the front of `text` as Foundation's `integerValue` does:
/// leading white space (including line breaks) is skipped, an optional "+" or "-" is taken,
/// then as many digits as follow. No digits gives 0; values beyond the 64-bit range saturate at
/// its limits. Trailing text is ignored ("12abc" reads 12, "abc" reads 0).
KQ_EXPORT std::int64_t integerValue(std::string_view text);

/// Like integerValue, saturating at the 32-bit range (Foundation's `intValue`).
KQ_EXPORT std::int32_t intValue(std::string_view text);

/// `value` as JSON: its text, or null when absent (which a service request writes as the
/// platform's text for a missing object).
KQ_EXPORT nlohmann::ordered_json jsonValue(const std::optional<std::string>& value);

/// The text of a service's answer field: a string as it is, a number written out, nullopt for
/// anything else.
KQ_EXPORT std::optional<std::string> textValue(const nlohmann::ordered_json& value);

/// A value read as Foundation's `boolValue` reads it: a boolean as it is, a number when not 0,
/// a string when its first non-blank character is "Y", "y", "T", "t" or a digit 1 to 9; false
/// for anything else.
KQ_EXPORT bool boolValue(const nlohmann::ordered_json& value);

/// "%@" of a value: strings as they are, an absent string as "(null)", numbers in decimal,
/// booleans as 1 or 0 (as a boolean number prints), JSON strings as their text and other JSON
/// values in compact JSON.
KQ_EXPORT std::string describe(std::string_view text);
KQ_EXPORT std::string describe(const std::optional<std::string>& text);
KQ_EXPORT std::string describe(const nlohmann::ordered_json& value);
KQ_EXPORT std::string describe(bool value);
KQ_EXPORT std::string describe(double value);
inline std::string describe(const char* text) {
  return text == nullptr ? std::string(kNullDescription) : std::string(text);
}
inline std::string describe(const std::string& text) {
  return text;
}
template <std::integral Integer>
requires(!std::same_as<Integer, bool> && !std::same_as<Integer, char>) std::string
    describe(Integer value) {
  return std::to_string(value);
}

}  // namespace kq
