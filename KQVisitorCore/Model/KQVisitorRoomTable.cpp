#include <KQVisitorCore/Model/KQVisitorRoomTable.h>

namespace kq {

std::shared_ptr<KQVisitorRoom> KQVisitorRoomTable::objectForKey(const std::string& key) const {
  std::scoped_lock lock(mutex_);
  const auto found = rooms_.find(key);
  return found == rooms_.end() ? nullptr : found->second;
}

void KQVisitorRoomTable::setObject(std::shared_ptr<KQVisitorRoom> room, const std::string& key) {
  std::shared_ptr<KQVisitorRoom> replaced;  // released outside the lock
  std::scoped_lock lock(mutex_);
  if (!room) {
    if (auto found = rooms_.find(key); found != rooms_.end()) {
      replaced = std::move(found->second);
      rooms_.erase(found);
    }
    return;
  }
  auto& slot = rooms_[key];
  replaced = std::exchange(slot, std::move(room));
}

void KQVisitorRoomTable::removeObjectForKey(const std::string& key) {
  setObject(nullptr, key);
}

void KQVisitorRoomTable::removeAllObjects() {
  std::map<std::string, std::shared_ptr<KQVisitorRoom>> removed;
  std::scoped_lock lock(mutex_);
  removed.swap(rooms_);
}

std::size_t KQVisitorRoomTable::count() const {
  std::scoped_lock lock(mutex_);
  return rooms_.size();
}

std::vector<KQVisitorRoomTable::Entry> KQVisitorRoomTable::snapshot() const {
  std::scoped_lock lock(mutex_);
  return {rooms_.begin(), rooms_.end()};
}

}  // namespace kq
