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

TEST(KQVisitorConfigTest, KeysOverrideTheDefaultsAndUnusableSettingsAreRejectedByName) {
  EXPECT_NO_THROW(KQVisitorConfig{}.validate());
  const auto config = KQVisitorConfig::fromJSON(
      R"({"jsonServiceBetaOrigin": "http://127.0.0.1:8080", "xmppPort": 15222, "xmppHost": "127.0.0.1",
          "httpPollInterval": 0.25})");
  EXPECT_EQ(config.jsonServiceBetaOrigin, "http://127.0.0.1:8080");
  EXPECT_EQ(config.xmppPort, 15222);
  EXPECT_EQ(config.xmppHost, "127.0.0.1");
  EXPECT_EQ(config.httpPollInterval, 0.25);
  EXPECT_EQ(config.jsonServiceProductionOrigin, KQVisitorConfig{}.jsonServiceProductionOrigin);

  const std::pair<const char*, const char*> cases[] = {
      {R"({"xmppport": 5225})", "xmppport"},  // keys are case-sensitive
      {R"({"xmppPort": "5225"})", "xmppPort"},
      {R"({"xmppPort": 70000})", "xmppPort"},
      {R"({"xmppPort": 52.5})", "xmppPort"},
      {R"({"httpPollInterval": 0})", "httpPollInterval"},
      {R"({"httpPollInterval": "2"})", "httpPollInterval"},
      {R"({"httpPollInterval": 86400})", "httpPollInterval"},
      {R"({"xmppReconnectInterval": -5})", "xmppReconnectInterval"},
      {R"({"caFile": null})", "caFile"},
      {R"({"caFile": "/nonexistent/ca.pem"})", "caFile"},
      {R"({"soapServiceOrigin": "https://host/ManagementService"})", "soapServiceOrigin"},
      {R"({"uploadServiceOrigin": "ftp://host"})", "uploadServiceOrigin"},
      {R"({"jsonServiceProductionOrigin": "https://:443"})", "jsonServiceProductionOrigin"},
      {R"({"jsonServiceProductionOrigin": "https://host:0"})", "jsonServiceProductionOrigin"},
      {R"({"xmppHost": ""})", "xmppHost"},
      {R"({"jsonServiceBetaOrigin": "https://[::1]:8443"})", "<valid>"},
      {R"({"jsonServiceBetaOrigin": "http://localhost:8080"})", "<valid>"},
      {"[]", ""},
      {"{", ""},
  };
  for (const auto& [json, key] : cases) {
    EXPECT_EQ(rejectedKey(json), key) << json;
  }
}

// Names the settings file in KQVISITOR_CONFIG for its lifetime.
struct ConfigFileScope {
  explicit ConfigFileScope(const std::string& path) {
    ::setenv("KQVISITOR_CONFIG", path.c_str(), 1);
  }
  ~ConfigFileScope() { ::unsetenv("KQVISITOR_CONFIG"); }
  ConfigFileScope(const ConfigFileScope&) = delete;
  ConfigFileScope& operator=(const ConfigFileScope&) = delete;
};

TEST(KQVisitorConfigTest, TheEnvironmentNamesTheFileAndErrorsNameIt) {
  test::TemporaryDirectory folder;
  const std::string path = folder.file("config.json");
  {
    const ConfigFileScope named(path);
    test::writeFile(path, R"({"xmppHost": "chat.example.org", "xmppPort": 5333})");
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
  }
  {
    const ConfigFileScope missing(folder.file("missing.json"));
    EXPECT_THROW(KQVisitorConfig::fromEnvironment(), KQVisitorConfig::Error);
  }
  EXPECT_EQ(KQVisitorConfig::fromEnvironment().xmppHost, KQVisitorConfig{}.xmppHost);
}

// Runs `check` in a fresh process of this test program (the settings load once per process)
// with KQVISITOR_CONFIG naming a file that holds `contents`. The check calls `expect` with each
// condition and what is wrong when it fails.
using Expect = std::function<void(bool, const char*)>;
void expectInAFreshProcess(const std::string& contents,
                           const std::function<void(const Expect&)>& check) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  test::TemporaryDirectory folder;
  test::writeFile(folder.file("config.json"), contents);
  const ConfigFileScope named(folder.file("config.json"));
  EXPECT_EXIT(
      {
        std::string problems;
        check([&problems](bool ok, const char* what) {
          problems += ok ? "" : std::string(what) + "\n";
        });
        std::fprintf(stderr, "%s", problems.c_str());
        std::exit(problems.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
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
  expectInAFreshProcess(
      R"({"xmppPort": "five", "soapNamespace": "urn:kept"})", [](const Expect& expect) {
        test::LogCapture log;
        // The singletons are built on the defaults; nothing throws to the host.
        const auto config = KQVisitorConfig::shared();
        auto& client = KQVisitorXMPPClient::instance();
        KQVisitorConfig::shared();
        expect(config.xmppPort == KQVisitorConfig{}.xmppPort, "the defaults do not stand in");
        const auto lines = log.lines();
        expect(std::count_if(lines.begin(), lines.end(),
                             [](const std::string& line) {
                               return line.find("xmppPort") != std::string::npos &&
                                      line.find("config.json") != std::string::npos;
                             }) == 1,
               "the problem is not logged once with the file and the key");
        expect(refuses({"xmppHost", "xmppPort"}) && !refuses({"soapServiceOrigin"}),
               "sharedFor refuses the wrong settings");
        try {
          KQVisitorConfig::sharedSetting(&KQVisitorConfig::xmppHost, {"xmppHost", "xmppPort"});
          expect(false, "sharedSetting hands out a setting the broken one concerns");
        } catch (const KQVisitorConfig::Error&) {
        }
        expect(KQVisitorConfig::sharedSetting(&KQVisitorConfig::soapNamespace, {"soapNamespace"}) ==
                   KQVisitorConfig{}.soapNamespace,
               "sharedSetting does not hand out the default that stands in");
        // The connection that needs the broken port fails, instead of going to a default server.
        auto user = std::make_shared<KQVisitorUser>();
        user->setUserId("v1");
        expect(!client.connectUser(user) && client.xmppStream()->isDisconnected() &&
                   log.contains("not connecting"),
               "the client connected on a broken port");
      });
}

TEST(KQVisitorConfigTest, ABrokenSettingsPathKeepsTheSettingsInMemoryNotInTheDefaultFile) {
  test::TemporaryDirectory home;
  expectInAFreshProcess(R"({"userDefaultsPath": 5})", [&home](const Expect& expect) {
    ::setenv("XDG_CONFIG_HOME", home.path().c_str(), 1);
    test::LogCapture log;
    auto& defaults = UserDefaults::standard();
    defaults.setObject("kept", "key");
    expect(defaults.stringForKey("key") == "kept", "the settings do not work in memory");
    expect(!defaults.synchronize() && defaults.path().empty(), "the settings claim to be saved");
    expect(::access(home.file("KQVisitorCore/UserDefaults.json").c_str(), F_OK) != 0,
           "the settings went to the default file");
    expect(log.contains("kept in memory only"), "the fallback is not logged");
  });
}

TEST(KQVisitorConfigTest, AFileThatCannotBeParsedFailsEveryCallThroughItsCallback) {
  expectInAFreshProcess("{ not json", [](const Expect& expect) {
    test::LogCapture log;
    expect(refuses({"jsonServiceProductionOrigin"}) && refuses({"uploadServiceOrigin"}),
           "a broken file must concern every setting");
    std::optional<KQError> failed;
    KQVisitorWebService::sharedInstance().requestDataWithParameters(
        nlohmann::ordered_json::object(), "GET", "GetWI",
        [](std::nullptr_t, const nlohmann::ordered_json&) {},
        [&failed](std::nullptr_t, const KQError& error) { failed = error; });
    expect(failed && failed->description().find("config.json") != std::string::npos,
           "the call did not fail through its callback naming the file");
  });
}

}  // namespace
}  // namespace kq
