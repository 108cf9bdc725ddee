#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPRosterItem.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kq::xmpp {

/// The roster kept in memory, keyed by bare address. Thread-safe.
class KQ_EXPORT XMPPRosterMemoryStorage {
 public:
  XMPPRosterMemoryStorage() = default;
  XMPPRosterMemoryStorage(const XMPPRosterMemoryStorage&) = delete;
  XMPPRosterMemoryStorage& operator=(const XMPPRosterMemoryStorage&) = delete;

  /// The contact with the bare address of `jid`; nullopt when it is not in the roster.
  [[nodiscard]] std::optional<XMPPRosterItem> userForJID(const XMPPJID& jid) const;
  /// Every contact, ordered by bare address.
  [[nodiscard]] std::vector<XMPPRosterItem> sortedUsersByName() const;
  /// Adds `item` or replaces the contact with its address.
  void addOrUpdate(const XMPPRosterItem& item);
  void remove(const XMPPJID& jid);
  void clear();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, XMPPRosterItem> items_;  // guarded by mutex_
};

}  // namespace kq::xmpp
