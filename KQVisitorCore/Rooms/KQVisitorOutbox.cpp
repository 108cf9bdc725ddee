#include <KQVisitorCore/Rooms/KQVisitorOutbox.h>

#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorHTTPRoomTransport.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <algorithm>
#include <deque>

namespace kq {

namespace {

using Json = nlohmann::ordered_json;

constexpr Clock::Duration kFirstRetryDelay = std::chrono::seconds(1);
constexpr Clock::Duration kLongestRetryDelay = std::chrono::seconds(16);
// The archive's clock and ours may differ a little: look a bit before the first line went.
constexpr double kClockAllowance = 60;

std::string storageKey(const std::string& chatId) {
  return "kqoutbox" + chatId;
}

}  // namespace

struct KQVisitorOutbox::State {
  struct Entry {
    Line line;
    Clock::TimePoint due;  // when it is given up
    bool out = false;      // sent, and neither given back nor known to be lost
    bool inDoubt = false;  // out when the room was lost: it may or may not have reached it
  };
  std::weak_ptr<KQVisitorRoom> room;
  std::shared_ptr<xmpp::XMPPRoom> xmppRoom;  // the one this outbox is a delegate of
  std::optional<std::string> chatId;
  FateListener listener;
  KQVisitorRoom::RoomUpdatesCallbackRef updates;
  std::deque<Entry> lines;
  Clock::Duration giveUpAfter = kDefaultGiveUpAfter;
  // Lines that went out are in doubt, and nothing is sent, until a catch-up (or, after a
  // restart of the process, the room's archive) tells which of them the room has.
  bool holding = false;
  bool lookInArchiveOnJoin = false;
  std::shared_ptr<xmpp::XMPPRoomArchive> archive;  // while it is looked in
  bool httpInFlight = false;
  Clock::Duration retryDelay = kFirstRetryDelay;
  std::shared_ptr<Timer> retryTimer;
  std::shared_ptr<Timer> giveUpTimer;
  bool closed = false;
};

KQVisitorOutbox::KQVisitorOutbox(FateListener listener) : state_(std::make_unique<State>()) {
  state_->listener = std::move(listener);
}

KQVisitorOutbox::~KQVisitorOutbox() {
  close();
}

std::shared_ptr<KQVisitorOutbox> KQVisitorOutbox::make(const std::shared_ptr<KQVisitorRoom>& room,
                                                       FateListener listener) {
  std::shared_ptr<KQVisitorOutbox> outbox(new KQVisitorOutbox(std::move(listener)));
  outbox->attach(room);
  return outbox;
}

void KQVisitorOutbox::attach(const std::shared_ptr<KQVisitorRoom>& room) {
  auto& state = *state_;
  state.room = room;
  state.chatId = room->roomId();
  if (state.chatId) {
    const auto stored = UserDefaults::standard().objectForKey(storageKey(*state.chatId));
    const auto now = Date::now();
    for (const auto& line : stored && stored->is_array() ? *stored : Json::array()) {
      State::Entry entry;
      entry.line.id = line.value("id", "");
      entry.line.text = line.value("text", "");
      entry.line.written = Date::dateWithTimeIntervalSince1970(line.value("written", 0.0));
      entry.line.sends = line.value("sends", 0);
      if (entry.line.id.empty() || entry.line.text.empty()) {
        continue;
      }
      const auto waited = std::chrono::duration_cast<Clock::Duration>(std::chrono::duration<double>(
          std::max(0.0, now.timeIntervalSince1970() - entry.line.written.timeIntervalSince1970())));
      entry.due = Clock::shared()->now() + state.giveUpAfter - waited;
      // Over XMPP one that went out before may be in the room: it is looked for in the room's
      // archive before anything goes.
      entry.out = entry.line.sends > 0 && room->xmppRoom();
      entry.inDoubt = entry.out;
      state.lookInArchiveOnJoin = state.lookInArchiveOnJoin || entry.out;
      state.lines.push_back(std::move(entry));
    }
  }
  state.holding = state.lookInArchiveOnJoin;
  state.updates = std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
      [weak = weak_from_this()](const std::any& object, std::int64_t status) {
        const auto self = weak.lock();
        if (!self || status != KQRoomUpdateOwnMessage) {
          return;
        }
        const auto owner = self->state_->room.lock();
        const auto* message = std::any_cast<std::shared_ptr<KQVisitorMessage>>(&object);
        const auto heard = owner && message ? owner->receivedStanza(*message) : std::nullopt;
        if (heard && heard->id) {
          self->delivered(*heard->id);
        }
      });
  room->addRoomUpdatesCallBack(state.updates);
  room->setCatchUpListener(
      [weak = weak_from_this()](const std::vector<KQVisitorRoom::ReceivedStanza>& stanzas) {
        if (const auto self = weak.lock()) {
          std::vector<std::string> ids;
          for (const auto& stanza : stanzas) {
            if (stanza.id) {
              ids.push_back(*stanza.id);
            }
          }
          self->caughtUp(ids);
        }
      });
  state.xmppRoom = room->xmppRoom();
  if (state.xmppRoom) {
    state.xmppRoom->addDelegate(shared_from_this(), DispatchQueue::main());
    if (state.lookInArchiveOnJoin && state.xmppRoom->isJoined()) {
      lookInArchive(*state.xmppRoom);
    }
  }
  scheduleGiveUp();
  flush();
}

