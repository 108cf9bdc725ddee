#include <KQVisitorCore/Platform/Foundation.h>

#include <nlohmann/json.hpp>

#include <charconv>
#include <limits>

namespace kq {
namespace {

bool isFoundationWhitespace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Reads sign and digits, saturating at [minimum, maximum].
std::int64_t scanInteger(std::string_view text, std::int64_t minimum, std::int64_t maximum) {
  size_t i = 0;
  while (i < text.size() && isFoundationWhitespace(text[i])) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  // Accumulate towards the signed limit so that the minimum itself does not overflow.
  const std::int64_t limit = negative ? minimum : maximum;
  std::int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const int digit = text[i] - '0';
    if (negative) {
      if (value < (limit + digit) / 10) {
        return limit;
      }
      value = value * 10 - digit;
    } else {
      if (value > (limit - digit) / 10) {
        return limit;
      }
      value = value * 10 + digit;
    }
  }
  return value;
}

}  // namespace

std::int64_t integerValue(std::string_view text) {
  return scanInteger(text, std::numeric_limits<std::int64_t>::min(),
                     std::numeric_limits<std::int64_t>::max());
}

std::int32_t intValue(std::string_view text) {
  return static_cast<std::int32_t>(scanInteger(text, std::numeric_limits<std::int32_t>::min(),
                                               std::numeric_limits<std::int32_t>::max()));
}

nlohmann::ordered_json jsonValue(const std::optional<std::string>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

std::optional<std::string> textValue(const nlohmann::ordered_json& value) {
  if (value.is_string()) {
    return value.get<std::string>();
  }
  if (value.is_number()) {
    return value.dump();
  }
  return std::nullopt;
}

bool boolValue(const nlohmann::ordered_json& value) {
  if (value.is_boolean()) {
    return value.get<bool>();
  }
  if (value.is_number()) {
    return value.get<double>() != 0;
  }
  if (!value.is_string()) {
    return false;
  }
  const auto& text = value.get_ref<const std::string&>();
  const auto first = text.find_first_not_of(" \t\n\r");
  if (first == std::string::npos) {
    return false;
  }
  const char c = text[first];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

std::string describe(std::string_view text) {
  return std::string(text);
}

std::string describe(const std::optional<std::string>& text) {
  return text ? *text : std::string(kNullDescription);
}

std::string describe(const nlohmann::ordered_json& value) {
  if (value.is_null()) {
    return std::string(kNullDescription);
  }
  if (value.is_string()) {
    return value.get<std::string>();
  }
  return value.dump();
}

std::string describe(bool value) {
  return value ? "1" : "0";
}

std::string describe(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

}  // namespace kq
