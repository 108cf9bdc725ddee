#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/detail/WebServiceText.h>

#include "tests/support/WebServiceFixture.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace kq {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using test::RawHTTPServer;
using test::WebServiceFixture;

TEST(KQVisitorWebServiceUrlBuilderTest, WritesEachParameterInOrderWithATrailingAmpersand) {
  EXPECT_EQ(KQVisitorWebService::urlBuilder({{"parWI", 12}, {"parVI", "abc"}}),
            "?parWI=12&parVI=abc&");
  EXPECT_EQ(KQVisitorWebService::urlBuilder({{"parVI", "abc"}, {"parWI", 12}}),
            "?parVI=abc&parWI=12&");
  EXPECT_EQ(KQVisitorWebService::urlBuilder(Json::object()), "?");
  EXPECT_EQ(KQVisitorWebService::urlBuilder(nullptr), "?");
  // Values as their text, nothing escaped at this step.
  const Json values = {{"t", true},
                       {"f", false},
                       {"n", nullptr},
                       {"d", 2.5},
                       {"neg", -7},
                       {"s", "a b&c=d"},
                       {"e", ""},
                       {"list", {1, 2}},
                       {"date", Date::dateWithTimeIntervalSince1970(1794701152)},
                       {"max", std::numeric_limits<std::uint64_t>::max()},
                       {"min", std::numeric_limits<std::int64_t>::min()}};
  EXPECT_EQ(KQVisitorWebService::urlBuilder(values),
            "?t=1&f=0&n=<null>&d=2.5&neg=-7&s=a b&c=d&e=&list=[1,2]&date=2026-11-15 00:05:52 "
            "+0000&max=18446744073709551615&min=-9223372036854775808&");
}

TEST(KQVisitorWebServiceResultTest, CleansTheServicesDoubleEncodingBeforeParsing) {
  const std::pair<std::string, Json> cases[] = {
      // A member holding an object serialised into a string reads as the object itself.
      {R"({"d":"{\"status\":1,\"C_I\":\"42\"}"})", {{"d", {{"status", 1}, {"C_I", "42"}}}}},
      {R"([{"a":1},{"a":2}])", Json::array({{{"a", 1}}, {{"a", 2}}})},
      // Not a JSON document: the cleaned text without double quotes, under "response".
      {"Done", {{"response", "Done"}}},
      {R"("Done")", {{"response", "Done"}}},
      {"42", {{"response", "42"}}},
      // No body at all: an empty text, never a null result.
      {"", {{"response", ""}}},
      {R"({"broken":)", {{"response", "{broken:"}}},
      // Text inside the payload is altered too: backslashes go, and so do quotes next to
      // braces.
      {R"({"m":"C:\\dir","n":"a}\"b"})", {{"m", "C:dir"}, {"n", "a}b"}}},
  };
  for (const auto& [answer, expected] : cases) {
    EXPECT_EQ(KQVisitorWebService::resultFromResponseData(answer), expected) << answer;
  }
  // Bytes that are not UTF-8 never make a result that cannot be written out again.
  const Json invalid = KQVisitorWebService::resultFromResponseData("bad \xff\xfe text");
  EXPECT_EQ(invalid["response"], "bad \xEF\xBF\xBD\xEF\xBF\xBD text");
  EXPECT_NO_THROW((void)invalid.dump());
}

// The cleaning written as its three steps, each a plain pass over the whole text: what the
// one-pass cleaning must equal on every input.
std::string cleanedInThreeSteps(const std::string& text) {
  std::string first;
  for (const char c : text) {
    if (c != '\\') {
      first.push_back(c);
    }
  }
  std::string second;
  for (std::size_t i = 0; i < first.size(); ++i) {
    if (first[i] == '"' && i + 1 < first.size() && first[i + 1] == '{') {
      continue;
    }
    second.push_back(first[i]);
  }
  std::string third;
  for (std::size_t i = 0; i < second.size(); ++i) {
    third.push_back(second[i]);
    if (second[i] == '}' && i + 1 < second.size() && second[i + 1] == '"') {
      ++i;
    }
  }
  return third;
}

TEST(KQVisitorWebServiceResultTest, OnePassCleaningEqualsTheThreeStepsOnEveryShortText) {
  // Every text of up to seven characters over the ones the steps act on, and one they do not.
  constexpr std::string_view kAlphabet = "\\\"{}a";
  std::vector<std::string> texts{""};
  for (std::size_t length = 1; length <= 7; ++length) {
    const std::size_t shorter = texts.size();
    for (std::size_t i = 0; i < shorter; ++i) {
      if (texts[i].size() == length - 1) {
        for (const char c : kAlphabet) {
          texts.push_back(texts[i] + c);
        }
      }
    }
  }
  ASSERT_EQ(texts.size(), 97656U);  // 1 + 5 + ... + 5^7
  std::size_t mismatches = 0;
  for (const std::string& text : texts) {
    if (detail::cleanedResponseText(text) != cleanedInThreeSteps(text) && ++mismatches <= 5) {
      ADD_FAILURE() << "text: " << text << " cleaned: " << detail::cleanedResponseText(text)
                    << " expected: " << cleanedInThreeSteps(text);
    }
  }
  EXPECT_EQ(mismatches, 0U);
}

// --- The request frame, against a real server ------------------------------------------------