void KQVisitorOutbox::close() {
  auto& state = *state_;
  if (state.closed) {
    return;
  }
  state.closed = true;
  if (const auto room = state.room.lock()) {
    room->removeRoomUpdateCallback(state.updates);
    room->setCatchUpListener(nullptr);
  }
  if (state.xmppRoom) {
    state.xmppRoom->removeDelegate(this);
  }
  if (state.archive) {
    state.archive->deactivate();
    state.archive.reset();
  }
  for (const auto& timer : {state.retryTimer, state.giveUpTimer}) {
    if (timer) {
      timer->invalidate();
    }
  }
}

void KQVisitorOutbox::forgetLines(const std::string& chatId) {
  UserDefaults::standard().removeObjectForKey(storageKey(chatId));
}

std::string KQVisitorOutbox::send(const std::string& text) {
  if (text.empty()) {
    return {};
  }
  State::Entry entry;
  entry.line = {xmpp::XMPPStream::generateUUID(), text, Date::now(), 0};
  entry.due = Clock::shared()->now() + state_->giveUpAfter;
  const std::string id = entry.line.id;
  state_->lines.push_back(std::move(entry));
  store();
  if (state_->lines.size() == 1) {
    scheduleGiveUp();
  }
  flush();
  return id;
}

std::vector<KQVisitorOutbox::Line> KQVisitorOutbox::lines() const {
  std::vector<Line> lines;
  for (const auto& entry : state_->lines) {
    lines.push_back(entry.line);
  }
  return lines;
}

void KQVisitorOutbox::setGiveUpAfter(Clock::Duration giveUpAfter) {
  const auto change = giveUpAfter - state_->giveUpAfter;
  state_->giveUpAfter = giveUpAfter;
  for (auto& entry : state_->lines) {
    entry.due += change;
  }
  scheduleGiveUp();
}

Clock::Duration KQVisitorOutbox::giveUpAfter() const {
  return state_->giveUpAfter;
}

// --- Sending ----------------------------------------------------------------------------------

void KQVisitorOutbox::flush() {
  auto& state = *state_;
  const auto room = state.room.lock();
  if (state.closed || state.holding || !room) {
    return;
  }
  if (room->isHttpRoom()) {
    sendOverHTTP(room);
    return;
  }
  if (!room->isConnected()) {
    return;  // the join sends them
  }
  bool sent = false;
  for (auto& entry : state.lines) {
    if (entry.out) {
      continue;
    }
    if (!room->sendMessage(entry.line.text, entry.line.id)) {
      break;
    }
    entry.out = true;
    ++entry.line.sends;
    sent = true;
    if (state.listener) {
      state.listener(entry.line, KQOutboxLineSent, std::nullopt);
    }
    if (state.closed) {
      return;
    }
  }
  if (sent) {
    store();
  }
}

