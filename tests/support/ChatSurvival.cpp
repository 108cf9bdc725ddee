#include "tests/support/ChatSurvival.h"

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Rooms/KQVisitorOutbox.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include "tests/support/PostedNotifications.h"
#include "tests/support/ProsodyOperator.h"
#include "tests/support/ProsodyServer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <deque>
#include <future>
#include <map>
#include <set>

namespace kq::test {

namespace {

const std::string kChatId = "90";
// A room's messages as one side heard them, and when.
struct Line {
  std::string text;
  Clock::TimePoint at;
};
using Transcript = std::vector<Line>;

KQVisitorXMPPClient& client() {
  return KQVisitorXMPPClient::instance();
}

std::shared_ptr<KQVisitorUser> user(const std::string& id, const std::string& name) {
  auto made = std::make_shared<KQVisitorUser>();
  made->setUserId(id);
  made->setUsername(name);
  return made;
}

// 17 for "v-17" with prefix "v-"; nullopt for anything else.
std::optional<int> numberOf(const std::string& text, const std::string& prefix) {
  int number = 0;
  const char* end = text.data() + text.size();
  const bool numbered = text.starts_with(prefix) &&
                        std::from_chars(text.data() + prefix.size(), end, number).ptr == end;
  return numbered && text.size() > prefix.size() ? std::optional(number) : std::nullopt;
}

// " (after fault 3, reset)": the last fault before `at`, to tell which one a problem followed.
std::string faultBefore(Clock::TimePoint at, const std::vector<ChatSurvival::Fault>& faults) {
  const auto after = std::count_if(faults.begin(), faults.end(),
                                   [at](const auto& fault) { return fault.at <= at; });
  return after == 0 ? " (before any fault)"
                    : " (after fault " + std::to_string(after) + ", " +
                          ChatSurvival::nameOf(faults[after - 1].kind) + ")";
}

// The lines numbered with `prefix` in `transcript`.
ChatSurvival::Direction count(const Transcript& transcript,
                              const std::vector<ChatSurvival::Fault>& faults,
                              const std::string& prefix, int sent) {
  ChatSurvival::Direction direction;
  direction.sent = sent;
  std::map<int, int> copies;
  int highest = 0;
  for (const auto& [text, at] : transcript) {
    const auto number = numberOf(text, prefix);
    if (!number) {
      continue;
    }
    if (++copies[*number] > 1) {
      ++direction.duplicated;
      direction.problems.push_back(text + " again" + faultBefore(at, faults));
    } else if (*number < highest) {
      ++direction.outOfOrder;
      direction.problems.push_back(text + " after " + prefix + std::to_string(highest) +
                                   faultBefore(at, faults));
    }
    highest = std::max(highest, *number);
  }
  for (int number = 1; number <= sent; ++number) {
    if (copies.count(number) == 0) {
      ++direction.lost;
      direction.problems.push_back(prefix + std::to_string(number) + " lost");
    }
  }
  return direction;
}

// The visitor stream's events; `lost` hears when it takes its link for dead.
struct StreamWatch : StreamEvents {
  std::function<void()> lost;
  void xmppStreamWillResume(xmpp::XMPPStream& sender, const KQError& error) override {
    StreamEvents::xmppStreamWillResume(sender, error);
    lost();
  }
  void xmppStreamDidDisconnect(xmpp::XMPPStream& sender,
                               const std::optional<KQError>& error) override {
    StreamEvents::xmppStreamDidDisconnect(sender, error);
    lost();
  }
};

// The operator "42" straight to the server, in the room the visitor made, made to survive the
// server's restart: it reconnects, joins the room again, and then
// - catches up from the room's archive what was said while it was out (after the last stanza
//   id it heard), each stanza once, in order, before what arrives live after the rejoin;
// - sends again, in order and with the same "id" attribute, its lines the archive does not
//   hold; lines written while it is out wait until it is back.
// Made with std::make_shared; stop() before letting it go.
class RejoiningOperator : public xmpp::XMPPStreamDelegate,
                          public xmpp::XMPPRoomDelegate,
                          public std::enable_shared_from_this<RejoiningOperator> {
 public:
  RejoiningOperator(const ProsodyServer& server, const xmpp::XMPPJID& roomJID)
      : agent_(server),
        roomJID_(roomJID),
        room_(std::make_shared<xmpp::XMPPRoom>(xmpp::XMPPRoomMemoryStorage::sharedInstance(),
                                               roomJID, DispatchQueue::main())),
        archive_(std::make_shared<xmpp::XMPPRoomArchive>(roomJID, DispatchQueue::main())) {
    // Back soon after the server is: the restarts here take a moment.
    reconnect_->setReconnectDelay(ChatSurvival::Seconds(0.2));
    reconnect_->setReconnectTimerInterval(ChatSurvival::Seconds(0.5));
  }

  // Logs in and joins, again after every reconnect; false when the first join did not happen
  // within the tests' patience.
  bool join() {
    const auto& stream = agent_.stream;
    room_->addDelegate(shared_from_this(), DispatchQueue::main());
    reconnect_->activate(stream);
    room_->activate(stream);
    archive_->activate(stream);
    if (!agent_.login()) {
      return false;
    }
    // Its first login is the agent's own; it logs in again itself after each reconnect.
    stream->addDelegate(shared_from_this(), DispatchQueue::main());
    xmppStreamDidAuthenticate(*stream);
    return runMainQueueUntil([this] { return isJoined(); });
  }

  // Sends `text` with `text` as its "id" attribute, once joined, until the room echoes it.
  void say(const std::string& text) {
    unsent_.push_back(text);
    flush();
  }

  // Every room message heard, its own echoes included, in order; onHeard hears each.
  [[nodiscard]] const Transcript& heard() const { return heard_; }
  std::function<void(const Line&)> onHeard;

  // Lets go of the room and the reconnects; the agent logs out when it goes.
  void stop() {
    room_->removeDelegate(this);
    reconnect_->deactivate();
    agent_.stream->removeDelegate(this);
  }

  void xmppStreamDidConnect(xmpp::XMPPStream& sender) override {
    sender.authenticate(std::make_shared<xmpp::XMPPPlainAuthentication>("secret"));
  }

  void xmppStreamDidAuthenticate(xmpp::XMPPStream& sender) override {
    sender.sendElement(xmpp::XMPPPresence());
    xmpp::XMPPElement history("history");  // what was missed comes from the archive
    history.addAttributeWithName("maxstanzas", "0");
    room_->joinRoomUsingNickname("Operator", history);
  }

  void xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                               const std::optional<KQError>& /*error*/) override {
    joined_ = false;
    catchingUp_ = false;
    ++attempt_;
    heldBack_.clear();  // the next catch-up brings them from the archive
  }

