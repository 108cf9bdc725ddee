// kqvisitor-chat xmpp, run as a child process against a real Prosody.

#include "tests/support/ChildProcess.h"
#include "tests/support/JSONLines.h"
#include "tests/support/Loopback.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <map>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;
using test::named;

class KQVisitorChatXMPPCommandTest : public ::testing::Test {
 protected:
  void writeConfig(int port, const std::string& caFile) {
    test::writeFile(
        config(), Json({{"xmppHost", "127.0.0.1"}, {"xmppPort", port}, {"caFile", caFile}}).dump());
  }

  [[nodiscard]] std::string config() const { return folder.file("config.json"); }

  test::ChildResult chat(std::vector<std::string> arguments, const std::string& input) {
    arguments.insert(arguments.begin(), {KQ_CHAT_TOOL, "xmpp"});
    return test::runChild(arguments, {"KQVISITOR_CONFIG=" + config()}, input);
  }

  test::TemporaryDirectory folder;
};

TEST_F(KQVisitorChatXMPPCommandTest, ChatsInTheRoomFromStandardInputAndLeavesOnceDelivered) {
  test::ProsodyServer server({});
  writeConfig(server.port(), server.caFile());
  const auto result = chat({"--chat-id", "31", "--website-id", "W9", "--user-id", "77", "--nick",
                            "Ann", "--invite", "42", "--reason", "31|W9|77|Ann|x|Hello", "--json"},
                           "Hello operator\nAre you there?\n");
  ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
  const auto all = test::jsonLines(result.out);

  ASSERT_FALSE(named(all, "login").empty()) << result.out;
  EXPECT_EQ(named(all, "login").front()["success"], true);
  std::vector<std::string> roomStates;
  for (const auto& event : named(all, "room")) {
    EXPECT_EQ(event["room"], "room31@conference.localhost");
    roomStates.push_back(event["state"]);
  }
  EXPECT_EQ(roomStates, (std::vector<std::string>{"created", "joined", "configured", "left"}));
  ASSERT_EQ(named(all, "invite").size(), 1U);
  EXPECT_EQ(named(all, "invite").front()["operator"], "42@localhost");

  // Both lines went out as chat packets and came back from the room before it was left.
  const auto messages = named(all, "message");
  ASSERT_EQ(messages.size(), 2U) << result.out;
  EXPECT_EQ(messages[0]["body"], "Hello operator");
  EXPECT_EQ(messages[1]["body"], "Are you there?");
  for (const auto& message : messages) {
    EXPECT_EQ(message["chatId"], "31");
    EXPECT_EQ(message["websiteId"], "W9");
    EXPECT_EQ(message["visitorId"], "77");
    EXPECT_EQ(message["visitorName"], "Ann");
    EXPECT_EQ(message["managerId"], "0");
    EXPECT_EQ(message["ignored"], false);
    EXPECT_TRUE(message["timeStamp"].is_string());
  }
  EXPECT_TRUE(named(all, "unsent").empty());
  EXPECT_EQ(all.back()["event"], "disconnect");
  EXPECT_TRUE(all.back()["error"].is_null());
}

TEST_F(KQVisitorChatXMPPCommandTest, ARunThatNeverLogsInFailsSaysWhatToCheckAndReportsItsLines) {
  writeConfig(test::unusedPort(), "");
  auto result = chat({"--json"}, "");
  EXPECT_EQ(result.exitStatus, 1) << "also with nothing left undelivered: " << result.out;
  EXPECT_TRUE(named(test::jsonLines(result.out), "login").empty()) << result.out;
  EXPECT_NE(result.err.find("never logged in"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("xmppHost, xmppPort and caFile"), std::string::npos) << result.err;

  // The line typed is reported whether the connection fails or the run ends inside its first
  // step (a user id that makes no address), before standard input is read at all.
  for (const auto& [userId, error] : std::map<std::string, std::string>{
           {"visitor", "Cannot connect to"}, {"a@b", "cannot connect"}}) {
    result = chat({"--chat-id", "31", "--user-id", userId, "--nick", "Ann", "--json"}, "Hello\n");
    EXPECT_EQ(result.exitStatus, 1) << result.out << result.err;
    const auto all = test::jsonLines(result.out);
    ASSERT_FALSE(named(all, "disconnect").empty()) << result.out;
    EXPECT_NE(named(all, "disconnect").front()["error"].get<std::string>().find(error),
              std::string::npos);
    ASSERT_EQ(named(all, "unsent").size(), 1U) << result.out;
    EXPECT_EQ(named(all, "unsent").front()["body"], "Hello");
  }
}

TEST_F(KQVisitorChatXMPPCommandTest, BadArgumentsExitWithStatusTwo) {
  writeConfig(5225, "");
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--invite", "42"},
                                                    {"--chat-id", "1", "--invite", "42"},
                                                    {"--tls", "sometimes"},
                                                    {"--unknown"}}) {
    const auto result = chat(arguments, "");
    EXPECT_EQ(result.exitStatus, 2) << arguments.front();
    EXPECT_NE(result.err.find("usage: kqvisitor-chat xmpp"), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace kq