void KQVisitorOutbox::sendOverHTTP(const std::shared_ptr<KQVisitorRoom>& room) {
  auto& state = *state_;
  if (state.httpInFlight || state.lines.empty() ||
      (state.retryTimer && state.retryTimer->isValid())) {
    return;
  }
  auto& entry = state.lines.front();
  state.httpInFlight = true;
  entry.out = true;
  ++entry.line.sends;
  store();
  const Line line = entry.line;
  if (state.listener) {
    state.listener(line, KQOutboxLineSent, std::nullopt);
  }
  KQVisitorHTTPRoomTransport::insertMessage(
      room, line.text,
      [weak = weak_from_this(), id = line.id](const std::optional<KQError>& error,
                                              const std::shared_ptr<KQVisitorMessage>& made) {
        if (error && error->domain == KQVisitorWebService::kNoInternetMessage) {
          return;  // a warning: the request's own outcome follows
        }
        KQVisitorHTTPRoomTransport::refreshed(error, made);
        DispatchQueue::main()->async([weak, id, error] {
          if (const auto self = weak.lock()) {
            self->httpAnswered(id, error);
          }
        });
      });
}

void KQVisitorOutbox::httpAnswered(const std::string& id, const std::optional<KQError>& error) {
  auto& state = *state_;
  state.httpInFlight = false;
  if (state.closed) {
    return;
  }
  if (!error || error->domain == KQVisitorRoom::kCannotInsertMessage) {
    state.retryDelay = kFirstRetryDelay;
    if (error) {
      giveUp(id, error);  // the service answered, and did not take it
    } else {
      delivered(id);
    }
    flush();  // the next line, also when this one had been given up meanwhile
    return;
  }
  // The service was not reached: the same line goes again, later.
  state.retryTimer = Timer::scheduledTimer(DispatchQueue::main(), state.retryDelay, false,
                                           [weak = weak_from_this()](Timer& timer) {
                                             timer.invalidate();
                                             if (const auto self = weak.lock()) {
                                               self->flush();
                                             }
                                           });
  state.retryDelay = std::min(state.retryDelay * 2, kLongestRetryDelay);
}

// --- Fates ------------------------------------------------------------------------------------

void KQVisitorOutbox::delivered(const std::string& id) {
  auto& state = *state_;
  const auto found = std::find_if(state.lines.begin(), state.lines.end(),
                                  [&id](const State::Entry& entry) { return entry.line.id == id; });
  if (found == state.lines.end()) {
    return;  // not ours, given up, or delivered already
  }
  const Line line = found->line;
  state.lines.erase(found);
  store();
  if (state.listener) {
    state.listener(line, KQOutboxLineDelivered, std::nullopt);
  }
  flush();  // over HTTP, the next line
}

void KQVisitorOutbox::giveUp(const std::string& id, const std::optional<KQError>& error) {
  auto& state = *state_;
  const auto found = std::find_if(state.lines.begin(), state.lines.end(),
                                  [&id](const State::Entry& entry) { return entry.line.id == id; });
  if (found == state.lines.end()) {
    return;
  }
  const Line line = found->line;
  state.lines.erase(found);
  store();
  if (state.listener) {
    state.listener(line, KQOutboxLineGivenUp, error);
  }
  flush();
}

