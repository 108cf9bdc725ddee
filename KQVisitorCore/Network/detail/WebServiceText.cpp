#include <KQVisitorCore/Network/detail/WebServiceText.h>

#include <KQVisitorCore/Platform/Foundation.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>

namespace kq::detail {
namespace {

// Length of the valid UTF-8 sequence at the start of `text`, 0 when it is not one.
std::size_t validSequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continuation = [&](std::size_t i) {
    return i < text.size() && (byte(i) & 0xC0U) == 0x80U;
  };
  const unsigned char lead = byte(0);
  if (lead < 0x80U) {
    return 1;
  }
  if (lead >= 0xC2U && lead <= 0xDFU) {
    return continuation(1) ? 2 : 0;
  }
  if (lead >= 0xE0U && lead <= 0xEFU) {
    if (!continuation(1) || !continuation(2)) {
      return 0;
    }
    const unsigned char second = byte(1);
    if ((lead == 0xE0U && second < 0xA0U) || (lead == 0xEDU && second > 0x9FU)) {
      return 0;  // overlong form, or a UTF-16 surrogate
    }
    return 3;
  }
  if (lead >= 0xF0U && lead <= 0xF4U) {
    if (!continuation(1) || !continuation(2) || !continuation(3)) {
      return 0;
    }
    const unsigned char second = byte(1);
    if ((lead == 0xF0U && second < 0x90U) || (lead == 0xF4U && second > 0x8FU)) {
      return 0;  // overlong form, or beyond U+10FFFF
    }
    return 4;
  }
  return 0;
}

}  // namespace

void appendParameter(std::string& text, const nlohmann::ordered_json& value) {
  if (value.is_string()) {
    text.append(value.get_ref<const std::string&>());
  } else if (value.is_boolean()) {
    text.append(describe(value.get<bool>()));
  } else if (value.is_null()) {
    text.append("<null>");
  } else if (value.is_number_integer()) {
    // The serialiser's decimal text, without setting one up: most parameters are ids.
    char digits[24];
    const auto end =
        value.is_number_unsigned()
            ? std::to_chars(std::begin(digits), std::end(digits), value.get<std::uint64_t>())
            : std::to_chars(std::begin(digits), std::end(digits), value.get<std::int64_t>());
    text.append(digits, end.ptr);
  } else {
    text.append(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
  }
}

std::string describeParameter(const nlohmann::ordered_json& value) {
  std::string text;
  appendParameter(text, value);
  return text;
}

std::string decodeUTF8(std::string_view data) {
  std::string text;
  text.reserve(data.size());
  while (!data.empty()) {
    // ASCII runs, most of an answer, are copied whole.
    const auto ascii = std::find_if(data.begin(), data.end(),
                                    [](char c) { return static_cast<unsigned char>(c) >= 0x80U; });
    text.append(data.begin(), ascii);
    data.remove_prefix(static_cast<std::size_t>(ascii - data.begin()));
    if (data.empty()) {
      break;
    }
    const std::size_t length = validSequenceLength(data);
    if (length == 0) {
      text.append("\xEF\xBF\xBD");
      data.remove_prefix(1);
    } else {
      text.append(data.substr(0, length));
      data.remove_prefix(length);
    }
  }
  return text;
}

std::string cleanedResponseText(std::string_view text) {
  // The three steps in one pass: each character leaves the first step into the second, and what
  // the second lets out goes into the third.
  std::string result;
  result.reserve(text.size());
  bool afterBrace = false;  // the third step's last character out was '}'
  const auto third = [&](char c) {
    if (c == '"' && afterBrace) {
      afterBrace = false;  // "}\"" becomes "}"
      return;
    }
    afterBrace = c == '}';
    result.push_back(c);
  };
  bool quoteHeld = false;  // the second step holds a '"' until it knows whether '{' follows
  for (const char c : text) {
    if (c == '\\') {
      continue;
    }
    if (quoteHeld) {
      quoteHeld = false;
      if (c == '{') {
        third('{');  // "\"{" becomes "{"
        continue;
      }
      third('"');
    }
    if (c == '"') {
      quoteHeld = true;
    } else {
      third(c);
    }
  }
  if (quoteHeld) {
    third('"');
  }
  return result;
}

std::string removingCharacters(std::string_view text, std::string_view characters) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    if (characters.find(c) == std::string_view::npos) {
      result.push_back(c);
    }
  }
  return result;
}

KQError configurationError(const std::string& reason) {
  KQError error{"KQVisitorConfig", 1, nlohmann::ordered_json::object()};
  error.userInfo["NSLocalizedDescription"] = reason;
  return error;
}

}  // namespace kq::detail
