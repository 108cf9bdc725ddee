#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/HostApplication.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoster.h>
#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/FakeXMPPPeer.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/PostedNotifications.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

#include <any>

namespace kq {
namespace {

using test::FakeXMPPPeer;
using test::runMainQueueUntil;

// Records what the library asks of the host application.
struct RecordingHost : HostApplication {
  ApplicationState state = ApplicationState::Active;
  std::vector<std::shared_ptr<AlertView>> shown;
  std::vector<std::shared_ptr<AlertView>> dismissed;
  std::vector<LocalNotification> scheduled;
  std::vector<LocalNotification> presented;

  [[nodiscard]] ApplicationState applicationState() const override { return state; }
  void showAlert(const std::shared_ptr<AlertView>& alert) override { shown.push_back(alert); }
  void dismissAlert(const std::shared_ptr<AlertView>& alert, long /*buttonIndex*/,
                    bool /*animated*/) override {
    dismissed.push_back(alert);
  }
  void scheduleLocalNotification(const LocalNotification& notification) override {
    scheduled.push_back(notification);
  }
  void presentLocalNotificationNow(const LocalNotification& notification) override {
    presented.push_back(notification);
  }
};

class KQVisitorXMPPClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KQVisitorConfig config = KQVisitorConfig::shared();
    config.xmppHost = "127.0.0.1";
    config.xmppPort = peer.port();
    KQVisitorConfig::setShared(config);
    HostApplication::setShared(host);
    client = KQVisitorXMPPClient::createClient();
    stream = client->xmppStream();
    client->addStreamDelegate(events);
  }

  void TearDown() override {
    stream->disconnect();
    EXPECT_TRUE(runMainQueueUntil([&] { return stream->isDisconnected(); }));
    test::drainMainQueue();
    // Nothing of the stream outlives the test: its threads are gone before the next one.
    const std::weak_ptr<xmpp::XMPPStream> gone = stream;
    stream.reset();
    client.reset();
    EXPECT_TRUE(runMainQueueUntil([&] { return gone.expired(); }));
    HostApplication::setShared(nullptr);
  }

  static std::shared_ptr<KQVisitorUser> user(std::optional<std::string> id) {
    auto visitor = std::make_shared<KQVisitorUser>();
    visitor->setUserId(std::move(id));
    return visitor;
  }

  // Lets the client log in; returns once "ConnectNotification" was posted.
  void login(bool connectFirst = true) {
    if (connectFirst) {
      ASSERT_TRUE(client->connectUser(user("u1")));
    }
    const auto before = notifications.posted.size();
    ASSERT_TRUE(peer.openStream("ANONYMOUS"));
    peer.completeAuthentication("r4nd0m@localhost/TellioiPhone");
    ASSERT_TRUE(runMainQueueUntil([&] {
      return notifications.posted.size() >= before + 2 &&
             notifications.names().back() == "ConnectNotification";
    }));
  }

  // The outcome of each "LoginSuccess".
  [[nodiscard]] std::vector<bool> loginResults() const {
    std::vector<bool> results;
    for (const auto& notification : notifications.named("LoginSuccess")) {
      results.push_back(std::any_cast<bool>(notification.object));
    }
    return results;
  }

  FakeXMPPPeer peer;
  std::shared_ptr<RecordingHost> host = std::make_shared<RecordingHost>();
  std::shared_ptr<KQVisitorXMPPClient> client;
  std::shared_ptr<xmpp::XMPPStream> stream;
  std::shared_ptr<test::StreamEvents> events = std::make_shared<test::StreamEvents>();
  test::PostedNotifications notifications{"LoginSuccess", "ConnectNotification", "reloadData"};
};

