#include <KQVisitorCore/Platform/PercentEscapes.h>

#include <array>

namespace kq {
namespace {

// How each byte is written: as it is, escaped, or as it is only where it stands (a '%' that
// begins an escape already made, the brackets of an IPv6 literal host).
enum class Escaping : unsigned char { Keep, Escape, KeepWhereItStands };

constexpr std::array<Escaping, 256> makeEscapingTable() {
  std::array<Escaping, 256> table{};
  table.fill(Escaping::Escape);
  for (char c = 'a'; c <= 'z'; ++c) {
    table[static_cast<unsigned char>(c)] = Escaping::Keep;
  }
  for (char c = 'A'; c <= 'Z'; ++c) {
    table[static_cast<unsigned char>(c)] = Escaping::Keep;
  }
  for (char c = '0'; c <= '9'; ++c) {
    table[static_cast<unsigned char>(c)] = Escaping::Keep;
  }
  for (const char c : std::string_view("-_.!~*'();/?:@&=+$,#")) {
    table[static_cast<unsigned char>(c)] = Escaping::Keep;
  }
  for (const char c : std::string_view("%[]")) {
    table[static_cast<unsigned char>(c)] = Escaping::KeepWhereItStands;
  }
  return table;
}

constexpr std::array<Escaping, 256> kEscaping = makeEscapingTable();

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
    const Escaping escaping = kEscaping[byte];
    if (escaping == Escaping::Keep ||
        (escaping == Escaping::KeepWhereItStands &&
         (byte == '%' ? i + 2 < text.size() && isHexDigit(text[i + 1]) && isHexDigit(text[i + 2])
                      : i == hostStart || i == hostEnd))) {
      continue;
    }
    escaped.append(text, kept, i - kept);
    const char escape[3] = {'%', kHex[byte >> 4U], kHex[byte & 0x0FU]};
    escaped.append(escape, sizeof escape);
    kept = i + 1;
  }
  escaped.append(text, kept);
  return escaped;
}

}  // namespace kq
