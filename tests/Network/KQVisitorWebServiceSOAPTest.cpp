#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/StringKQVisitorWebService.h>

#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;
using test::WebServiceFixture;

// The second builder differs from the first only in the prefix (soap for soap12); parameters
// are one child each, in order, values as their text and not XML-escaped.
TEST(StringKQVisitorWebServiceTest, BuildsEnvelopesByteForByte) {
  const auto asV2 = [](std::string envelope) {
    for (std::size_t at = 0; (at = envelope.find("soap12", at)) != std::string::npos;) {
      envelope.replace(at, 6, "soap");
    }
    return envelope;
  };
  const std::string ping =
      StringKQVisitorWebService::formatRequest("Ping", Json::object(), "http://ns.test/");
  EXPECT_EQ(ping, R"(<?xml version="1.0" encoding="UTF-8"?><soap12:Envelope)"
                  R"( xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance")"
                  R"( xmlns:xsd="http://www.w3.org/2001/XMLSchema")"
                  R"( xmlns:soap12="http://www.w3.org/2003/05/soap-envelope"><soap12:Body>)"
                  R"(<Ping xmlns="http://ns.test/"></Ping></soap12:Body></soap12:Envelope>)");
  EXPECT_EQ(StringKQVisitorWebService::formatRequestV2("Ping", Json::object(), "http://ns.test/"),
            asV2(ping));
  const Json parameters = {{"Name", "Ann"}, {"Id", 7}, {"Ok", true}, {"Note", "a&b<c"}};
  const std::string send =
      StringKQVisitorWebService::formatRequest("Send", parameters, "http://ns.test/");
  EXPECT_NE(send.find(R"(<soap12:Body><Send xmlns="http://ns.test/"><Name>Ann</Name><Id>7</Id>)"
                      R"(<Ok>1</Ok><Note>a&b<c</Note></Send></soap12:Body>)"),
            std::string::npos)
      << send;
  EXPECT_EQ(StringKQVisitorWebService::formatRequestV2("Send", parameters, "http://ns.test/"),
            asV2(send));
}

class KQVisitorWebServiceSOAPTest : public WebServiceFixture {
 protected:
  // Runs one operation and answers its result, {ok, status}.
  Json call(void (KQVisitorWebService::*operation)(const Json&,
                                                   const KQVisitorWebService::ResultBlock&),
            const Json& parameters = Json::object()) {
    const std::size_t before = recorder.events().size();
    (service.get()->*operation)(parameters, [this](bool ok, long status) {
      recorder.record("result", {ok, status});
    });
    const auto events = recorder.waitFor(before + 1);
    EXPECT_EQ(events.size(), before + 1);
    EXPECT_TRUE(events.back().onSession);
    return events.back().value;
  }

  // Posts through the frame to `url` and answers what reached success: {status, body}, null
  // for what is absent.
  Json post(const std::string& url) {
    const std::size_t before = recorder.events().size();
    service->requestData(
        "SendOfflineEmail", {{"Name", "Ann"}}, "http://kq.test/SendOfflineEmail", url,
        [this](const std::optional<HTTPResponse>& response,
               const std::optional<std::string>& data) {
          recorder.record("success", {response ? Json(response->statusCode) : Json(),
                                      data ? Json(*data) : Json()});
        },
        [this](auto, auto) { recorder.record("failure"); });
    const auto events = recorder.waitFor(before + 1);
    return events.size() == before + 1 && events.back().kind == "success" ? events.back().value
                                                                          : Json("no success");
  }
};

// The frame posts the envelope with its action; a transport failure still ends in success,
// with neither response nor body.
TEST_F(KQVisitorWebServiceSOAPTest, TheFramePostsTheEnvelopeWithItsActionAndReportsAnyOutcome) {
  server.setDefaultResponse({200, "<ok/>", "text/xml", {}});
  EXPECT_EQ(post(server.origin() + "/ManagementService/ManagementService.asmx"),
            Json({200, "<ok/>"}));
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/ManagementService/ManagementService.asmx");
  EXPECT_EQ(request.header("SOAPAction"), "http://kq.test/SendOfflineEmail");
  EXPECT_EQ(request.header("Content-Type"), "text/xml");
  EXPECT_EQ(request.body, service->formatRequest("SendOfflineEmail", {{"Name", "Ann"}}));
  EXPECT_EQ(request.body, StringKQVisitorWebService::formatRequest(
                              "SendOfflineEmail", {{"Name", "Ann"}}, "http://kq.test/"));
  EXPECT_EQ(post("http://127.0.0.1:" + std::to_string(test::unusedPort()) + "/"),
            Json({nullptr, nullptr}));
  EXPECT_EQ(recorder.events().size(), 2U) << "failure is never called";
}

// The offline message reports 6 only for a 2xx answer (no answer reads as status 0); the
// language list reports 6 whatever happened.
TEST_F(KQVisitorWebServiceSOAPTest, OperationsReportTheirStatusFromTheAnswer) {
  for (const int status : {200, 299, 500, 302, 200, 500}) {
    server.enqueueResponse({status, status == 500 ? "<soap:Fault/>" : "", "text/xml", {}});
  }
  const auto offline = &KQVisitorWebService::sendofflineContactToServer;
  const auto languages = &KQVisitorWebService::getLanguagesList;
  EXPECT_EQ(call(offline, {{"Email", "a@b"}}), Json({true, 6}));
  EXPECT_EQ(call(offline), Json({true, 6}));
  EXPECT_EQ(call(offline), Json({true, 7}));
  EXPECT_EQ(call(offline), Json({true, 7}));
  EXPECT_EQ(call(languages), Json({true, 6}));
  EXPECT_EQ(call(languages), Json({true, 6}));
  const auto requests = server.requests();
  EXPECT_EQ(requests.at(0).target, "/ManagementService/ManagementService.asmx");
  EXPECT_EQ(requests.at(0).header("SOAPAction"), "http://kq.test/SendOfflineEmail");
  EXPECT_NE(
      requests.at(0).body.find(R"(<SendOfflineEmail xmlns="http://kq.test/"><Email>a@b</Email>)"),
      std::string::npos);
  EXPECT_EQ(requests.at(4).header("SOAPAction"), "http://kq.test/GetAllLanguages");

  test::pointServicesAt("http://127.0.0.1:" + std::to_string(test::unusedPort()));
  EXPECT_EQ(call(offline), Json({true, 7})) << "no answer reads as status 0";
  EXPECT_EQ(call(languages), Json({true, 6}));
}

}  // namespace
}  // namespace kq
