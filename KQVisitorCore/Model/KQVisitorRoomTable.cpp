#include <KQVisitorCore/Model/KQVisitorRoomTable.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {

struct KQVisitorRoomTable::State {
  std::map<std::string, std::shared_ptr<KQVisitorRoom>> rooms;
};

KQVisitorRoomTable::KQVisitorRoomTable() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorRoomTable::~KQVisitorRoomTable() = default;

std::shared_ptr<KQVisitorRoom> KQVisitorRoomTable::objectForKey(const std::string& key) const {
  return state_->with([&key](const State& state) -> std::shared_ptr<KQVisitorRoom> {
    const auto found = state.rooms.find(key);
    return found == state.rooms.end() ? nullptr : found->second;
  });
}

void KQVisitorRoomTable::setObject(std::shared_ptr<KQVisitorRoom> room, const std::string& key) {
  // The room replaced is released after the lock: its destructor may reach this table.
  const auto replaced = state_->with([&](State& state) -> std::shared_ptr<KQVisitorRoom> {
    if (room) {
      return std::exchange(state.rooms[key], std::move(room));
    }
    const auto found = state.rooms.find(key);
    if (found == state.rooms.end()) {
      return nullptr;
    }
    auto removed = std::move(found->second);
    state.rooms.erase(found);
    return removed;
  });
}

void KQVisitorRoomTable::removeObjectForKey(const std::string& key) {
  setObject(nullptr, key);
}

void KQVisitorRoomTable::removeAllObjects() {
  // Released after the lock, as above.
  const auto removed = state_->with([](State& state) { return std::exchange(state.rooms, {}); });
}

std::size_t KQVisitorRoomTable::count() const {
  return state_->with([](const State& state) { return state.rooms.size(); });
}

std::vector<KQVisitorRoomTable::Entry> KQVisitorRoomTable::snapshot() const {
  return state_->with([](const State& state) {
    return std::vector<Entry>(state.rooms.begin(), state.rooms.end());
  });
}

}  // namespace kq
