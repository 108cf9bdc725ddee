#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>

namespace kq::xmpp {

std::optional<XMPPRosterItem> XMPPRosterMemoryStorage::userForJID(const XMPPJID& jid) const {
  std::scoped_lock lock(mutex_);
  const auto found = items_.find(jid.bare());
  return found == items_.end() ? std::nullopt : std::optional<XMPPRosterItem>(found->second);
}

std::vector<XMPPRosterItem> XMPPRosterMemoryStorage::sortedUsersByName() const {
  std::scoped_lock lock(mutex_);
  std::vector<XMPPRosterItem> result;
  for (const auto& [key, item] : items_) {
    result.push_back(item);
  }
  return result;
}

void XMPPRosterMemoryStorage::addOrUpdate(const XMPPRosterItem& item) {
  std::scoped_lock lock(mutex_);
  items_.insert_or_assign(item.jid.bare(), item);
}

void XMPPRosterMemoryStorage::remove(const XMPPJID& jid) {
  std::scoped_lock lock(mutex_);
  items_.erase(jid.bare());
}

void XMPPRosterMemoryStorage::clear() {
  std::scoped_lock lock(mutex_);
  items_.clear();
}

}  // namespace kq::xmpp
