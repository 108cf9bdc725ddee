#include <KQVisitorCore/Rooms/detail/KQVisitorXMPPRoomTransport.h>

#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

namespace kq {

KQVisitorXMPPRoomTransport::KQVisitorXMPPRoomTransport(std::weak_ptr<KQVisitorRoom> owner,
                                                       std::shared_ptr<xmpp::XMPPRoom> room)
    : owner_(std::move(owner)), room_(std::move(room)) {}

void KQVisitorXMPPRoomTransport::join(const std::string& nickname) {
  room_->joinRoomUsingNickname(nickname, std::nullopt);
}

void KQVisitorXMPPRoomTransport::leave() {
  room_->leaveRoom();
}

bool KQVisitorXMPPRoomTransport::send(const std::string& text) {
  return send(text, std::nullopt);
}

bool KQVisitorXMPPRoomTransport::send(const std::string& text,
                                      const std::optional<std::string>& stanzaId) {
  const auto owner = owner_.lock();
  if (!owner || owner->isRoomDestroyed()) {
    return false;
  }
  const auto stream = room_->xmppStream();
  if (!stream || !stream->isConnected()) {
    return false;
  }
  const auto site = owner->site();
  const auto visitor = KQVisitorRoom::getVisitor();
  sendKQVisitorMessage(room_, text, "0", site ? site->siteId() : std::nullopt, "0",
                       visitor ? visitor->username() : std::nullopt, owner->roomId(), stanzaId);
  return true;
}

}  // namespace kq
