#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

namespace kq {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using test::RecordingHTTPServer;

// What a launch or a chat start answered.
struct Answer {
  std::optional<KQError> error;
  Json result;
  bool joined = false;
};

// The bootstrap of a new sites manager against a scripted JSON service on loopback. The web
// service carries the chat over HTTP here, so logging the visitor in opens no XMPP connection.
class KQVisitorSitesManagerFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::pointServicesAt(server.origin());
    KQVisitorWebService::sharedInstance().setIsHTTPClient(true);
    KQVisitorWebService::sharedInstance().setCurrentUser(std::make_shared<KQVisitorUser>());
    KQVisitorXMPPClient::instance().setSitesManager(manager);
    manager->setPreferredLanguage("en");
    manager->setWebsiteDomainNameEnglish("shop.example");
    UserDefaults::standard().removeObjectForKey("d_time");
    UserDefaults::standard().removeObjectForKey("V_Inf:12");
  }

  void TearDown() override {
    KQVisitorXMPPClient::instance().setSitesManager(nullptr);
    KQVisitorWebService::sharedInstance().setCurrentUser(nullptr);
    KQVisitorWebService::sharedInstance().setIsHTTPClient(false);
    KQVisitorConfig::setShared(KQVisitorConfig());
  }

  void script(const std::vector<std::string>& bodies) {
    for (const auto& body : bodies) {
      server.enqueueResponse({200, body, "application/json; charset=utf-8", {}});
    }
  }

  // Calls `call` with a callback and waits for its answer.
  template <class Call>
  static Answer answerOf(Call call) {
    std::promise<Answer> done;
    call([&](std::optional<KQError> error, Json result, bool joined = false) {
      done.set_value({std::move(error), std::move(result), joined});
    });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(test::kPatience), std::future_status::ready);
    return future.get();
  }

  Answer launch() {
    return answerOf([&](auto callback) { manager->visitorPanelWithResult(callback); });
  }

  // The services called so far, in order, each with its query.
  std::vector<std::string> calls() const {
    std::vector<std::string> result;
    for (const auto& request : server.requests()) {
      result.push_back(request.target.substr(request.target.rfind('/') + 1));
    }
    return result;
  }

  static std::string service(const std::string& call) { return call.substr(0, call.find('?')); }

  // The polls of chat `chatId` the server has seen.
  std::size_t polls(const std::string& chatId = "77") const {
    const auto all = calls();
    return std::count_if(all.begin(), all.end(), [&](const std::string& call) {
      return call.starts_with("GetChatMessagesAlt?parChatId=" + chatId + "&");
    });
  }

  // Moves the clock on, runs the timers due, and waits until the service has taken every
  // request they made.
  static void tick(test::ManualClockScope& clock, Clock::Duration by) {
    clock->advance(by);
    test::drainMainQueue();
    test::flushSharedWebService();
  }

  static inline const std::string kWebsite =
      R"("{\"W_I\":\"12\",\"T_Z\":\"3\",\"P_L\":\"1\",\"S_B\":\"true\"}")";
  static inline const std::string kVisitor = R"({"V_I":"v9","V_N":"Visitor 9","S_I":"s1"})";
  static inline const std::string kOperator =
      R"({"U_I":"42","U_N":"Omar","AG_M":"Hello from Omar","C_I":"77","I_AIC":"0"})";
  static inline const std::string kOpenChat =
      R"({"U_I":"42","U_N":"Omar","AG_M":"Hi","C_I":"77","I_AIC":"1"})";

  RecordingHTTPServer server;
  std::shared_ptr<KQVisitorSitesManager> manager = std::make_shared<KQVisitorSitesManager>();
};

