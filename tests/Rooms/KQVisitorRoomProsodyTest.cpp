// A visitor's chat room through the client singleton, against a real Prosody, with a second
// client playing the operator.

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Rooms/KQVisitorOutbox.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include "tests/support/LogCapture.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/PostedNotifications.h"
#include "tests/support/ProsodyOperator.h"
#include "tests/support/ProsodyServer.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::runMainQueueUntil;

std::shared_ptr<KQVisitorUser> user(const std::string& id, const std::string& name) {
  auto made = std::make_shared<KQVisitorUser>();
  made->setUserId(id);
  made->setUsername(name);
  return made;
}

// The singleton client pointed at a fresh Prosody (no TLS), a website "W1" in a new sites
// manager, the visitor "u1" as the web service's current user, and the operator "42" logged in.
class KQVisitorRoomProsodyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::ProsodyServer::Options options;
    options.tls = false;
    options.roomArchive = roomArchive;
    options.accounts["42"] = "secret";
    server = std::make_unique<test::ProsodyServer>(options);
    KQVisitorConfig config;
    config.xmppHost = "127.0.0.1";
    config.xmppPort = server->port();
    KQVisitorConfig::setShared(config);
    client().xmppStream()->setHostName("127.0.0.1");
    client().xmppStream()->setHostPort(server->port());
    KQVisitorWebService::sharedInstance().setCurrentUser(visitor);
    website->setSiteId("W1");
    manager->setKqWebsite(website);
    client().setSitesManager(manager);
    agent = std::make_unique<test::Operator>(*server);
    ASSERT_TRUE(agent->login());
    forgetOutboxes();
  }

  void TearDown() override {
    client().disconnect();
    runMainQueueUntil([] { return client().xmppStream()->isDisconnected(); });
    agent.reset();
    client().setSitesManager(nullptr);
    KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
    server.reset();
    KQVisitorConfig::setShared(KQVisitorConfig());
    test::drainMainQueue();
    forgetOutboxes();
  }

  // The outboxes' lines are kept in the standard user defaults, which outlive the process.
  static void forgetOutboxes() {
    for (const char* chatId : {"80", "82"}) {
      KQVisitorOutbox::forgetLines(chatId);
    }
  }

  static KQVisitorXMPPClient& client() { return KQVisitorXMPPClient::instance(); }

  // Logs the visitor in, fills the current room's record and joins chat `chatId`: answers the
  // room once it has reported joining and joined.
  std::shared_ptr<KQVisitorRoom> startChat(const std::string& chatId) {
    EXPECT_TRUE(client().connectUser(visitor));
    EXPECT_TRUE(runMainQueueUntil([&] { return logins.posted.size() == 1U; }));
    const auto omar = user("42", "Omar");
    client().createXmpproomwithwebsiteID("W1", chatId, omar, "42", "Hello, I am Omar", omar);
    auto room = manager->getCurrentRoom();
    EXPECT_TRUE(room);
    if (!room) {
      return nullptr;
    }
    room->addRoomUpdatesCallBack(recorder);
    EXPECT_EQ(client().joinXmpproomwitChatID(chatId), room);
    EXPECT_TRUE(runMainQueueUntil([&] { return statuses.size() >= 2; }));
    EXPECT_EQ(statuses, (std::vector<std::int64_t>{KQRoomUpdateJoining, KQRoomUpdateJoined}));
    return room;
  }

  // The operator's chat packet into its room.
  static void operatorSays(const std::shared_ptr<xmpp::XMPPRoom>& room, const std::string& text,
                           const std::string& visitorName = "Omar") {
    sendKQVisitorMessage(room, text, "42", "W1", "42", visitorName, "77");
  }

  // The operator in the chat's room, once the visitor has invited it.
  std::shared_ptr<xmpp::XMPPRoom> operatorJoins(const std::shared_ptr<KQVisitorRoom>& room) {
    EXPECT_TRUE(runMainQueueUntil([&] { return !agent->events->messages.empty(); }));
    auto joined = agent->joinRoom(room->xmppRoom()->roomJID(), operatorEvents);
    EXPECT_TRUE(runMainQueueUntil([&] { return operatorEvents->count("didJoin") == 1; }));
    return joined;
  }

  // The lines of the room as the operator heard them, oldest first.
  std::vector<std::string> operatorHeard() const {
    std::vector<std::string> texts;
    for (const auto& message : operatorEvents->messages) {
      texts.push_back(kqChatMessage(message));
    }
    return texts;
  }

  // An outbox for `room` whose fates go to `fates` as "text:fate".
  std::shared_ptr<KQVisitorOutbox> outboxFor(const std::shared_ptr<KQVisitorRoom>& room) {
    return KQVisitorOutbox::make(room, [this](const auto& line, auto fate, const auto& /*error*/) {
      static const char* const kNames[] = {"sent", "delivered", "given up"};
      fates.push_back(line.text + ":" + kNames[fate]);
    });
  }

  test::ManualClockScope clock;
  bool roomArchive = true;
  std::shared_ptr<test::RoomEvents> operatorEvents = std::make_shared<test::RoomEvents>();
  std::vector<std::string> fates;
  std::unique_ptr<test::ProsodyServer> server;
  std::unique_ptr<test::Operator> agent;
  std::shared_ptr<KQVisitorUser> visitor = user("u1", "Ann");
  std::shared_ptr<KQVisitorSite> website = std::make_shared<KQVisitorSite>();
  std::shared_ptr<KQVisitorSitesManager> manager = std::make_shared<KQVisitorSitesManager>();
  test::PostedNotifications logins{"ConnectNotification"};
  std::vector<std::int64_t> statuses;
  KQVisitorRoom::RoomUpdatesCallbackRef recorder =
      std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
          [this](const std::any&, std::int64_t status) { statuses.push_back(status); });
};