  void xmppRoomDidJoin(xmpp::XMPPRoom& /*sender*/) override {
    joined_ = true;
    if (std::exchange(everJoined_, true)) {
      catchUp(lastStanzaId_);
    } else {
      flush();
    }
  }

  void xmppRoomDidReceiveMessage(xmpp::XMPPRoom& /*sender*/, const xmpp::XMPPMessage& message,
                                 const xmpp::XMPPJID& /*occupant*/) override {
    if (message.type() == "error") {
      return;
    }
    if (catchingUp_) {
      heldBack_.push_back(message);
    } else {
      take(message, xmpp::XMPPRoomArchive::stanzaId(message, roomJID_));
    }
  }

 private:
  [[nodiscard]] bool isJoined() const { return joined_ && !catchingUp_; }

  void flush() {
    for (; isJoined() && !unsent_.empty(); unsent_.pop_front()) {
      auto message =
          makeKQVisitorMessage(roomJID_, unsent_.front(), "42", "W1", "42", "Omar", kChatId);
      message.addAttributeWithName("id", unsent_.front());
      room_->sendMessage(message);
      unechoed_.push_back(unsent_.front());
    }
  }

  void catchUp(const std::optional<std::string>& after) {
    catchingUp_ = true;
    const auto attempt = ++attempt_;
    std::weak_ptr<RejoiningOperator> weak = weak_from_this();
    archive_->fetchMessages({after, std::nullopt, 0}, [weak, attempt](const auto& items) {
      const auto self = weak.lock();
      if (self && attempt == self->attempt_ && self->catchingUp_) {
        self->caughtUp(items);
      }
    });
  }