TEST_F(KQVisitorSitesManagerFlowTest, AFirstLaunchRegistersTheVisitorAndASecondReusesIt) {
  script({kWebsite, R"("stamp-1")", kVisitor, R"("0")", R"("1")", kOperator, R"("g5")"});
  const Answer first = launch();
  ASSERT_FALSE(first.error) << first.error->description();
  EXPECT_EQ(first.result, (Json{{"websiteID", "12"}}));
  // IsWbBl twice: the second check, whatever the first said.
  EXPECT_EQ(calls(), (std::vector<std::string>{
                         "GetWI?parD=shop.example&", "ReadValue?",
                         "InVsIn?parWU=shop.example&parWI=12&parRef=&", "IsWbBl?parWI=12&parVI=v9&",
                         "IsWbBl?parVI=v9&parWI=12&",
                         "ChatPreByLan?parS=s1&parD=shop.example&parIsNew=false&parWI=12&parTZ=3&"
                         "parVI=v9&parLI=1&",
                         "InsGrtInfo?parUI=42&parWI=12&parVI=v9&"}));

  EXPECT_TRUE(manager->toShowBranding());
  EXPECT_EQ(UserDefaults::standard().dictionaryForKey("V_Inf:12"), (Json{{"V_I", "v9"},
                                                                         {"V_N", "Visitor 9"},
                                                                         {"W_I", "12"},
                                                                         {"S_I", "s1"},
                                                                         {"parD", "shop.example"},
                                                                         {"parTZ", "3"},
                                                                         {"L_I", "1"}}));
  EXPECT_EQ(KQVisitorWebService::sharedInstance().currentUser()->username(), "Visitor 9");
  ASSERT_TRUE(manager->getWebSite());
  EXPECT_EQ(manager->getWebSite()->siteId(), "12");
  const auto room = manager->getCurrentRoom();
  ASSERT_TRUE(room);
  EXPECT_FALSE(room->roomId()) << "the chat is not open yet: no chat id";
  ASSERT_EQ(room->messages().size(), 1U);
  EXPECT_EQ(room->messages()[0]->message(), "Hello from Omar");
  EXPECT_EQ(room->getOperator()->username(), "Omar");

  // The same stamp: the cached visitor goes on, with Arabic as the language.
  manager->setPreferredLanguage("ar");
  manager->setWebsiteDomainNameArabic("shop.example");
  script({kWebsite, R"("stamp-1")", R"("0")", R"("0")", kOperator, R"("g6")"});
  const Answer second = launch();
  ASSERT_FALSE(second.error) << second.error->description();
  const auto again = calls();
  ASSERT_EQ(again.size(), 13U);
  EXPECT_EQ(service(again[9]), "IsWbBl") << "no second InVsIn";
  EXPECT_NE(again[11].find("&parLI=5"), std::string::npos) << again[11];

  // A new stamp: the cached visitor is dropped and a new one registered.
  script({kWebsite, R"("stamp-6")", R"({"V_I":"v10","V_N":"Visitor 10","S_I":"s2"})", R"("0")",
          R"("0")", kOperator, R"("g2")"});
  ASSERT_FALSE(launch().error);
  const auto third = calls();
  ASSERT_EQ(third.size(), 20U);
  EXPECT_EQ(service(third[15]), "InVsIn");
  EXPECT_EQ(UserDefaults::standard().stringForKey("d_time"), "stamp-6");
  EXPECT_EQ(UserDefaults::standard().dictionaryForKey("V_Inf:12")->value("V_I", ""), "v10");
}