TEST_F(KQVisitorRoomProsodyTest, AVisitorChatsWithTheOperatorUntilTheOperatorEndsTheChat) {
  const auto room = startChat("77");
  ASSERT_TRUE(room);
  EXPECT_EQ(room->xmppRoom()->roomJID().full(), "room77@conference.localhost");
  EXPECT_EQ(room->roomId(), "77");
  EXPECT_EQ(manager->allRooms(), KQVisitorSitesManager::Rooms{room});

  // The new room was configured and the operator invited with the six fields.
  ASSERT_TRUE(runMainQueueUntil([&] { return !agent->events->messages.empty(); }));
  const auto invitation = agent->events->messages.front();
  EXPECT_EQ(invitation.from()->bare(), "room77@conference.localhost");
  EXPECT_EQ(chatId(invitation), "77");
  EXPECT_EQ(websiteId(invitation), "W1");
  EXPECT_EQ(visitorId(invitation), "u1");
  EXPECT_EQ(visitorName(invitation), "Ann");
  EXPECT_EQ(greeting(invitation), "Hello, I am Omar");

  const auto operatorRoom = operatorJoins(room);

  // The operator's message (type 4), a colleague's through the same agent (type 3), then the
  // visitor's own line coming back.
  operatorSays(operatorRoom, "Hi Ann, how can I help?");
  ASSERT_TRUE(runMainQueueUntil([&] { return statuses.size() == 3; }));
  EXPECT_EQ(statuses.back(), KQRoomUpdateNewMessage);
  EXPECT_EQ(room->roomOcuupants().at("42")->username(), "Omar");
  sendKQVisitorMessage(operatorRoom, "Sam here, from billing", "9", "W1", "42", "Sam", "77");
  ASSERT_TRUE(runMainQueueUntil([&] { return statuses.size() == 4; }));
  EXPECT_EQ(statuses.back(), KQRoomUpdateNewMessage);
  EXPECT_EQ(room->roomOcuupants().count("9"), 0U) << "only the operator is filed";
  EXPECT_TRUE(room->sendMessage("Where is my order?"));
  ASSERT_TRUE(runMainQueueUntil([&] { return statuses.size() == 5; }));
  EXPECT_EQ(statuses.back(), KQRoomUpdateOwnMessage);
  const auto messages = room->messages();
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[0]->message(), "Hello, I am Omar");
  EXPECT_EQ(messages[1]->message(), "Hi Ann, how can I help?");
  EXPECT_EQ(messages[1]->messageType(), KQVisitorMessageTypeOperator);
  EXPECT_EQ(messages[2]->messageType(), KQVisitorMessageTypeParticipant);
  EXPECT_EQ(messages[3]->message(), "Where is my order?");
  EXPECT_EQ(messages[3]->sender(), visitor);
  EXPECT_EQ(room->unreadMessagesCount(), 4) << "one from the record, three received";

  // "[DND]" makes the visitor's room send the destroy notice, which comes back as
  // "[destroy room]" and ends the room. (What follows an end, the nick change and the typing of
  // each message are the room's own tests.)
  operatorSays(operatorRoom, "[DND]");
  ASSERT_TRUE(runMainQueueUntil([&] { return room->isRoomDestroyed(); }));
  EXPECT_EQ(statuses.back(), KQRoomUpdateDestroyed);
  EXPECT_EQ(room->lastMessage()->message(), "Left the conversation");
  EXPECT_EQ(manager->getCurrentRoom(), nullptr);
  EXPECT_EQ(website->rooms()->count(), 0U) << "the room is gone from the website";
  EXPECT_EQ(room->site(), nullptr);
  ASSERT_TRUE(runMainQueueUntil([] { return client().xmppStream()->isDisconnected(); }))
      << "ending the room closes the visitor's stream";

  operatorRoom->deactivate();
}

