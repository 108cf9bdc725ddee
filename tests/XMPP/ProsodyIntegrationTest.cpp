// The XMPP client and the chat packet against a real Prosody on loopback.

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPQueue.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/ProsodyOperator.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

#include <any>

namespace kq {
namespace {

using test::Operator;
using test::ProsodyServer;
using test::runMainQueueUntil;
using xmpp::XMPPJID;

// The client's notifications in order, a login's with its outcome ("LoginSuccess true").
class Notifications {
 public:
  Notifications() {
    for (const char* name : {"LoginSuccess", "ConnectNotification"}) {
      tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
          name, [this](const Notification& notification) {
            names.push_back(notification.name);
            if (notification.name == "LoginSuccess") {
              names.back() += std::any_cast<bool>(notification.object) ? " true" : " false";
            }
          }));
    }
  }
  ~Notifications() {
    for (const auto token : tokens_) {
      NotificationCenter::defaultCenter().removeObserver(token);
    }
  }
  Notifications(const Notifications&) = delete;
  Notifications& operator=(const Notifications&) = delete;

  [[nodiscard]] int count(const std::string& name) const {
    return static_cast<int>(std::count(names.begin(), names.end(), name));
  }

  std::vector<std::string> names;

 private:
  std::vector<NotificationCenter::Token> tokens_;
};

std::shared_ptr<KQVisitorUser> visitor(const std::string& id) {
  auto user = std::make_shared<KQVisitorUser>();
  user->setUserId(id);
  user->setUsername("Ann");
  return user;
}

class ProsodyTest : public ::testing::Test {
 protected:
  void startServer(ProsodyServer::Options options = {}) {
    options.accounts["42"] = "secret";
    server = std::make_unique<ProsodyServer>(options);
    KQVisitorConfig config = KQVisitorConfig::shared();
    config.xmppHost = "127.0.0.1";
    config.xmppPort = server->port();
    config.caFile = server->caFile();
    KQVisitorConfig::setShared(config);
    client = KQVisitorXMPPClient::createClient();
    client->addStreamDelegate(events);
  }

  void TearDown() override {
    if (client) {
      client->disconnect();
      runMainQueueUntil([&] { return client->xmppStream()->isDisconnected(); });
      const std::weak_ptr<xmpp::XMPPStream> gone = client->xmppStream();
      client.reset();
      EXPECT_TRUE(runMainQueueUntil([&] { return gone.expired(); }));
    }
    server.reset();
  }

  void loginVisitor() {
    ASSERT_TRUE(client->connectUser(visitor("u1")));
    ASSERT_TRUE(runMainQueueUntil([&] { return notifications.count("ConnectNotification") == 1; }))
        << (events->disconnectError ? events->disconnectError->description() : "");
  }

  // Joins room<chatId> as the product does and submits the default configuration once the
  // server reports the room created.
  std::shared_ptr<xmpp::XMPPRoom> createRoom(const std::string& chatId,
                                             const std::shared_ptr<test::RoomEvents>& roomEvents) {
    auto room = std::make_shared<xmpp::XMPPRoom>(
        xmpp::XMPPRoomMemoryStorage::sharedInstance(),
        *XMPPJID::jidWithString("room" + chatId + "@conference.localhost"), DispatchQueue::main());
    room->activate(client->xmppStream());
    room->addDelegate(roomEvents, DispatchQueue::main());
    room->addDelegate(client, DispatchQueue::main());
    room->joinRoomUsingNickname("Ann", std::nullopt);
    EXPECT_TRUE(runMainQueueUntil([&] { return roomEvents->count("didJoin") == 1; }));
    EXPECT_EQ(roomEvents->count("didCreate"), 1);
    room->configureRoomUsingOptions(std::nullopt);
    EXPECT_TRUE(runMainQueueUntil([&] { return roomEvents->count("didConfigure") == 1; }));
    return room;
  }

  std::unique_ptr<ProsodyServer> server;
  std::shared_ptr<KQVisitorXMPPClient> client;
  std::shared_ptr<test::StreamEvents> events = std::make_shared<test::StreamEvents>();
  Notifications notifications;
};

