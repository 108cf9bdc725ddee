#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include <optional>

namespace kq::xmpp {

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
  std::scoped_lock lock(mutex_);
  auto& occupants = rooms_[roomJID.bare()].occupants;
  if (presence.type() == "unavailable") {
    occupants.erase(*from->resource());
  } else {
    occupants.insert_or_assign(*from->resource(), std::move(copy));
  }
}

void XMPPRoomMemoryStorage::addMessage(XMPPMessage message, const XMPPJID& roomJID, bool received) {
  // Both are freed after the lock is let go.
  std::optional<XMPPMessage> released;
  std::optional<XMPPMessage> dropped;
  std::scoped_lock lock(mutex_);
  released.swap(retired_);
  auto& messages = rooms_[roomJID.bare()].messages;
  if (messages.size() >= kMaxMessagesPerRoom) {
    dropped = std::move(messages.front());
    messages.pop_front();
  }
  messages.push_back(std::move(message));
  if (received) {
    retired_ = std::move(dropped);
  }
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
  std::scoped_lock lock(mutex_);
  rooms_.erase(roomJID.bare());
}

std::vector<std::string> XMPPRoomMemoryStorage::occupantNicknames(const XMPPJID& roomJID) const {
  std::scoped_lock lock(mutex_);
  std::vector<std::string> result;
  const auto found = rooms_.find(roomJID.bare());
  if (found != rooms_.end()) {
    for (const auto& [nickname, presence] : found->second.occupants) {
      result.push_back(nickname);
    }
  }
  return result;
}

std::vector<XMPPMessage> XMPPRoomMemoryStorage::messages(const XMPPJID& roomJID) const {
  std::vector<XMPPMessage> result;
  std::scoped_lock lock(mutex_);
  const auto found = rooms_.find(roomJID.bare());
  if (found != rooms_.end()) {
    for (const auto& message : found->second.messages) {
      result.push_back(XMPPMessage(message.copy()));
    }
  }
  return result;
}

}  // namespace kq::xmpp