// The visitor out of the room behind the room object's back, and its nickname taken meanwhile,
// as by a session of its own that the server has not let go yet: the server refuses the next
// line, and then the rejoin, which is tried again until the nickname is free.
TEST_F(KQVisitorRoomProsodyTest, AfterAnErrorFromTheRoomARefusedJoinIsTriedAgainUntilItIsTaken) {
  const auto room = startChat("78");
  ASSERT_TRUE(room);
  const test::LogCapture logs;
  ASSERT_TRUE(runMainQueueUntil([&] { return !agent->events->messages.empty(); }));
  room->xmppRoom()->leaveRoom();
  ASSERT_TRUE(runMainQueueUntil([&] { return room->isRoomJoininng(); }));
  const auto squatter =
      std::make_shared<xmpp::XMPPRoom>(xmpp::XMPPRoomMemoryStorage::sharedInstance(),
                                       room->xmppRoom()->roomJID(), DispatchQueue::main());
  squatter->addDelegate(operatorEvents, DispatchQueue::main());
  squatter->activate(agent->stream);
  squatter->joinRoomUsingNickname("Ann", std::nullopt);
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorEvents->count("didJoin") == 1; }));

  EXPECT_TRUE(room->sendMessage("are you there?"));
  ASSERT_TRUE(runMainQueueUntil([&] { return logs.contains("xmppRoomDidNotJoin"); }));
  EXPECT_TRUE(logs.contains("(conflict)"));
  EXPECT_EQ(statuses, (std::vector<std::int64_t>{KQRoomUpdateJoining, KQRoomUpdateJoined,
                                                 KQRoomUpdateJoining, KQRoomUpdateRejoining}));
  EXPECT_FALSE(room->isConnected());
  clock->advance(1s);  // tried again, and announced
  ASSERT_TRUE(runMainQueueUntil([&] { return statuses.size() == 5; }));
  EXPECT_EQ(statuses.back(), KQRoomUpdateJoining);

  squatter->leaveRoom();
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorEvents->count("didLeave") == 1; }));
  clock->advance(2s);  // should that try have been refused too: the next waits longer
  // The stream takes the room as joined before the room object hears of it on the main queue.
  ASSERT_TRUE(runMainQueueUntil([&] { return room->isConnected() && !room->isRoomJoininng(); }))
      << "the joining flag is cleared once the room is joined again";
  EXPECT_TRUE(room->sendMessage("back again"));
  ASSERT_TRUE(runMainQueueUntil([&] { return statuses.back() == KQRoomUpdateOwnMessage; }));
  EXPECT_EQ(room->lastMessage()->message(), "back again");
  squatter->deactivate();
}

TEST_F(KQVisitorRoomProsodyTest, StartingAChatByIdAnswersOnceTheRoomIsJoined) {
  ASSERT_TRUE(client().connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return logins.posted.size() == 1U; }));
  const auto omar = user("42", "Omar");
  client().createXmpproomwithwebsiteID("W1", "81", visitor, "42", "Hello", omar);
  std::vector<std::tuple<std::optional<KQError>, nlohmann::ordered_json, bool>> answers;
  manager->startChatWithChatId(
      "81", [&](std::optional<KQError> error, nlohmann::ordered_json result, bool joined) {
        answers.emplace_back(std::move(error), std::move(result), joined);
      });
  ASSERT_TRUE(runMainQueueUntil([&] {
    return std::any_of(answers.begin(), answers.end(),
                       [](const auto& answer) { return std::get<2>(answer); });
  }));
  const auto& joined = answers.back();
  EXPECT_FALSE(std::get<0>(joined));
  EXPECT_EQ(std::get<1>(joined), (nlohmann::ordered_json{{"websiteID", "W1"}}));
  EXPECT_EQ(manager->getCurrentRoom()->roomId(), "81");
  EXPECT_TRUE(manager->getCurrentRoom()->isConnected());
}

// The same, with the room archive on the server (the parameter) or not.
class KQVisitorRoomRejoinTest : public KQVisitorRoomProsodyTest,
                                public ::testing::WithParamInterface<bool> {
 protected:
  KQVisitorRoomRejoinTest() { roomArchive = GetParam(); }
};

