// These tests run each in a fresh network namespace (see tests/CMakeLists.txt): only "lo"
// exists, down, and there is no route anywhere until a test adds one.

#include <KQVisitorCore/Platform/Reachability.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/JSONLines.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/WebServiceFixture.h"

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>

#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <future>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;
using test::runOrThrow;

constexpr const char* kProbe = "198.51.100.1";  // the default probe of the internet check
constexpr const char* kProbeNet = "198.51.100.0/24";

class ReachabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<std::string> interfaces;
    if (struct if_nameindex* names = if_nameindex()) {
      for (const struct if_nameindex* name = names; name->if_index != 0; ++name) {
        interfaces.emplace_back(name->if_name);
      }
      if_freenameindex(names);
    }
    ASSERT_EQ(interfaces, std::vector<std::string>{"lo"})
        << "run inside a fresh network namespace: unshare --net <test binary>";
  }

  static void addProbeRoute() { runOrThrow({"ip", "route", "add", kProbeNet, "dev", "lo"}); }
  static void deleteProbeRoute() { runOrThrow({"ip", "route", "del", kProbeNet, "dev", "lo"}); }
  static void bringLoopbackUp() { runOrThrow({"ip", "link", "set", "lo", "up"}); }

  // Handlers that record "reachable"/"unreachable" on `recorder`.
  static void observe(Reachability& reachability, test::CallbackRecorder& recorder) {
    reachability.setReachableBlock(
        [&recorder](Reachability& which) { recorder.record("reachable", which.host()); });
    reachability.setUnreachableBlock(
        [&recorder](Reachability& which) { recorder.record("unreachable", which.host()); });
  }

  static std::vector<std::string> kinds(const std::vector<test::CallbackEvent>& events) {
    std::vector<std::string> result;
    result.reserve(events.size());
    for (const auto& event : events) {
      result.push_back(event.kind);
    }
    return result;
  }
};

TEST_F(ReachabilityTest, WithoutARouteNothingIsReachableUntilOneIsAdded) {
  for (const char* destination : {kProbe, "127.0.0.1", "::1", "chat.kqvisitor.example"}) {
    EXPECT_EQ(Reachability::reachabilityWithAddress(destination)->currentReachabilityStatus(),
              NetworkStatus::NotReachable)
        << destination;
  }
  EXPECT_FALSE(Reachability::reachabilityForInternetConnection()->isReachable());
  EXPECT_FALSE(KQVisitorXMPPClient::instance().isInternetAvaliable());

  bringLoopbackUp();
  EXPECT_EQ(Reachability::reachabilityWithAddress("127.0.0.1")->currentReachabilityStatus(),
            NetworkStatus::ReachableViaWiFi);
  EXPECT_FALSE(KQVisitorXMPPClient::instance().isInternetAvaliable());
  addProbeRoute();
  EXPECT_TRUE(KQVisitorXMPPClient::instance().isInternetAvaliable()) << "asked afresh each time";
  deleteProbeRoute();
  EXPECT_FALSE(KQVisitorXMPPClient::instance().isInternetAvaliable());
}

// An address watcher reports each change; a host watcher first reports its status, resolvable
// or not. Handlers run on the notifier thread, until the watcher is stopped.
TEST_F(ReachabilityTest, WatchersReportRouteChangesOnTheNotifierThreadUntilStopped) {
  bringLoopbackUp();
  test::CallbackRecorder recorder;
  test::CallbackRecorder hosts;
  auto watcher = Reachability::reachabilityWithAddress(kProbe);
  observe(*watcher, recorder);
  auto host = Reachability::reachabilityWithHostname(kProbe);
  observe(*host, hosts);
  auto unresolvable = Reachability::reachabilityWithHostname("chat.kqvisitor.example");
  observe(*unresolvable, hosts);
  ASSERT_TRUE(watcher->startNotifier());
  EXPECT_FALSE(watcher->startNotifier()) << "already started";
  ASSERT_TRUE(host->startNotifier());
  ASSERT_TRUE(unresolvable->startNotifier());
  ASSERT_EQ(kinds(hosts.waitFor(2)), (std::vector<std::string>{"unreachable", "unreachable"}));

  addProbeRoute();
  ASSERT_EQ(kinds(recorder.waitFor(1)), std::vector<std::string>{"reachable"});
  const auto hostEvents = hosts.waitFor(3);
  ASSERT_EQ(hostEvents.size(), 3U);
  EXPECT_EQ(hostEvents[2].kind, "reachable");
  EXPECT_EQ(hostEvents[2].value, kProbe);
  deleteProbeRoute();
  const auto events = recorder.waitFor(2);
  ASSERT_EQ(kinds(events), (std::vector<std::string>{"reachable", "unreachable"}));
  EXPECT_NE(events[0].thread, std::this_thread::get_id());
  EXPECT_EQ(events[1].value, kProbe);

  // Once stopped, a watcher hears nothing more: a second one sees the next change alone.
  watcher->stopNotifier();
  test::CallbackRecorder witnessed;
  auto witness = Reachability::reachabilityWithAddress(kProbe);
  observe(*witness, witnessed);
  ASSERT_TRUE(witness->startNotifier());
  addProbeRoute();
  ASSERT_EQ(kinds(witnessed.waitFor(1)), std::vector<std::string>{"reachable"});
  EXPECT_EQ(recorder.events().size(), 2U);
}

