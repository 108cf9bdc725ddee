#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>

#include "tests/support/LogCapture.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/PostedNotifications.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kq {
namespace {

using namespace std::chrono_literals;

// One update as a callback saw it.
struct Update {
  std::int64_t status;
  std::any object;
};

// A room of a website, on an XMPPRoom that is not on any stream, filed as the session's current
// room, with a callback that records every update.
class KQVisitorRoomTest : public ::testing::Test {
 protected:
  void SetUp() override {
    visitor->setUserId("v1");
    visitor->setUsername("Ann");
    KQVisitorWebService::sharedInstance().setCurrentUser(visitor);
    website->setSiteId("W1");
    manager->setKqWebsite(website);
    KQVisitorXMPPClient::instance().setSitesManager(manager);
    room->setRoomId("7");
    room->setSite(website);
    room->setXmppRoom(xmppRoom);
    room->setOperatorId("42");
    room->setGreetingMessage("Hello, how can I help?");
    website->rooms()->setObject(room, "currentRoom");
    room->addRoomUpdatesCallBack(recorder);
  }

  void TearDown() override {
    KQVisitorXMPPClient::instance().setSitesManager(nullptr);
    KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
    test::drainMainQueue();
  }

  // A chat packet as the room reflects it: written by the operator's or the visitor's client,
  // read from the stream (in the client namespace, from the room).
  static xmpp::XMPPMessage packet(const std::string& text, const std::string& userId,
                                  const std::string& managerId, const std::string& name) {
    std::string written =
        makeKQVisitorMessage(*xmpp::XMPPJID::jidWithString("room7@conference.localhost"), text,
                             userId, "W1", managerId, name, "7")
            .XMLString();
    written.replace(0, 8, "<message xmlns=\"jabber:client\" from=\"room7@conference.localhost/x\"");
    const auto read = xmpp::XMPPElement::elementWithXMLString(written);
    EXPECT_TRUE(read) << written;
    return xmpp::XMPPMessage(*read);
  }

  void receive(const xmpp::XMPPMessage& message) {
    room->xmppRoomDidReceiveMessage(*xmppRoom, message,
                                    *xmpp::XMPPJID::jidWithString("room7@conference.localhost/x"));
  }

  std::vector<std::int64_t> statuses() const {
    std::vector<std::int64_t> result;
    for (const auto& update : updates) {
      result.push_back(update.status);
    }
    return result;
  }

  std::shared_ptr<KQVisitorUser> visitor = std::make_shared<KQVisitorUser>();
  std::shared_ptr<KQVisitorSite> website = std::make_shared<KQVisitorSite>();
  std::shared_ptr<KQVisitorSitesManager> manager = std::make_shared<KQVisitorSitesManager>();
  std::shared_ptr<xmpp::XMPPRoom> xmppRoom = std::make_shared<xmpp::XMPPRoom>(
      xmpp::XMPPRoomMemoryStorage::sharedInstance(),
      *xmpp::XMPPJID::jidWithString("room7@conference.localhost"), DispatchQueue::main());
  std::shared_ptr<KQVisitorRoom> room = std::make_shared<KQVisitorRoom>();
  std::vector<Update> updates;
  KQVisitorRoom::RoomUpdatesCallbackRef recorder =
      std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
          [this](std::any object, std::int64_t status) {
            updates.push_back({status, std::move(object)});
          });
};

TEST_F(KQVisitorRoomTest, CallbacksAreKeptOnceAndALateChangeCountsFromTheNextUpdate) {
  room->addRoomUpdatesCallBack(recorder);  // the same object again
  int lateCalls = 0;
  const auto late = std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
      [&](std::any, std::int64_t) { ++lateCalls; });
  const auto adder = std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
      [&](std::any, std::int64_t) { room->addRoomUpdatesCallBack(late); });
  room->addRoomUpdatesCallBack(adder);
  room->sendRoomUpdatesWithStatus(KQRoomUpdateJoining, {});
  EXPECT_EQ(statuses(), std::vector<std::int64_t>{4}) << "a callback added twice runs once";
  EXPECT_EQ(lateCalls, 0) << "a callback added during an update waits for the next";
  room->removeRoomUpdateCallback(recorder);
  room->sendRoomUpdatesWithStatus(KQRoomUpdateJoining, {});
  EXPECT_EQ(updates.size(), 1U);
  EXPECT_EQ(lateCalls, 1);
}

