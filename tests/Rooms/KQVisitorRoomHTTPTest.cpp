#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Rooms/KQVisitorOutbox.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

#include <future>

namespace kq {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using test::RecordingHTTPServer;

// The session's current room, chatting over HTTP with the shared web service pointed at a
// recording server. Records the refresh notifications, which arrive on the HTTP thread, and
// records the room's updates, which must arrive on the main queue as they do over XMPP.
class KQVisitorRoomHTTPTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::pointServicesAt(server.origin());
    visitor->setUsername("Ann");
    KQVisitorWebService::sharedInstance().setCurrentUser(visitor);
    manager->setKqWebsite(website);
    KQVisitorXMPPClient::instance().setSitesManager(manager);
    room->setRoomId("7");
    room->setOperatorId("42");
    room->setOperatorName("Omar");
    website->rooms()->setObject(room, "currentRoom");
    observer = NotificationCenter::defaultCenter().addObserver(
        "KQVisitor_HTTP_Refresh", [this](const Notification& notification) {
          const auto line = std::any_cast<std::shared_ptr<KQVisitorMessage>>(notification.object);
          refreshes.record(line->message().value_or(""));
        });
    room->addRoomUpdatesCallBack(std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
        [this](const std::any& object, std::int64_t status) {
          ASSERT_TRUE(DispatchQueue::main()->isCurrent());
          const auto* line = std::any_cast<std::shared_ptr<KQVisitorMessage>>(&object);
          updates.emplace_back(status, line ? (*line)->message().value_or("") : "");
        }));
  }

  void TearDown() override {
    test::drainMainQueue();  // the updates of the last lines
    NotificationCenter::defaultCenter().removeObserver(observer);
    KQVisitorXMPPClient::instance().setSitesManager(nullptr);
    KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
    KQVisitorConfig::setShared(KQVisitorConfig());
  }

  // Moves the clock on and runs the timers due.
  void tick(Clock::Duration by) {
    clock->advance(by);
    test::drainMainQueue();
  }

  // The polling requests the server has seen.
  std::vector<test::RecordedRequest> polls() const {
    std::vector<test::RecordedRequest> result;
    for (const auto& request : server.requests()) {
      if (request.target.find("GetChatMessagesAlt") != std::string::npos) {
        result.push_back(request);
      }
    }
    return result;
  }

  test::ManualClockScope clock;
  RecordingHTTPServer server;
  std::shared_ptr<KQVisitorUser> visitor = std::make_shared<KQVisitorUser>();
  std::shared_ptr<KQVisitorSite> website = std::make_shared<KQVisitorSite>();
  std::shared_ptr<KQVisitorSitesManager> manager = std::make_shared<KQVisitorSitesManager>();
  std::shared_ptr<KQVisitorRoom> room = std::make_shared<KQVisitorRoom>();
  NotificationCenter::Token observer = 0;
  test::CallbackRecorder refreshes;                           // each line's text
  std::vector<std::pair<std::int64_t, std::string>> updates;  // main queue: status, own line
};