std::vector<std::string> textsOf(const KQVisitorRoom::Messages& messages, std::size_t from) {
  std::vector<std::string> texts;
  for (std::size_t i = from; i < messages.size(); ++i) {
    texts.push_back(messages[i]->message().value_or("(none)"));
  }
  return texts;
}

// The visitor's connection drops while the operator goes on talking; the rejoin keeps the
// transcript and adds each missed line once, in order: from the room's archive after the last
// stanza id heard, or, without an archive, from the room's history, which brings the line heard
// before the drop again, known by sender, time and text.
TEST_P(KQVisitorRoomRejoinTest, ARejoinAddsEachMissedLineOnceAndKeepsTheTranscript) {
  const auto room = startChat("79");
  ASSERT_TRUE(room);
  const auto operatorRoom = operatorJoins(room);
  const test::PostedNotifications firstMessage{"RoomStatusFirstMessage"};
  std::vector<std::vector<KQVisitorRoom::ReceivedStanza>> catchUps;
  room->setCatchUpListener([&](const auto& stanzas) { catchUps.push_back(stanzas); });
  const auto announced = [&] {
    return std::count(statuses.begin(), statuses.end(), KQRoomUpdateNewMessage);
  };

  operatorSays(operatorRoom, "Hi Ann");
  ASSERT_TRUE(runMainQueueUntil([&] { return announced() == 1; }));
  const auto before = room->messages();  // the greeting and "Hi Ann"
  ASSERT_EQ(before.size(), 2U);
  const auto heardBefore = room->receivedStanza(before[1]);
  ASSERT_TRUE(heardBefore);
  EXPECT_EQ(heardBefore->stanzaId.has_value(), roomArchive) << "the archive's id is kept";

  client().xmppStream()->disconnect();
  ASSERT_TRUE(runMainQueueUntil([&] { return room->isRoomJoininng(); }));
  operatorSays(operatorRoom, "one");
  auto two = makeKQVisitorMessage(operatorRoom->roomJID(), "two", "42", "W1", "42", "Omar", "79");
  two.addAttributeWithName("id", "line-2");  // as the visitor's own lines will carry one
  operatorRoom->sendMessage(two);
  operatorSays(operatorRoom, "three");
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorEvents->messages.size() == 4U; }))
      << "the room has had them all";
  ASSERT_TRUE(client().connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return catchUps.size() == 1U; }));
  operatorSays(operatorRoom, "four");  // live again; anything still owed would come first
  ASSERT_TRUE(runMainQueueUntil([&] { return announced() == 5; }));

  const auto after = room->messages();
  ASSERT_EQ(after.size(), 6U);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin())) << "the transcript stays";
  EXPECT_EQ(textsOf(after, 2), (std::vector<std::string>{"one", "two", "three", "four"}));
  EXPECT_EQ(room->unreadMessagesCount(), 1 + 5) << "one from the record, five received";
  EXPECT_EQ(firstMessage.posted.size(), 1U) << "the first message was \"Hi Ann\"";

  KQVisitorRoom::Messages broughtBack;
  for (const auto& stanza : catchUps[0]) {
    EXPECT_EQ(stanza.sender, "Operator");
    if (stanza.text == "two") {
      EXPECT_EQ(stanza.id, "line-2");
    }
    broughtBack.push_back(stanza.message);
  }
  const KQVisitorRoom::Messages expected =
      roomArchive ? KQVisitorRoom::Messages{after[2], after[3], after[4]}
                  : KQVisitorRoom::Messages{before[1], after[2], after[3], after[4]};
  EXPECT_EQ(broughtBack, expected) << "the line heard before is the one held, not a new one";
  const auto heardMissed = room->receivedStanza(after[2]);
  ASSERT_TRUE(heardMissed);
  EXPECT_EQ(after[2]->timeStamp(), heardMissed->arrival) << "a missed line takes the server's time";

  if (roomArchive) {
    // The archive page by page, two lines a page, after the line heard before the drop.
    const auto archive =
        std::make_shared<xmpp::XMPPRoomArchive>(room->xmppRoom()->roomJID(), DispatchQueue::main());
    ASSERT_TRUE(archive->activate(agent->stream));
    std::optional<std::optional<std::vector<xmpp::XMPPRoomArchive::Item>>> fetched;
    archive->fetchMessages({heardBefore->stanzaId, std::nullopt, 2},
                           [&](auto items) { fetched = std::move(items); });
    ASSERT_TRUE(runMainQueueUntil([&] { return fetched.has_value(); }));
    archive->deactivate();
    ASSERT_TRUE(*fetched);
    ASSERT_EQ((*fetched)->size(), 4U);
    std::vector<std::string> texts;
    for (const auto& item : **fetched) {
      texts.push_back(kqChatMessage(item.message));
      const auto kept = room->receivedStanza(after[1 + texts.size()]);
      EXPECT_EQ(item.archiveId, kept ? kept->stanzaId : std::nullopt) << texts.back();
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"one", "two", "three", "four"}));
  }
  operatorRoom->deactivate();
}

