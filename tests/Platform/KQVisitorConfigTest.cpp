#include <KQVisitorCore/Platform/KQVisitorConfig.h>

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>

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
      R"({"jsonServiceBetaOrigin": "http://127.0.0.1:8080", "xmppPort": 15222, "xmppHost": "127.0.0.1"})");
  EXPECT_EQ(config.jsonServiceBetaOrigin, "http://127.0.0.1:8080");
  EXPECT_EQ(config.xmppPort, 15222);
  EXPECT_EQ(config.xmppHost, "127.0.0.1");
  EXPECT_EQ(config.jsonServiceProductionOrigin, KQVisitorConfig{}.jsonServiceProductionOrigin);
}

TEST(KQVisitorConfigTest, UnusableSettingsAreRejectedNamingTheKey) {
  EXPECT_EQ(rejectedKey(R"({"xmppport": 5225})"), "xmppport") << "keys are case-sensitive";
  EXPECT_EQ(rejectedKey(R"({"xmppPort": "5225"})"), "xmppPort");
  EXPECT_EQ(rejectedKey(R"({"xmppPort": 70000})"), "xmppPort");
  EXPECT_EQ(rejectedKey(R"({"xmppPort": 52.5})"), "xmppPort");
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

}  // namespace
}  // namespace kq