  void caughtUp(const std::optional<std::vector<xmpp::XMPPRoomArchive::Item>>& items) {
    if (!items) {
      catchUp(std::nullopt);  // the whole archive then; what was heard already is skipped
      return;
    }
    for (const auto& item : *items) {
      take(item.message, item.archiveId);
    }
    for (const auto& message : std::exchange(heldBack_, {})) {
      take(message, xmpp::XMPPRoomArchive::stanzaId(message, roomJID_));
    }
    catchingUp_ = false;
    // What the room never had goes again, in order, before what was written meanwhile.
    unsent_.insert(unsent_.begin(), unechoed_.begin(), unechoed_.end());
    unechoed_.clear();
    flush();
  }

  void take(const xmpp::XMPPMessage& message, const std::optional<std::string>& stanzaId) {
    if (stanzaId) {
      if (!stanzaIds_.insert(*stanzaId).second) {
        return;  // heard already
      }
      lastStanzaId_ = stanzaId;
    }
    if (const auto id = message.elementID()) {
      std::erase(unechoed_, *id);
    }
    heard_.push_back({kqChatMessage(message), Clock::shared()->now()});
    if (onHeard) {
      onHeard(heard_.back());
    }
  }

  Operator agent_;
  const xmpp::XMPPJID roomJID_;
  std::shared_ptr<xmpp::XMPPReconnect> reconnect_ =
      std::make_shared<xmpp::XMPPReconnect>(DispatchQueue::main());
  std::shared_ptr<xmpp::XMPPRoom> room_;
  std::shared_ptr<xmpp::XMPPRoomArchive> archive_;
  bool everJoined_ = false;
  bool joined_ = false;
  bool catchingUp_ = false;
  std::uint64_t attempt_ = 0;  // answers to an earlier catch-up are dropped
  std::vector<xmpp::XMPPMessage> heldBack_;
  std::deque<std::string> unsent_;
  std::vector<std::string> unechoed_;  // sent, not heard back yet, in order
  std::set<std::string> stanzaIds_;
  std::optional<std::string> lastStanzaId_;
  Transcript heard_;
};

}  // namespace

const char* ChatSurvival::nameOf(FaultKind kind) {
  static constexpr std::array<const char*, 3> kNames{"reset", "silent drop", "restart"};
  return kNames.at(static_cast<std::size_t>(kind));
}

bool ChatSurvival::Report::clean() const {
  return drained && visitorToOperator.problems.empty() && operatorToVisitor.problems.empty() &&
         visitorEchoes.problems.empty();
}

struct ChatSurvival::Impl {
  Options options;
  std::unique_ptr<ProsodyServer> server;
  std::unique_ptr<FaultRelay> relay;
  std::shared_ptr<RejoiningOperator> agent;
  std::shared_ptr<KQVisitorUser> visitor = user("u1", "Ann");
  std::shared_ptr<KQVisitorSite> website = std::make_shared<KQVisitorSite>();
  std::shared_ptr<KQVisitorSitesManager> manager = std::make_shared<KQVisitorSitesManager>();
  std::shared_ptr<KQVisitorRoom> room;
  std::shared_ptr<KQVisitorOutbox> outbox;
  std::shared_ptr<StreamWatch> watch = std::make_shared<StreamWatch>();
  PostedNotifications logins{"ConnectNotification"};
  KQVisitorRoom::RoomUpdatesCallbackRef recorder;
  std::shared_ptr<Timer> writer;
  std::function<void()> restoreSettings;  // of the client, changed here

  // When each line was written, by number - 1; what reached whom.
  std::vector<Clock::TimePoint> visitorWritten;
  std::vector<Clock::TimePoint> operatorWritten;
  Transcript visitorTranscript;  // KQVisitorRoom::messages(), with when each arrived
  std::vector<Fault> faults;
  // Of the last fault: when a line written since reached the operator, and the visitor.
  std::optional<Clock::TimePoint> reachedOperator;
  std::optional<Clock::TimePoint> reachedVisitor;

  // The visitor writes through the outbox, which keeps each line until the room gives it back.
  void write() {
    const auto now = Clock::shared()->now();
    visitorWritten.push_back(now);
    outbox->send("v-" + std::to_string(visitorWritten.size()));
    operatorWritten.push_back(now);
    agent->say("o-" + std::to_string(operatorWritten.size()));
  }