TEST_F(KQVisitorRoomTest, MessageTypesIgnoredTextsAndTheInvitationText) {
  EXPECT_EQ(KQVisitorRoom::getMessageType("99", "0"), 1);
  EXPECT_EQ(KQVisitorRoom::getMessageType("12", "12"), 4);
  EXPECT_EQ(KQVisitorRoom::getMessageType("-1", "12"), 2);
  EXPECT_EQ(KQVisitorRoom::getMessageType("7", "12"), 3);
  EXPECT_EQ(KQVisitorRoom::getMessageType("7", "abc"), 1);
  EXPECT_EQ(KQVisitorRoom::getMessageType(std::nullopt, std::nullopt), 1);
  // Which texts are ignored, exactly: XMPPMessageKQVisitorTest.
  EXPECT_TRUE(KQVisitorRoom::ignoreMessage("[LockChat]"));
  EXPECT_FALSE(KQVisitorRoom::ignoreMessage("[destroy room]"));

  EXPECT_EQ(room->getReasonPacket(), "7|W1|v1|Ann|Ann|Hello, how can I help?");
  room->setGreetingMessage(std::nullopt);
  KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
  EXPECT_EQ(room->getReasonPacket(), "7|W1|(null)|(null)|(null)|(null)");

  EXPECT_EQ(room->lastChatMessageData(),
            (nlohmann::ordered_json{{"image", "avatar.png"}, {"message", ""}, {"sender", ""}}));
}

TEST_F(KQVisitorRoomTest, JoinEventsFollowTheFlagsAndARejoinKeepsTheTranscript) {
  room->addRoomOcuupant("42", [] {
    auto op = std::make_shared<KQVisitorUser>();
    op->setUsername("Omar");
    return op;
  }());
  room->xmppRoomDidJoin(*xmppRoom);
  ASSERT_EQ(statuses(), std::vector<std::int64_t>{KQRoomUpdateJoined});
  EXPECT_EQ(std::any_cast<std::shared_ptr<KQVisitorRoom>>(updates[0].object), room);
  EXPECT_TRUE(room->isRoomJoined());
  ASSERT_EQ(room->messages().size(), 1U);
  EXPECT_EQ(room->lastChatMessageData()["sender"], "Omar");

  room->addMessage(std::make_shared<KQVisitorMessage>());
  room->xmppRoomDidLeave(*xmppRoom);
  EXPECT_TRUE(room->isRoomJoininng());
  EXPECT_TRUE(room->isRoomJoined()) << "leaving does not clear joined";
  room->xmppRoomDidJoin(*xmppRoom);
  room->xmppRoomDidCreate(*xmppRoom);
  EXPECT_EQ(updates.size(), 1U) << "no second status 0 while joined";
  ASSERT_EQ(room->messages().size(), 2U) << "the same room again: the transcript stays";
  EXPECT_EQ(room->messages()[0]->message(), "Hello, how can I help?");
  EXPECT_FALSE(room->isRoomJoininng());

  const auto otherChat = std::make_shared<xmpp::XMPPRoom>(
      xmpp::XMPPRoomMemoryStorage::sharedInstance(),
      *xmpp::XMPPJID::jidWithString("room8@conference.localhost"), DispatchQueue::main());
  room->setXmppRoom(otherChat);
  room->xmppRoomDidJoin(*otherChat);
  EXPECT_EQ(room->messages().size(), 1U) << "another chat starts with the greeting";
}

TEST_F(KQVisitorRoomTest, ReceivedMessagesAreTypedStoredCountedAndAnnounced) {
  room->xmppRoomDidJoin(*xmppRoom);  // the greeting
  updates.clear();
  const test::PostedNotifications firstMessage{"RoomStatusFirstMessage"};

  // A nick change rewrites the cached visitor record only: no line, no update.
  auto& defaults = UserDefaults::standard();
  defaults.setObject({{"V_N", "Ann"}, {"V_E", "ann@example.com"}}, "V_Inf:W1");
  receive(packet("[NICKCHANGE]", "0", "0", "Annie"));
  EXPECT_EQ(visitor->username(), "Annie");
  EXPECT_EQ(defaults.dictionaryForKey("V_Inf:W1"),
            (nlohmann::ordered_json{{"V_N", "Annie"}, {"V_E", "ann@example.com"}}));
  defaults.removeObjectForKey("V_Inf:W1");

  receive(packet("Hi, I am Omar", "42", "42", "Omar"));  // the operator: type 4
  receive(packet("my question", "0", "0", "Ann B"));     // the visitor's echo: type 1
  receive(packet("a colleague", "9", "42", "Sam"));      // another participant: type 3
  receive(packet("from nowhere", "-3", "42", "ghost"));  // dropped: type 2
  receive(packet("This room is not anonymous.", "42", "42", "Omar"));  // dropped: ignored

  ASSERT_EQ(firstMessage.posted.size(), 1U) << "only the first message after the greeting";
  EXPECT_EQ(std::any_cast<std::shared_ptr<KQVisitorRoom>>(firstMessage.posted[0].object), room);
  const auto messages = room->messages();
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[0]->timeStamp(), messages[1]->timeStamp()) << "greeting takes its time";
  EXPECT_EQ(messages[1]->messageType(), KQVisitorMessageTypeOperator);
  EXPECT_EQ(messages[1]->sender()->username(), "Omar");
  EXPECT_EQ(room->roomOcuupants().at("42")->username(), "Omar");
  EXPECT_EQ(messages[2]->messageType(), KQVisitorMessageTypeVisitor);
  EXPECT_EQ(messages[2]->sender(), visitor) << "the visitor's own echo is the current user";
  EXPECT_EQ(visitor->username(), "Ann B");
  EXPECT_EQ(messages[3]->messageType(), KQVisitorMessageTypeParticipant);
  EXPECT_EQ(messages[3]->sender(), nullptr);
  EXPECT_EQ(room->unreadMessagesCount(), 3);
  ASSERT_EQ(statuses(), (std::vector<std::int64_t>{3, 13, 3}));
  EXPECT_EQ(std::any_cast<std::shared_ptr<KQVisitorMessage>>(updates[1].object), messages[2]);
}

