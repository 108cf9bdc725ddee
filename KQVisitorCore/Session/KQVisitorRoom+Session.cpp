// The calls of a room that tell the session it belongs to: closing the room and leaving its
// HTTP chat. They live here, beside the sites manager, so that the rooms' folder includes
// nothing above it.

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorHTTPRoomTransport.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

namespace kq {

void KQVisitorRoom::closeRoom() {
  const auto keepAlive = shared_from_this();  // the tables below may hold the last references
  setIsRoomJoined(false);
  stopHTTPPolling();
  const auto manager = KQVisitorXMPPClient::instance().sitesManager();
  manager->clearCurrentRoom();
  manager->leaveRoom(keepAlive);
  leaveSite();
}

void KQVisitorRoom::leaveHTTPRoom() {
  KQVisitorXMPPClient::instance().sitesManager()->closeHTTPSession([](auto, auto) {});
  http()->leave();
}

}  // namespace kq
