#include <KQVisitorCore/Rooms/RoomsManager.h>

namespace kq {

namespace {

[[noreturn]] void undefinedKey(const char* key) {
  throw RoomsManager::UndefinedKey(std::string("this object cannot answer the key ") + key);
}

}  // namespace

bool RegisteredRoom::isUsedByOperator() const {
  undefinedKey("isUsedByOperator");
}

bool RegisteredRoom::isUsedByLoggedInResources() const {
  undefinedKey("isUsedByLoggedInResources");
}

bool RegisteredRoom::isUsedByTrainning() const {
  undefinedKey("isUsedByTrainning");
}

RoomsManager& RoomsManager::sharedInstance() {
  static auto* instance = new RoomsManager;  // never destroyed: hosts may reach it at exit
  return *instance;
}

void RoomsManager::addRoom(const std::shared_ptr<RegisteredRoom>& room) {
  if (!room) {
    return;
  }
  const auto id = room->roomId();
  if (!id) {
    throw std::invalid_argument("RoomsManager::addRoom: the room has no room id");
  }
  roomsDict_[*id] = room;
}

std::shared_ptr<RegisteredRoom> RoomsManager::isRoomExists(const std::string& roomId) const {
  const auto found = roomsDict_.find(roomId);
  return found == roomsDict_.end() ? nullptr : found->second;
}

void RoomsManager::removeRoomById(const std::optional<std::string>& roomId) {
  if (roomId) {
    roomsDict_.erase(*roomId);
  }
}

void RoomsManager::removeRoomByIdIfNotUsedById(const std::optional<std::string>& roomId) {
  removeRoomById(roomId);
}

void RoomsManager::removeRoomByIdIfNotUsedByObject(const std::shared_ptr<RegisteredRoom>& room) {
  if (room) {
    removeRoomById(room->roomId());
  }
}

bool RoomsManager::isUsedByAny(const std::shared_ptr<RegisteredRoom>& /*room*/) const {
  return false;
}

template <class Filter>
void RoomsManager::removeMatching(const Filter& filter) {
  // The filter runs on every registered object (one that cannot answer a flag throws), and the
  // matching objects are then used as the keys to remove. The keys are room ids, which no
  // object equals, so no entry goes.
  for (const auto& entry : roomsDict_) {
    static_cast<void>(filter(*entry.second));
  }
}

void RoomsManager::removeAllQCRooms() {
  removeMatching([](const RegisteredRoom& room) {
    return !room.isUsedByOperator() && !room.isUsedByLoggedInResources();
  });
}

void RoomsManager::removeOperatorRooms() {
  removeMatching([](const RegisteredRoom& room) {
    return !room.isUsedByTrainning() && !room.isUsedByLoggedInResources();
  });
}

void RoomsManager::removeAllRooms() {
  roomsDict_.clear();
}

}  // namespace kq
