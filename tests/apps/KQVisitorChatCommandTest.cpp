// kqvisitor-chat chat, run as a child process, against a JSON chat service on loopback that
// answers in the service's habits: each way a start fails, and bad arguments. (Whole chats are
// the sandbox's tests.)

#include "tests/support/ChildProcess.h"
#include "tests/support/JSONLines.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <map>
#include <mutex>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;

// The name of each event line, an error's with its domain, code and status.
std::vector<std::string> transcript(const std::vector<Json>& all) {
  std::vector<std::string> lines;
  for (const auto& event : all) {
    const std::string name = event["event"];
    lines.push_back(name != "error" ? name
                                    : "error " + event["domain"].get<std::string>() + " " +
                                          event["code"].dump() + " " + event["status"].dump());
  }
  return lines;
}

// The operation a request called: the last path segment, without the query.
std::string operationOf(const test::RecordedRequest& request) {
  const auto path = request.target.substr(0, request.target.find('?'));
  return path.substr(path.rfind('/') + 1);
}

// A JSON chat service with one website ("shop.example", id 12) and one operator (42, Omar).
// Each operation answers in the service's habits; tests change single answers.
class ChatService {
 public:
  ChatService() {
    answers_ = {
        {"GetWI", R"("{\"W_I\":\"12\",\"T_Z\":\"3\",\"P_L\":\"1\",\"S_B\":\"true\"}")"},
        {"ReadValue", R"("stamp-1")"},
        {"InVsIn", R"({"V_I":"v9","V_N":"Ann","S_I":"s1"})"},
        {"IsWbBl", R"("0")"},
        {"ChatPreByLan",
         R"({"U_I":"42","U_N":"Omar","AG_M":"Hello, I am Omar","C_I":"0","I_AIC":"0"})"},
        {"InsGrtInfo", R"("g1")"},
        {"InsertCInfoM", R"(["31"])"},
        {"InsertCInfoMwithSurvey", R"(["31"])"},
        {"InsertChatMessage", R"("1")"},
        {"ET", R"("1")"},
    };
    server.setResponder([this](const test::RecordedRequest& request) { return answer(request); });
  }

  void set(const std::string& operation, const std::string& body) {
    std::scoped_lock lock(mutex_);
    answers_[operation] = body;
  }

 private:
  std::optional<test::ScriptedResponse> answer(const test::RecordedRequest& request) {
    std::scoped_lock lock(mutex_);
    const auto found = answers_.find(operationOf(request));
    return test::ScriptedResponse{found == answers_.end() ? 404 : 200,
                                  found == answers_.end() ? "null" : found->second,
                                  "application/json; charset=utf-8",
                                  {}};
  }

  std::mutex mutex_;
  std::map<std::string, std::string> answers_;

 public:
  // Last, so that it stops first: its threads answer from the members above.
  test::RecordingHTTPServer server;
};

class KQVisitorChatCommandTest : public ::testing::Test {
 protected:
  // Settings pointing every service at `service`, a probe address that is reachable, polls
  // every 50 ms and user defaults of this test's own.
  void writeConfig(const ChatService& service) {
    Json config = {{"jsonServiceProductionOrigin", service.server.origin()},
                   {"jsonServiceBetaOrigin", service.server.origin()},
                   {"reachabilityHost", "127.0.0.1"},
                   {"httpPollInterval", 0.05},
                   {"userDefaultsPath", folder.file("defaults.json")}};
    test::writeFile(folder.file("config.json"), config.dump());
  }

  test::ChildResult chat(std::vector<std::string> arguments, const std::string& input = {}) {
    arguments.insert(arguments.begin(), {KQ_CHAT_TOOL, "chat", "--domain", "shop.example"});
    return test::runChild(arguments, {"KQVISITOR_CONFIG=" + folder.file("config.json")}, input);
  }

  test::TemporaryDirectory folder;
};

TEST_F(KQVisitorChatCommandTest, AFailedStartOrBadArgumentsExitAtOnceSayingWhatToDo) {
  struct Case {
    std::string operation;
    std::string answer;
    std::string error;
    std::string advice;
  };
  const std::vector<Case> cases = {
      {"GetWI", R"({"W_I":"0"})", "error Website call issue 400 5", "check --domain"},
      {"IsWbBl", R"("1")", "error WebSite Blocked 400 4", "does not take chats"},
      {"ChatPreByLan", R"({"U_N":"nobody"})", "error Operator not found 500 2",
       "No operator is online"},
      {"InsertCInfoM", R"(["0"])", "error Network 400 3", "did not answer as expected"},
  };
  for (const auto& [operation, answer, error, advice] : cases) {
    ChatService service;
    service.set(operation, answer);
    writeConfig(service);
    const auto result = chat({"--http", "--json"}, "never sent\n");
    EXPECT_EQ(result.exitStatus, 1) << operation << result.out << result.err;
    const auto seen = transcript(test::jsonLines(result.out));
    EXPECT_NE(std::find(seen.begin(), seen.end(), error), seen.end()) << result.out;
    EXPECT_EQ(seen.back(), "unsent") << "the typed line is reported, not lost: " << result.out;
    EXPECT_NE(result.err.find(advice), std::string::npos) << result.err;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "started"), 0) << result.out;
  }

  // Arabic without an Arabic domain: refused before any call, and before the line typed
  // meanwhile could be read: it is still reported.
  ChatService service;
  writeConfig(service);
  const auto arabic = chat({"--language", "ar", "--json"}, "typed before the refusal\n");
  EXPECT_EQ(arabic.exitStatus, 1);
  EXPECT_EQ(transcript(test::jsonLines(arabic.out)),
            (std::vector<std::string>{"error Domain not mentioned 400 5", "unsent"}));
  EXPECT_TRUE(service.server.requests().empty());

  // Bad arguments: status 2 and the usage.
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--linger", "soon"}, {"--linger", "-1"}, {"--name"}, {"--x"}}) {
    const auto result = chat(arguments);
    EXPECT_EQ(result.exitStatus, 2) << arguments.front();
    EXPECT_NE(result.err.find("usage: kqvisitor-chat chat"), std::string::npos) << result.err;
  }
  const auto noDomain = test::runChild({KQ_CHAT_TOOL, "chat", "--http"},
                                       {"KQVISITOR_CONFIG=" + folder.file("config.json")});
  EXPECT_EQ(noDomain.exitStatus, 2);
  EXPECT_NE(noDomain.err.find("missing --domain"), std::string::npos) << noDomain.err;
}

}  // namespace
}  // namespace kq
