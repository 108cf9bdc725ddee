// The XMPP client and the chat room against a real Prosody on loopback, over STARTTLS.

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/MainQueue.h"
#include "tests/support/PostedNotifications.h"
#include "tests/support/ProsodyOperator.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using test::runMainQueueUntil;

// The client trusts the authority of the server's certificate.
class ProsodyTest : public ::testing::Test {
 protected:
  void start(const std::vector<std::string>& certificateNames) {
    test::ProsodyServer::Options options;
    options.certificateNames = certificateNames;
    options.accounts["42"] = "secret";
    server = std::make_unique<test::ProsodyServer>(options);
    KQVisitorConfig config = KQVisitorConfig::shared();
    config.xmppHost = "127.0.0.1";
    config.xmppPort = server->port();
    config.caFile = server->caFile();
    KQVisitorConfig::setShared(config);
    client = KQVisitorXMPPClient::createClient();
    client->addStreamDelegate(events);
    visitor->setUserId("u1");
    visitor->setUsername("Ann");
  }

  void TearDown() override {
    if (!client) {
      return;
    }
    client->disconnect();
    runMainQueueUntil([&] { return client->xmppStream()->isDisconnected(); });
    const std::weak_ptr<xmpp::XMPPStream> gone = client->xmppStream();
    client.reset();
    EXPECT_TRUE(runMainQueueUntil([&] { return gone.expired(); }));
    server.reset();
    KQVisitorConfig::setShared(KQVisitorConfig());
  }

  std::unique_ptr<test::ProsodyServer> server;
  std::shared_ptr<KQVisitorXMPPClient> client;
  std::shared_ptr<KQVisitorUser> visitor = std::make_shared<KQVisitorUser>();
  std::shared_ptr<test::StreamEvents> events = std::make_shared<test::StreamEvents>();
  test::PostedNotifications notifications{"LoginSuccess", "ConnectNotification"};
};

TEST_F(ProsodyTest, ACertificateForAnotherHostIsRefusedUnlessAMismatchIsAllowed) {
  start({"wronghost.example"});
  ASSERT_TRUE(client->connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  ASSERT_TRUE(events->disconnectError);
  EXPECT_EQ(events->disconnectError->code, xmpp::XMPPStream::kErrorTLS);
  EXPECT_EQ(events->count("didConnect"), 0);
  EXPECT_TRUE(notifications.posted.empty());
  EXPECT_FALSE(client->isXmppConnected());
  EXPECT_TRUE(client->isxmppStreamDisconnected());

  // With the name check off, the same certificate (signed by a trusted authority) passes.
  client->setAllowSSLHostNameMismatch(true);
  ASSERT_TRUE(client->connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.count("ConnectNotification") == 1; }))
      << (events->disconnectError ? events->disconnectError->description() : "");
  EXPECT_TRUE(client->xmppStream()->isSecure());
  EXPECT_EQ(events->count("didSecure"), 1);
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  client->disconnect();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 2; }));
  EXPECT_FALSE(events->disconnectError) << "a secure stream ends cleanly";
}

// The visitor's room, created and configured as the product does, is open to the operator;
// chat states reach the operator, and a destroyed room leaves it.
TEST_F(ProsodyTest, TheOperatorJoinsTheCreatedRoomSeesChatStatesAndLeavesWhenItIsDestroyed) {
  start({"127.0.0.1", "localhost"});
  ASSERT_TRUE(client->connectUser(visitor));
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.count("ConnectNotification") == 1; }));
  auto roomEvents = std::make_shared<test::RoomEvents>();
  auto room = std::make_shared<xmpp::XMPPRoom>(
      xmpp::XMPPRoomMemoryStorage::sharedInstance(),
      *xmpp::XMPPJID::jidWithString("room1004@conference.localhost"), DispatchQueue::main());
  room->activate(client->xmppStream());
  room->addDelegate(roomEvents, DispatchQueue::main());
  room->addDelegate(client, DispatchQueue::main());
  room->joinRoomUsingNickname("Ann", std::nullopt);
  ASSERT_TRUE(runMainQueueUntil([&] { return roomEvents->count("didJoin") == 1; }));
  EXPECT_EQ(roomEvents->count("didCreate"), 1);
  room->configureRoomUsingOptions(std::nullopt);
  ASSERT_TRUE(runMainQueueUntil([&] { return roomEvents->count("didConfigure") == 1; }));
  test::Operator agent(*server);
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

}  // namespace
}  // namespace kq
