#pragma once

#include <KQVisitorCore/Rooms/detail/KQVisitorRoomTransport.h>

#include <memory>
#include <optional>
#include <string>

namespace kq {

class KQVisitorRoom;
namespace xmpp {
class XMPPRoom;
}  // namespace xmpp

/// A chat carried by an XMPP multi-user-chat room: lines go as chat packets, and come back
/// through the room's XMPPRoom events, which KQVisitorRoom receives as the XMPPRoom's delegate.
class KQVisitorXMPPRoomTransport final : public KQVisitorRoomTransport {
 public:
  KQVisitorXMPPRoomTransport(std::weak_ptr<KQVisitorRoom> owner,
                             std::shared_ptr<xmpp::XMPPRoom> room);

  [[nodiscard]] const std::shared_ptr<xmpp::XMPPRoom>& room() const { return room_; }

  /// Joins under `nickname`, asking for no history.
  void join(const std::string& nickname) override;
  void leave() override;
  /// False when the chat was destroyed or the stream is not connected.
  bool send(const std::string& text) override;
  /// As send(text), the packet carrying `stanzaId` as its "id" attribute.
  bool send(const std::string& text, const std::optional<std::string>& stanzaId);

 private:
  const std::weak_ptr<KQVisitorRoom> owner_;
  const std::shared_ptr<xmpp::XMPPRoom> room_;
};

}  // namespace kq
