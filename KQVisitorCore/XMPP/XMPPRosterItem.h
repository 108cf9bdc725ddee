#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <optional>
#include <string>
#include <vector>

namespace kq::xmpp {

/// One contact of the roster.
struct KQ_EXPORT XMPPRosterItem {
  /// The contact's bare address.
  XMPPJID jid;
  /// The name we gave the contact; nullopt when none.
  std::optional<std::string> nickname;
  /// "none", "to", "from" or "both".
  std::string subscription = "none";
  /// "subscribe" while our request waits for the contact's answer.
  std::optional<std::string> ask;
  /// The roster groups the contact is in, in the server's order.
  std::vector<std::string> groups;

  /// The nickname, or the bare address when there is none.
  [[nodiscard]] std::string displayName() const { return nickname ? *nickname : jid.bare(); }
};

}  // namespace kq::xmpp
