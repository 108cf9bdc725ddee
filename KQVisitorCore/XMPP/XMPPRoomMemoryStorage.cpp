#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <deque>
#include <map>
#include <optional>

namespace kq::xmpp {

struct XMPPRoomMemoryStorage::State {
  struct Room {
    std::map<std::string, XMPPPresence> occupants;
    std::deque<XMPPMessage> messages;
  };
  std::map<std::string, Room> rooms;
  std::optional<XMPPMessage> retired;  // dropped, not yet freed
};

XMPPRoomMemoryStorage::XMPPRoomMemoryStorage() : state_(std::make_unique<Guarded<State>>()) {}

XMPPRoomMemoryStorage::~XMPPRoomMemoryStorage() = default;

const std::shared_ptr<XMPPRoomMemoryStorage>& XMPPRoomMemoryStorage::sharedInstance() {
  static auto* storage =
      new std::shared_ptr<XMPPRoomMemoryStorage>(std::make_shared<XMPPRoomMemoryStorage>());
  return *storage;
}

void XMPPRoomMemoryStorage::handlePresence(const XMPPPresence& presence, const XMPPJID& roomJID) {
  const auto from = presence.from();
  if (!from || !from->resource()) {
    return;
  }
  XMPPPresence copy(presence.copy());
  state_->with([&](State& state) {
    auto& occupants = state.rooms[roomJID.bare()].occupants;
    if (presence.type() == "unavailable") {
      occupants.erase(*from->resource());
    } else {
      occupants.insert_or_assign(*from->resource(), std::move(copy));
    }
  });
}

void XMPPRoomMemoryStorage::addMessage(XMPPMessage message, const XMPPJID& roomJID, bool received) {
  // Both are freed after the lock is let go.
  std::optional<XMPPMessage> released;
  std::optional<XMPPMessage> dropped;
  state_->with([&](State& state) {
    released.swap(state.retired);
    auto& messages = state.rooms[roomJID.bare()].messages;
    if (messages.size() >= kMaxMessagesPerRoom) {
      dropped = std::move(messages.front());
      messages.pop_front();
    }
    messages.push_back(std::move(message));
    if (received) {
      state.retired = std::move(dropped);
    }
  });
}

void XMPPRoomMemoryStorage::handleIncomingMessage(const XMPPMessage& message,
                                                  const XMPPJID& roomJID) {
  addMessage(message, roomJID, true);  // received stanzas are read-only: keep the stream's own
}

void XMPPRoomMemoryStorage::handleOutgoingMessage(const XMPPMessage& message,
                                                  const XMPPJID& roomJID) {
  addMessage(XMPPMessage(message.copy()), roomJID, false);  // its sender may still change it
}

void XMPPRoomMemoryStorage::handleSentMessage(const XMPPMessage& message, const XMPPJID& roomJID) {
  addMessage(message, roomJID, false);
}

void XMPPRoomMemoryStorage::clearRoom(const XMPPJID& roomJID) {
  state_->with([&](State& state) { state.rooms.erase(roomJID.bare()); });
}

std::vector<std::string> XMPPRoomMemoryStorage::occupantNicknames(const XMPPJID& roomJID) const {
  std::vector<std::string> result;
  state_->with([&](const State& state) {
    const auto found = state.rooms.find(roomJID.bare());
    if (found != state.rooms.end()) {
      for (const auto& [nickname, presence] : found->second.occupants) {
        result.push_back(nickname);
      }
    }
  });
  return result;
}

std::vector<XMPPMessage> XMPPRoomMemoryStorage::messages(const XMPPJID& roomJID) const {
  std::vector<XMPPMessage> result;
  state_->with([&](const State& state) {
    const auto found = state.rooms.find(roomJID.bare());
    if (found != state.rooms.end()) {
      for (const auto& message : found->second.messages) {
        result.push_back(XMPPMessage(message.copy()));
      }
    }
  });
  return result;
}

}  // namespace kq::xmpp