TEST_F(ReachabilityTest, AHandlerMayStopAndReleaseItsOwnWatcher) {
  test::CallbackRecorder recorder;
  auto watcher = Reachability::reachabilityWithHostname(kProbe);
  std::shared_ptr<Reachability> held = watcher;
  watcher->setUnreachableBlock([&](Reachability& which) {
    which.stopNotifier();
    held.reset();  // the last reference: the watcher ends on its own thread
    recorder.record("released");
  });
  ASSERT_TRUE(watcher->startNotifier());
  watcher.reset();
  EXPECT_EQ(kinds(recorder.waitFor(1)), std::vector<std::string>{"released"});
}

TEST_F(ReachabilityTest, TheClientsListenerLogsUnreachableOnEachLoss) {
  test::LogCapture log;
  bringLoopbackUp();
  auto listener = KQVisitorXMPPClient::instance().reachability();
  ASSERT_NE(listener, nullptr) << "the client starts its listener when it is built";
  // Told when the listener has seen the route, so that the loss that follows is a change.
  test::CallbackRecorder seen;
  listener->setReachableBlock([&seen](Reachability&) { seen.record("reachable"); });
  const auto losses = [&log] {
    const auto lines = log.lines();
    return std::count(lines.begin(), lines.end(), "UNREACHABLE!");
  };
  for (int round = 1; round <= 2; ++round) {
    addProbeRoute();
    ASSERT_EQ(seen.waitFor(static_cast<std::size_t>(round)).size(),
              static_cast<std::size_t>(round));
    deleteProbeRoute();
    EXPECT_TRUE(test::runMainQueueUntil([&] { return losses() == round; })) << "round " << round;
  }
  listener->setReachableBlock([](Reachability&) {});
  EXPECT_EQ(losses(), 2);
}

// The web service without internet, with the real check: with nothing reachable both reports
// are failures; with the service on loopback but no route to the probe, the failure comes at
// once, on the calling thread, and the answer still follows.
TEST_F(ReachabilityTest, AJSONRequestWithoutInternetFailsAtOnceAndStillReportsItsAnswer) {
  KQVisitorConfig config;
  config.jsonServiceProductionOrigin = "http://127.0.0.1:9";
  KQVisitorConfig::setShared(config);
  {
    auto session = HTTPSession::create({});
    test::CallbackRecorder recorder;
    KQVisitorWebService service(KQVisitorWebService::Dependencies{session, nullptr});
    service.requestDataWithParameters(Json::object(), "GET", "Op", recorder.success(),
                                      recorder.failure());
    const auto events = recorder.waitFor(2);
    ASSERT_EQ(kinds(events), (std::vector<std::string>{"failure", "failure"}));
    std::vector<std::string> domains = {events[0].value["domain"], events[1].value["domain"]};
    std::sort(domains.begin(), domains.end());
    EXPECT_EQ(domains, (std::vector<std::string>{"NSURLErrorDomain",
                                                 "Request failed due to internet problem"}));
  }
  bringLoopbackUp();
  test::RecordingHTTPServer server;
  server.setDefaultResponse({200, R"({"ok":1})", "application/json", {}});
  config.jsonServiceProductionOrigin = server.origin();
  KQVisitorConfig::setShared(config);
  auto session = HTTPSession::create({});
  test::CallbackRecorder recorder;
  recorder.watch(session.get());
  KQVisitorWebService service(KQVisitorWebService::Dependencies{session, nullptr});
  service.requestDataWithParameters({{"a", 1}}, "GET", "Op", recorder.success(),
                                    recorder.failure());
  ASSERT_FALSE(recorder.events().empty()) << "the failure comes before the call returns";
  const auto events = recorder.waitFor(2);
  ASSERT_EQ(events.size(), 2U);
  const Json noInternet = {{"domain", "Request failed due to internet problem"},
                           {"code", 400},
                           {"userInfo", {{"status", 3}}}};
  EXPECT_TRUE(std::any_of(events.begin(), events.end(), [&](const auto& event) {
    return event.kind == "failure" && event.value == noInternet &&
           event.thread == std::this_thread::get_id();
  }));
  EXPECT_TRUE(std::any_of(events.begin(), events.end(), [](const auto& event) {
    return event.kind == "success" && event.value == Json({{"ok", 1}}) && event.onSession;
  }));
}