void KQVisitorOutbox::scheduleGiveUp() {
  auto& state = *state_;
  if (state.giveUpTimer) {
    state.giveUpTimer->invalidate();
    state.giveUpTimer.reset();
  }
  if (state.closed || state.lines.empty()) {
    return;
  }
  const auto first =
      std::min_element(state.lines.begin(), state.lines.end(),
                       [](const State::Entry& a, const State::Entry& b) { return a.due < b.due; });
  const auto wait = std::max(Clock::Duration::zero(), first->due - Clock::shared()->now());
  state.giveUpTimer = Timer::scheduledTimer(DispatchQueue::main(), wait, false,
                                            [weak = weak_from_this()](Timer& timer) {
                                              timer.invalidate();
                                              const auto self = weak.lock();
                                              if (!self) {
                                                return;
                                              }
                                              const auto now = Clock::shared()->now();
                                              std::vector<std::string> due;
                                              for (const auto& entry : self->state_->lines) {
                                                if (entry.due <= now) {
                                                  due.push_back(entry.line.id);
                                                }
                                              }
                                              // An HTTP line on its way is given up too; its late
                                              // answer finds nothing to deliver.
                                              for (const auto& id : due) {
                                                self->giveUp(id, std::nullopt);
                                              }
                                              self->scheduleGiveUp();
                                            });
}

// --- The room ---------------------------------------------------------------------------------

void KQVisitorOutbox::xmppRoomDidLeave(xmpp::XMPPRoom& /*sender*/) {
  // What went out may not have reached the room: the next join's catch-up tells. Nothing goes
  // until then, so that lines sent again keep their place before later ones.
  for (auto& entry : state_->lines) {
    entry.inDoubt = entry.out;
    state_->holding = state_->holding || entry.out;
  }
}

void KQVisitorOutbox::xmppRoomDidJoin(xmpp::XMPPRoom& sender) {
  if (state_->lookInArchiveOnJoin) {
    lookInArchive(sender);
  } else {
    flush();  // a first join; a rejoin sends once its catch-up is done
  }
}

void KQVisitorOutbox::caughtUp(const std::vector<std::string>& ids) {
  auto& state = *state_;
  state.lookInArchiveOnJoin = false;
  if (state.archive) {
    state.archive->deactivate();
    state.archive.reset();
  }
  for (const auto& id : ids) {
    delivered(id);
  }
  for (auto& entry : state.lines) {
    if (entry.inDoubt) {  // lost on the way: goes again, with the same id
      entry.out = entry.inDoubt = false;
    }
  }
  state.holding = false;
  flush();
}

void KQVisitorOutbox::lookInArchive(xmpp::XMPPRoom& room) {
  auto& state = *state_;
  const auto stream = room.xmppStream();
  if (state.archive || !stream) {
    return;
  }
  Date since = Date::now();
  for (const auto& entry : state.lines) {
    if (entry.out) {
      since = std::min(since, entry.line.written);
    }
  }
  state.archive = std::make_shared<xmpp::XMPPRoomArchive>(room.roomJID(), DispatchQueue::main());
  state.archive->activate(stream);
  const auto answered = [weak = weak_from_this(), archive = state.archive](
                            const std::optional<std::vector<xmpp::XMPPRoomArchive::Item>>& items) {
    const auto self = weak.lock();
    if (!self || self->state_->archive != archive) {
      return;  // closed, or a catch-up answered first
    }
    std::vector<std::string> ids;
    for (const auto& item : items.value_or(std::vector<xmpp::XMPPRoomArchive::Item>{})) {
      if (auto id = item.message.attributeStringValueForName("id")) {
        ids.push_back(std::move(*id));
      }
    }
    self->caughtUp(ids);
  };
  state.archive->discoverArchive([answered, archive = state.archive, since](bool supported) {
    if (!supported) {
      answered(std::nullopt);  // no archive to look in: they go again
      return;
    }
    archive->fetchMessages({std::nullopt, since.dateByAddingTimeInterval(-kClockAllowance), 0},
                           answered);
  });
}

void KQVisitorOutbox::store() const {
  const auto& state = *state_;
  if (!state.chatId) {
    return;
  }
  auto& defaults = UserDefaults::standard();
  if (state.lines.empty()) {
    defaults.removeObjectForKey(storageKey(*state.chatId));
    return;
  }
  Json lines = Json::array();
  for (const auto& entry : state.lines) {
    lines.push_back({{"id", entry.line.id},
                     {"text", entry.line.text},
                     {"written", entry.line.written.timeIntervalSince1970()},
                     {"sends", entry.line.sends}});
  }
  defaults.setObject(std::move(lines), storageKey(*state.chatId));
}

}  // namespace kq