  // A line arrived: the last fault has healed once a line written after it arrived both ways.
  void arrived(const std::string& text, const std::string& prefix,
               const std::vector<Clock::TimePoint>& written,
               std::optional<Clock::TimePoint>& reached) {
    const auto number = numberOf(text, prefix);
    if (faults.empty() || !number || *number > static_cast<int>(written.size()) ||
        written[*number - 1] < faults.back().at || reached) {
      return;
    }
    reached = Clock::shared()->now();
    if (reachedOperator && reachedVisitor && !faults.back().flowing) {
      faults.back().flowing = std::max(*reachedOperator, *reachedVisitor) - faults.back().at;
    }
  }

  void scanVisitorTranscript() {
    const auto messages = room->messages();
    while (visitorTranscript.size() < messages.size()) {
      const auto text = messages[visitorTranscript.size()]->message().value_or("");
      visitorTranscript.push_back({text, Clock::shared()->now()});
      arrived(text, "o-", operatorWritten, reachedVisitor);
    }
  }

  void fault(FaultKind kind) {
    faults.push_back({kind, Clock::shared()->now(), std::nullopt, std::nullopt});
    reachedOperator.reset();
    reachedVisitor.reset();
  }

  [[nodiscard]] Report report() const {
    const auto lines = [](const auto& written) { return static_cast<int>(written.size()); };
    Report made;
    made.visitorToOperator = count(agent->heard(), faults, "v-", lines(visitorWritten));
    made.operatorToVisitor = count(visitorTranscript, faults, "o-", lines(operatorWritten));
    made.visitorEchoes = count(visitorTranscript, faults, "v-", lines(visitorWritten));
    made.faults = faults;
    return made;
  }
};

ChatSurvival::ChatSurvival(Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = options;
  impl_->server = std::make_unique<ProsodyServer>(
      ProsodyServer::Options{.tls = options.tls, .accounts = {{"42", "secret"}}});
  impl_->relay = std::make_unique<FaultRelay>(impl_->server->port());
}

ChatSurvival::~ChatSurvival() {
  Impl& chat = *impl_;
  if (chat.writer) {
    chat.writer->invalidate();
  }
  if (chat.outbox) {
    chat.outbox->close();
  }
  KQVisitorOutbox::forgetLines(kChatId);
  if (chat.room) {
    chat.room->removeRoomUpdateCallback(chat.recorder);
  }
  if (chat.agent) {
    chat.agent->stop();
    chat.agent.reset();
  }
  client().disconnect();
  runMainQueueUntil([] { return client().xmppStream()->isDisconnected(); });
  client().removeStreamDelegate(chat.watch.get());
  if (chat.restoreSettings) {
    chat.restoreSettings();
  }
  client().setSitesManager(nullptr);
  KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
  chat.outbox.reset();
  chat.room.reset();
  chat.relay.reset();
  chat.server.reset();
  KQVisitorConfig::setShared(KQVisitorConfig());
  drainMainQueue();
}

