#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>

#include <memory>
#include <string>
#include <vector>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

/// What the rooms have seen, kept in memory per room: the occupants' latest presence and the
/// messages received and sent. A received message is kept as the stream delivered it (received
/// stanzas are read-only, so it is shared, not copied), and so is one the stream has written; an
/// outgoing one handed in by anyone else is copied, since its sender may change it afterwards.
/// Thread-safe.
class KQ_EXPORT XMPPRoomMemoryStorage {
 public:
  /// The most messages kept per room; the oldest go first.
  static constexpr std::size_t kMaxMessagesPerRoom = 500;

  /// An empty storage of its own (sharedInstance() is the one the process shares).
  XMPPRoomMemoryStorage();
  XMPPRoomMemoryStorage(const XMPPRoomMemoryStorage&) = delete;
  XMPPRoomMemoryStorage& operator=(const XMPPRoomMemoryStorage&) = delete;
  ~XMPPRoomMemoryStorage();

  /// The process-wide storage.
  static const std::shared_ptr<XMPPRoomMemoryStorage>& sharedInstance();

  /// Records an occupant's presence (an unavailable presence removes the occupant).
  void handlePresence(const XMPPPresence& presence, const XMPPJID& roomJID);
  /// Records a message received from the room, sharing it (received stanzas are read-only).
  void handleIncomingMessage(const XMPPMessage& message, const XMPPJID& roomJID);
  /// Records a copy of a message sent to the room, taken now.
  void handleOutgoingMessage(const XMPPMessage& message, const XMPPJID& roomJID);
  /// Records a message the stream has written, sharing it: the stream's element no longer
  /// changes once written, so no copy is needed. For the rooms' use.
  void handleSentMessage(const XMPPMessage& message, const XMPPJID& roomJID);
  /// Forgets a room.
  void clearRoom(const XMPPJID& roomJID);

  /// The nicknames of the room's occupants, sorted.
  [[nodiscard]] std::vector<std::string> occupantNicknames(const XMPPJID& roomJID) const;
  /// Copies of the room's messages, oldest first.
  [[nodiscard]] std::vector<XMPPMessage> messages(const XMPPJID& roomJID) const;

 private:
  // The rooms, under the storage's lock; defined in XMPPRoomMemoryStorage.cpp.
  struct State;

  // `received`: on the way from the socket to the delegates, the dropped message is not freed
  // yet (it is long out of cache, and freeing it takes longer than storing the new one), but
  // with the next message stored, typically the visitor's answer once it is on its way.
  void addMessage(XMPPMessage message, const XMPPJID& roomJID, bool received);

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq::xmpp
