// Runs in a fresh network namespace (see tests/CMakeLists.txt): only "lo", and no route out.

#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using namespace std::chrono_literals;

TEST(KQVisitorSitesManagerOfflineTest, AChatStartedOverHTTPWithoutInternetSaysSoAndPollsNothing) {
  test::runOrThrow({"ip", "link", "set", "lo", "up"});  // the service on loopback, nothing else
  test::ManualClockScope clock;
  test::RecordingHTTPServer server;
  test::pointServicesAt(server.origin());
  auto& service = KQVisitorWebService::sharedInstance();
  service.setIsHTTPClient(true);
  auto manager = std::make_shared<KQVisitorSitesManager>();
  auto website = std::make_shared<KQVisitorSite>();
  website->setSiteId("12");
  manager->setKqWebsite(website);
  KQVisitorXMPPClient::instance().setSitesManager(manager);
  const auto room = std::make_shared<KQVisitorRoom>();
  room->setSite(website);
  website->rooms()->setObject(room, "currentRoom");

  // Answers come on the calling thread, and from the reachability watcher's.
  test::CallbackRecorder answers;
  manager->startChatWithChatId("77", [&](std::optional<KQError> error, auto, bool joined) {
    answers.record(joined ? "joined" : "failed",
                   error ? nlohmann::ordered_json::array(
                               {error->domain, error->code, error->status().value_or(0)})
                         : nlohmann::ordered_json());
  });
  const auto first = answers.waitFor(1);
  ASSERT_FALSE(first.empty());
  EXPECT_EQ(first[0].kind, "failed");
  EXPECT_EQ(first[0].value, nlohmann::ordered_json::array({"Internet", 400, 8}));
  clock->advance(2s);
  test::drainMainQueue();
  test::flushSharedWebService();
  for (const auto& request : server.requests()) {
    EXPECT_EQ(request.target.find("GetChatMessagesAlt"), std::string::npos) << request.target;
  }
  for (const auto& answer : answers.events()) {
    EXPECT_EQ(answer.kind, "failed") << "started without a network";
  }

  room->closeRoom();
  KQVisitorXMPPClient::instance().setSitesManager(nullptr);
  manager.reset();  // and with it the start's reachability watcher, which answers to the recorder
  service.setIsHTTPClient(false);
  KQVisitorConfig::setShared(KQVisitorConfig());
}

}  // namespace
}  // namespace kq