TEST_F(KQVisitorSitesManagerFlowTest, EveryFailureAnswersOnceWithItsMessageCodeAndStatus) {
  const auto expectError = [](const Answer& answer, const std::string& domain, long code,
                              long status) {
    ASSERT_TRUE(answer.error);
    EXPECT_EQ(answer.error->domain, domain);
    EXPECT_EQ(answer.error->code, code);
    EXPECT_EQ(answer.error->status(), status);
  };
  // Arabic without an Arabic name: the English one is no fall-back, and nothing is sent.
  manager->setPreferredLanguage("ar");
  expectError(launch(), "Domain not mentioned", 400, 5);
  EXPECT_TRUE(server.requests().empty());
  manager->setPreferredLanguage("en");

  script({R"({"W_I":"0"})"});
  expectError(launch(), "Website call issue", 400, 5);
  EXPECT_EQ(calls(), std::vector<std::string>{"GetWI?parD=shop.example&"}) << "no further call";

  script({kWebsite, R"("stamp-2")", kVisitor, R"("1")"});
  expectError(launch(), "WebSite Blocked", 400, 4);
  EXPECT_EQ(service(calls().back()), "IsWbBl");

  // The cached visitor goes on; the operator is missing: the result still comes along.
  script({kWebsite, R"("stamp-2")", R"("0")", R"("0")", R"({"U_N":"nobody"})"});
  const Answer noOperator = launch();
  expectError(noOperator, "Operator not found", 500, 2);
  EXPECT_EQ(noOperator.result, (Json{{"websiteID", "12"}}));

  // "InsGrtInfo" failing, whatever the reason, is reported under its own name with status 3:
  // the service becomes unreachable once it has named the operator.
  const std::string nowhere = "http://127.0.0.1:" + std::to_string(test::unusedPort());
  script({kWebsite, R"("stamp-7")", kVisitor, R"("0")", R"("0")", kOperator});
  server.setResponder([&](const test::RecordedRequest& request) {
    if (service(request.target.substr(request.target.rfind('/') + 1)) == "ChatPreByLan") {
      test::pointServicesAt(nowhere);
    }
    return std::optional<test::ScriptedResponse>();
  });
  expectError(launch(), "InsGrtInfo", 400, 3);
  server.setResponder(nullptr);

  // A transport failure keeps its domain and code, with status 3.
  expectError(launch(), std::string(HTTPSession::kErrorDomain), HTTPSession::kErrorCouldNotConnect,
              3);
}

// The visitor's stream is logged in to a real XMPP server in both rounds: a join over XMPP would
// succeed there if it were made.
TEST_F(KQVisitorSitesManagerFlowTest, AChatAlreadyOpenOnTheServerGoesOnFiveSecondsLaterAsItRuns) {
  test::ProsodyServer::Options plain;
  plain.tls = false;
  test::ProsodyServer prosody(plain);
  auto& client = KQVisitorXMPPClient::instance();
  client.xmppStream()->setHostName("127.0.0.1");
  client.xmppStream()->setHostPort(prosody.port());
  for (const bool overHTTP : {true, false}) {
    SCOPED_TRACE(overHTTP ? "over HTTP" : "over XMPP");
    test::ManualClockScope clock;
    // A new data stamp each round: the visitor is registered each time.
    script({kWebsite, overHTTP ? R"("stamp-3")" : R"("stamp-4")", kVisitor, R"("0")", R"("0")",
            kOpenChat, R"("g7")"});
    ASSERT_FALSE(launch().error);
    const auto room = manager->getCurrentRoom();
    ASSERT_TRUE(room);
    EXPECT_EQ(room->roomId(), "77");
    ASSERT_TRUE(client.connectUser(KQVisitorWebService::sharedInstance().currentUser()));
    ASSERT_TRUE(test::runMainQueueUntil([&] { return client.xmppStream()->isAuthenticated(); }));
    KQVisitorWebService::sharedInstance().setIsHTTPClient(overHTTP);  // read when the join is due
    server.setDefaultResponse({200, R"(["","0"])", "application/json; charset=utf-8", {}});
    tick(clock, 4900ms);
    EXPECT_FALSE(room->xmppRoom()) << "joined before 5 s";
    tick(clock, 100ms);
    if (!overHTTP) {
      ASSERT_TRUE(room->xmppRoom());
      EXPECT_EQ(room->xmppRoom()->roomJID().full(), "room77@conference.localhost");
      EXPECT_TRUE(test::runMainQueueUntil([&] { return room->isConnected(); }));
      room->closeRoom();
      room->setXmppRoom(nullptr);
    } else {
      EXPECT_TRUE(room->isHttpRoom()) << "an HTTP chat was joined over XMPP";
      EXPECT_EQ(manager->allRooms(), KQVisitorSitesManager::Rooms{room});
      tick(clock, 2s);
      ASSERT_TRUE(test::runMainQueueUntil([&] { return polls() == 1; }));
      room->closeRoom();
      manager->setKqWebsite(nullptr);  // a new website and room for the next round
    }
    client.disconnect();
    ASSERT_TRUE(test::runMainQueueUntil([&] { return client.xmppStream()->isDisconnected(); }));
  }
  KQVisitorWebService::sharedInstance().setIsHTTPClient(true);
}

