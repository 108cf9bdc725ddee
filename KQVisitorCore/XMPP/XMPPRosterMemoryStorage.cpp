#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <map>
#include <string>

namespace kq::xmpp {

struct XMPPRosterMemoryStorage::State {
  std::map<std::string, XMPPRosterItem> items;  // by bare address
};

XMPPRosterMemoryStorage::XMPPRosterMemoryStorage() : state_(std::make_unique<Guarded<State>>()) {}

XMPPRosterMemoryStorage::~XMPPRosterMemoryStorage() = default;

std::optional<XMPPRosterItem> XMPPRosterMemoryStorage::userForJID(const XMPPJID& jid) const {
  return state_->with([&](const State& state) {
    const auto found = state.items.find(jid.bare());
    return found == state.items.end() ? std::nullopt : std::optional<XMPPRosterItem>(found->second);
  });
}

std::vector<XMPPRosterItem> XMPPRosterMemoryStorage::sortedUsersByName() const {
  return state_->with([](const State& state) {
    std::vector<XMPPRosterItem> result;
    for (const auto& [key, item] : state.items) {
      result.push_back(item);
    }
    return result;
  });
}

void XMPPRosterMemoryStorage::addOrUpdate(const XMPPRosterItem& item) {
  state_->with([&](State& state) { state.items.insert_or_assign(item.jid.bare(), item); });
}

void XMPPRosterMemoryStorage::remove(const XMPPJID& jid) {
  state_->with([&](State& state) { state.items.erase(jid.bare()); });
}

void XMPPRosterMemoryStorage::clear() {
  state_->with([](State& state) { state.items.clear(); });
}

}  // namespace kq::xmpp
