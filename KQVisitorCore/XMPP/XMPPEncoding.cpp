#include <KQVisitorCore/XMPP/XMPPEncoding.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cctype>
#include <vector>

namespace kq::xmpp {

std::string base64Encode(std::string_view data) {
  std::vector<unsigned char> encoded(4 * ((data.size() + 2) / 3) + 1);
  const int length =
      EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(data.data()),
                      static_cast<int>(data.size()));
  return std::string(reinterpret_cast<const char*>(encoded.data()),
                     static_cast<std::size_t>(length));
}

std::optional<std::string> base64Decode(std::string_view text) {
  std::string compact;
  for (const char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) == 0) {
      compact += c;
    }
  }
  if (compact.size() % 4 != 0) {
    return std::nullopt;
  }
  if (compact.empty()) {
    return std::string();
  }
  std::vector<unsigned char> decoded(compact.size() / 4 * 3 + 1);
  const int length =
      EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(compact.data()),
                      static_cast<int>(compact.size()));
  if (length < 0) {
    return std::nullopt;
  }
  // EVP_DecodeBlock keeps the bytes that padding stands for: drop them.
  auto size = static_cast<std::size_t>(length);
  for (std::size_t i = compact.size(); i > 0 && compact[i - 1] == '='; --i) {
    --size;
  }
  return std::string(reinterpret_cast<const char*>(decoded.data()), size);
}

std::string sha1(std::string_view data) {
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
  return std::string(reinterpret_cast<const char*>(digest), SHA_DIGEST_LENGTH);
}

std::string hexString(std::string_view data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string result;
  result.reserve(data.size() * 2);
  for (const char c : data) {
    const auto byte = static_cast<unsigned char>(c);
    result += kDigits[byte >> 4U];
    result += kDigits[byte & 0x0FU];
  }
  return result;
}

}  // namespace kq::xmpp