TEST_F(KQVisitorXMPPClientTest, SetUpOnceWithTheConfiguredModules) {
  EXPECT_EQ(stream->startTLSPolicy(), xmpp::XMPPStreamStartTLSPolicy::Preferred);
  EXPECT_TRUE(stream->enableBackgroundingOnSocket());
  EXPECT_EQ(client->xmppReconnect()->reconnectTimerInterval().count(), 5.0);
  EXPECT_EQ(stream->registeredModules().size(), 5U);
  // A connection that dies silently is noticed, and reconnected (the stream's own tests).
  EXPECT_GT(stream->keepAliveInterval().count(), 0);
  EXPECT_GT(stream->keepAliveTimeout().count(), 0);
  EXPECT_GT(stream->negotiationTimeout().count(), 0);
  try {
    client->setupStream();
    ADD_FAILURE() << "a second setupStream must fail";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "Method setupStream invoked multiple times");
  }
}

TEST_F(KQVisitorXMPPClientTest, LoginPostsLoginSuccessThenConnectNotificationAndGoesOnline) {
  ASSERT_TRUE(client->connectUser(user("u1")));
  EXPECT_EQ(stream->myJID()->full(), "u1@localhost/TellioiPhone");
  // A second call while connecting leaves the connection alone.
  EXPECT_TRUE(client->connectUser(user("other")));
  EXPECT_EQ(stream->myJID()->full(), "u1@localhost/TellioiPhone");
  auto alert = std::make_shared<AlertView>();
  client->setLoadingAlert(alert);

  ASSERT_TRUE(peer.openStream("PLAIN ANONYMOUS"));
  const std::string request = peer.completeAuthentication("r4nd0m@localhost/TellioiPhone");
  EXPECT_NE(request.find("<resource>TellioiPhone</resource>"), std::string::npos);
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.posted.size() == 2; }));
  EXPECT_EQ(notifications.names(),
            (std::vector<std::string>{"LoginSuccess", "ConnectNotification"}));
  EXPECT_EQ(loginResults(), std::vector<bool>{true});
  EXPECT_TRUE(client->isXmppConnected());
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  EXPECT_EQ(stream->myJID()->full(), "r4nd0m@localhost/TellioiPhone");
  EXPECT_EQ(host->dismissed, std::vector<std::shared_ptr<AlertView>>{alert});
  EXPECT_FALSE(client->loadingAlert());
  // The roster is fetched and the visitor goes online (announcing capabilities); the two are
  // sent from different queues, in either order.
  std::string sent = peer.receiveUntil("</iq>");
  if (sent.find("</presence>") == std::string::npos) {
    sent += peer.receiveUntil("</presence>");
  }
  EXPECT_NE(sent.find("<query xmlns=\"jabber:iq:roster\"/>"), std::string::npos) << sent;
  EXPECT_NE(sent.find("<presence><c xmlns=\"http://jabber.org/protocol/caps\""), std::string::npos)
      << sent;

  // disconnect(): unavailable presence, then the stream closes; the stream object stays.
  client->disconnect();
  EXPECT_EQ(peer.receiveUntilClosed(), "<presence type=\"unavailable\"/></stream:stream>");
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  EXPECT_EQ(client->xmppStream(), stream);
  EXPECT_FALSE(client->isXmppConnected());
}

TEST_F(KQVisitorXMPPClientTest, RefusedLoginPostsOnlyLoginSuccessNo) {
  ASSERT_TRUE(client->connectUser(user("u1")));
  ASSERT_TRUE(peer.openStream("ANONYMOUS"));
  EXPECT_EQ(peer.receiveUntil("/>"),
            "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" mechanism=\"ANONYMOUS\"/>");
  peer.send("<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><not-authorized/></failure>");
  ASSERT_TRUE(runMainQueueUntil([&] { return notifications.posted.size() == 1; }));
  test::drainMainQueue();
  EXPECT_EQ(notifications.names(), std::vector<std::string>{"LoginSuccess"});
  EXPECT_EQ(loginResults(), std::vector<bool>{false});
  EXPECT_TRUE(client->isXmppConnected());
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  EXPECT_TRUE(host->shown.empty());
}

