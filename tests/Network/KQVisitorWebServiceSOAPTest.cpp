#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/StringKQVisitorWebService.h>

#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;
using test::WebServiceFixture;

const std::string kDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";
const std::string kNamespaces = R"( xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance")"
                                R"( xmlns:xsd="http://www.w3.org/2001/XMLSchema")";

TEST(StringKQVisitorWebServiceTest, BuildsEnvelopesByteForByte) {
  EXPECT_EQ(StringKQVisitorWebService::formatRequest("Ping", Json::object(), "http://ns.test/"),
            kDeclaration + "<soap12:Envelope" + kNamespaces +
                R"( xmlns:soap12="http://www.w3.org/2003/05/soap-envelope"><soap12:Body>)"
                R"(<Ping xmlns="http://ns.test/"></Ping></soap12:Body></soap12:Envelope>)");
  EXPECT_EQ(StringKQVisitorWebService::formatRequestV2("Ping", Json::object(), "http://ns.test/"),
            kDeclaration + "<soap:Envelope" + kNamespaces +
                R"( xmlns:soap="http://www.w3.org/2003/05/soap-envelope"><soap:Body>)"
                R"(<Ping xmlns="http://ns.test/"></Ping></soap:Body></soap:Envelope>)");

  // One child per parameter, in order, values as their text and not XML-escaped.
  const Json parameters = {{"Name", "Ann"}, {"Id", 7}, {"Ok", true}, {"Note", "a&b<c"}};
  const std::string body =
      R"(<Send xmlns="http://ns.test/"><Name>Ann</Name><Id>7</Id><Ok>1</Ok><Note>a&b<c</Note></Send>)";
  const std::string v1 =
      StringKQVisitorWebService::formatRequest("Send", parameters, "http://ns.test/");
  const std::string v2 =
      StringKQVisitorWebService::formatRequestV2("Send", parameters, "http://ns.test/");
  EXPECT_NE(v1.find("<soap12:Body>" + body + "</soap12:Body>"), std::string::npos) << v1;
  EXPECT_NE(v2.find("<soap:Body>" + body + "</soap:Body>"), std::string::npos) << v2;
  std::string v1AsV2 = v1;
  for (std::size_t at = 0; (at = v1AsV2.find("soap12", at)) != std::string::npos;) {
    v1AsV2.replace(at, 6, "soap");
  }
  EXPECT_EQ(v1AsV2, v2) << "the two builders differ only in the prefix";
}

class KQVisitorWebServiceSOAPTest : public WebServiceFixture {
 protected:
  KQVisitorWebService::ResultBlock result() {
    return [this](bool ok, long status) { recorder.record("result", {ok, status}); };
  }

  // Runs one operation and answers its result.
  Json call(void (KQVisitorWebService::*operation)(const Json&,
                                                   const KQVisitorWebService::ResultBlock&),
            const Json& parameters = Json::object()) {
    const std::size_t before = recorder.events().size();
    (service.get()->*operation)(parameters, result());
    const auto events = recorder.waitFor(before + 1);
    EXPECT_EQ(events.size(), before + 1);
    EXPECT_TRUE(events.back().onSession);
    return events.back().value;
  }
};

TEST_F(KQVisitorWebServiceSOAPTest, TheFramePostsTheEnvelopeWithItsActionAndReportsAnyOutcome) {
  const std::string url = server.origin() + "/ManagementService/ManagementService.asmx";
  server.setDefaultResponse({200, "<ok/>", "text/xml", {}});
  std::atomic<bool> failureCalled = false;
  service->requestData(
      "SendOfflineEmail", {{"Name", "Ann"}}, "http://kq.test/SendOfflineEmail", url,
      [this](const std::optional<HTTPResponse>& response, const std::optional<std::string>& data) {
        recorder.record("success", {response ? response->statusCode : -1, data.value_or("-")});
      },
      [&](auto, auto) { failureCalled = true; });
  auto events = recorder.waitFor(1);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].value, Json({200, "<ok/>"}));
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/ManagementService/ManagementService.asmx");
  EXPECT_EQ(request.header("SOAPAction"), "http://kq.test/SendOfflineEmail");
  EXPECT_EQ(request.header("Content-Type"), "text/xml");
  EXPECT_EQ(request.body, service->formatRequest("SendOfflineEmail", {{"Name", "Ann"}}));
  EXPECT_EQ(request.body, StringKQVisitorWebService::formatRequest(
                              "SendOfflineEmail", {{"Name", "Ann"}}, "http://kq.test/"));

  // A transport failure still ends in success, with neither response nor body.
  service->requestData(
      "GetAllLanguages", Json::object(), "x",
      "http://127.0.0.1:" + std::to_string(test::unusedPort()) + "/",
      [this](const std::optional<HTTPResponse>& response, const std::optional<std::string>& data) {
        recorder.record("success", {response.has_value(), data.has_value()});
      },
      [&](auto, auto) { failureCalled = true; });
  events = recorder.waitFor(2);
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[1].value, Json({false, false}));
  EXPECT_FALSE(failureCalled);
}

TEST_F(KQVisitorWebServiceSOAPTest, TheOfflineMessageReportsSixOnlyForA2xxAnswer) {
  server.enqueueResponse({200, "", "text/xml", {}});
  server.enqueueResponse({299, "", "text/xml", {}});
  server.enqueueResponse({500, "<soap:Fault/>", "text/xml", {}});
  server.enqueueResponse({302, "", "text/xml", {}});
  EXPECT_EQ(call(&KQVisitorWebService::sendofflineContactToServer, {{"Email", "a@b"}}),
            Json({true, 6}));
  EXPECT_EQ(call(&KQVisitorWebService::sendofflineContactToServer), Json({true, 6}));
  EXPECT_EQ(call(&KQVisitorWebService::sendofflineContactToServer), Json({true, 7}));
  EXPECT_EQ(call(&KQVisitorWebService::sendofflineContactToServer), Json({true, 7}));
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.target, "/ManagementService/ManagementService.asmx");
  EXPECT_EQ(request.header("SOAPAction"), "http://kq.test/SendOfflineEmail");
  EXPECT_NE(request.body.find(R"(<SendOfflineEmail xmlns="http://kq.test/"><Email>a@b</Email>)"),
            std::string::npos);

  test::pointServicesAt("http://127.0.0.1:" + std::to_string(test::unusedPort()));
  EXPECT_EQ(call(&KQVisitorWebService::sendofflineContactToServer), Json({true, 7}))
      << "no answer reads as status 0";
}

TEST_F(KQVisitorWebServiceSOAPTest, TheLanguageListReportsSixWhateverHappened) {
  server.enqueueResponse({200, "<languages/>", "text/xml", {}});
  server.enqueueResponse({500, "<soap:Fault/>", "text/xml", {}});
  EXPECT_EQ(call(&KQVisitorWebService::getLanguagesList), Json({true, 6}));
  EXPECT_EQ(call(&KQVisitorWebService::getLanguagesList), Json({true, 6}));
  EXPECT_EQ(server.requests().at(0).header("SOAPAction"), "http://kq.test/GetAllLanguages");
  test::pointServicesAt("http://127.0.0.1:" + std::to_string(test::unusedPort()));
  EXPECT_EQ(call(&KQVisitorWebService::getLanguagesList), Json({true, 6}));
}

}  // namespace
}  // namespace kq