// Without TLS; the other tests log in over STARTTLS.
TEST_F(ProsodyTest, VisitorLogsInAnonymouslyAndTakesTheBoundAddress) {
  ProsodyServer::Options options;
  options.tls = false;
  startServer(options);
  loginVisitor();
  EXPECT_EQ(notifications.names,
            (std::vector<std::string>{"LoginSuccess true", "ConnectNotification"}));
  const auto stream = client->xmppStream();
  EXPECT_FALSE(stream->isSecure());
  EXPECT_EQ(events->count("didSecure"), 0);
  const auto me = stream->myJID();
  ASSERT_TRUE(me);
  EXPECT_NE(me->user(), "u1");  // the server picked the node
  EXPECT_EQ(me->domain(), "localhost");
  EXPECT_EQ(me->resource(), "TellioiPhone");
  EXPECT_TRUE(client->isXmppConnected());

  client->disconnect();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  EXPECT_FALSE(events->disconnectError);
}

TEST_F(ProsodyTest, ACertificateForAnotherHostIsRefused) {
  ProsodyServer::Options options;
  options.certificateNames = {"wronghost.example"};
  startServer(options);
  ASSERT_TRUE(client->connectUser(visitor("u1")));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  ASSERT_TRUE(events->disconnectError);
  EXPECT_EQ(events->disconnectError->code, xmpp::XMPPStream::kErrorTLS);
  EXPECT_EQ(events->count("didConnect"), 0);
  EXPECT_TRUE(notifications.names.empty());
  EXPECT_FALSE(client->isXmppConnected());
  EXPECT_TRUE(client->isxmppStreamDisconnected());

  // With the name check off, the same certificate (signed by a trusted authority) passes.
  client->setAllowSSLHostNameMismatch(true);
  loginVisitor();
  EXPECT_TRUE(client->xmppStream()->isSecure());
  EXPECT_EQ(events->count("didSecure"), 1);
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  client->disconnect();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 2; }));
  EXPECT_FALSE(events->disconnectError) << "a secure stream ends cleanly";
}

TEST_F(ProsodyTest, ChatPacketAndInvitationKeepEveryFieldThroughTheServer) {
  startServer();
  loginVisitor();
  Operator agent(*server);
  ASSERT_TRUE(agent.login());
  auto roomEvents = std::make_shared<test::RoomEvents>();
  auto room = createRoom("1002", roomEvents);
  sendKQVisitorInvite(room, "1002|W9|7|Ann|x|Welcome to the chat", "0", "W9", "0", "Ann", "1002",
                      "42");
  ASSERT_TRUE(runMainQueueUntil([&] { return !agent.events->messages.empty(); }));
  const auto& invitation = agent.events->messages.front();
  EXPECT_EQ(invitation.from()->bare(), "room1002@conference.localhost");
  EXPECT_EQ(chatId(invitation), "1002");
  EXPECT_EQ(websiteId(invitation), "W9");
  EXPECT_EQ(visitorId(invitation), "7");
  EXPECT_EQ(visitorName(invitation), "Ann");
  EXPECT_FALSE(managerId(invitation));
  EXPECT_EQ(greeting(invitation), "Welcome to the chat");

  sendKQVisitorMessage(room, "Hello & <welcome> \"friend\"", "0", "W9", "0", "Ann & \"Bo\" <b>",
                       "1002");
  const xmpp::XMPPMessage* reflected = nullptr;
  ASSERT_TRUE(runMainQueueUntil([&] {
    for (const auto& message : roomEvents->messages) {
      if (message.attributeStringValueForName("custom_packet") == "true") {
        reflected = &message;
      }
    }
    return reflected != nullptr;
  }));
  EXPECT_EQ(kqChatMessage(*reflected), "Hello & <welcome> \"friend\"");
  EXPECT_EQ(chatId(*reflected), "1002");
  EXPECT_EQ(websiteId(*reflected), "W9");
  EXPECT_EQ(visitorId(*reflected), "0");
  EXPECT_EQ(visitorName(*reflected), "Ann & \"Bo\" <b>");
  EXPECT_EQ(managerId(*reflected), "0");
  EXPECT_TRUE(isGroupChat(*reflected));
  EXPECT_FALSE(isErrorMessage(*reflected));
  EXPECT_FALSE(ignoreMessage(*reflected));
  const auto stamp = getTimeStamp(*reflected);
  ASSERT_TRUE(stamp);
  EXPECT_LT(std::abs(stamp->timeIntervalSince1970() - Date::now().timeIntervalSince1970()), 120.0);
  EXPECT_EQ(roomEvents->occupants.back().full(), "room1002@conference.localhost/Ann");
  room->deactivate();
}