TEST_F(KQVisitorXMPPClientTest, WithoutAnonymousLoginNothingIsSentAndNothingPosted) {
  ASSERT_TRUE(client->connectUser(user(std::nullopt)));
  EXPECT_EQ(stream->myJID()->full(), "(null)@localhost/TellioiPhone");
  ASSERT_TRUE(peer.openStream("PLAIN"));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didConnect") == 1; }));
  EXPECT_TRUE(client->authenticateAnonymousUser());
  test::drainMainQueue();
  EXPECT_TRUE(notifications.posted.empty());
  stream->disconnect();
  EXPECT_EQ(peer.receiveUntilClosed(), "</stream:stream>");
}

TEST_F(KQVisitorXMPPClientTest, TwoFlagStateMachineThroughLossesAReconnectAndAFailedOne) {
  test::ManualClockScope clock;
  login();
  // A loss after a working connection clears isXmppConnected only; the reconnect logs in again.
  peer.closeConnection();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 1; }));
  EXPECT_FALSE(client->isXmppConnected());
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  clock->advance(std::chrono::seconds(3));
  login(false);
  EXPECT_EQ(loginResults(), (std::vector<bool>{true, true}));
  EXPECT_EQ(notifications.names(),
            (std::vector<std::string>{"LoginSuccess", "ConnectNotification", "LoginSuccess",
                                      "ConnectNotification"}));
  EXPECT_TRUE(client->isXmppConnected());
  auto alert = std::make_shared<AlertView>();
  client->setLoadingAlert(alert);

  // The next loss is again the first after a working connection.
  peer.closeConnection();
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 2; }));
  EXPECT_FALSE(client->isXmppConnected());
  EXPECT_FALSE(client->isxmppStreamDisconnected());
  EXPECT_TRUE(host->dismissed.empty());

  // The reconnect attempt fails: the stream is marked lost, the alert dismissed (and kept).
  peer.stopListening();
  clock->advance(std::chrono::seconds(3));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 3; }));
  EXPECT_FALSE(client->isXmppConnected());
  EXPECT_TRUE(client->isxmppStreamDisconnected());
  EXPECT_EQ(host->dismissed.size(), 1U);
  EXPECT_EQ(client->loadingAlert(), alert);
  // Further failures change nothing.
  clock->advance(std::chrono::seconds(5));
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didDisconnect") == 4; }));
  EXPECT_TRUE(client->isxmppStreamDisconnected());
  EXPECT_EQ(host->dismissed.size(), 1U);
}

TEST_F(KQVisitorXMPPClientTest, TLSPeerNameFollowsTheHostUnlessMismatchIsAllowed) {
  xmpp::XMPPTLSSettings settings;
  client->xmppStreamWillSecureWithSettings(*stream, settings);
  EXPECT_EQ(settings.peerNameCheck, xmpp::XMPPTLSSettings::PeerNameCheck::Name);
  EXPECT_EQ(settings.peerName, "127.0.0.1");

  stream->setHostName("");
  stream->setMyJID(xmpp::XMPPJID::jidWithString("u1@localhost/TellioiPhone"));
  settings = {};
  client->xmppStreamWillSecureWithSettings(*stream, settings);
  EXPECT_EQ(settings.peerName, "localhost");

  client->setAllowSSLHostNameMismatch(true);
  settings = {};
  client->xmppStreamWillSecureWithSettings(*stream, settings);
  EXPECT_EQ(settings.peerNameCheck, xmpp::XMPPTLSSettings::PeerNameCheck::None);
}

TEST_F(KQVisitorXMPPClientTest, ForcedLogoutStopsTheTimerAndDisconnectsTwiceWithoutFailing) {
  client->performForcefullLogout();  // no timer, not connected
  login();
  bool ticked = false;
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), std::chrono::hours(1), true,
                                     [&](Timer&) { ticked = true; });
  client->setTimerForQAScreen(timer);
  client->performForcefullLogout();
  EXPECT_FALSE(timer->isValid());
  EXPECT_FALSE(client->timerForQAScreen());
  EXPECT_NE(peer.receiveUntilClosed().find("<presence type=\"unavailable\"/>"), std::string::npos);
  EXPECT_FALSE(ticked);
}