// One poll at a time: a tick while the last poll is unanswered sends nothing, as two polls from
// the same cursor would hand the same message out twice.
TEST_F(KQVisitorRoomHTTPTest, PollingEveryTwoSecondsOneAtATimeFollowsTheCursorUntilLeft) {
  server.setDefaultResponse(
      {200, R"(["How can I help?","16"])", "application/json; charset=utf-8", {}});
  room->joinHTTPRoom();
  tick(1900ms);
  test::flushSharedWebService();
  EXPECT_TRUE(polls().empty()) << "polled before 2 s";
  server.enqueueResponse({200, R"(["Hi, I am Omar","15"])", "application/json; charset=utf-8", {}});
  server.holdResponses();
  tick(100ms);
  ASSERT_TRUE(test::runMainQueueUntil([&] { return polls().size() == 1; }));
  tick(2s);  // the first poll is still unanswered
  server.release();
  ASSERT_EQ(refreshes.waitFor(1).size(), 1U);
  test::flushSharedWebService();
  EXPECT_EQ(polls().size(), 1U) << "a second poll while the first was unanswered";
  tick(2s);  // answered: the next tick polls again, from the new cursor
  ASSERT_EQ(refreshes.waitFor(2).size(), 2U);
  EXPECT_EQ(refreshes.events()[0].kind, "Hi, I am Omar");

  const auto requests = polls();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_NE(requests[0].target.find("parChatId=7&parMessageId=0"), std::string::npos)
      << requests[0].target;
  EXPECT_NE(requests[1].target.find("parMessageId=15"), std::string::npos) << "cursor moved";
  EXPECT_EQ(room->httpMessageId(), "16");
  const auto received = room->messages();
  ASSERT_EQ(received.size(), 2U);
  EXPECT_EQ(received[0]->message(), "Hi, I am Omar");
  EXPECT_EQ(received[0]->messageType(), KQVisitorMessageTypeOperator);
  EXPECT_EQ(received[0]->managerId(), "0");
  EXPECT_EQ(received[0]->sender()->username(), "Omar");
  test::drainMainQueue();
  using Update = std::pair<std::int64_t, std::string>;
  EXPECT_EQ(updates,
            (std::vector<Update>{{KQRoomUpdateNewMessage, ""}, {KQRoomUpdateNewMessage, ""}}));
  EXPECT_EQ(room->unreadMessagesCount(), 2);

  // A second join polls beside the first; leaving stops both and closes the chat on the server.
  room->joinHTTPRoom();
  room->leaveHTTPRoom();
  tick(2s);
  tick(2s);
  test::flushSharedWebService();
  EXPECT_EQ(polls().size(), 2U) << "a timer polls for a chat that has ended";
  const auto all = server.requests();
  EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const auto& request) {
    return request.target.find("/ET?parChatId=7&parChatEndTime=") != std::string::npos;
  })) << "leaving closes the chat on the server";
}

TEST_F(KQVisitorRoomHTTPTest, TheHTTPOperationsReportWhatTheServiceAnswered) {
  const auto run = [](const std::function<void(KQVisitorSitesManager::MessageCallback)>& call) {
    std::promise<std::pair<std::optional<KQError>, std::shared_ptr<KQVisitorMessage>>> done;
    call([&](std::optional<KQError> error, std::shared_ptr<KQVisitorMessage> message) {
      done.set_value({std::move(error), std::move(message)});
    });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(test::kPatience), std::future_status::ready);
    return future.get();
  };

  server.enqueueResponse({200, R"(["","99"])", "application/json; charset=utf-8", {}});
  const auto empty = run([&](auto callback) { manager->getHTTPMessage(std::move(callback)); });
  ASSERT_TRUE(empty.first);
  EXPECT_EQ(empty.first->domain, "No message recieved");
  EXPECT_EQ(empty.first->code, 1001);
  EXPECT_EQ(room->httpMessageId(), "0") << "the cursor stays";

  // A message without the next id keeps the cursor where it was.
  room->setHttpMessageId("15");
  server.enqueueResponse({200, R"(["Hello"])", "application/json; charset=utf-8", {}});
  const auto alone = run([&](auto callback) { manager->getHTTPMessage(std::move(callback)); });
  ASSERT_FALSE(alone.first);
  EXPECT_EQ(alone.second->message(), "Hello");
  EXPECT_EQ(room->httpMessageId(), "15");

  server.enqueueResponse({200, R"("1")", "application/json; charset=utf-8", {}});
  const auto sent = run([&](auto callback) { manager->sendHTTPMessage("hello", callback); });
  ASSERT_FALSE(sent.first);
  EXPECT_EQ(sent.second->message(), "hello");
  EXPECT_EQ(sent.second->messageType(), KQVisitorMessageTypeVisitor);
  EXPECT_EQ(sent.second->sender(), visitor);
  EXPECT_EQ(room->lastMessage(), sent.second);
  test::drainMainQueue();
  ASSERT_FALSE(updates.empty());
  EXPECT_EQ(updates.back(), std::make_pair(std::int64_t{KQRoomUpdateOwnMessage}, "hello"s));
  const auto insert = server.requests().back().target;
  EXPECT_NE(insert.find("/InsertChatMessage?parMessage=hello&parChatId=7&parUserId=0&"
                        "parAssignedUserId=42&parTimestamp="),
            std::string::npos)
      << insert;

  // A room that is not the session's current one sends with its own chat id.
  const auto other = std::make_shared<KQVisitorRoom>();
  other->setRoomId("8");
  server.enqueueResponse({200, R"("2")", "application/json; charset=utf-8", {}});
  EXPECT_TRUE(other->sendMessage("hi8"));
  ASSERT_EQ(refreshes.waitFor(1).size(), 1U);
  EXPECT_EQ(refreshes.events()[0].kind, "hi8");
  EXPECT_NE(server.requests().back().target.find("?parMessage=hi8&parChatId=8&"), std::string::npos)
      << server.requests().back().target;
  EXPECT_EQ(other->lastMessage()->message(), "hi8");

  // Closing with no current room makes no call; closeSession clears the room before leaving.
  const std::size_t before = server.requests().size();
  manager->closeSession();
  EXPECT_EQ(manager->getCurrentRoom(), nullptr);
  EXPECT_TRUE(room->messages().empty());
  const auto closed = run([&](auto callback) { manager->closeHTTPSession(std::move(callback)); });
  ASSERT_TRUE(closed.first);
  EXPECT_EQ(closed.first->domain, "Can not insert message");
  EXPECT_EQ(server.requests().size(), before);
}