class KQVisitorWebServiceTest : public WebServiceFixture {};

// The base is read at each request: the HTTP client's chats go to another service.
TEST_F(KQVisitorWebServiceTest, GetPutsTheEscapedParametersInTheQueryUnderTheBaseOfTheMoment) {
  service->requestDataWithParameters({{"a", "x y"}}, "GET", "Op", recorder.success(),
                                     recorder.failure());
  service->requestDataWithParameters(Json::object(), "GET", "Empty", recorder.success(),
                                     recorder.failure());
  service->requestDataWithParameters({{"q", "\xC3\xA9\"<>"}, {"v", "1&x=2"}, {"n", 5}}, "GET",
                                     "Odd", recorder.success(), recorder.failure());
  ASSERT_EQ(recorder.waitFor(3).size(), 3U);
  service->setIsHTTPClient(true);
  service->requestDataWithParameters({{"a", 1}}, "GET", "Beta", recorder.success(), nullptr);
  ASSERT_EQ(recorder.waitFor(4).size(), 4U);
  EXPECT_EQ(service->jsonServiceBaseURL(),
            server.origin() + "/VisitorService_Mobile/ChatService.svc/");
  auto requests = server.requests();
  std::sort(requests.begin(), requests.end(),
            [](const auto& a, const auto& b) { return a.target < b.target; });
  const std::string base = "/VisitorServiceXMPPSSL/ChatService.svc/";
  EXPECT_EQ(requests[0].target, base + "Empty?");
  EXPECT_EQ(requests[1].target, base + "Odd?q=%C3%A9%22%3C%3E&v=1&x=2&n=5&");
  EXPECT_EQ(requests[2].target, base + "Op?a=x%20y&");
  EXPECT_EQ(requests[3].target, "/VisitorService_Mobile/ChatService.svc/Beta?a=1&");
  for (const auto& request : requests) {
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.header("Content-Type"), "text/json");
    EXPECT_EQ(request.body, "");
  }
}

// Any method but "GET" (a lower-case "get" too) goes as written, with the pretty-printed
// parameters as the body; whatever its status, an answer goes to success on the session's
// thread (the cleaning of its text has its own tests).
TEST_F(KQVisitorWebServiceTest, AnyOtherMethodSendsThePrettyPrintedParametersAndAnyAnswerSucceeds) {
  RawHTTPServer raw(test::rawResponse(500, "Some thing went wrong"));
  test::pointServicesAt(raw.origin());
  const Json parameters = {{"parVI", "x y"}, {"parWI", 12}, {"nested", {{"k", true}}}};
  const std::string methods[] = {"POST", "get"};
  for (std::size_t i = 0; i < std::size(methods); ++i) {
    SCOPED_TRACE(methods[i]);
    service->requestDataWithParameters(parameters, methods[i], "InsertChatMessage",
                                       recorder.success(), recorder.failure());
    const auto events = recorder.waitFor(i + 1);
    ASSERT_EQ(events.size(), i + 1);
    EXPECT_EQ(events[i].kind, "success");
    EXPECT_EQ(events[i].value, Json({{"response", "Some thing went wrong"}}));
    EXPECT_TRUE(events[i].onSession);
    const std::string request = raw.rawRequests().at(i);
    EXPECT_EQ(request.substr(0, request.find("\r\n")),
              methods[i] + " /VisitorServiceXMPPSSL/ChatService.svc/InsertChatMessage HTTP/1.1");
    EXPECT_NE(request.find("\r\nContent-Type: text/json\r\n"), std::string::npos);
    EXPECT_EQ(
        request.substr(request.find("\r\n\r\n") + 4),
        "{\n  \"parVI\": \"x y\",\n  \"parWI\": 12,\n  \"nested\": {\n    \"k\": true\n  }\n}");
  }
}

TEST_F(KQVisitorWebServiceTest, ATransportFailureGoesToFailureWithTheSessionsError) {
  KQVisitorWebService::Dependencies quick = dependencies();
  quick.requestTimeout = 200ms;
  KQVisitorWebService impatient(quick);
  server.holdResponses();
  impatient.requestDataWithParameters(Json::object(), "GET", "Slow", recorder.success(),
                                      recorder.failure());
  const auto events = recorder.waitFor(1);
  server.release();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].kind, "failure");
  EXPECT_EQ(events[0].value["domain"], "CURLE");
  EXPECT_EQ(events[0].value["code"], HTTPSession::kErrorTimedOut);
  EXPECT_TRUE(events[0].onSession);
}

TEST_F(KQVisitorWebServiceTest, LogoutStopsAndClearsTheTimerButKeepsTheVisitor) {
  auto visitor = std::make_shared<KQVisitorUser>();
  service->setIsHTTPClient(true);  // no XMPP connection for an HTTP client
  service->loginClientUser(visitor);
  EXPECT_EQ(service->currentUser(), visitor);
  auto timer = Timer::scheduledTimer(DispatchQueue::main(), 1h, true, [](Timer&) {});
  service->setTimer(timer);
  service->logout();
  EXPECT_FALSE(timer->isValid());
  EXPECT_EQ(service->timer(), nullptr);
  EXPECT_EQ(service->currentUser(), visitor);
  service->logout();  // without a timer: nothing to stop
}

}  // namespace
}  // namespace kq