// A line that reached the room just as the connection went, and one typed while away: after
// the rejoin each is in the room once, in order, known again by the id its packet carries
// (from the archive, or from the room's history).
TEST_P(KQVisitorRoomRejoinTest, TheOutboxPutsEachLineInTheRoomOnceAcrossALostConnection) {
  const auto room = startChat("80");
  ASSERT_TRUE(room);
  const auto operatorRoom = operatorJoins(room);
  const auto outbox = outboxFor(room);
  outbox->send("one");
  ASSERT_TRUE(runMainQueueUntil([&] { return fates.size() == 2U; }));
  outbox->send("two");
  // After "two" has gone; its echo is lost with the connection, unless it came back first.
  client().xmppStream()->disconnect();
  ASSERT_TRUE(runMainQueueUntil([&] { return room->isRoomJoininng(); }));
  outbox->send("three");
  test::drainMainQueue();
  ASSERT_GE(fates.size(), 3U);
  EXPECT_EQ(std::vector(fates.begin(), fates.begin() + 3),
            (std::vector<std::string>{"one:sent", "one:delivered", "two:sent"}));
  EXPECT_EQ(std::count(fates.begin(), fates.end(), "three:sent"), 0) << "nothing goes while away";

  ASSERT_TRUE(client().connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return outbox->lines().empty(); }));
  outbox->send("four");  // whatever went before it reaches the operator before it
  ASSERT_TRUE(
      runMainQueueUntil([&] { return operatorHeard().size() == 4U && outbox->lines().empty(); }));
  test::drainMainQueue();
  EXPECT_EQ(operatorHeard(), (std::vector<std::string>{"one", "two", "three", "four"}));
  EXPECT_EQ(fates, (std::vector<std::string>{"one:sent", "one:delivered", "two:sent",
                                             "two:delivered", "three:sent", "three:delivered",
                                             "four:sent", "four:delivered"}))
      << "\"two\" was found in what the rejoin caught up, not sent again";
  EXPECT_EQ(textsOf(room->messages(), 1),
            (std::vector<std::string>{"one", "two", "three", "four"}));
  outbox->close();
  operatorRoom->deactivate();
}

INSTANTIATE_TEST_SUITE_P(RoomArchive, KQVisitorRoomRejoinTest, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "Archive" : "HistoryOnly"; });

// Lines a run of the host left in the user defaults: the one that reached the room is found
// in its archive and not sent again; the others go, in order, before a line typed now.
TEST_F(KQVisitorRoomProsodyTest, AnOutboxTakesBackTheLinesOfAnEarlierRunAndLooksInTheArchive) {
  const auto room = startChat("82");
  ASSERT_TRUE(room);
  const auto operatorRoom = operatorJoins(room);
  ASSERT_TRUE(room->sendMessage("two", "id-two"));
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorHeard().size() == 1U; }));
  const double written = Date::now().timeIntervalSince1970() - 5;
  UserDefaults::standard().setObject(
      nlohmann::ordered_json::array(
          {{{"id", "id-two"}, {"text", "two"}, {"written", written}, {"sends", 1}},
           {{"id", "id-three"}, {"text", "three"}, {"written", written}, {"sends", 1}},
           {{"id", "id-four"}, {"text", "four"}, {"written", written}, {"sends", 0}}}),
      "kqoutbox82");

  const auto outbox = outboxFor(room);
  outbox->send("five");
  ASSERT_TRUE(
      runMainQueueUntil([&] { return operatorHeard().size() == 4U && outbox->lines().empty(); }));
  test::drainMainQueue();
  EXPECT_EQ(fates,
            (std::vector<std::string>{"two:delivered", "three:sent", "four:sent", "five:sent",
                                      "three:delivered", "four:delivered", "five:delivered"}));
  EXPECT_EQ(operatorHeard(), (std::vector<std::string>{"two", "three", "four", "five"}));
  EXPECT_FALSE(UserDefaults::standard().objectForKey("kqoutbox82")) << "nothing left to send";
  outbox->close();
  operatorRoom->deactivate();
}

}  // namespace
}  // namespace kq