TEST_F(ReachabilityTest, ARequestWithNoUsableNetworkFailsAsNotConnectedToTheInternet) {
  auto session = HTTPSession::create({});
  const auto fail = [&](const std::string& url) {
    std::promise<std::optional<KQError>> done;
    session->dataTaskWithRequest(HTTPRequest(url), [&](auto, auto, std::optional<KQError> error) {
      done.set_value(std::move(error));
    });
    auto future = done.get_future();
    EXPECT_EQ(future.wait_for(test::kPatience), std::future_status::ready) << url;
    return future.get();
  };
  // No route to the address; a name that cannot be resolved while nothing is reachable.
  for (const std::string url : {"http://192.0.2.10/x", "http://kq-test.invalid/x"}) {
    const auto error = fail(url);
    ASSERT_TRUE(error) << url;
    EXPECT_EQ(error->domain, HTTPSession::kURLErrorDomain) << url;
    EXPECT_EQ(error->code, HTTPSession::kErrorNotConnectedToInternet) << url;
    EXPECT_EQ(error->userInfo["NSErrorFailingURLStringKey"], url);
  }
  // With loopback up, a refused connection is the server's answer, not a missing network.
  bringLoopbackUp();
  const auto refused = fail("http://127.0.0.1:" + std::to_string(test::unusedPort()) + "/x");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->domain, HTTPSession::kErrorDomain);
  EXPECT_EQ(refused->code, HTTPSession::kErrorCouldNotConnect);
}

#ifdef KQ_CHAT_TOOL
// Without a network the chat command says so and exits at once; with the service on loopback
// but no internet, the call command prints both reports and ends after the answer.
TEST_F(ReachabilityTest, TheChatAndCallCommandsWithoutInternet) {
  test::TemporaryDirectory folder;
  const std::string config = folder.file("config.json");
  test::writeFile(config, Json({{"jsonServiceProductionOrigin", "http://192.0.2.10"},
                                {"userDefaultsPath", folder.file("defaults.json")}})
                              .dump());
  const auto chat = test::runChild({KQ_CHAT_TOOL, "chat", "--domain", "shop.example", "--json"},
                                   {"KQVISITOR_CONFIG=" + config}, "Hi\n");
  EXPECT_EQ(chat.exitStatus, 1) << chat.out << chat.err;
  const auto errors = test::named(test::jsonLines(chat.out), "error");
  ASSERT_FALSE(errors.empty()) << chat.out;
  EXPECT_EQ(
      errors.back(),
      (Json{{"event", "error"}, {"domain", "NSURLErrorDomain"}, {"code", -1009}, {"status", 8}}))
      << chat.out;
  EXPECT_NE(chat.err.find("no connection to the Internet"), std::string::npos) << chat.err;

  bringLoopbackUp();
  test::RecordingHTTPServer server;
  server.setDefaultResponse({200, R"({"d":"{\"status\":1}"})", "application/json", {}});
  test::writeFile(config, Json({{"jsonServiceProductionOrigin", server.origin()}}).dump());
  const auto result =
      test::runChild({KQ_CHAT_TOOL, "call", "GetWI", "parWI=12"}, {"KQVISITOR_CONFIG=" + config});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  auto lines = test::jsonLines(result.out);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(
      lines,
      (std::vector<Json>{
          Json::parse(
              R"({"callback":"failure","error":{"domain":"Request failed due to internet problem","code":400,"userInfo":{"status":3}}})"),
          Json::parse(R"({"callback":"success","result":{"d":{"status":1}}})")}));
}
#endif

}  // namespace
}  // namespace kq