TEST_F(KQVisitorXMPPClientTest, BuddyRequestsBecomeAnAlertOrANotification) {
  auto storage = client->xmppRosterStorage();
  storage->addOrUpdate(
      {*xmpp::XMPPJID::jidWithString("friend@localhost"), std::nullopt, "none", std::nullopt, {}});
  storage->addOrUpdate({*xmpp::XMPPJID::jidWithString("op@localhost"),
                        std::string("Operator"),
                        "none",
                        std::nullopt,
                        {}});
  const auto request = [](const std::string& from) {
    return xmpp::XMPPPresence(*xmpp::XMPPElement::elementWithXMLString(
        "<presence type='subscribe' from='" + from + "'/>"));
  };
  client->xmppRosterDidReceiveBuddyRequest(*client->xmppRoster(), request("friend@localhost"));
  client->xmppRosterDidReceiveBuddyRequest(*client->xmppRoster(), request("op@localhost"));
  client->xmppRosterDidReceiveBuddyRequest(*client->xmppRoster(), request("who@localhost"));
  ASSERT_EQ(host->shown.size(), 3U);
  EXPECT_EQ(host->shown[0]->title, "Corvane");
  EXPECT_EQ(host->shown[0]->message, "Buddy request from friend@localhost");
  EXPECT_EQ(host->shown[0]->cancelButtonTitle, "Not implemented");
  EXPECT_TRUE(host->shown[0]->otherButtonTitles.empty());
  EXPECT_EQ(host->shown[1]->message, "Buddy request from Operator <op@localhost>");
  EXPECT_EQ(host->shown[2]->message, "Buddy request from (null) <who@localhost>");

  host->state = ApplicationState::Background;
  client->xmppRosterDidReceiveBuddyRequest(*client->xmppRoster(), request("op@localhost"));
  ASSERT_EQ(host->presented.size(), 1U);
  EXPECT_EQ(host->presented[0].alertAction, "Not implemented");
  EXPECT_EQ(host->presented[0].alertBody, "Buddy request from Operator <op@localhost>");
  EXPECT_FALSE(host->presented[0].fireDate);
}

TEST_F(KQVisitorXMPPClientTest, LocalNotificationCarriesTheBadgeAndFiresOneSecondLater) {
  host->setApplicationIconBadgeNumber(2);
  client->performLoacalNotification(true);
  EXPECT_TRUE(host->scheduled.empty());
  const double before = Date::now().timeIntervalSince1970();
  client->performLoacalNotification(false);
  const double after = Date::now().timeIntervalSince1970();
  ASSERT_EQ(host->scheduled.size(), 1U);
  const auto& notification = host->scheduled[0];
  EXPECT_EQ(notification.applicationIconBadgeNumber, 2);
  EXPECT_EQ(notification.alertAction, "Launch");
  EXPECT_EQ(notification.alertBody, "New Message Received");
  EXPECT_TRUE(notification.hasAction);
  EXPECT_FALSE(notification.soundName);
  ASSERT_TRUE(notification.fireDate);
  EXPECT_GE(notification.fireDate->timeIntervalSince1970(), before + 1.0);
  EXPECT_LE(notification.fireDate->timeIntervalSince1970(), after + 1.0);
  client->setBadgeCount(3);
  client->performLoacalNotification(false);
  EXPECT_EQ(host->scheduled.at(1).applicationIconBadgeNumber, 5);
}

// (That a removal with a room id asks for a reload is the room's test of being destroyed.)
TEST_F(KQVisitorXMPPClientTest, IdleRoomRemovalNeedsARoomId) {
  EXPECT_THROW(client->removeIdleRooms(Notification{"removeIdleRooms", {}, nullptr, nullptr}),
               std::invalid_argument);
  EXPECT_TRUE(notifications.posted.empty());
}

}  // namespace
}  // namespace kq
