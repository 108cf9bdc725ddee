#pragma once

#include <KQVisitorCore/Model/KQVisitorMessage.h>
#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Rooms/RoomsManager.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>

#include <nlohmann/json.hpp>

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq {

class KQVisitorHTTPRoomTransport;
class KQVisitorRoomTransport;
class KQVisitorSite;
template <class T>
class Guarded;

namespace xmpp {
class XMPPJID;
class XMPPRoom;
}  // namespace xmpp

/// The statuses a room sends to its update callbacks, with the object each carries.
enum KQRoomUpdateStatus : std::int64_t {
  KQRoomUpdateJoined = 0,       ///< the room was created or joined; the room
  KQRoomUpdateDestroyed = 1,    ///< the room was destroyed; the room
  KQRoomUpdateNewMessage = 3,   ///< an operator's message was stored; the room
  KQRoomUpdateJoining = 4,      ///< the room is being joined (see connect()); no object
  KQRoomUpdateOwnMessage = 13,  ///< the visitor's own message came back; the new KQVisitorMessage
  KQRoomUpdateRejoining = 14,   ///< an error message made the room join again; no object
};

/// One conversation between the visitor and an operator, over an XMPP multi-user-chat room
/// (xmppRoom() set) or, without one, over HTTP polling of the chat service.
///
/// Either way a line takes one road: sendMessage() hands it to the room's transport, and each
/// line that arrives, the operator's and the visitor's own, is stored in messages() and
/// announced to the update callbacks on the main queue (status 3 for the operator's, 13 for the
/// visitor's own). Over HTTP a room sends and polls with its own chat id.
///
/// Threads: room events, update callbacks, the poll (every 2.0 s by default) and the 4.0 s idle
/// removal run on the main queue; over HTTP a line is appended to messages() and the refresh
/// notification posted on the HTTP session's thread, before its update reaches the main queue.
/// Every field may be read and written from any thread; no callback and no notification is
/// called with a lock held.
///
/// Ownership: the room keeps its XMPPRoom (and the room's activation on the stream) alive from
/// the join until the room itself ends; closing it leaves the chat room and removes its
/// delegates, so no event reaches a closed room. site() is not owned.
///
/// Rejoining: when the connection drops and the client logs in again, connect() is called for
/// the same room. A first join asks for no history and starts the transcript with the greeting.
/// A later join of the same multi-user-chat room keeps the transcript, and fetches only what
/// was said while the visitor was away: from the room's archive (XEP-0313) after the last
/// stanza id heard, or, when the room keeps none or the fetch fails, from the history the
/// server sends with a join that asks for it. Each message that comes back is recognised by the
/// room's stanza id, or else by sender, time and text, so that one already held is not stored,
/// counted or announced again, and a missed one is, once and in order. Without this every
/// rejoin would start the conversation over, announce old lines as new, and lose the lines
/// said in between. When the catch-up has finished, the catch-up listener hears which stanzas
/// came back.
///
/// A refused join (the server's error presence: a nickname still held by the visitor's lost
/// session, a room not yet unlocked after the server re-created it…) is tried again after 1, 2,
/// 4, 8 and then every 16 s, each try announced as a new status 4, until the room is joined or
/// closed. Without it such a room would stay "joining" for good. And when the room answers a
/// line with "not-acceptable" (it no longer has the visitor, and never said so), the room counts
/// as left before the error is handled, so that the rejoin the error asks for is made.
///
/// A room can be filed in RoomsManager as it is; it answers none of the registry's usage flags,
/// so the registry's group removals refuse it (RoomsManager::UndefinedKey).
///
/// Create rooms with std::make_shared: the room hands itself to its XMPPRoom and timers.
class KQ_EXPORT KQVisitorRoom : public std::enable_shared_from_this<KQVisitorRoom>,
                                public xmpp::XMPPRoomDelegate,
                                public RegisteredRoom {
 public:
  /// An update: the object (may be empty; a std::shared_ptr<KQVisitorRoom> or a
  /// std::shared_ptr<KQVisitorMessage>) and the status.
  using RoomUpdatesCallback = std::function<void(std::any object, std::int64_t status)>;
  /// A callback's identity is the shared object holding it: adding the same pointer twice keeps
  /// it once, and removing takes that pointer.
  using RoomUpdatesCallbackRef = std::shared_ptr<const RoomUpdatesCallback>;
  /// Users by user id; the room shares ownership of them.
  using Occupants = std::map<std::string, std::shared_ptr<KQVisitorUser>>;
  /// Messages, oldest first; the room shares ownership of them.
  using Messages = std::vector<std::shared_ptr<KQVisitorMessage>>;

  /// What the room keeps of each stanza it handled from its multi-user-chat room, to know it
  /// again when a rejoin brings it back: one for each message it stored, and one for each
  /// control text. Error messages have none.
  struct ReceivedStanza {
    std::optional<std::string> id;         ///< the stanza's "id" attribute
    std::optional<std::string> stanzaId;   ///< the room's stanza id (XEP-0359), when it archives
    std::string sender;                    ///< the occupant's nickname
    std::string text;                      ///< the body
    std::optional<std::string> timeStamp;  ///< the chat packet's "time_stamp", as written
    /// When the room had it: the server's stamp for a message handed out late (archive,
    /// history), else when it arrived here.
    Date arrival;
    /// The message stored for it; null when it stored none (control texts, ignored lines).
    std::shared_ptr<KQVisitorMessage> message;
  };
  /// Hears, on the main queue, every stanza a rejoin's catch-up brought back, oldest first:
  /// those already held (`message` is the one held) and the missed ones, stored just before.
  using CatchUpListener = std::function<void(const std::vector<ReceivedStanza>& stanzas)>;

  /// The control texts a received message may be. This one: the room was destroyed
  /// (roomDestroyUpdate()).
  static constexpr const char* kDestroyRoomText = "[destroy room]";
  /// Do not disturb: the room asks the server to destroy it (destroyRoom()).
  static constexpr const char* kDNDText = "[DND]";
  /// Ignored: the room asks the server to destroy it (destroyRoom()).
  static constexpr const char* kIgnoreText = "[Ignore]";
  /// The visitor's name changed: the current user takes the name the packet carries, also in
  /// the visitor's record in the standard user defaults.
  static constexpr const char* kNickChangeText = "[NICKCHANGE]";

  /// The errors of the HTTP operations: the text is the domain, the code kHTTPErrorCode, and
  /// there is no user information.
  /// The service gave an empty answer to a line sent or to the end of the chat, or there was
  /// no chat id to end.
  static constexpr const char* kCannotInsertMessage = "Can not insert message";
  /// A poll brought no message.
  static constexpr const char* kNoMessageRecieved = "No message recieved";
  /// The code of those errors.
  static constexpr long kHTTPErrorCode = 1001;

  KQVisitorRoom();
  KQVisitorRoom(const KQVisitorRoom&) = delete;
  KQVisitorRoom& operator=(const KQVisitorRoom&) = delete;
  /// Leaves the chat room, removes the room's delegates and lets the stream go of the
  /// XMPPRoom. It does not touch the sites manager: a room that ends is no longer filed there.
  ~KQVisitorRoom() override;

  // --- Fields ---------------------------------------------------------------------------

  /// The chat id: the chat id of every packet and the key of the room's stored values.
  [[nodiscard]] std::optional<std::string> roomId() const override;
  /// Sets roomId().
  void setRoomId(std::optional<std::string> roomId);
  /// The multi-user-chat room; null for an HTTP room.
  [[nodiscard]] std::shared_ptr<xmpp::XMPPRoom> xmppRoom() const;
  /// Makes `xmppRoom` the room's multi-user-chat room, which the room then owns (null makes it
  /// an HTTP room); the room it replaces is released.
  void setXmppRoom(std::shared_ptr<xmpp::XMPPRoom> xmppRoom);
  /// The website the room belongs to (not owned); null once the site is gone.
  [[nodiscard]] std::shared_ptr<KQVisitorSite> site() const;
  /// Sets site(); the room keeps only a weak reference.
  void setSite(const std::shared_ptr<KQVisitorSite>& site);
  /// The people of the room by user id (a copy); addRoomOcuupant files one.
  [[nodiscard]] Occupants roomOcuupants() const;
  /// Replaces the whole occupant table.
  void setRoomOcuupants(Occupants roomOcuupants);
  /// Files `user` under `userId`, replacing the user filed there.
  void addRoomOcuupant(const std::string& userId, std::shared_ptr<KQVisitorUser> user);
  /// The conversation, oldest first (a copy); addMessage appends one.
  [[nodiscard]] Messages messages() const;
  /// Replaces the whole conversation.
  void setMessages(Messages messages);
  /// Appends `message` to the conversation; it is not announced to the update callbacks.
  void addMessage(std::shared_ptr<KQVisitorMessage> message);
  /// Messages received and not yet read; only grows in the library, the host resets it.
  [[nodiscard]] std::int64_t unreadMessagesCount() const;
  /// Sets unreadMessagesCount().
  void setUnreadMessagesCount(std::int64_t count);
  /// The user id of the operator of the chat; the key of getOperator() in roomOcuupants().
  [[nodiscard]] std::optional<std::string> operatorId() const;
  /// Sets operatorId().
  void setOperatorId(std::optional<std::string> operatorId);
  /// The display name of the operator of the chat.
  [[nodiscard]] std::optional<std::string> operatorName() const;
  /// Sets operatorName().
  void setOperatorName(std::optional<std::string> operatorName);
  /// The operator's greeting, the first line of a new transcript (addOperatorGreetingMessage()).
  [[nodiscard]] std::optional<std::string> greetingMessage() const;
  /// Sets greetingMessage().
  void setGreetingMessage(std::optional<std::string> greetingMessage);
  /// The last message id HTTP polling saw; "0" while none was stored.
  [[nodiscard]] std::string httpMessageId() const;
  /// Sets httpMessageId(); nullopt reads as "0" again.
  void setHttpMessageId(std::optional<std::string> httpMessageId);
  /// What the room keeps of the stanza that brought `message` (the last stored for it);
  /// nullopt for a message that came otherwise: the greeting, over HTTP, or from the host.
  [[nodiscard]] std::optional<ReceivedStanza> receivedStanza(
      const std::shared_ptr<KQVisitorMessage>& message) const;
  /// Replaces the catch-up listener (null for none). Called after a rejoin's catch-up has
  /// finished, not when it was cut short by another loss of the room.
  void setCatchUpListener(CatchUpListener listener);
  /// The update callbacks, in registration order (a copy).
  [[nodiscard]] std::vector<RoomUpdatesCallbackRef> roomUpdatesCallback() const;
  /// Kept for the host application; the library never reads or writes it after creation.
  [[nodiscard]] nlohmann::ordered_json notSentMessages() const;
  /// Sets notSentMessages().
  void setNotSentMessages(nlohmann::ordered_json notSentMessages);
  /// Kept for the host application; the library never reads or writes it after creation.
  [[nodiscard]] nlohmann::ordered_json allLinks() const;
  /// Sets allLinks().
  void setAllLinks(nlohmann::ordered_json allLinks);
  /// Kept for the host application; the library never reads or writes it after creation.
  [[nodiscard]] std::string tmpRoomMessage() const;
  /// Sets tmpRoomMessage().
  void setTmpRoomMessage(std::string tmpRoomMessage);
  /// True at creation; nothing in the library reads it.
  [[nodiscard]] bool isRoomEnabled() const;
  /// Sets isRoomEnabled().
  void setIsRoomEnabled(bool value);
  /// Set by the join events, cleared by closeRoom().
  [[nodiscard]] bool isRoomJoined() const;
  /// Sets isRoomJoined().
  void setIsRoomJoined(bool value);
  /// Set when the room was left, cleared when it is joined.
  [[nodiscard]] bool isRoomJoininng() const;
  /// Sets isRoomJoininng().
  void setIsRoomJoininng(bool value);
  /// The room was destroyed by the server or the operator; never cleared.
  [[nodiscard]] bool isRoomDestroyed() const;
  /// Sets isRoomDestroyed().
  void setIsRoomDestroyed(bool value);
  /// A plain flag for the host application.
  [[nodiscard]] bool isRoomNeedUpate() const;
  /// Sets isRoomNeedUpate().
  void setIsRoomNeedUpate(bool value);
  /// nullopt until the room is destroyed, then "NO".
  [[nodiscard]] std::optional<std::string> isRoomExist() const;
  /// Sets isRoomExist().
  void setIsRoomExist(std::optional<std::string> value);
  /// The setter stores the value; the getter always answers false.
  [[nodiscard]] bool isDelayed() const;
  /// Stores `value`, which isDelayed() does not read.
  void setIsDelayed(bool value);

  // --- Identity and delegates -------------------------------------------------------------

  /// True exactly when the room has no XMPPRoom.
  [[nodiscard]] bool isHttpRoom() const;
  /// Whether the XMPPRoom is joined (false without one).
  [[nodiscard]] bool isConnected() const;
  /// Adds `delegate` to the XMPPRoom's delegates, called on the main queue; nothing without an
  /// XMPPRoom.
  void addRoomDelegate(const std::shared_ptr<xmpp::XMPPRoomDelegate>& delegate);
  /// Removes `delegate` from the XMPPRoom's delegates; nothing without an XMPPRoom.
  void removeRoomDelegate(const xmpp::XMPPRoomDelegate* delegate);

  // --- Update callbacks -------------------------------------------------------------------

  /// Appends `callback` unless that very object is registered already.
  void addRoomUpdatesCallBack(const RoomUpdatesCallbackRef& callback);
  /// Removes `callback` (every registration of that object).
  void removeRoomUpdateCallback(const RoomUpdatesCallbackRef& callback);
  /// Calls every callback registered now, in registration order, on the calling thread. A
  /// callback that adds or removes callbacks changes the list for the next update only.
  void sendRoomUpdatesWithStatus(std::int64_t status, const std::any& object);

  // --- XMPP mode --------------------------------------------------------------------------

  /// Joins with the current user's name as nickname, then status 4. Nothing without a room id,
  /// or while joined. The first join asks for no history; a rejoin of the same multi-user-chat
  /// room catches up (see the class comment): its join request goes once the room has said
  /// whether it keeps an archive, and a second call while it is under way adds nothing but the
  /// status.
  void connect();
  /// Disconnects the XMPPRoom's whole stream.
  void closeStream();
  /// Leaves the room, removes the client's and the room's delegates, then closeStream().
  void closeRoomSession();
  /// Not joined any more; HTTP polling stops; the sites manager forgets its current room and
  /// this room; the site's whole rooms table is emptied and the site forgotten; the room is left
  /// and the client's and the room's delegates removed. (Defined beside the sites manager it
  /// tells, as is leaveHTTPRoom(): the rooms' folder includes nothing above it.)
  void closeRoom();
  /// Asks the server to destroy the room with the destroy notice (the room id in the user-id
  /// slot). The room changes only when the destruction comes back.
  void destroyRoom();

  // --- Messages ---------------------------------------------------------------------------

  /// Sends the visitor's `text`, first rule that applies: an HTTP room hands it to
  /// sendHTTPMessage and answers true; a destroyed room, or one whose stream is not connected,
  /// answers false and sends nothing; otherwise the chat packet goes and the answer is true.
  /// The text is stored when the room echoes it back.
  bool sendMessage(const std::string& text);
  /// As sendMessage(text), with `stanzaId` as the chat packet's "id" attribute, which the room
  /// gives back with the line (receivedStanza()). An HTTP room sends the text alone.
  bool sendMessage(const std::string& text, const std::string& stanzaId);
  /// 1 when `managerId` reads 0; 4 when the ids are equal; 2 when `senderId` reads negative;
  /// 3 otherwise.
  static std::int64_t getMessageType(const std::optional<std::string>& senderId,
                                     const std::optional<std::string>& managerId);
  /// True for the seven texts a host application does not show.
  static bool ignoreMessage(const std::string& text);
  /// Invites the room's operator with `message`; `jid` is accepted and not used.
  void inviteUser(const std::optional<xmpp::XMPPJID>& jid, const std::string& message);
  /// roomId|siteId|visitor id|visitor name|visitor name|greeting, "(null)" for a missing one.
  [[nodiscard]] std::string getReasonPacket() const;
  /// The web service's current user.
  [[nodiscard]] static std::shared_ptr<KQVisitorUser> getVisitor();
  /// The occupant filed under operatorId, or null.
  [[nodiscard]] std::shared_ptr<KQVisitorUser> getOperator() const;
  /// Makes the greeting (when there is one) the only message.
  void addOperatorGreetingMessage();
  /// Empties the conversation.
  void clearAllMessages();
  /// The last message, or null.
  [[nodiscard]] std::shared_ptr<KQVisitorMessage> lastMessage() const;
  /// {"image": "avatar.png", "message": the last text or "", "sender": its sender's name or ""}.
  [[nodiscard]] nlohmann::ordered_json lastChatMessageData() const;
  /// Tells the room the visitor is active (XEP-0085 chat state); nothing for an HTTP room.
  void sendActiveChatState();
  /// Tells the room the visitor is typing; nothing for an HTTP room.
  void sendComposingChatState();
  /// Tells the room the visitor stopped typing; nothing for an HTTP room.
  void sendPausedChatState();
  /// Tells the room the visitor is not paying attention; nothing for an HTTP room.
  void sendInactiveChatState();
  /// Tells the room the visitor has left the conversation; nothing for an HTTP room.
  void sendGoneChatState();

  // --- HTTP mode --------------------------------------------------------------------------

  /// Starts polling: recieveHTTPMessage() every 2.0 s on the main queue
  /// (KQVisitorConfig::httpPollInterval, read at each call). A room polls once however its
  /// polling began: when the chat's start already polls for it, this call takes that poller
  /// over. A timer this call started before is let go of but keeps running, so a host that
  /// calls it twice polls twice as often: call it once per chat.
  void joinHTTPRoom();
  /// Fetches the next operator message ("GetChatMessagesAlt" with this room's chat id and
  /// httpMessageId). While an earlier fetch has not been answered, nothing is sent: two polls
  /// from the same cursor would hand the same message out twice (a slow service, or a short
  /// httpPollInterval).
  void recieveHTTPMessage();
  /// Sends `text` ("InsertChatMessage" with this room's chat id and operator).
  void sendHTTPMessage(const std::string& text);
  /// Closes the session's current chat on the server (KQVisitorSitesManager::closeHTTPSession,
  /// the answer is not awaited) and stops polling: the last timer at once, any earlier one at
  /// its next tick, without sending anything. The same happens to polling when the room is
  /// closed (closeRoom(), a logout).
  void leaveHTTPRoom();

  // --- Ending -----------------------------------------------------------------------------

  /// The room was destroyed: logs it, marks it destroyed, schedules removeRoomAfterIdel() in
  /// 4.0 s (which keeps the room alive until then), appends "Left the conversation", sends
  /// status 1, then closeRoom() and closeStream(). closeStream() ends the client's whole XMPP
  /// connection, not only this room: to chat again, log the visitor in again
  /// (KQVisitorWebService::loginClientUser).
  void roomDestroyUpdate();
  /// Posts "removeIdleRooms" with {"roomId", "siteId"} built up to the first missing value.
  void removeRoomAfterIdel();
  /// Stores unreadMessagesCount under "kqroom<roomId>" in the standard user defaults.
  void setTotalMessagesDelivered();
  /// The count setTotalMessagesDelivered() stored for this room id; 0 when none.
  [[nodiscard]] std::int64_t totalMessagesDelivered() const;

  // --- Events of the XMPPRoom (on the main queue) -----------------------------------------

  void xmppRoomDidCreate(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidJoin(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidLeave(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidNotJoin(xmpp::XMPPRoom& sender, const xmpp::XMPPPresence& error) override;
  void xmppRoomDidDestroy(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidFailToDestroy(xmpp::XMPPRoom& sender, const xmpp::XMPPIQ& iqError) override;
  void xmppRoomDidReceiveMessage(xmpp::XMPPRoom& sender, const xmpp::XMPPMessage& message,
                                 const xmpp::XMPPJID& occupantJID) override;

 private:
  friend class KQVisitorSitesManager;
  friend class KQVisitorHTTPRoomTransport;
  struct State;
  // Polls as joinHTTPRoom() does, for the chat's start: nothing when the room polls already.
  void startPolling();
  void leaveAndRemoveDelegates();
  void stopJoinRetry();
  // closeRoom() in parts: the HTTP poller stops; the site's table is emptied and the site
  // forgotten, then the room is left and the delegates removed.
  void stopHTTPPolling();
  void leaveSite();
  // The HTTP transport, made at first use; it polls whenever asked, also beside an XMPP room.
  std::shared_ptr<KQVisitorHTTPRoomTransport> http();
  // The XMPP room's transport when there is one, otherwise the HTTP one.
  std::shared_ptr<KQVisitorRoomTransport> transport();
  // Stores a line the HTTP transport brought (on the service's thread) and announces it on the
  // main queue, as a line received over XMPP is.
  void receiveHTTPLine(const std::shared_ptr<KQVisitorMessage>& line);
  std::any self();
  // How a room stanza reached the room: live, held back during a catch-up (possibly already
  // held), or brought back by the catch-up (possibly already held; takes the server's time).
  enum class Arrival { Live, HeldBack, CaughtUp };
  // The chat-packet handling of one stanza of the XMPP room. Answers what the room keeps of it
  // (the one held already, for a stanza it knows again); nullopt for an error message.
  std::optional<ReceivedStanza> receiveStanza(const xmpp::XMPPMessage& message,
                                              ReceivedStanza heard, Arrival arrival);

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
