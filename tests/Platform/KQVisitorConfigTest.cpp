#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

namespace kq {
namespace {

// The key named by the error, or "<valid>" when the text is accepted.
std::string rejectedKey(const std::string& json) {
  try {
    KQVisitorConfig::fromJSON(json);
    return "<valid>";
  } catch (const KQVisitorConfig::Error& error) {
    EXPECT_NE(std::string(error.what()).find(error.key()), std::string::npos)
        << "the message names the key: " << error.what();
    return error.key();
  }
}

TEST(KQVisitorConfigTest, TheDefaultsAreUsable) {
  EXPECT_NO_THROW(KQVisitorConfig{}.validate());
}

TEST(KQVisitorConfigTest, KeysOverrideTheDefaultsAndTheRestStay) {
  const auto config = KQVisitorConfig::fromJSON(
      R"({"jsonServiceBetaOrigin": "http://127.0.0.1:8080", "xmppPort": 15222, "xmppHost": "127.0.0.1",
          "httpPollInterval": 0.25})");
  EXPECT_EQ(config.jsonServiceBetaOrigin, "http://127.0.0.1:8080");
  EXPECT_EQ(config.xmppPort, 15222);
  EXPECT_EQ(config.xmppHost, "127.0.0.1");
  EXPECT_EQ(config.httpPollInterval, 0.25);
  EXPECT_EQ(config.jsonServiceProductionOrigin, KQVisitorConfig{}.jsonServiceProductionOrigin);
}

TEST(KQVisitorConfigTest, UnusableSettingsAreRejectedNamingTheKey) {
  EXPECT_EQ(rejectedKey(R"({"xmppport": 5225})"), "xmppport") << "keys are case-sensitive";
  EXPECT_EQ(rejectedKey(R"({"xmppPort": "5225"})"), "xmppPort");
  EXPECT_EQ(rejectedKey(R"({"xmppPort": 70000})"), "xmppPort");
  EXPECT_EQ(rejectedKey(R"({"xmppPort": 52.5})"), "xmppPort");
  EXPECT_EQ(rejectedKey(R"({"httpPollInterval": 0})"), "httpPollInterval");
  EXPECT_EQ(rejectedKey(R"({"httpPollInterval": "2"})"), "httpPollInterval");
  EXPECT_EQ(rejectedKey(R"({"httpPollInterval": 86400})"), "httpPollInterval");
  EXPECT_EQ(rejectedKey(R"({"xmppReconnectInterval": -5})"), "xmppReconnectInterval");
  EXPECT_EQ(rejectedKey(R"({"caFile": null})"), "caFile");
  EXPECT_EQ(rejectedKey(R"({"caFile": "/nonexistent/ca.pem"})"), "caFile");
  EXPECT_EQ(rejectedKey(R"({"soapServiceOrigin": "https://host/ManagementService"})"),
            "soapServiceOrigin");
  EXPECT_EQ(rejectedKey(R"({"uploadServiceOrigin": "ftp://host"})"), "uploadServiceOrigin");
  EXPECT_EQ(rejectedKey(R"({"jsonServiceProductionOrigin": "https://:443"})"),
            "jsonServiceProductionOrigin");
  EXPECT_EQ(rejectedKey(R"({"jsonServiceProductionOrigin": "https://host:0"})"),
            "jsonServiceProductionOrigin");
  EXPECT_EQ(rejectedKey(R"({"xmppHost": ""})"), "xmppHost");
  EXPECT_EQ(rejectedKey(R"({"jsonServiceBetaOrigin": "https://[::1]:8443"})"), "<valid>");
  EXPECT_EQ(rejectedKey(R"({"jsonServiceBetaOrigin": "http://localhost:8080"})"), "<valid>");
  EXPECT_EQ(rejectedKey("[]"), "");
  EXPECT_EQ(rejectedKey("{"), "");
}

TEST(KQVisitorConfigTest, TheEnvironmentNamesTheFileAndErrorsNameIt) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("config.json");
  test::writeFile(path, R"({"xmppHost": "chat.example.org", "xmppPort": 5333})");
  ::setenv("KQVISITOR_CONFIG", path.c_str(), 1);
  const auto config = KQVisitorConfig::fromEnvironment();
  EXPECT_EQ(config.xmppHost, "chat.example.org");
  EXPECT_EQ(config.xmppPort, 5333);

  test::writeFile(path, R"({"xmppHost": "chat.example.org", "colour": "blue"})");
  try {
    KQVisitorConfig::fromEnvironment();
    ADD_FAILURE() << "an unknown key was accepted";
  } catch (const KQVisitorConfig::Error& error) {
    const std::string message = error.what();
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find("\"colour\""), std::string::npos) << message;
  }
  ::setenv("KQVISITOR_CONFIG", folder.file("missing.json").c_str(), 1);
  EXPECT_THROW(KQVisitorConfig::fromEnvironment(), KQVisitorConfig::Error);
  ::unsetenv("KQVISITOR_CONFIG");
  EXPECT_EQ(KQVisitorConfig::fromEnvironment().xmppHost, KQVisitorConfig{}.xmppHost);
}

// Runs `check` in a fresh process of this test program (the settings load once per process)
// with KQVISITOR_CONFIG naming a file that holds `contents`; the check answers what went wrong,
// empty when nothing did.
void expectInAFreshProcess(const std::string& contents, const std::function<std::string()>& check) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  test::TemporaryDirectory folder;
  const std::string path = folder.file("config.json");
  test::writeFile(path, contents);
  ::setenv("KQVISITOR_CONFIG", path.c_str(), 1);
  EXPECT_EXIT(
      {
        const std::string problem = check();
        if (!problem.empty()) {
          std::fprintf(stderr, "%s\n", problem.c_str());
        }
        std::exit(problem.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  ::unsetenv("KQVISITOR_CONFIG");
}

bool refuses(std::initializer_list<std::string_view> keys) {
  try {
    KQVisitorConfig::sharedFor(keys);
    return false;
  } catch (const KQVisitorConfig::Error&) {
    return true;
  }
}

TEST(KQVisitorConfigTest, ABrokenFileNeverThrowsAndOnlyWhatNeedsTheBrokenSettingFails) {
  expectInAFreshProcess(R"({"xmppPort": "five", "soapNamespace": "urn:kept"})", [] {
    test::LogCapture log;
    // The singletons are built on the defaults; nothing throws to the host.
    const auto config = KQVisitorConfig::shared();
    auto& client = KQVisitorXMPPClient::instance();
    KQVisitorConfig::shared();
    if (config.xmppPort != KQVisitorConfig{}.xmppPort) {
      return std::string("the defaults do not stand in");
    }
    const auto lines = log.lines();
    if (std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
          return line.find("xmppPort") != std::string::npos &&
                 line.find("config.json") != std::string::npos;
        }) != 1) {
      return std::string("the problem is not logged once with the file and the key");
    }
    if (!refuses({"xmppHost", "xmppPort"}) || refuses({"soapServiceOrigin"})) {
      return std::string("sharedFor refuses the wrong settings");
    }
    try {
      KQVisitorConfig::sharedSetting(&KQVisitorConfig::xmppHost, {"xmppHost", "xmppPort"});
      return std::string("sharedSetting hands out a setting the broken one concerns");
    } catch (const KQVisitorConfig::Error&) {
    }
    if (KQVisitorConfig::sharedSetting(&KQVisitorConfig::soapNamespace, {"soapNamespace"}) !=
        KQVisitorConfig{}.soapNamespace) {
      return std::string("sharedSetting does not hand out the default that stands in");
    }
    // The connection that needs the broken port fails, instead of going to a default server.
    auto user = std::make_shared<KQVisitorUser>();
    user->setUserId("v1");
    if (client.connectUser(user) || !client.xmppStream()->isDisconnected() ||
        !log.contains("not connecting")) {
      return std::string("the client connected on a broken port");
    }
    return std::string();
  });
}

TEST(KQVisitorConfigTest, ABrokenSettingsPathKeepsTheSettingsInMemoryNotInTheDefaultFile) {
  test::TemporaryDirectory home;
  expectInAFreshProcess(R"({"userDefaultsPath": 5})", [&home] {
    ::setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
    test::LogCapture log;
    auto& defaults = UserDefaults::standard();
    defaults.setObject("kept", "key");
    if (defaults.stringForKey("key") != "kept") {
      return std::string("the settings do not work in memory");
    }
    if (defaults.synchronize() || !defaults.path().empty()) {
      return std::string("the settings claim to be saved");
    }
    if (::access(home.file("KQVisitorCore/UserDefaults.json").c_str(), F_OK) == 0) {
      return std::string("the settings went to the default file");
    }
    if (!log.contains("kept in memory only")) {
      return std::string("the fallback is not logged");
    }
    return std::string();
  });
}

TEST(KQVisitorConfigTest, AFileThatCannotBeParsedFailsEveryCallThroughItsCallback) {
  expectInAFreshProcess("{ not json", [] {
    test::LogCapture log;
    if (!refuses({"jsonServiceProductionOrigin"}) || !refuses({"uploadServiceOrigin"})) {
      return std::string("a broken file must concern every setting");
    }
    std::optional<KQError> failed;
    KQVisitorWebService::sharedInstance().requestDataWithParameters(
        nlohmann::ordered_json::object(), "GET", "GetWI",
        [](std::nullptr_t, const nlohmann::ordered_json&) {},
        [&failed](std::nullptr_t, const KQError& error) { failed = error; });
    if (!failed || failed->description().find("config.json") == std::string::npos) {
      return std::string("the call did not fail through its callback naming the file");
    }
    return std::string();
  });
}

}  // namespace
}  // namespace kq
