#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPRosterItem.h>

#include <memory>
#include <optional>
#include <vector>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

/// The roster kept in memory, keyed by bare address. Thread-safe.
class KQ_EXPORT XMPPRosterMemoryStorage {
 public:
  /// An empty storage.
  XMPPRosterMemoryStorage();
  XMPPRosterMemoryStorage(const XMPPRosterMemoryStorage&) = delete;
  XMPPRosterMemoryStorage& operator=(const XMPPRosterMemoryStorage&) = delete;
  ~XMPPRosterMemoryStorage();

  /// The contact with the bare address of `jid`; nullopt when it is not in the roster.
  [[nodiscard]] std::optional<XMPPRosterItem> userForJID(const XMPPJID& jid) const;
  /// Every contact, ordered by bare address.
  [[nodiscard]] std::vector<XMPPRosterItem> sortedUsersByName() const;
  /// Adds `item` or replaces the contact with its address.
  void addOrUpdate(const XMPPRosterItem& item);
  /// Removes the contact with the bare address of `jid`, if any.
  void remove(const XMPPJID& jid);
  /// Removes every contact.
  void clear();

 private:
  // The contacts, under the storage's lock; defined in XMPPRosterMemoryStorage.cpp.
  struct State;

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq::xmpp