TEST_F(KQVisitorSitesManagerFlowTest, AStartedChatOverHTTPIsRegisteredThenPolled) {
  test::ManualClockScope clock;
  script({kWebsite, R"("stamp-4")", kVisitor, R"("0")", R"("0")", kOperator, R"("g8")"});
  ASSERT_FALSE(launch().error);
  const auto start = [&](const std::optional<std::string>& message) {
    return answerOf([&](auto callback) { manager->startChat(message, callback); });
  };

  // A registration that cannot reach the service, and a chat id that is no number, fail before
  // anything is joined.
  script({R"(["abc"])"});  // the answer the service gives once it is reached
  for (const auto& origin :
       {"http://127.0.0.1:" + std::to_string(test::unusedPort()), server.origin()}) {
    SCOPED_TRACE(origin);
    test::pointServicesAt(origin);
    const Answer failed = start("Hello");
    ASSERT_TRUE(failed.error);
    EXPECT_EQ(failed.error->domain, "Network");
    EXPECT_EQ(failed.error->code, 400);
    EXPECT_EQ(failed.error->status(), 3);
    EXPECT_FALSE(failed.joined);
    EXPECT_FALSE(manager->getCurrentRoom()->roomId());
  }

  script({R"(["77"])"});
  const Answer started = start(std::nullopt);
  ASSERT_FALSE(started.error) << started.error->description();
  EXPECT_EQ(started.result, (Json{{"websiteID", "12"}}));
  EXPECT_TRUE(started.joined);
  const auto registration = calls().back();
  EXPECT_EQ(registration.substr(0, registration.find('?')), "InsertCInfoM");
  EXPECT_NE(registration.find("?parUI=42&parAUI=42&parWI=12&parRStatus=false&parVN=Visitor%209&"
                              "parGI=g8&parGM=Hello%20from%20Omar&parCM=true%20AND%20true%20"),
            std::string::npos)
      << registration;
  EXPECT_NE(registration.find("&parOpN=Omar&parR=1401234567890&parVI=v9&parUrl=mobile&"),
            std::string::npos)
      << registration;

  const auto room = manager->getCurrentRoom();
  ASSERT_TRUE(room);
  EXPECT_EQ(room->roomId(), "77");
  EXPECT_EQ(manager->allRooms(), KQVisitorSitesManager::Rooms{room});
  // The host's joinHTTPRoom a second later takes the start's poller over: one poll per 2 s.
  server.setDefaultResponse({200, R"(["Hi","5"])", "application/json; charset=utf-8", {}});
  tick(clock, 1s);
  room->joinHTTPRoom();
  tick(clock, 1s);
  EXPECT_EQ(polls(), 0U) << "the start's poller still polls";
  tick(clock, 1s);
  ASSERT_TRUE(test::runMainQueueUntil([&] { return room->messages().size() == 2; }));
  EXPECT_EQ(polls(), 1U);

  // Logging out ends the chat: nothing more is asked for it, nor for no chat at all.
  KQVisitorWebService::sharedInstance().logout();
  for (int i = 0; i < 3; ++i) {
    tick(clock, 2s);
  }
  EXPECT_EQ(polls(), 1U);
  EXPECT_EQ(polls("<null>"), 0U);
  ASSERT_FALSE(manager->getCurrentRoom());

  // The room made current again, for a visitor who left an email: the survey form.
  manager->getWebSite()->rooms()->setObject(room, "currentRoom");
  room->setSite(manager->getWebSite());
  room->setRoomId(std::nullopt);
  KQVisitorWebService::sharedInstance().currentUser()->setEmail("ann@example.com");
  server.setDefaultResponse({200, R"(["78"])", "application/json; charset=utf-8", {}});
  ASSERT_TRUE(start("Hi").joined);
  std::string survey;
  for (const auto& call : calls()) {
    if (service(call) == "InsertCInfoMwithSurvey") {
      survey = call;
    }
  }
  EXPECT_NE(survey.find("&parUrl=shop.example&parDM=shop.example&parLan=-1&parReason=&"
                        "parName=&parEmail=ann@example.com&parPhone=&"),
            std::string::npos)
      << survey;
  room->leaveHTTPRoom();
}

}  // namespace
}  // namespace kq
