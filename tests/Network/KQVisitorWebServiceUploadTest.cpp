#include <KQVisitorCore/Network/KQVisitorWebService.h>

#include "tests/support/LogCapture.h"
#include "tests/support/WebServiceFixture.h"

#include <gtest/gtest.h>

#include <regex>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;
using test::WebServiceFixture;

Json fileParameters(const std::string& bytes, const std::optional<std::string>& name) {
  Json parameters = {{"fileData", Json::binary({bytes.begin(), bytes.end()})}};
  if (name) {
    parameters["fileName"] = *name;
  }
  return parameters;
}

// The multipart body of one file, byte for byte.
std::string multipartBody(const std::string& boundary, const std::string& name,
                          const std::string& bytes) {
  return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name +
         "\"\r\nContent-Type:application/octet-stream\r\n\r\n" + bytes + "\r\n--" + boundary +
         "--\r\n";
}

// What follows the head of a raw request.
std::string bodyOf(const std::string& request) {
  return request.substr(std::min(request.find("\r\n\r\n"), request.size() - 4) + 4);
}

// The upload service is a raw server: a server library would parse the multipart body away.
class KQVisitorWebServiceUploadTest : public WebServiceFixture {
 protected:
  void SetUp() override {
    WebServiceFixture::SetUp();
    test::pointServicesAt(uploads.origin());
  }

  test::RawHTTPServer uploads{test::rawResponse(200, R"("https://files.test/a.png")")};

  // Uploads and answers the outcome: {"success"|"failure", text}.
  Json upload(const Json& parameters, KQVisitorWebService::UploadProgress progress = {}) {
    const std::size_t before = recorder.events().size();
    service->uploadFile(
        parameters, [this](const std::string& link) { recorder.record("success", link); },
        [this](const std::string& message) { recorder.record("failure", message); },
        std::move(progress));
    const auto events = recorder.waitFor(before + 1);
    if (events.size() != before + 1) {
      ADD_FAILURE() << "no outcome";
      return nullptr;
    }
    return {events.back().kind, events.back().value};
  }

  // The boundary the raw request declared; checks its form.
  static std::string boundaryOf(const std::string& request) {
    const std::string field = "\r\nContent-Type: multipart/form-data; boundary=";
    const auto at = request.find(field);
    EXPECT_NE(at, std::string::npos) << request.substr(0, request.find("\r\n\r\n"));
    const auto start = std::min(at, request.size() - field.size()) + field.size();
    std::string boundary = request.substr(start, request.find("\r\n", start) - start);
    EXPECT_TRUE(std::regex_match(
        boundary,
        std::regex("Boundary-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")))
        << boundary;
    return boundary;
  }
};

TEST_F(KQVisitorWebServiceUploadTest, SendsOnePartByteForByteWithANewBoundaryEachTime) {
  const std::string bytes("PNG\r\n--\0\xff data", 14);
  EXPECT_EQ(upload(fileParameters(bytes, "a b.png")),
            Json({"success", "https://files.test/a.png"}));
  EXPECT_EQ(upload(fileParameters("", std::nullopt)),
            Json({"success", "https://files.test/a.png"}));
  EXPECT_EQ(upload(Json::object()), Json({"success", "https://files.test/a.png"}));

  const auto requests = uploads.rawRequests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].substr(0, requests[0].find("\r\n")),
            "POST /FileUploader/api/FileUploader/FileTransfer3_5_OP HTTP/1.1");
  const std::string boundary = boundaryOf(requests[0]);
  EXPECT_EQ(bodyOf(requests[0]), multipartBody(boundary, "a b.png", bytes));
  // No name: the text of an absent value; no data: an empty file.
  const std::string second = boundaryOf(requests[1]);
  EXPECT_EQ(bodyOf(requests[1]), multipartBody(second, "(null)", ""));
  EXPECT_EQ(bodyOf(requests[2]), multipartBody(boundaryOf(requests[2]), "(null)", ""));
  EXPECT_NE(boundary, second);
  EXPECT_NE(second, boundaryOf(requests[2]));
}

