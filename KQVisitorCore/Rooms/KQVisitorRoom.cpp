#include <KQVisitorCore/Rooms/KQVisitorRoom.h>

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorHTTPRoomTransport.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorRoomCatchUp.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorXMPPRoomTransport.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

namespace kq {

namespace {

using namespace std::chrono_literals;

constexpr Clock::Duration kIdleRemovalDelay = 4s;
// How far a catch-up by time reaches back before the last stanza heard: the server's clock
// and ours may differ, and what comes twice is known again. Also how far apart two arrival
// times of one stanza may be when nothing else tells them apart.
constexpr double kClockAllowance = 60.0;
// After the n-th refused join in a row, the next try waits 2^(n-1) s, at most this.
constexpr Clock::Duration kLongestJoinRetry = 16s;

std::optional<std::string> siteIdOf(const std::shared_ptr<KQVisitorSite>& site) {
  return site ? site->siteId() : std::nullopt;
}

std::optional<std::string> usernameOf(const std::shared_ptr<KQVisitorUser>& user) {
  return user ? user->username() : std::nullopt;
}

// What the room keeps of `message` from `occupant`.
KQVisitorRoom::ReceivedStanza heardOf(const xmpp::XMPPMessage& message,
                                      const xmpp::XMPPJID& occupant, Date arrival,
                                      std::optional<std::string> stanzaId) {
  return {message.elementID(),
          std::move(stanzaId),
          occupant.resource().value_or(""),
          kqChatMessage(message),
          message.attributeStringValueForName("time_stamp"),
          arrival,
          nullptr};
}

// True when `a` and `b` are one stanza: by the room's stanza ids when both have one, else by
// sender and text, and by the packet's time stamp when both have one, else by arrival.
bool isSameStanza(const KQVisitorRoom::ReceivedStanza& a, const KQVisitorRoom::ReceivedStanza& b) {
  if (a.stanzaId && b.stanzaId) {
    return *a.stanzaId == *b.stanzaId;
  }
  if (a.sender != b.sender || a.text != b.text) {
    return false;
  }
  if (a.timeStamp && b.timeStamp) {
    return *a.timeStamp == *b.timeStamp;
  }
  return std::abs(a.arrival.timeIntervalSince1970() - b.arrival.timeIntervalSince1970()) <=
         kClockAllowance;
}

// How the platform would print an XMPPRoom in a log line.
std::string describeRoom(const xmpp::XMPPRoom& room) {
  return "<XMPPRoom " + room.roomJID().full() + ">";
}

}  // namespace

struct KQVisitorRoom::State {
  std::optional<std::string> roomId;
  std::shared_ptr<KQVisitorXMPPRoomTransport> xmpp;  // set with the XMPPRoom
  std::shared_ptr<KQVisitorHTTPRoomTransport> http;  // made at first use
  std::weak_ptr<KQVisitorSite> site;
  Occupants roomOcuupants;
  Messages messages;
  std::int64_t unreadMessagesCount = 0;
  std::optional<std::string> operatorId;
  std::optional<std::string> operatorName;
  std::optional<std::string> greetingMessage;
  std::optional<std::string> httpMessageId;
  std::vector<RoomUpdatesCallbackRef> roomUpdatesCallback;
  nlohmann::ordered_json notSentMessages = nlohmann::ordered_json::object();
  nlohmann::ordered_json allLinks = nlohmann::ordered_json::array();
  std::string tmpRoomMessage;
  bool isRoomEnabled = true;
  bool isRoomJoined = false;
  bool isRoomJoininng = false;
  bool isRoomDestroyed = false;
  bool isRoomNeedUpate = false;
  std::optional<std::string> isRoomExist;
  bool isDelayed = false;
  std::shared_ptr<KQVisitorRoomCatchUp> catchUp;  // set with the XMPPRoom
  // The multi-user-chat room whose conversation the transcript holds (set at its first join),
  // when it was joined, and what the room kept of each stanza since.
  std::optional<std::string> conversationRoom;
  Date joinedAt;
  std::vector<ReceivedStanza> received;
  CatchUpListener catchUpListener;
  int refusedJoins = 0;  // in a row
  std::shared_ptr<Timer> joinRetry;
};

KQVisitorRoom::KQVisitorRoom() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorRoom::~KQVisitorRoom() {
  stopJoinRetry();
  if (const auto room = xmppRoom()) {
    if (room->isJoined()) {
      room->leaveRoom();
    }
    room->deactivate();  // the stream lets go of it; nothing of it reaches anyone any more
  }
  NotificationCenter::defaultCenter().removeObserver(static_cast<const void*>(this));
}

std::any KQVisitorRoom::self() {
  return std::any(shared_from_this());
}

// --- Fields -----------------------------------------------------------------------------------

std::optional<std::string> KQVisitorRoom::roomId() const {
  return state_->get(&State::roomId);
}

void KQVisitorRoom::setRoomId(std::optional<std::string> roomId) {
  state_->set(&State::roomId, std::move(roomId));
}

std::shared_ptr<xmpp::XMPPRoom> KQVisitorRoom::xmppRoom() const {
  const auto xmpp = state_->get(&State::xmpp);
  return xmpp ? xmpp->room() : nullptr;
}

void KQVisitorRoom::setXmppRoom(std::shared_ptr<xmpp::XMPPRoom> xmppRoom) {
  std::shared_ptr<KQVisitorXMPPRoomTransport> transport;
  std::shared_ptr<KQVisitorRoomCatchUp> catchUp;
  if (xmppRoom) {
    // A catch-up's stanzas are handled in order as live ones are, each stanza the room knows
    // already only once; the listener hears of those the archive or history brought.
    catchUp = std::make_shared<KQVisitorRoomCatchUp>(
        xmppRoom, [weak = weak_from_this()](
                      const std::vector<KQVisitorRoomCatchUp::Stanza>& stanzas, bool finished) {
          const auto self = weak.lock();
          if (!self) {
            return;
          }
          std::vector<ReceivedStanza> caughtUp;
          for (const auto& stanza : stanzas) {
            if (self->isRoomDestroyed()) {
              break;
            }
            auto kept = self->receiveStanza(
                stanza.message,
                heardOf(stanza.message, stanza.occupant, stanza.arrival, stanza.stanzaId),
                stanza.caughtUp ? Arrival::CaughtUp : Arrival::HeldBack);
            if (kept && stanza.caughtUp) {
              caughtUp.push_back(std::move(*kept));
            }
          }
          const auto listener = self->state_->get(&State::catchUpListener);
          if (finished && listener) {
            listener(caughtUp);
          }
        });
    transport = std::make_shared<KQVisitorXMPPRoomTransport>(weak_from_this(), std::move(xmppRoom));
  }
  state_->with([&](State& state) {  // the old ones are released outside the lock
    std::swap(state.xmpp, transport);
    std::swap(state.catchUp, catchUp);
  });
}

std::shared_ptr<KQVisitorHTTPRoomTransport> KQVisitorRoom::http() {
  return state_->with([this](State& state) {
    if (!state.http) {
      state.http = std::make_shared<KQVisitorHTTPRoomTransport>(weak_from_this());
    }
    return state.http;
  });
}

std::shared_ptr<KQVisitorRoomTransport> KQVisitorRoom::transport() {
  if (auto xmpp = state_->get(&State::xmpp)) {
    return xmpp;
  }
  return http();
}

std::shared_ptr<KQVisitorSite> KQVisitorRoom::site() const {
  return state_->get(&State::site).lock();
}

void KQVisitorRoom::setSite(const std::shared_ptr<KQVisitorSite>& site) {
  state_->set(&State::site, std::weak_ptr<KQVisitorSite>(site));
}

KQVisitorRoom::Occupants KQVisitorRoom::roomOcuupants() const {
  return state_->get(&State::roomOcuupants);
}

void KQVisitorRoom::setRoomOcuupants(Occupants roomOcuupants) {
  state_->set(&State::roomOcuupants, std::move(roomOcuupants));
}

void KQVisitorRoom::addRoomOcuupant(const std::string& userId,
                                    std::shared_ptr<KQVisitorUser> user) {
  state_->with([&](State& state) { std::swap(state.roomOcuupants[userId], user); });
}

KQVisitorRoom::Messages KQVisitorRoom::messages() const {
  return state_->get(&State::messages);
}

void KQVisitorRoom::setMessages(Messages messages) {
  state_->set(&State::messages, std::move(messages));
}

void KQVisitorRoom::addMessage(std::shared_ptr<KQVisitorMessage> message) {
  state_->with([&](State& state) { state.messages.push_back(std::move(message)); });
}

std::int64_t KQVisitorRoom::unreadMessagesCount() const {
  return state_->get(&State::unreadMessagesCount);
}

void KQVisitorRoom::setUnreadMessagesCount(std::int64_t count) {
  state_->set(&State::unreadMessagesCount, count);
}

std::optional<std::string> KQVisitorRoom::operatorId() const {
  return state_->get(&State::operatorId);
}

void KQVisitorRoom::setOperatorId(std::optional<std::string> operatorId) {
  state_->set(&State::operatorId, std::move(operatorId));
}

std::optional<std::string> KQVisitorRoom::operatorName() const {
  return state_->get(&State::operatorName);
}

void KQVisitorRoom::setOperatorName(std::optional<std::string> operatorName) {
  state_->set(&State::operatorName, std::move(operatorName));
}

std::optional<std::string> KQVisitorRoom::greetingMessage() const {
  return state_->get(&State::greetingMessage);
}

void KQVisitorRoom::setGreetingMessage(std::optional<std::string> greetingMessage) {
  state_->set(&State::greetingMessage, std::move(greetingMessage));
}

std::string KQVisitorRoom::httpMessageId() const {
  return state_->get(&State::httpMessageId).value_or("0");
}

void KQVisitorRoom::setHttpMessageId(std::optional<std::string> httpMessageId) {
  state_->set(&State::httpMessageId, std::move(httpMessageId));
}

std::optional<KQVisitorRoom::ReceivedStanza> KQVisitorRoom::receivedStanza(
    const std::shared_ptr<KQVisitorMessage>& message) const {
  return state_->with([&message](const State& state) -> std::optional<ReceivedStanza> {
    const auto found =
        std::find_if(state.received.rbegin(), state.received.rend(),
                     [&message](const ReceivedStanza& kept) { return kept.message == message; });
    return message && found != state.received.rend() ? std::optional(*found) : std::nullopt;
  });
}

void KQVisitorRoom::setCatchUpListener(CatchUpListener listener) {
  state_->set(&State::catchUpListener, std::move(listener));
}

std::vector<KQVisitorRoom::RoomUpdatesCallbackRef> KQVisitorRoom::roomUpdatesCallback() const {
  return state_->get(&State::roomUpdatesCallback);
}

nlohmann::ordered_json KQVisitorRoom::notSentMessages() const {
  return state_->get(&State::notSentMessages);
}

void KQVisitorRoom::setNotSentMessages(nlohmann::ordered_json notSentMessages) {
  state_->set(&State::notSentMessages, std::move(notSentMessages));
}

nlohmann::ordered_json KQVisitorRoom::allLinks() const {
  return state_->get(&State::allLinks);
}

void KQVisitorRoom::setAllLinks(nlohmann::ordered_json allLinks) {
  state_->set(&State::allLinks, std::move(allLinks));
}

std::string KQVisitorRoom::tmpRoomMessage() const {
  return state_->get(&State::tmpRoomMessage);
}

void KQVisitorRoom::setTmpRoomMessage(std::string tmpRoomMessage) {
  state_->set(&State::tmpRoomMessage, std::move(tmpRoomMessage));
}

bool KQVisitorRoom::isRoomEnabled() const {
  return state_->get(&State::isRoomEnabled);
}

void KQVisitorRoom::setIsRoomEnabled(bool value) {
  state_->set(&State::isRoomEnabled, value);
}

bool KQVisitorRoom::isRoomJoined() const {
  return state_->get(&State::isRoomJoined);
}

void KQVisitorRoom::setIsRoomJoined(bool value) {
  state_->set(&State::isRoomJoined, value);
}

bool KQVisitorRoom::isRoomJoininng() const {
  return state_->get(&State::isRoomJoininng);
}

void KQVisitorRoom::setIsRoomJoininng(bool value) {
  state_->set(&State::isRoomJoininng, value);
}

bool KQVisitorRoom::isRoomDestroyed() const {
  return state_->get(&State::isRoomDestroyed);
}

void KQVisitorRoom::setIsRoomDestroyed(bool value) {
  state_->set(&State::isRoomDestroyed, value);
}

bool KQVisitorRoom::isRoomNeedUpate() const {
  return state_->get(&State::isRoomNeedUpate);
}

void KQVisitorRoom::setIsRoomNeedUpate(bool value) {
  state_->set(&State::isRoomNeedUpate, value);
}

std::optional<std::string> KQVisitorRoom::isRoomExist() const {
  return state_->get(&State::isRoomExist);
}

void KQVisitorRoom::setIsRoomExist(std::optional<std::string> value) {
  state_->set(&State::isRoomExist, std::move(value));
}

bool KQVisitorRoom::isDelayed() const {
  return false;  // whatever was stored
}

void KQVisitorRoom::setIsDelayed(bool value) {
  state_->set(&State::isDelayed, value);
}

// --- Identity and delegates -------------------------------------------------------------------

bool KQVisitorRoom::isHttpRoom() const {
  return !xmppRoom();
}

bool KQVisitorRoom::isConnected() const {
  const auto room = xmppRoom();
  return room && room->isJoined();
}

void KQVisitorRoom::addRoomDelegate(const std::shared_ptr<xmpp::XMPPRoomDelegate>& delegate) {
  if (const auto room = xmppRoom()) {
    room->addDelegate(delegate, DispatchQueue::main());
  }
}

void KQVisitorRoom::removeRoomDelegate(const xmpp::XMPPRoomDelegate* delegate) {
  if (const auto room = xmppRoom()) {
    room->removeDelegate(delegate);
  }
}

// --- Update callbacks -------------------------------------------------------------------------

void KQVisitorRoom::addRoomUpdatesCallBack(const RoomUpdatesCallbackRef& callback) {
  if (!callback) {
    return;
  }
  state_->with([&callback](State& state) {
    auto& callbacks = state.roomUpdatesCallback;
    if (std::find(callbacks.begin(), callbacks.end(), callback) == callbacks.end()) {
      callbacks.push_back(callback);
    }
  });
}

void KQVisitorRoom::removeRoomUpdateCallback(const RoomUpdatesCallbackRef& callback) {
  std::vector<RoomUpdatesCallbackRef> removed;  // released outside the lock
  state_->with([&](State& state) {
    auto& callbacks = state.roomUpdatesCallback;
    const auto first = std::stable_partition(callbacks.begin(), callbacks.end(),
                                             [&](const auto& entry) { return entry != callback; });
    removed.assign(first, callbacks.end());
    callbacks.erase(first, callbacks.end());
  });
}

void KQVisitorRoom::sendRoomUpdatesWithStatus(std::int64_t status, const std::any& object) {
  for (const auto& callback : roomUpdatesCallback()) {
    (*callback)(object, status);
  }
}

// --- XMPP mode --------------------------------------------------------------------------------

void KQVisitorRoom::connect() {
  const auto [id, xmpp, catchUp, rejoin, mark] = state_->with([](const State& state) {
    const bool again = state.xmpp && state.conversationRoom == state.xmpp->room()->roomJID().bare();
    // From the last stanza heard, or from the first join when none was.
    KQVisitorRoomCatchUp::Mark from{std::nullopt, state.joinedAt};
    if (!state.received.empty()) {
      from = {state.received.back().stanzaId, state.received.back().arrival};
    }
    from.since = from.since.dateByAddingTimeInterval(-kClockAllowance);
    return std::tuple(state.roomId, state.xmpp, state.catchUp, again, from);
  });
  if (!id || isConnected()) {
    return;
  }
  if (xmpp) {  // an HTTP room joins when its polling starts
    const std::string nickname = describe(usernameOf(getVisitor()));
    if (rejoin) {
      catchUp->start(nickname, mark);
    } else {
      xmpp->join(nickname);
    }
  }
  sendRoomUpdatesWithStatus(KQRoomUpdateJoining, {});
}

void KQVisitorRoom::closeStream() {
  disconnect(xmppRoom());
}

void KQVisitorRoom::closeRoomSession() {
  leaveAndRemoveDelegates();
  closeStream();
}

void KQVisitorRoom::leaveAndRemoveDelegates() {
  stopJoinRetry();
  if (const auto xmpp = state_->get(&State::xmpp)) {
    xmpp->leave();
  }
  removeRoomDelegate(&KQVisitorXMPPClient::instance());
  removeRoomDelegate(this);
}

void KQVisitorRoom::stopHTTPPolling() {
  if (const auto poller = state_->get(&State::http)) {
    poller->leave();
  }
}

void KQVisitorRoom::leaveSite() {
  if (const auto owner = site()) {
    owner->rooms()->removeAllObjects();
  }
  setSite(nullptr);
  leaveAndRemoveDelegates();
}

void KQVisitorRoom::destroyRoom() {
  const auto [id, owner] =
      state_->with([](const State& state) { return std::pair(state.roomId, state.site.lock()); });
  // The room id goes in the user-id slot: the service reads it there.
  sendKQVisitorRoomDestroyMessageUserid(xmppRoom(), id, siteIdOf(owner), usernameOf(getVisitor()),
                                        id);
}

// --- Messages ---------------------------------------------------------------------------------

bool KQVisitorRoom::sendMessage(const std::string& text) {
  return transport()->send(text);
}

bool KQVisitorRoom::sendMessage(const std::string& text, const std::string& stanzaId) {
  if (const auto xmpp = state_->get(&State::xmpp)) {
    return xmpp->send(text, stanzaId);
  }
  return transport()->send(text);
}

std::int64_t KQVisitorRoom::getMessageType(const std::optional<std::string>& senderId,
                                           const std::optional<std::string>& managerId) {
  if (intValue(managerId.value_or("")) == 0) {
    return KQVisitorMessageTypeVisitor;
  }
  if (senderId && senderId == managerId) {
    return KQVisitorMessageTypeOperator;
  }
  if (integerValue(senderId.value_or("")) < 0) {
    return KQVisitorMessageTypeIgnored;
  }
  return KQVisitorMessageTypeParticipant;
}

bool KQVisitorRoom::ignoreMessage(const std::string& text) {
  return isIgnoredChatText(text);
}

void KQVisitorRoom::inviteUser(const std::optional<xmpp::XMPPJID>& /*jid*/,
                               const std::string& message) {
  const auto [id, owner, operatorId] = state_->with([](const State& state) {
    return std::tuple(state.roomId, state.site.lock(), state.operatorId);
  });
  sendKQVisitorInvite(xmppRoom(), message, "0", siteIdOf(owner), "0", usernameOf(getVisitor()), id,
                      operatorId);
}

std::string KQVisitorRoom::getReasonPacket() const {
  const auto visitor = getVisitor();
  const auto name = describe(usernameOf(visitor));
  return describe(roomId()) + "|" + describe(siteIdOf(site())) + "|" +
         describe(visitor ? visitor->userId() : std::nullopt) + "|" + name + "|" + name + "|" +
         describe(greetingMessage());
}

std::shared_ptr<KQVisitorUser> KQVisitorRoom::getVisitor() {
  return KQVisitorWebService::sharedInstance().currentUser();
}

std::shared_ptr<KQVisitorUser> KQVisitorRoom::getOperator() const {
  return state_->with([](const State& state) -> std::shared_ptr<KQVisitorUser> {
    if (!state.operatorId) {
      return nullptr;
    }
    const auto found = state.roomOcuupants.find(*state.operatorId);
    return found == state.roomOcuupants.end() ? nullptr : found->second;
  });
}

void KQVisitorRoom::addOperatorGreetingMessage() {
  const auto greeting = greetingMessage();
  if (!greeting) {
    return;
  }
  auto message = std::make_shared<KQVisitorMessage>();
  message->setMessage(*greeting);
  message->setMessageType(KQVisitorMessageTypeOperator);
  message->setTimeStamp(Date::now());
  message->setManagerId("0");
  message->setSender(getOperator());
  setMessages({std::move(message)});
}

void KQVisitorRoom::clearAllMessages() {
  setMessages({});
}

std::shared_ptr<KQVisitorMessage> KQVisitorRoom::lastMessage() const {
  return state_->with(
      [](const State& state) { return state.messages.empty() ? nullptr : state.messages.back(); });
}

nlohmann::ordered_json KQVisitorRoom::lastChatMessageData() const {
  const auto last = lastMessage();
  const auto sender = last ? last->sender() : nullptr;
  nlohmann::ordered_json data;
  data["image"] = "avatar.png";
  data["message"] = last ? last->message().value_or("") : "";
  data["sender"] = usernameOf(sender).value_or("");
  return data;
}

void KQVisitorRoom::sendActiveChatState() {
  kq::sendActiveChatState(xmppRoom());
}

void KQVisitorRoom::sendComposingChatState() {
  kq::sendComposingChatState(xmppRoom());
}

void KQVisitorRoom::sendPausedChatState() {
  kq::sendPausedChatState(xmppRoom());
}

void KQVisitorRoom::sendInactiveChatState() {
  kq::sendInactiveChatState(xmppRoom());
}

void KQVisitorRoom::sendGoneChatState() {
  kq::sendGoneChatState(xmppRoom());
}

// --- HTTP mode --------------------------------------------------------------------------------

void KQVisitorRoom::joinHTTPRoom() {
  http()->join({});
}

void KQVisitorRoom::startPolling() {
  http()->startPolling(true);
}

void KQVisitorRoom::recieveHTTPMessage() {
  http()->poll();
}

void KQVisitorRoom::sendHTTPMessage(const std::string& text) {
  http()->send(text);
}

void KQVisitorRoom::receiveHTTPLine(const std::shared_ptr<KQVisitorMessage>& line) {
  const bool first = state_->with([&line](State& state) {
    const bool greetingOnly = state.messages.size() == 1;
    if (greetingOnly) {  // the greeting, as a rule: it takes the first message's time
      state.messages.front()->setTimeStamp(line->timeStamp());
    }
    ++state.unreadMessagesCount;
    state.messages.push_back(line);
    return greetingOnly;
  });
  DispatchQueue::main()->async([self = shared_from_this(), line, first] {
    if (first) {
      NotificationCenter::defaultCenter().post("RoomStatusFirstMessage", self->self());
    }
    if (line->messageType() == KQVisitorMessageTypeVisitor) {
      self->sendRoomUpdatesWithStatus(KQRoomUpdateOwnMessage, std::any(line));
    } else {
      self->sendRoomUpdatesWithStatus(KQRoomUpdateNewMessage, self->self());
    }
  });
}

// --- Ending -----------------------------------------------------------------------------------

void KQVisitorRoom::roomDestroyUpdate() {
  const auto keepAlive = shared_from_this();
  log("Room Destroy KQVisitorRoom");
  state_->with([](State& state) {
    state.isRoomDestroyed = true;
    state.isRoomExist = "NO";
  });
  auto closing = std::make_shared<KQVisitorMessage>();
  closing->setMessage("Left the conversation");
  closing->setTimeStamp(Date::now());
  closing->setMessageType(KQVisitorMessageTypeOperator);
  // The pending removal keeps the room alive until it runs.
  DispatchQueue::main()->asyncAfter(kIdleRemovalDelay,
                                    [keepAlive] { keepAlive->removeRoomAfterIdel(); });
  addMessage(std::move(closing));
  sendRoomUpdatesWithStatus(KQRoomUpdateDestroyed, self());
  closeRoom();
  closeStream();
}

void KQVisitorRoom::removeRoomAfterIdel() {
  nlohmann::ordered_json information = nlohmann::ordered_json::object();
  // Built up to the first missing value.
  if (const auto id = roomId()) {
    information["roomId"] = *id;
    if (const auto siteId = siteIdOf(site())) {
      information["siteId"] = *siteId;
    }
  }
  NotificationCenter::defaultCenter().post("removeIdleRooms", {}, information);
}

void KQVisitorRoom::setTotalMessagesDelivered() {
  UserDefaults::standard().setInteger(unreadMessagesCount(), "kqroom" + describe(roomId()));
}

std::int64_t KQVisitorRoom::totalMessagesDelivered() const {
  return UserDefaults::standard().integerForKey("kqroom" + describe(roomId()));
}

// --- Events of the XMPPRoom -------------------------------------------------------------------

void KQVisitorRoom::xmppRoomDidCreate(xmpp::XMPPRoom& /*sender*/) {
  if (!isRoomJoined()) {
    sendRoomUpdatesWithStatus(KQRoomUpdateJoined, self());
  }
  setIsRoomJoined(true);
}

void KQVisitorRoom::xmppRoomDidJoin(xmpp::XMPPRoom& sender) {
  if (!isRoomJoined()) {
    sendRoomUpdatesWithStatus(KQRoomUpdateJoined, self());
  }
  const std::string joined = sender.roomJID().bare();
  const bool rejoined = state_->with([&joined](State& state) {
    if (state.conversationRoom == joined) {
      return true;
    }
    state.conversationRoom = joined;
    state.joinedAt = Date::now();
    state.received.clear();
    return false;
  });
  if (!rejoined) {  // a rejoin keeps the transcript; its catch-up adds what was missed
    clearAllMessages();
    addOperatorGreetingMessage();
  }
  stopJoinRetry();
  const auto catchUp = state_->with([](State& state) {
    state.isRoomJoined = true;
    state.isRoomJoininng = false;
    state.refusedJoins = 0;
    return state.catchUp;
  });
  if (catchUp) {
    catchUp->roomDidJoin();
  }
}

void KQVisitorRoom::xmppRoomDidLeave(xmpp::XMPPRoom& sender) {
  setIsRoomJoininng(true);
  log("xmppRoomDidLeave : ", describeRoom(sender));
  if (const auto catchUp = state_->get(&State::catchUp)) {
    catchUp->roomDidLeave();
  }
}

void KQVisitorRoom::xmppRoomDidNotJoin(xmpp::XMPPRoom& sender, const xmpp::XMPPPresence& error) {
  if (const auto catchUp = state_->get(&State::catchUp)) {
    catchUp->roomDidLeave();  // as for a leave: it ends, and the next try starts another
  }
  const auto reason = error.elementForName("error");
  const auto condition = reason && !reason->children().empty() ? reason->children().front().name()
                                                               : std::string("no reason given");
  const auto wait = state_->with([](State& state) -> std::optional<Clock::Duration> {
    if (state.isRoomDestroyed || !state.roomId || state.joinRetry) {
      return std::nullopt;
    }
    const auto next = std::min<Clock::Duration>(
        std::chrono::seconds(1 << std::min(state.refusedJoins, 4)), kLongestJoinRetry);
    ++state.refusedJoins;
    return next;
  });
  log("xmppRoomDidNotJoin : ", describeRoom(sender), " (", condition, ")");
  if (!wait) {
    return;
  }
  auto timer = Timer::scheduledTimer(
      DispatchQueue::main(), *wait, false, [weak = weak_from_this()](Timer& fired) {
        fired.invalidate();
        if (const auto self = weak.lock()) {
          self->state_->with([](State& state) { state.joinRetry.reset(); });
          if (!self->isRoomDestroyed()) {
            self->connect();
          }
        }
      });
  state_->with([&timer](State& state) { state.joinRetry = std::move(timer); });
}

void KQVisitorRoom::stopJoinRetry() {
  if (const auto timer =
          state_->with([](State& state) { return std::exchange(state.joinRetry, {}); })) {
    timer->invalidate();
  }
}

void KQVisitorRoom::xmppRoomDidDestroy(xmpp::XMPPRoom& /*sender*/) {
  roomDestroyUpdate();
}

void KQVisitorRoom::xmppRoomDidFailToDestroy(xmpp::XMPPRoom& sender,
                                             const xmpp::XMPPIQ& /*iqError*/) {
  log(describeRoom(sender));
}

void KQVisitorRoom::xmppRoomDidReceiveMessage(xmpp::XMPPRoom& sender,
                                              const xmpp::XMPPMessage& message,
                                              const xmpp::XMPPJID& occupantJID) {
  if (const auto catchUp = state_->get(&State::catchUp);
      catchUp && catchUp->holdBack(message, occupantJID)) {
    return;
  }
  receiveStanza(message,
                heardOf(message, occupantJID,
                        xmpp::XMPPRoomArchive::delayStamp(message).value_or(Date::now()),
                        xmpp::XMPPRoomArchive::stanzaId(message, sender.roomJID())),
                Arrival::Live);
}

std::optional<KQVisitorRoom::ReceivedStanza> KQVisitorRoom::receiveStanza(
    const xmpp::XMPPMessage& message, ReceivedStanza heard, Arrival arrival) {
  if (arrival != Arrival::Live) {  // a catch-up may bring what the room holds already
    auto known = state_->with([&heard](const State& state) -> std::optional<ReceivedStanza> {
      const auto found =
          std::find_if(state.received.rbegin(), state.received.rend(),
                       [&heard](const ReceivedStanza& kept) { return isSameStanza(kept, heard); });
      return found == state.received.rend() ? std::nullopt : std::optional(*found);
    });
    if (known) {
      return known;
    }
  }
  // Kept for each stanza handled but an error.
  const auto remember = [this, &heard] {
    state_->with([&heard](State& state) { state.received.push_back(heard); });
  };
  const std::string body = kqChatMessage(message);
  if (body == kDestroyRoomText) {
    remember();
    roomDestroyUpdate();
    return heard;
  }
  if (body == kDNDText || body == kIgnoreText) {
    remember();
    destroyRoom();
    return heard;
  }
  const auto visitor = getVisitor();
  if (body == kNickChangeText) {
    remember();
    if (visitor) {
      visitor->setUsername(visitorName(message));
    }
    auto& defaults = UserDefaults::standard();
    const std::string key = "V_Inf:" + describe(siteIdOf(site()));
    if (auto record = defaults.dictionaryForKey(key)) {
      (*record)["V_N"] = jsonValue(usernameOf(visitor));
      defaults.setObject(std::move(*record), key);
      defaults.synchronize();
    }
    return heard;
  }
  if (isErrorMessage(message)) {
    if (const auto room = xmppRoom()) {
      room->activate(KQVisitorXMPPClient::instance().xmppStream());
    }
    connect();
    sendRoomUpdatesWithStatus(KQRoomUpdateRejoining, {});
    return std::nullopt;
  }
  const auto senderId = visitorId(message);
  const std::int64_t type = getMessageType(senderId, managerId(message));
  if (kq::ignoreMessage(message) || type == KQVisitorMessageTypeIgnored) {
    remember();
    return heard;
  }
  auto received = std::make_shared<KQVisitorMessage>();
  received->setMessage(body);
  // What the archive or the room's history brings takes the server's time.
  received->setTimeStamp(arrival == Arrival::CaughtUp ? std::optional(heard.arrival)
                                                      : getTimeStamp(message));
  received->setManagerId(managerId(message));
  received->setMessageType(type);

  const auto before = messages();
  if (before.size() == 1) {  // the greeting, as a rule: it takes the first message's time
    before.front()->setTimeStamp(received->timeStamp());
    NotificationCenter::defaultCenter().post("RoomStatusFirstMessage", self());
  }
  if (type == KQVisitorMessageTypeOperator) {
    auto occupant = std::make_shared<KQVisitorUser>();
    occupant->setUserId(senderId);
    occupant->setUsername(visitorName(message));
    addRoomOcuupant(describe(senderId), std::move(occupant));
  }
  heard.message = received;
  state_->with([&received, &heard](State& state) {
    ++state.unreadMessagesCount;
    state.messages.push_back(received);
    state.received.push_back(heard);
  });
  if (type == KQVisitorMessageTypeVisitor) {
    if (visitor) {
      visitor->setUsername(visitorName(message));
    }
    received->setSender(visitor);
    sendRoomUpdatesWithStatus(KQRoomUpdateOwnMessage, std::any(received));
    return heard;
  }
  const auto occupants = roomOcuupants();
  const auto found = occupants.find(describe(senderId));
  received->setSender(found == occupants.end() ? nullptr : found->second);
  sendRoomUpdatesWithStatus(KQRoomUpdateNewMessage, self());
  return heard;
}

}  // namespace kq