// Lines go one at a time, in order: one that could not reach the service goes again, later,
// and holds back those after it; one that waits beyond the give-up time is given up.
TEST_F(KQVisitorRoomHTTPTest, TheOutboxRetriesUnreachedLinesInOrderAndGivesUpLateOnes) {
  std::vector<std::string> fates;
  const auto outbox =
      KQVisitorOutbox::make(room, [&](const auto& line, auto fate, const auto& /*error*/) {
        static const char* const kNames[] = {"sent", "delivered", "given up"};
        fates.push_back(line.text + ":" + kNames[fate]);
      });
  test::pointServicesAt("http://127.0.0.1:9");  // nothing listens there
  outbox->send("one");
  outbox->send("two");
  outbox->send("three");
  ASSERT_TRUE(test::runMainQueueUntil([&] {
    clock->advance(100ms);
    return fates.size() == 2U;
  })) << "the same line again, after a while";
  EXPECT_EQ(fates, (std::vector<std::string>{"one:sent", "one:sent"}));

  server.setDefaultResponse({200, R"({"response":"1"})", "application/json; charset=utf-8", {}});
  test::pointServicesAt(server.origin());
  ASSERT_TRUE(test::runMainQueueUntil([&] {
    clock->advance(500ms);
    return outbox->lines().empty();
  }));
  EXPECT_EQ(fates, (std::vector<std::string>{"one:sent", "one:sent", "one:sent", "one:delivered",
                                             "two:sent", "two:delivered", "three:sent",
                                             "three:delivered"}));
  std::vector<std::string> inserted;
  for (const auto& request : server.requests()) {
    const auto start = request.target.find("InsertChatMessage?");
    inserted.push_back(request.target.substr(start, request.target.find('&') - start));
  }
  EXPECT_EQ(inserted, (std::vector<std::string>{"InsertChatMessage?parMessage=one",
                                                "InsertChatMessage?parMessage=two",
                                                "InsertChatMessage?parMessage=three"}));

  fates.clear();
  test::pointServicesAt("http://127.0.0.1:9");
  outbox->setGiveUpAfter(10s);
  outbox->send("four");
  ASSERT_TRUE(test::runMainQueueUntil([&] {
    clock->advance(1s);
    return !outbox->lines().empty() && outbox->lines().front().sends >= 3;
  }));
  tick(10s);
  EXPECT_TRUE(outbox->lines().empty());
  EXPECT_EQ(fates.back(), "four:given up");
  EXPECT_FALSE(UserDefaults::standard().objectForKey("kqoutbox7")) << "nothing left to send";
  test::flushSharedWebService();  // the last try's answer finds nothing to send
  test::drainMainQueue();
  outbox->close();
}

}  // namespace
}  // namespace kq
