// The visitor's road end to end: kqvisitor-chat against kqvisitor-sandbox, both run as child
// processes, the way a person runs them.

#include "tests/support/BackgroundChild.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/JSONLines.h"
#include "tests/support/TemporaryDirectory.h"

#include <httplib.h>
#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;

// A sandbox with the built-in fixture (or `fixture`), its data in a folder of the test's own,
// and the library polling every 50 ms.
class Sandbox {
 public:
  explicit Sandbox(const std::string& fixture = {}) {
    std::vector<std::string> arguments = {KQ_SANDBOX, "--data", folder.path(), "--poll-interval",
                                          "0.05"};
    if (!fixture.empty()) {
      test::writeFile(folder.file("fixture.json"), fixture);
      arguments.insert(arguments.end(), {"--fixture", folder.file("fixture.json")});
    }
    process = std::make_unique<test::BackgroundChild>(arguments);
    ready = process->waitForOutput(" ready\n");
  }

  // kqvisitor-chat with this sandbox's settings.
  [[nodiscard]] test::ChildResult chat(const std::vector<std::string>& arguments,
                                       const std::string& input = {}) const {
    std::vector<std::string> command = {KQ_CHAT_TOOL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return test::runChild(command, {"KQVISITOR_CONFIG=" + folder.file("config.json")}, input);
  }

  // The rows of `sql` against the sandbox's database, each row's columns joined by "|".
  [[nodiscard]] std::vector<std::string> query(const std::string& sql) const {
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    if (sqlite3_open_v2(folder.file("sandbox.sqlite").c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
      sqlite3_exec(
          db, sql.c_str(),
          [](void* sink, int count, char** values, char**) {
            std::string row;
            for (int i = 0; i < count; ++i) {
              row += (i > 0 ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
            }
            static_cast<std::vector<std::string>*>(sink)->push_back(row);
            return 0;
          },
          &rows, nullptr);
    }
    sqlite3_close(db);
    return rows;
  }

  test::TemporaryDirectory folder;
  std::unique_ptr<test::BackgroundChild> process;
  bool ready = false;
};

// The conversation as the visitor saw it: "sender: text" of each message, "ended" for the end.
std::vector<std::string> conversation(const std::string& out) {
  std::vector<std::string> lines;
  for (const auto& event : test::jsonLines(out)) {
    if (event["event"] == "message") {
      lines.push_back((event["sender"].is_string() ? event["sender"].get<std::string>() : "-") +
                      ": " + event["text"].get<std::string>());
    } else if (event["event"] == "room" && event["status"] == 1) {
      lines.emplace_back("ended");
    }
  }
  return lines;
}

// What Omar said, in order.
std::vector<std::string> omarsLines(const std::vector<std::string>& said) {
  std::vector<std::string> lines;
  std::copy_if(said.begin(), said.end(), std::back_inserter(lines),
               [](const std::string& line) { return line.starts_with("Omar: "); });
  return lines;
}

// The greeting and the built-in script's answers to three lines.
const std::vector<std::string> kScriptedAnswers = {
    "Omar: Hello, I am Omar. How can I help?", "Omar: Let me look that up for you.",
    "Omar: It ships today. Anything else?", "Omar: Thank you for chatting with us!"};

TEST(KQVisitorSandboxTest, AVisitorChatsOverHTTPUntilTheOperatorEndsTheChat) {
  Sandbox sandbox;
  ASSERT_TRUE(sandbox.ready) << sandbox.process->output();
  const auto first =
      sandbox.chat({"chat", "--domain", "shop.example", "--http", "--json", "--name", "Ann",
                    "--email", "ann@example.com", "--message", "I need help", "--linger", "20"},
                   "Where is my order?\nThanks\nBye\n");
  ASSERT_EQ(first.exitStatus, 0) << first.out << first.err;
  const auto said = conversation(first.out);
  // The operator answers each line in turn; the visitor's own lines come back as they are
  // stored, so only the operator's order and the end are fixed.
  EXPECT_EQ(omarsLines(said), kScriptedAnswers) << first.out;
  EXPECT_EQ(said.back(), "ended");
  EXPECT_EQ(
      sandbox.query("SELECT sender, text FROM messages WHERE sender = 'visitor'"),
      (std::vector<std::string>{"visitor|Where is my order?", "visitor|Thanks", "visitor|Bye"}))
      << "the \"?\" of a line reaches the service";
  EXPECT_EQ(sandbox.query("SELECT ended, opening, survey FROM chats"),
            std::vector<std::string>{R"(1|I need help|{"name":"Ann","email":"ann@example.com"})"})
      << "the survey form of the start";

  // A second launch: the visitor registered before is reused.
  const auto second = sandbox.chat(
      {"chat", "--domain", "shop.example", "--http", "--json", "--linger", "0"}, "Hello again\n");
  ASSERT_EQ(second.exitStatus, 0) << second.out << second.err;
  EXPECT_EQ(sandbox.query("SELECT count(*) FROM visitors"), std::vector<std::string>{"1"});
  EXPECT_EQ(sandbox.query("SELECT count(DISTINCT visitor_id) FROM chats"),
            std::vector<std::string>{"1"});
  EXPECT_EQ(sandbox.query("SELECT id, ended FROM chats ORDER BY id"),
            (std::vector<std::string>{"1|1", "2|1"}))
      << "the visitor who leaves ends its own chat at the service";
}

// The server goes down hard in the middle of the chat; the sandbox starts it again, and the
// operator and the visitor come back into the room and finish the conversation.
TEST(KQVisitorSandboxTest, AVisitorChatsOverXMPPWithTheOperatorAgentAcrossAServerRestart) {
  Sandbox sandbox;
  ASSERT_TRUE(sandbox.ready) << sandbox.process->output();
  ASSERT_TRUE(sandbox.process->waitForOutput("operator Omar (42) is online"))
      << sandbox.process->output();
  // The visitor tries the server again every 0.2 s instead of every 5 s.
  auto settings = Json::parse(test::readFile(sandbox.folder.file("config.json")));
  settings["xmppReconnectInterval"] = 0.2;
  test::writeFile(sandbox.folder.file("visitor.json"), settings.dump());
  test::BackgroundChild visitor(
      {KQ_CHAT_TOOL, "chat", "--domain", "shop.example", "--json", "--linger", "20"},
      {"KQVISITOR_CONFIG=" + sandbox.folder.file("visitor.json")}, true);
  const std::string joining = R"({"event":"room","status":4})";
  ASSERT_TRUE(visitor.waitForOutput(R"("event":"started")")) << visitor.output();
  const int joinsBefore = visitor.occurrences(joining);
  visitor.send("Where is my order?\n");
  ASSERT_TRUE(visitor.waitForOutput("Let me look that up for you.")) << visitor.output();

  const auto pid = std::stoi(test::readFile(sandbox.folder.file("prosody/prosody.pid")));
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  ASSERT_TRUE(sandbox.process->waitForOutput("(killed by SIGKILL); starting it again"))
      << sandbox.process->output();
  ASSERT_TRUE(sandbox.process->waitForOutput("operator Omar (42) is back in the room of chat 1"))
      << sandbox.process->output();
  // Each step of the operator's return is told.
  for (const char* step : {"operator Omar (42): connection to the XMPP server lost",
                           "the XMPP server takes clients again",
                           "operator Omar (42): logged in again; going back into the room of "
                           "chat 1"}) {
    EXPECT_EQ(sandbox.process->occurrences(step), 1) << step << "\n" << sandbox.process->output();
  }
  ASSERT_TRUE(visitor.waitForOutput(joining, joinsBefore + 1)) << visitor.output();

  visitor.send("Thanks\nBye\n");
  ASSERT_TRUE(sandbox.process->waitForOutput("chat 1 ended by the operator"))
      << sandbox.process->output();
  EXPECT_EQ(visitor.finishInput(), 0) << visitor.output();
  const auto said = conversation(visitor.output());
  // Every answer reaches the visitor once, in order: the rejoin's catch-up from the room's
  // archive, kept on disk across the restart, recognises what the visitor already had.
  EXPECT_EQ(omarsLines(said), kScriptedAnswers) << visitor.output();
  EXPECT_EQ(std::vector(said.end() - 2, said.end()),
            (std::vector<std::string>{"ended", "-: Left the conversation"}));
  // The operator kept the conversation on the service's side.
  EXPECT_EQ(sandbox.query("SELECT sender, text FROM messages ORDER BY id LIMIT 2"),
            (std::vector<std::string>{"visitor|Where is my order?",
                                      "operator|Let me look that up for you."}));
  EXPECT_EQ(sandbox.query("SELECT text FROM messages WHERE sender = 'visitor'"),
            (std::vector<std::string>{"Where is my order?", "Thanks", "Bye"}))
      << visitor.output() << sandbox.process->output();
  EXPECT_EQ(sandbox.query("SELECT ended FROM chats"), std::vector<std::string>{"1"});
}

TEST(KQVisitorSandboxTest, RefusalsAreToldToTheVisitorAndOfflineMessagesAndFilesAreKept) {
  Sandbox sandbox;
  ASSERT_TRUE(sandbox.ready) << sandbox.process->output();
  const auto blocked =
      sandbox.chat({"chat", "--domain", "blocked.example", "--http", "--json"}, "Hi\n");
  EXPECT_EQ(blocked.exitStatus, 1);
  EXPECT_NE(
      blocked.out.find(R"({"event":"error","domain":"WebSite Blocked","code":400,"status":4})"),
      std::string::npos)
      << blocked.out;

  const auto closed = sandbox.chat({"chat", "--domain", "closed.example", "--http", "--json"});
  EXPECT_EQ(closed.exitStatus, 1);
  EXPECT_NE(closed.out.find(R"("domain":"Operator not found","code":500,"status":2)"),
            std::string::npos)
      << closed.out;
  EXPECT_NE(closed.err.find("kqvisitor-chat soap"), std::string::npos) << closed.err;

  // The visitor leaves an offline message instead; the service keeps it.
  const auto offline = sandbox.chat(
      {"soap", "offline", "Name=Ann", "Email=ann@example.com", "Message=Call me back?"});
  EXPECT_EQ(offline.exitStatus, 0) << offline.out << offline.err;
  const auto kept = sandbox.query("SELECT fields FROM offline_messages");
  ASSERT_EQ(kept.size(), 1U) << sandbox.process->output();
  EXPECT_NE(kept[0].find(R"("Email":"ann@example.com")"), std::string::npos) << kept[0];
  EXPECT_NE(kept[0].find("Call me back?"), std::string::npos) << kept[0];

  // An uploaded file is served back by its link.
  std::string bytes(300000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>(i * 7 % 251);
  }
  test::writeFile(sandbox.folder.file("photo.bin"), bytes);
  const auto uploaded = sandbox.chat({"upload", sandbox.folder.file("photo.bin")});
  ASSERT_EQ(uploaded.exitStatus, 0) << uploaded.out << uploaded.err;
  const auto answer = test::jsonLines(uploaded.out).back();
  ASSERT_TRUE(answer.contains("link")) << uploaded.out;
  const std::string link = answer["link"];
  const auto path = link.substr(link.find('/', link.find("//") + 2));
  ASSERT_TRUE(link.starts_with("https://")) << link;
  httplib::Client client(link.substr(0, link.size() - path.size()));
  client.set_ca_cert_path(sandbox.folder.file("tls/ca.pem"));
  const auto download = client.Get(path);
  ASSERT_TRUE(download) << link;
  EXPECT_EQ(download->status, 200);
  EXPECT_TRUE(download->body == bytes) << "the same bytes come back";
}

TEST(KQVisitorSandboxTest, AFixtureWithAMistakeOrATakenPortIsRefusedSayingWhatToDo) {
  const Sandbox broken(R"({"websites": [{"id": "12", "domain": "a.example",
                                          "operators": [{"id": "x1", "name": "Omar"}]}]})");
  EXPECT_FALSE(broken.ready);
  EXPECT_EQ(broken.process->stop(), 1);
  EXPECT_NE(
      broken.process->output().find("websites[0].operators[0].id: must be a string of digits"),
      std::string::npos)
      << broken.process->output();

  // A data folder that cannot be made (under a file).
  test::TemporaryDirectory other;
  test::writeFile(other.file("file"), "");
  const auto nowhere = test::runChild({KQ_SANDBOX, "--data", other.file("file/data")});
  EXPECT_EQ(nowhere.exitStatus, 1);
  EXPECT_NE(nowhere.err.find("cannot make the data folder"), std::string::npos) << nowhere.err;
  EXPECT_NE(nowhere.err.find("Choose another with --data"), std::string::npos) << nowhere.err;

  const Sandbox first;
  ASSERT_TRUE(first.ready) << first.process->output();
  const auto settings = Json::parse(test::readFile(first.folder.file("config.json")));
  const std::string origin = settings["jsonServiceProductionOrigin"];
  test::BackgroundChild second(
      {KQ_SANDBOX, "--data", other.path(), "--port", origin.substr(origin.rfind(':') + 1)});
  EXPECT_FALSE(second.waitForOutput(" ready\n"));
  EXPECT_EQ(second.stop(), 1);
  EXPECT_NE(second.output().find("the port is taken"), std::string::npos) << second.output();
}

}  // namespace
}  // namespace kq
