#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>
#include <string_view>

// Encodings that XMPP extensions use (SASL, vCard photos, entity capabilities).
namespace kq::xmpp {

/// Standard base64 with padding.
KQ_EXPORT std::string base64Encode(std::string_view data);
/// Decodes base64, ignoring white space; nullopt for text that is not base64.
KQ_EXPORT std::optional<std::string> base64Decode(std::string_view text);
/// The 20-byte SHA-1 digest of `data`.
KQ_EXPORT std::string sha1(std::string_view data);
/// Lower-case hexadecimal of `data`.
KQ_EXPORT std::string hexString(std::string_view data);

}  // namespace kq::xmpp