TEST_F(ProsodyTest, TheOperatorJoinsTheCreatedRoomSeesChatStatesAndLeavesWhenItIsDestroyed) {
  startServer();
  loginVisitor();
  auto roomEvents = std::make_shared<test::RoomEvents>();
  auto room = createRoom("1004", roomEvents);
  EXPECT_TRUE(room->isJoined());
  Operator agent(*server);
  ASSERT_TRUE(agent.login());
  auto operatorEvents = std::make_shared<test::RoomEvents>();
  auto operatorRoom = agent.joinRoom(room->roomJID(), operatorEvents);
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorEvents->count("didJoin") == 1; }));
  EXPECT_EQ(operatorEvents->count("didCreate"), 0);  // the room existed and was unlocked

  sendComposingChatState(room);
  ASSERT_TRUE(runMainQueueUntil([&] {
    return std::any_of(agent.events->messages.begin(), agent.events->messages.end(),
                       [](const auto& message) { return message.chatState() == "composing"; });
  }));
  EXPECT_EQ(operatorEvents->count("didReceiveMessage"), 0);  // no body: no room message

  room->destroyRoom();
  ASSERT_TRUE(runMainQueueUntil([&] { return roomEvents->count("didDestroy") == 1; }));
  ASSERT_TRUE(runMainQueueUntil([&] { return operatorEvents->count("didLeave") == 1; }));
  EXPECT_FALSE(operatorRoom->isJoined());
  operatorRoom->deactivate();
  room->deactivate();
}

TEST_F(ProsodyTest, AServerThatRestartsOrStopsAnsweringIsTriedAgainUntilItAnswers) {
  test::ManualClockScope clock;
  startServer();
  loginVisitor();
  const auto stream = client->xmppStream();
  const auto seconds = [](xmpp::XMPPStream::Seconds value) {
    return std::chrono::duration_cast<Clock::Duration>(value);
  };

  // A restart closes the stream; the visitor logs in again once the server is back.
  server->stop();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  EXPECT_FALSE(client->isXmppConnected());
  server->start();
  clock->advance(std::chrono::seconds(3));
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.count("ConnectNotification") == 2; }));
  EXPECT_EQ(notifications.names,
            (std::vector<std::string>{"LoginSuccess true", "ConnectNotification",
                                      "LoginSuccess true", "ConnectNotification"}));
  EXPECT_TRUE(stream->isAuthenticated());
  EXPECT_TRUE(client->isXmppConnected());

  // The server freezes: the connection looks open, but a ping after a quiet interval goes
  // unanswered. What the server sent just before (answers to the login's requests, its own
  // queries) may still be on its way through a slow stream after the freeze, and each piece
  // read restarts the quiet interval; so the clock moves a whole interval and a ping time-out
  // at a time until the stream has read everything and gives up.
  server->pause();
  const auto giveUp = std::chrono::steady_clock::now() + test::kPatience;
  while (events->count("didDisconnect") == 1 && std::chrono::steady_clock::now() < giveUp) {
    clock->advance(seconds(stream->keepAliveInterval()));
    test::flushQueue(xmpp::detail::XMPPQueues::of(*stream));
    clock->advance(seconds(stream->keepAliveTimeout()));
    test::flushQueue(xmpp::detail::XMPPQueues::of(*stream));
  }
  ASSERT_EQ(events->count("didDisconnect"), 2);
  EXPECT_EQ(events->disconnectError->code, xmpp::XMPPStream::kErrorKeepAliveTimeout);

  // The reconnect reaches the frozen server, which accepts (the kernel does) and says nothing.
  clock->advance(std::chrono::seconds(3));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("socketDidConnect") == 3; }));
  clock->advance(seconds(stream->negotiationTimeout()));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 3; }));
  EXPECT_EQ(events->disconnectError->code, xmpp::XMPPStream::kErrorConnectTimeout);

  // Reconnecting goes on: once the server answers again, the visitor is back.
  server->resume();
  clock->advance(std::chrono::seconds(5));
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.count("ConnectNotification") == 3; }));
  EXPECT_TRUE(stream->isAuthenticated());
}

}  // namespace
}  // namespace kq
