#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

/// An XMPP address: `[user@]domain[/resource]`. An immutable value.
class KQ_EXPORT XMPPJID {
 public:
  /// Parses `user@domain/resource` (user and resource optional). nullopt when the text is not
  /// an address: empty domain, empty user before `@`, empty resource after `/`, or a second `@`
  /// before the `/`.
  static std::optional<XMPPJID> jidWithString(std::string_view text);
  /// The address made of the parts; nullopt when `domain` is empty, a part is empty but given,
  /// or the user or domain holds `@` or `/`.
  static std::optional<XMPPJID> jidWithUser(std::optional<std::string> user, std::string domain,
                                            std::optional<std::string> resource);

  /// The part before `@`; nullopt when there is none.
  [[nodiscard]] const std::optional<std::string>& user() const { return user_; }
  /// The domain; never empty.
  [[nodiscard]] const std::string& domain() const { return domain_; }
  /// The part after `/`; nullopt when there is none.
  [[nodiscard]] const std::optional<std::string>& resource() const { return resource_; }

  /// `user@domain` (or `domain`).
  [[nodiscard]] std::string bare() const;
  /// The whole address, with the resource when there is one.
  [[nodiscard]] std::string full() const;
  /// The address without its resource.
  [[nodiscard]] XMPPJID bareJID() const;
  /// The address with `resource` in place of its own resource (`resource` is not checked).
  [[nodiscard]] XMPPJID jidWithNewResource(std::string resource) const;
  /// True when the address has no resource.
  [[nodiscard]] bool isBare() const { return !resource_.has_value(); }

  /// Equal as whole addresses.
  bool operator==(const XMPPJID& other) const = default;
  /// Equal without looking at the resources.
  [[nodiscard]] bool isEqualToJIDIgnoringResource(const XMPPJID& other) const;

 private:
  XMPPJID(std::optional<std::string> user, std::string domain, std::optional<std::string> resource);

  std::optional<std::string> user_;
  std::string domain_;
  std::optional<std::string> resource_;
};

}  // namespace kq::xmpp
