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
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include "tests/support/PostedNotifications.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/RejoiningOperator.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <set>
#include <thread>

namespace kq::test {

namespace {

const std::string kChatId = "90";

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
  if (text.rfind(prefix, 0) != 0 || text.size() == prefix.size() ||
      !std::all_of(text.begin() + static_cast<long>(prefix.size()), text.end(), ::isdigit)) {
    return std::nullopt;
  }
  return std::stoi(text.substr(prefix.size()));
}

const char* nameOf(ChatSurvival::FaultKind kind) {
  switch (kind) {
    case ChatSurvival::FaultKind::Reset: return "reset";
    case ChatSurvival::FaultKind::SilentDrop: return "silent drop";
    case ChatSurvival::FaultKind::Restart: return "restart";
  }
  return "?";
}

// " (after fault 3, a reset)": the last fault before `at`, to tell which one a problem followed.
std::string faultBefore(Clock::TimePoint at, const std::vector<ChatSurvival::Fault>& faults) {
  std::size_t index = faults.size();
  while (index > 0 && faults[index - 1].at > at) {
    --index;
  }
  return index == 0 ? " (before any fault)"
                    : " (after fault " + std::to_string(index) + ", " +
                          nameOf(faults[index - 1].kind) + ")";
}

// The lines `texts` held, which arrived at `arrivals`.
ChatSurvival::Direction count(const std::vector<std::string>& texts,
                              const std::vector<Clock::TimePoint>& arrivals,
                              const std::vector<ChatSurvival::Fault>& faults,
                              const std::string& prefix, int sent) {
  ChatSurvival::Direction direction;
  direction.sent = sent;
  std::map<int, int> copies;
  int highest = 0;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const auto& text = texts[i];
    const auto number = numberOf(text, prefix);
    if (!number) {
      continue;
    }
    const auto when = faultBefore(arrivals.at(i), faults);
    if (++copies[*number] > 1) {
      ++direction.duplicated;
      direction.problems.push_back(text + " again" + when);
    } else if (*number < highest) {
      ++direction.outOfOrder;
      direction.problems.push_back(text + " after " + prefix + std::to_string(highest) + when);
    }
    highest = std::max(highest, *number);
  }
  for (int number = 1; number <= sent; ++number) {
    if (copies.count(number) != 0) {
      ++direction.arrived;
    } else {
      direction.problems.push_back(prefix + std::to_string(number) + " lost");
    }
  }
  direction.lost = sent - direction.arrived;
  return direction;
}

// Hears when the visitor's stream takes its link for dead.
struct StreamWatch : xmpp::XMPPStreamDelegate {
  std::function<void()> lost;
  void xmppStreamWillResume(xmpp::XMPPStream& /*sender*/, const KQError& /*error*/) override {
    lost();
  }
  void xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                               const std::optional<KQError>& /*error*/) override {
    lost();
  }
};

}  // namespace

bool ChatSurvival::Report::clean() const {
  const auto whole = [](const Direction& d) {
    return d.lost == 0 && d.duplicated == 0 && d.outOfOrder == 0;
  };
  return drained && whole(visitorToOperator) && whole(operatorToVisitor) && whole(visitorEchoes);
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
  // The client's settings changed here, to be put back.
  Seconds acknowledgementTimeout{};
  Seconds reconnectDelay{};
  Seconds reconnectInterval{};

  // When each line was written, by number - 1; what reached whom.
  std::vector<Clock::TimePoint> visitorWritten;
  std::vector<Clock::TimePoint> operatorWritten;
  std::set<std::string> operatorHeard;
  std::set<std::string> visitorHeard;             // both sides' lines
  std::vector<Clock::TimePoint> visitorArrivals;  // of the visitor's transcript, by index
  std::vector<Fault> faults;
  // Of the last fault: when a line written since reached the operator, and the visitor.
  std::optional<Clock::TimePoint> reachedOperator;
  std::optional<Clock::TimePoint> reachedVisitor;

  // The one place the visitor writes: through the outbox, which keeps each line until the room
  // gives it back.
  void visitorSays(const std::string& text) const { outbox->send(text); }

  void write() {
    const auto now = Clock::shared()->now();
    visitorWritten.push_back(now);
    visitorSays("v-" + std::to_string(visitorWritten.size()));
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
    while (visitorArrivals.size() < messages.size()) {
      const auto text = messages[visitorArrivals.size()]->message().value_or("");
      visitorArrivals.push_back(Clock::shared()->now());
      visitorHeard.insert(text);
      arrived(text, "o-", operatorWritten, reachedVisitor);
    }
  }

  void fault(FaultKind kind) {
    faults.push_back({kind, Clock::shared()->now(), std::nullopt, std::nullopt, std::nullopt});
    reachedOperator.reset();
    reachedVisitor.reset();
  }

  // Every line written so far is held where it should be.
  [[nodiscard]] bool allArrived() const {
    const auto has = [](const std::set<std::string>& heard, const std::string& prefix, int n) {
      for (int number = 1; number <= n; ++number) {
        if (heard.count(prefix + std::to_string(number)) == 0) {
          return false;
        }
      }
      return true;
    };
    const int visitorLines = static_cast<int>(visitorWritten.size());
    return has(operatorHeard, "v-", visitorLines) && has(visitorHeard, "v-", visitorLines) &&
           has(visitorHeard, "o-", static_cast<int>(operatorWritten.size()));
  }
};

