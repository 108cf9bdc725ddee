// Runs in a fresh network namespace (see tests/CMakeLists.txt): only "lo", and no route out.

#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using namespace std::chrono_literals;

// Over either transport: "Internet" at once on the calling thread, then the watcher of the probe
// host reports its first status, a loss; nothing is joined or polled.
TEST(KQVisitorSitesManagerOfflineTest, AChatStartedWithoutInternetSaysSoTwiceAndStartsNothing) {
  test::runOrThrow({"ip", "link", "set", "lo", "up"});  // the service on loopback, nothing else
  test::ManualClockScope clock;
  test::RecordingHTTPServer server;
  test::pointServicesAt(server.origin());
  auto& service = KQVisitorWebService::sharedInstance();
  for (const bool overHTTP : {true, false}) {
    SCOPED_TRACE(overHTTP ? "over HTTP" : "over XMPP");
    service.setIsHTTPClient(overHTTP);
    auto manager = std::make_shared<KQVisitorSitesManager>();
    auto website = std::make_shared<KQVisitorSite>();
    website->setSiteId("12");
    manager->setKqWebsite(website);
    KQVisitorXMPPClient::instance().setSitesManager(manager);
    const auto room = std::make_shared<KQVisitorRoom>();
    room->setSite(website);
    website->rooms()->setObject(room, "currentRoom");

    test::CallbackRecorder answers;
    manager->startChatWithChatId("77", [&](std::optional<KQError> error, auto, bool joined) {
      answers.record(joined ? "joined" : "failed",
                     error ? nlohmann::ordered_json::array(
                                 {error->domain, error->code, error->status().value_or(0)})
                           : nlohmann::ordered_json());
    });
    ASSERT_FALSE(answers.events().empty()) << "the first answer comes before the call returns";
    const auto both = answers.waitFor(2);
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(both[0].value, nlohmann::ordered_json::array({"Internet", 400, 8}));
    EXPECT_EQ(both[1].value, nlohmann::ordered_json::array({"Network", 400, 3}));
    clock->advance(2s);
    test::drainMainQueue();
    test::flushSharedWebService();
    for (const auto& request : server.requests()) {
      EXPECT_EQ(request.target.find("GetChatMessagesAlt"), std::string::npos) << request.target;
    }
    for (const auto& answer : answers.events()) {
      EXPECT_EQ(answer.kind, "failed");
    }
    EXPECT_TRUE(KQVisitorXMPPClient::instance().xmppStream()->isDisconnected());

    room->closeRoom();
    KQVisitorXMPPClient::instance().setSitesManager(nullptr);
    manager.reset();  // and with it the start's reachability watcher, which answers to `answers`
  }
  service.setIsHTTPClient(false);
  KQVisitorConfig::setShared(KQVisitorConfig());
}

}  // namespace
}  // namespace kq
