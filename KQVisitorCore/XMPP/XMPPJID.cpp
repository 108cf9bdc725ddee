#include <KQVisitorCore/XMPP/XMPPJID.h>

namespace kq::xmpp {

XMPPJID::XMPPJID(std::optional<std::string> user, std::string domain,
                 std::optional<std::string> resource)
    : user_(std::move(user)), domain_(std::move(domain)), resource_(std::move(resource)) {}

std::optional<XMPPJID> XMPPJID::jidWithString(std::string_view text) {
  std::optional<std::string> resource;
  const auto slash = text.find('/');
  std::string_view address = text;
  if (slash != std::string_view::npos) {
    resource = std::string(text.substr(slash + 1));
    address = text.substr(0, slash);
  }
  std::optional<std::string> user;
  const auto at = address.find('@');
  std::string_view domain = address;
  if (at != std::string_view::npos) {
    user = std::string(address.substr(0, at));
    domain = address.substr(at + 1);
  }
  return jidWithUser(std::move(user), std::string(domain), std::move(resource));
}

std::optional<XMPPJID> XMPPJID::jidWithUser(std::optional<std::string> user, std::string domain,
                                            std::optional<std::string> resource) {
  if (domain.empty() || domain.find_first_of("@/") != std::string::npos ||
      (user && (user->empty() || user->find_first_of("@/") != std::string::npos)) ||
      (resource && resource->empty())) {
    return std::nullopt;
  }
  return XMPPJID(std::move(user), std::move(domain), std::move(resource));
}

std::string XMPPJID::bare() const {
  return user_ ? *user_ + "@" + domain_ : domain_;
}

std::string XMPPJID::full() const {
  return resource_ ? bare() + "/" + *resource_ : bare();
}

XMPPJID XMPPJID::bareJID() const {
  return XMPPJID(user_, domain_, std::nullopt);
}

XMPPJID XMPPJID::jidWithNewResource(std::string resource) const {
  return XMPPJID(user_, domain_, std::move(resource));
}

bool XMPPJID::isEqualToJIDIgnoringResource(const XMPPJID& other) const {
  return user_ == other.user_ && domain_ == other.domain_;
}

}  // namespace kq::xmpp
