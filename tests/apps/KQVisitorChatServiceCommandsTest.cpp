// kqvisitor-chat call, soap and upload, run as a child process against a recording server.

#include "tests/support/ChildProcess.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;

class KQVisitorChatServiceCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::writeFile(config(), Json({{"jsonServiceProductionOrigin", server.origin()},
                                    {"jsonServiceBetaOrigin", server.origin()},
                                    {"soapServiceOrigin", server.origin()},
                                    {"soapNamespace", "http://kq.test/"},
                                    {"uploadServiceOrigin", uploads.origin()}})
                                  .dump());
  }

  [[nodiscard]] std::string config() const { return folder.file("config.json"); }

  test::ChildResult chat(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KQ_CHAT_TOOL);
    return test::runChild(arguments, {"KQVISITOR_CONFIG=" + config()});
  }

  test::RecordingHTTPServer server;
  test::RawHTTPServer uploads{test::rawResponse(200, R"("https://files.test/f.txt")")};
  test::TemporaryDirectory folder;
};

TEST_F(KQVisitorChatServiceCommandsTest, CallPrintsEachCallbackAsOneJSONLine) {
  server.enqueueResponse({200, R"({"d":"{\"C_I\":\"42\"}"})", "application/json", {}});
  server.enqueueResponse({500, "Done", "text/plain", {}});
  auto result = chat({"call", "GetWI", "parWI:=12", "parVI=a b"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "{\"callback\":\"success\",\"result\":{\"d\":{\"C_I\":\"42\"}}}\n");
  result = chat({"call", "ET", "parCI=7", "--method", "POST", "--http-client"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "{\"callback\":\"success\",\"result\":{\"response\":\"Done\"}}\n");

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].target,
            "/VisitorServiceXMPPSSL/ChatService.svc/GetWI?parWI=12&parVI=a%20b&");
  EXPECT_EQ(requests[1].target, "/VisitorService_Mobile/ChatService.svc/ET");
  EXPECT_EQ(requests[1].body, "{\n  \"parCI\": \"7\"\n}");

  // A transport failure: the error with its domain, code and description; exit status 1.
  test::writeFile(config(), Json({{"jsonServiceProductionOrigin",
                                   "http://127.0.0.1:" + std::to_string(test::unusedPort())}})
                                .dump());
  result = chat({"call", "GetWI"});
  EXPECT_EQ(result.exitStatus, 1);
  const Json line = Json::parse(result.out);
  EXPECT_EQ(line["callback"], "failure");
  EXPECT_EQ(line["error"]["domain"], "CURLE");
  EXPECT_EQ(line["error"]["code"], 7);
  EXPECT_TRUE(line["error"]["userInfo"].contains("NSLocalizedDescription"));
}

TEST_F(KQVisitorChatServiceCommandsTest, SoapAndUploadPrintTheirOutcomes) {
  server.enqueueResponse({200, "<ok/>", "text/xml", {}});
  server.enqueueResponse({500, "<fault/>", "text/xml", {}});
  auto result = chat({"soap", "offline", "Name=Ann", "Email=a@b.test"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "{\"callback\":\"result\",\"ok\":true,\"status\":6}\n");
  result = chat({"soap", "languages"});
  EXPECT_EQ(result.out, "{\"callback\":\"result\",\"ok\":true,\"status\":6}\n");

  test::writeFile(folder.file("f.txt"), "file body");
  result = chat({"upload", folder.file("f.txt"), "--name", "notes.txt"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "{\"callback\":\"success\",\"link\":\"https://files.test/f.txt\"}\n");
  EXPECT_EQ(result.err.find('['), std::string::npos)
      << "no progress bar when stderr is no terminal";

  test::writeFile(folder.file("big"), std::string(6291457, 'x'));
  result = chat({"upload", folder.file("big")});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.out,
            "{\"callback\":\"failure\",\"message\":\"File can't be shared, because it exceeds the "
            "maximum file-size(6 MB)\"}\n");

  // Inputs that never end are read only as far as the limit: refused the same way, at once.
  result = chat({"upload", "/dev/zero"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.out.find("exceeds the maximum file-size(6 MB)"), std::string::npos);
  const std::string fifo = folder.file("endless");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&fifo] {
    std::signal(SIGPIPE, SIG_IGN);  // the reader closes its end once it has read enough
    const int fd = ::open(fifo.c_str(), O_WRONLY);
    const std::string chunk(65536, 'y');
    while (fd >= 0 && ::write(fd, chunk.data(), chunk.size()) > 0) {
    }
    ::close(fd);
  });
  result = chat({"upload", fifo});
  writer.join();
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.out.find("exceeds the maximum file-size(6 MB)"), std::string::npos);

  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_NE(server.requests()[0].body.find("<Name>Ann</Name><Email>a@b.test</Email>"),
            std::string::npos);
  const auto uploaded = uploads.rawRequests();
  ASSERT_EQ(uploaded.size(), 1U) << "nothing is sent for an over-size file";
  EXPECT_NE(uploaded[0].find("filename=\"notes.txt\"\r\n"), std::string::npos);
  EXPECT_NE(uploaded[0].find("\r\n\r\nfile body\r\n"), std::string::npos);
}

TEST_F(KQVisitorChatServiceCommandsTest, BadArgumentsAndSettingsExitWithStatusTwo) {
  const std::vector<std::vector<std::string>> bad = {
      {"call"},
      {"call", "GetWI", "novalue"},
      {"call", "GetWI", "n:={broken"},
      {"call", "GetWI", "--method"},
      {"call", "GetWI", "--unknown"},
      {"soap"},
      {"soap", "delete"},
      {"upload"},
      {"upload", folder.file("missing")},
      {"upload", folder.path()},
  };
  for (const auto& arguments : bad) {
    const auto result = chat(arguments);
    EXPECT_EQ(result.exitStatus, 2) << arguments.back();
    EXPECT_NE(result.err.find("usage: kqvisitor-chat " + arguments.front()), std::string::npos)
        << result.err;
    EXPECT_EQ(result.out, "");
  }
  for (const char* command : {"call", "soap", "upload"}) {
    const auto help = chat({command, "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.out.find(std::string("usage: kqvisitor-chat ") + command), std::string::npos);
  }
  test::writeFile(config(), R"({"soapServiceOrigin": "ftp://nowhere"})");
  const auto result = chat({"soap", "languages"});
  EXPECT_EQ(result.exitStatus, 2);
  EXPECT_NE(result.err.find("soapServiceOrigin"), std::string::npos) << result.err;
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace kq