bool ChatSurvival::start() {
  Impl& chat = *impl_;
  KQVisitorConfig config;
  config.xmppHost = "127.0.0.1";
  config.xmppPort = chat.relay->port();
  config.caFile = chat.server->caFile();
  KQVisitorConfig::setShared(config);
  const auto stream = client().xmppStream();
  const auto reconnect = client().xmppReconnect();
  stream->setHostName("127.0.0.1");
  stream->setHostPort(chat.relay->port());
  chat.restoreSettings = [stream, reconnect, timeout = stream->acknowledgementTimeout(),
                          delay = reconnect->reconnectDelay(),
                          interval = reconnect->reconnectTimerInterval()] {
    stream->setAcknowledgementTimeout(timeout);
    reconnect->setReconnectDelay(delay);
    reconnect->setReconnectTimerInterval(interval);
  };
  stream->setAcknowledgementTimeout(chat.options.acknowledgementTimeout);
  // Back soon after a restarted server is: it takes a moment.
  reconnect->setReconnectDelay(Seconds(0.2));
  reconnect->setReconnectTimerInterval(Seconds(0.5));
  chat.watch->lost = [&chat] {
    if (!chat.faults.empty() && !chat.faults.back().noticed) {
      chat.faults.back().noticed = Clock::shared()->now() - chat.faults.back().at;
    }
  };
  client().addStreamDelegate(chat.watch);

  KQVisitorWebService::sharedInstance().setCurrentUser(chat.visitor);
  chat.website->setSiteId("W1");
  chat.manager->setKqWebsite(chat.website);
  client().setSitesManager(chat.manager);
  if (!client().connectUser(chat.visitor) ||
      !runMainQueueUntil([&] { return chat.logins.posted.size() == 1U; })) {
    return false;
  }
  const auto omar = user("42", "Omar");
  client().createXmpproomwithwebsiteID("W1", kChatId, omar, "42", "Hello, I am Omar", omar);
  chat.room = chat.manager->getCurrentRoom();
  if (!chat.room) {
    return false;
  }
  chat.recorder = std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
      [&chat](const std::any&, std::int64_t status) {
        if (status == KQRoomUpdateNewMessage || status == KQRoomUpdateOwnMessage) {
          chat.scanVisitorTranscript();
        }
      });
  chat.room->addRoomUpdatesCallBack(chat.recorder);
  client().joinXmpproomwitChatID(kChatId);
  KQVisitorOutbox::forgetLines(kChatId);  // nothing of an earlier run is sent
  chat.outbox = KQVisitorOutbox::make(chat.room, nullptr);
  if (!runMainQueueUntil([&] { return chat.room->isConnected(); })) {
    return false;
  }
  // The operator joins the room the visitor made (and the server keeps through a restart).
  const auto roomJID = xmpp::XMPPJID::jidWithString("room" + kChatId + "@conference.localhost");
  chat.agent = std::make_shared<RejoiningOperator>(*chat.server, *roomJID);
  chat.agent->onHeard = [&chat](const Line& heard) {
    chat.arrived(heard.text, "v-", chat.visitorWritten, chat.reachedOperator);
  };
  if (!chat.agent->join()) {
    return false;
  }
  chat.writer = Timer::scheduledTimer(DispatchQueue::main(), chat.options.interval, true,
                                      [&chat](Timer&) { chat.write(); });
  return true;
}

void ChatSurvival::reset() {
  impl_->fault(FaultKind::Reset);
  impl_->relay->reset();
}

void ChatSurvival::beginSilentDrop() {
  impl_->fault(FaultKind::SilentDrop);
  impl_->relay->dropSilently(true);
}

void ChatSurvival::endSilentDrop() {
  impl_->relay->dropSilently(false);
}

void ChatSurvival::restartServer() {
  impl_->fault(FaultKind::Restart);
  auto restarted = std::async(std::launch::async, [this] {
    impl_->server->stop();
    impl_->server->start();
  });
  runMainQueueUntil(
      [&] { return restarted.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
      2 * kPatience);
  restarted.get();  // throws what the restart threw
}

const ChatSurvival::Fault& ChatSurvival::lastFault() const {
  return impl_->faults.back();
}

bool ChatSurvival::waitUntilFlowing(Clock::Duration patience) {
  return runMainQueueUntil([this] { return lastFault().flowing.has_value(); }, patience);
}

bool ChatSurvival::waitUntilNoticed(Clock::Duration patience) {
  return runMainQueueUntil([this] { return lastFault().noticed.has_value(); }, patience);
}

FaultRelay::Counts ChatSurvival::relayCounts() const {
  return impl_->relay->counts();
}

const StreamEvents& ChatSurvival::visitorEvents() const {
  return *impl_->watch;
}

void ChatSurvival::runFor(Clock::Duration duration) {
  runMainQueueUntil([] { return false; }, duration);
}

ChatSurvival::Report ChatSurvival::finish(Clock::Duration bound) {
  Impl& chat = *impl_;
  chat.writer->invalidate();
  const auto whole = [&chat] {
    const auto report = chat.report();
    return report.visitorToOperator.lost == 0 && report.operatorToVisitor.lost == 0 &&
           report.visitorEchoes.lost == 0;
  };
  bool drained = runMainQueueUntil(whole, bound);
  if (drained) {
    // One more line each way: once they are in, so is anything written before them.
    chat.outbox->send("v-end");
    chat.agent->say("o-end");
    const auto holds = [](const Transcript& transcript, const std::string& text) {
      return std::any_of(transcript.begin(), transcript.end(),
                         [&text](const auto& heard) { return heard.text == text; });
    };
    drained = runMainQueueUntil([&] {
      return holds(chat.agent->heard(), "v-end") && holds(chat.visitorTranscript, "o-end") &&
             holds(chat.visitorTranscript, "v-end");
    });
    drainMainQueue();
  }
  chat.scanVisitorTranscript();
  auto report = chat.report();
  report.drained = drained;
  return report;
}

}  // namespace kq::test