ChatSurvival::ChatSurvival(Options options) : impl_(std::make_unique<Impl>()) {
  impl_->options = options;
  ProsodyServer::Options serverOptions;
  serverOptions.tls = options.tls;
  serverOptions.accounts["42"] = "secret";
  impl_->server = std::make_unique<ProsodyServer>(serverOptions);
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
  }
  client().disconnect();
  runMainQueueUntil([] { return client().xmppStream()->isDisconnected(); });
  client().removeStreamDelegate(chat.watch.get());
  if (chat.acknowledgementTimeout.count() > 0) {
    client().xmppStream()->setAcknowledgementTimeout(chat.acknowledgementTimeout);
    client().xmppReconnect()->setReconnectDelay(chat.reconnectDelay);
    client().xmppReconnect()->setReconnectTimerInterval(chat.reconnectInterval);
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
  chat.acknowledgementTimeout = stream->acknowledgementTimeout();
  chat.reconnectDelay = reconnect->reconnectDelay();
  chat.reconnectInterval = reconnect->reconnectTimerInterval();
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
  const auto roomJID = xmpp::XMPPJID::jidWithString("room" + kChatId + "@conference.localhost");
  chat.agent = std::make_shared<RejoiningOperator>(chat.server->port(), *roomJID, kChatId);
  chat.agent->onHeard = [&chat](const RejoiningOperator::Heard& heard) {
    chat.operatorHeard.insert(heard.text);
    chat.arrived(heard.text, "v-", chat.visitorWritten, chat.reachedOperator);
  };
  if (!chat.agent->login() || !client().connectUser(chat.visitor) ||
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
  // After a restart the operator goes back in after the visitor: the visitor's join of a room
  // the operator has made again and not configured yet is refused, and nothing in the library
  // joins again, so that the visitor would stay out for good.
  chat.agent->join([&chat] { return chat.room->isConnected(); });
  if (!runMainQueueUntil([&] { return chat.agent->isJoined(); })) {
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
  impl_->faults.back().length = Clock::shared()->now() - impl_->faults.back().at;
}

void ChatSurvival::restartServer() {
  impl_->fault(FaultKind::Restart);
  std::atomic<bool> done = false;
  std::exception_ptr failure;
  std::thread restarting([&] {
    try {
      impl_->server->stop();
      impl_->server->start();
    } catch (...) {
      failure = std::current_exception();
    }
    done = true;
  });
  runMainQueueUntil([&] { return done.load(); }, 2 * kPatience);
  restarting.join();
  if (failure) {
    std::rethrow_exception(failure);
  }
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

void ChatSurvival::runFor(Clock::Duration duration) {
  runMainQueueUntil([] { return false; }, duration);
}

ChatSurvival::Report ChatSurvival::finish(Clock::Duration bound) {
  Impl& chat = *impl_;
  chat.writer->invalidate();
  Report report;
  report.drained = runMainQueueUntil([&] { return chat.allArrived(); }, bound);
  if (report.drained) {
    // One more line each way: once they are in, so is anything written before them.
    chat.visitorSays("v-end");
    chat.agent->say("o-end");
    report.drained = runMainQueueUntil([&] {
      return chat.operatorHeard.count("v-end") != 0 && chat.visitorHeard.count("o-end") != 0 &&
             chat.visitorHeard.count("v-end") != 0;
    });
    drainMainQueue();
  }
  std::vector<std::string> operatorTexts;
  std::vector<Clock::TimePoint> operatorArrivals;
  for (const auto& heard : chat.agent->heard()) {
    operatorTexts.push_back(heard.text);
    operatorArrivals.push_back(heard.at);
  }
  chat.scanVisitorTranscript();
  std::vector<std::string> visitorTexts;
  for (const auto& message : chat.room->messages()) {
    visitorTexts.push_back(message->message().value_or(""));
  }
  const int visitorLines = static_cast<int>(chat.visitorWritten.size());
  const int operatorLines = static_cast<int>(chat.operatorWritten.size());
  const auto& faults = chat.faults;
  report.visitorToOperator = count(operatorTexts, operatorArrivals, faults, "v-", visitorLines);
  report.operatorToVisitor = count(visitorTexts, chat.visitorArrivals, faults, "o-", operatorLines);
  report.visitorEchoes = count(visitorTexts, chat.visitorArrivals, faults, "v-", visitorLines);
  report.faults = chat.faults;
  return report;
}

}  // namespace kq::test
