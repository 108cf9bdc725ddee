#include <KQVisitorCore/Platform/PercentEscapes.h>

#include <array>

namespace kq {
namespace {

constexpr std::array<bool, 128> makeLegalTable() {
  std::array<bool, 128> legal{};
  for (char c = 'a'; c <= 'z'; ++c) {
    legal[static_cast<unsigned char>(c)] = true;
  }
  for (char c = 'A'; c <= 'Z'; ++c) {
    legal[static_cast<unsigned char>(c)] = true;
  }
  for (char c = '0'; c <= '9'; ++c) {
    legal[static_cast<unsigned char>(c)] = true;
  }
  for (const char c : std::string_view("-_.!~*'();/?:@&=+$,#")) {
    legal[static_cast<unsigned char>(c)] = true;
  }
  return legal;
}

constexpr std::array<bool, 128> kLegal = makeLegalTable();

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The extent of an IPv6 literal host ("[...]" right after "://"), which must stay as written.
std::pair<std::size_t, std::size_t> bracketedHost(std::string_view text) {
  const auto scheme = text.find("://");
  if (scheme == std::string_view::npos || scheme + 3 >= text.size() || text[scheme + 3] != '[') {
    return {std::string_view::npos, std::string_view::npos};
  }
  const auto close = text.find(']', scheme + 3);
  const auto authorityEnd = text.find_first_of("/?#", scheme + 3);
  if (close == std::string_view::npos || close > authorityEnd) {
    return {std::string_view::npos, std::string_view::npos};
  }
  return {scheme + 3, close};
}

}  // namespace

std::string stringByAddingPercentEscapes(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const auto [hostStart, hostEnd] = bracketedHost(text);
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 4);
  std::size_t kept = 0;  // start of the run of bytes kept as they are, not yet copied
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool keep = (byte < 128 && kLegal[byte]) ||
                      (byte == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) &&
                       isHexDigit(text[i + 2])) ||
                      ((byte == '[' || byte == ']') && (i == hostStart || i == hostEnd));
    if (!keep) {
      escaped.append(text, kept, i - kept);
      const char escape[3] = {'%', kHex[byte >> 4U], kHex[byte & 0x0FU]};
      escaped.append(escape, sizeof escape);
      kept = i + 1;
    }
  }
  escaped.append(text, kept);
  return escaped;
}

}  // namespace kq