TEST_F(KQVisitorWebServiceUploadTest, AcceptsSixMegabytesAndRefusesOneByteMoreAtOnce) {
  uploads.enqueueResponse(test::rawResponse(200, R"("http://files.test/big")"));
  std::vector<std::pair<std::int64_t, std::int64_t>> reports;  // session thread only
  bool allOnSession = true;
  EXPECT_EQ(upload(fileParameters(std::string(6291456, 'a'), "big.bin"),
                   [&](std::int64_t sent, std::int64_t total) {
                     reports.emplace_back(sent, total);
                     allOnSession = allOnSession && session->isCurrent();
                   }),
            Json({"success", "http://files.test/big"}));
  ASSERT_EQ(uploads.rawRequests().size(), 1U);
  const std::string body = bodyOf(uploads.rawRequests()[0]);
  EXPECT_EQ(body, multipartBody(boundaryOf(uploads.rawRequests()[0]), "big.bin",
                                std::string(6291456, 'a')));
  // Progress up to the whole body, never backwards, out of the same total, all on the session's
  // thread, before the outcome.
  ASSERT_FALSE(reports.empty());
  EXPECT_TRUE(allOnSession);
  EXPECT_EQ(reports.back().first, reports.back().second);
  for (std::size_t i = 0; i < reports.size(); ++i) {
    EXPECT_LE(i == 0 ? 0 : reports[i - 1].first, reports[i].first);
    EXPECT_EQ(reports[i].second, static_cast<std::int64_t>(body.size()));
  }

  bool refused = false;
  service->uploadFile(
      fileParameters(std::string(6291457, 'a'), "big.bin"),
      [](const std::string&) { ADD_FAILURE() << "an over-size file was uploaded"; },
      [&](const std::string& message) {
        refused = true;
        EXPECT_EQ(message, "File can't be shared, because it exceeds the maximum file-size(6 MB)");
      });
  EXPECT_TRUE(refused) << "the refusal comes before uploadFile returns";
  EXPECT_EQ(uploads.rawRequests().size(), 1U) << "nothing is sent for an over-size file";
}

TEST_F(KQVisitorWebServiceUploadTest,
       AnswersWithoutLowerCaseHttpAreFailuresWithoutQuotesBarsOrStops) {
  test::LogCapture log;
  uploads.enqueueResponse(test::rawResponse(500, R"("http://files.test/x.pdf")"));
  uploads.enqueueResponse(test::rawResponse(200, R"("File type not allowed. Use | PDF.")"));
  uploads.enqueueResponse(test::rawResponse(200, R"("HTTPS://FILES.TEST/X.PDF")"));
  uploads.enqueueResponse(test::rawResponse(200, ""));
  EXPECT_EQ(upload(fileParameters("x", "x.pdf")), Json({"success", "http://files.test/x.pdf"}))
      << "the HTTP status is not inspected";
  EXPECT_EQ(upload(fileParameters("x", "x.pdf")),
            Json({"failure", "File type not allowed Use  PDF"}));
  EXPECT_EQ(upload(fileParameters("x", "x.pdf")), Json({"failure", "HTTPS://FILESTEST/XPDF"}));
  EXPECT_EQ(upload(fileParameters("x", "x.pdf")), Json({"failure", ""}));
  EXPECT_TRUE(log.contains("FileUrl: \"http://files.test/x.pdf\""));
  EXPECT_TRUE(log.contains("FileUrlError: \"File type not allowed. Use | PDF.\""));

  test::pointServicesAt("http://127.0.0.1:" + std::to_string(test::unusedPort()));
  const Json transport = upload(fileParameters("x", "x.pdf"));
  EXPECT_EQ(transport[0], "failure");
  EXPECT_FALSE(transport[1].get<std::string>().empty()) << "a transport failure says what failed";
}

}  // namespace
}  // namespace kq
