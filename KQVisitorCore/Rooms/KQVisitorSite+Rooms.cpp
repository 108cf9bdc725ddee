// The calls of a site record that act on its rooms. They live here, beside the rooms, so that
// the records' folder includes nothing above it.

#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>

namespace kq {

void KQVisitorSite::joinAllRoom() {
  for (const auto& [key, room] : rooms()->snapshot()) {
    room->connect();
  }
}

void KQVisitorSite::closeAllRooms() {
  for (const auto& [key, room] : rooms()->snapshot()) {
    room->closeRoom();
  }
}

}  // namespace kq