TEST_F(KQVisitorRoomTest, AnErrorMessageMakesTheRoomJoinAgain) {
  const auto error = xmpp::XMPPElement::elementWithXMLString(
      "<message xmlns='jabber:client' type='error' from='room7@conference.localhost'>"
      "<body>hi</body><error type='cancel'>"
      "<not-acceptable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></message>");
  ASSERT_TRUE(error);
  receive(xmpp::XMPPMessage(*error));
  EXPECT_EQ(statuses(), (std::vector<std::int64_t>{KQRoomUpdateJoining, KQRoomUpdateRejoining}));
  EXPECT_TRUE(room->messages().empty());
}

TEST_F(KQVisitorRoomTest, ADestroyedRoomClosesItsSiteAndIsRemovedFourSecondsLater) {
  test::ManualClockScope clock;
  const auto other = std::make_shared<KQVisitorRoom>();
  website->rooms()->setObject(other, "other");
  manager->joinRoom(room);
  const test::PostedNotifications idle{"removeIdleRooms", "reloadData"};
  test::LogCapture log;

  receive(packet("[destroy room]", "0", "0", "Ann"));  // even from the visitor's own name
  EXPECT_TRUE(log.contains("Room Destroy KQVisitorRoom"));
  EXPECT_TRUE(room->isRoomDestroyed());
  EXPECT_EQ(room->isRoomExist(), "NO");
  ASSERT_FALSE(room->messages().empty());
  EXPECT_EQ(room->lastMessage()->message(), "Left the conversation");
  EXPECT_EQ(room->lastMessage()->messageType(), KQVisitorMessageTypeOperator);
  EXPECT_EQ(statuses(), std::vector<std::int64_t>{KQRoomUpdateDestroyed});
  EXPECT_EQ(room->site(), nullptr);
  EXPECT_FALSE(room->isRoomJoined());
  EXPECT_EQ(website->rooms()->count(), 0U) << "every room of the site is forgotten";
  EXPECT_TRUE(manager->allRooms().empty());
  EXPECT_FALSE(room->sendMessage("still there?")) << "a destroyed room sends nothing";

  clock->advance(3900ms);
  test::drainMainQueue();
  EXPECT_TRUE(idle.posted.empty());
  clock->advance(100ms);
  test::drainMainQueue();
  const auto removals = idle.named("removeIdleRooms");
  ASSERT_EQ(removals.size(), 1U);
  EXPECT_EQ(removals[0].userInfo, (nlohmann::ordered_json{{"roomId", "7"}}))
      << "the site was cleared";
  EXPECT_EQ(idle.count("reloadData"), 1)
      << "the client removes the idle room and asks for a reload";
}

TEST_F(KQVisitorRoomTest, SendingNeedsAConnectedStreamUnlessTheRoomIsAnHTTPRoom) {
  EXPECT_FALSE(room->sendMessage("hello")) << "its stream is not connected";
  // An HTTP room answers yes at once, even when the service cannot be reached.
  test::pointServicesAt("http://127.0.0.1:" + std::to_string(test::unusedPort()));
  room->setXmppRoom(nullptr);
  EXPECT_TRUE(room->isHttpRoom());
  EXPECT_TRUE(room->sendMessage("over HTTP"));
  KQVisitorConfig::setShared(KQVisitorConfig());
}

}  // namespace
}  // namespace kq
