// The calls of the XMPP client that act on the session and its rooms: making the sites manager,
// rejoining and closing the current room around the connection, and making, joining,
// configuring and forgetting rooms. They live here, beside the session, so that the network
// folder includes nothing above it.

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include <stdexcept>

namespace kq {

std::shared_ptr<KQVisitorSitesManager> KQVisitorXMPPClient::makeSitesManager() {
  return std::make_shared<KQVisitorSitesManager>();
}

void KQVisitorXMPPClient::rejoinSessionRooms() {
  sitesManager()->joinAllOperatorRooms();
}

void KQVisitorXMPPClient::closeSessionRooms() {
  sitesManager()->closeAllOperatorRooms();
}

void KQVisitorXMPPClient::createXmpproomwithwebsiteID(
    const std::optional<std::string>& /*websiteID*/, const std::optional<std::string>& /*chatId*/,
    const std::shared_ptr<KQVisitorUser>& description, const std::optional<std::string>& operatorId,
    const std::optional<std::string>& forGreeting, const std::shared_ptr<KQVisitorUser>& forUser) {
  const auto manager = sitesManager();
  auto room = manager->getCurrentRoom();
  if (!room) {
    room = std::make_shared<KQVisitorRoom>();
  }
  room->setUnreadMessagesCount(room->unreadMessagesCount() + 1);
  room->setOperatorId(operatorId);
  room->setOperatorName(forUser ? forUser->username() : std::nullopt);
  room->setGreetingMessage(forGreeting);
  for (const auto& user : {description, forUser}) {
    if (user) {
      room->addRoomOcuupant(describe(user->userId()), user);
    }
  }
  const auto website = manager->kqWebsite();
  room->setSite(website);
  if (website) {
    website->rooms()->setObject(room, "currentRoom");
  }
}

std::shared_ptr<KQVisitorRoom> KQVisitorXMPPClient::joinXmpproomwitChatID(
    const std::optional<std::string>& chatId) {
  if (!chatId) {
    return nullptr;
  }
  const auto manager = sitesManager();
  const auto room = manager->getCurrentRoom();
  if (room && room->isRoomJoined()) {
    return room;
  }
  const auto roomJID =
      xmpp::XMPPJID::jidWithString("room" + *chatId + "@conference." + std::string(kXMPPDomain));
  if (!roomJID) {
    log("KQVisitorXMPPClient: the chat id \"", *chatId, "\" makes no room address");
    return nullptr;
  }
  auto xmppRoom = std::make_shared<xmpp::XMPPRoom>(xmpp::XMPPRoomMemoryStorage::sharedInstance(),
                                                   *roomJID, DispatchQueue::main());
  xmppRoom->activate(xmppStream());
  // Accepts the server's defaults before the join; the room's creation asks again.
  xmppRoom->configureRoomUsingOptions(std::nullopt);
  if (!room) {
    xmppRoom->deactivate();  // nobody would keep it
    return nullptr;
  }
  if (const auto previous = room->xmppRoom()) {
    previous->deactivate();
  }
  room->setXmppRoom(std::move(xmppRoom));
  room->setRoomId(chatId);
  room->addRoomDelegate(room);
  room->addRoomDelegate(shared_from_this());
  room->connect();
  manager->joinRoom(room);
  return room;
}

void KQVisitorXMPPClient::sendDefaultRoomConfig(const std::optional<std::string>& /*jid*/) {
  const auto room = sitesManager()->getCurrentRoom();
  if (!room) {
    return;
  }
  if (const auto xmppRoom = room->xmppRoom()) {
    xmppRoom->configureRoomUsingOptions(std::nullopt);
  }
  inviteUser();
}

void KQVisitorXMPPClient::inviteUser() {
  const auto room = sitesManager()->getCurrentRoom();
  if (!room) {
    return;
  }
  room->inviteUser(
      xmpp::XMPPJID::jidWithString(describe(room->operatorId()) + "@" + std::string(kXMPPDomain)),
      room->getReasonPacket());
}

void KQVisitorXMPPClient::removeIdleRooms(const Notification& notification) {
  const auto& info = notification.userInfo;
  if (!info.is_object() || !info.contains("roomId") || info["roomId"].is_null()) {
    throw std::invalid_argument("removeIdleRooms: the notification carries no \"roomId\"");
  }
  // "siteId" is read and not used: the room leaves the session's website, whichever it was.
  const auto& roomId = info["roomId"];
  if (const auto website = sitesManager()->kqWebsite()) {
    website->rooms()->removeObjectForKey(roomId.is_string() ? roomId.get<std::string>()
                                                            : roomId.dump());
  }
  NotificationCenter::defaultCenter().post("reloadData");
}

}  // namespace kq
