#include <KQVisitorCore/Platform/HTTPSession.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <set>
#include <thread>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::RecordingHTTPServer;

struct Outcome {
  std::optional<std::string> data;
  std::optional<HTTPResponse> response;
  std::optional<KQError> error;
  bool onSessionThread = false;
  bool onCallingThread = false;
};

// Starts a task and waits for its completion.
Outcome run(const std::shared_ptr<HTTPSession>& session, HTTPRequest request,
            HTTPSession::Progress progress = {}) {
  std::promise<Outcome> promise;
  auto future = promise.get_future();
  const auto caller = std::this_thread::get_id();
  session->dataTaskWithRequest(
      std::move(request),
      [&](std::optional<std::string> data, std::optional<HTTPResponse> response,
          std::optional<KQError> error) {
        promise.set_value({std::move(data), std::move(response), std::move(error),
                           session->isCurrent(), std::this_thread::get_id() == caller});
      },
      std::move(progress));
  if (future.wait_for(test::kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the task never completed";
    return {};
  }
  return future.get();
}

class HTTPSessionTest : public ::testing::Test {
 protected:
  RecordingHTTPServer server;
  std::shared_ptr<HTTPSession> session = HTTPSession::create({});
};

TEST_F(HTTPSessionTest, SendsTheRequestAsWrittenAndReportsTheAnswerOnItsOwnThread) {
  server.setDefaultResponse({201, "hello", "text/plain", {{"X-Answer", "42"}}});
  HTTPRequest get(server.origin() + "/a/b?x=1&y=%20&");
  get.setValue("yes", "X-Test");
  const Outcome got = run(session, get);

  HTTPRequest post(server.origin() + "/post");
  post.httpMethod = "POST";
  post.httpBody = std::string("line\r\n\0binary\xff", 14);
  post.setValue("application/octet-stream", "Content-Type");
  post.setValue("ignored", "content-type");  // same field, another spelling: replaces it
  run(session, post);

  ASSERT_TRUE(server.waitForRequests(2));
  const auto requests = server.requests();
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].target, "/a/b?x=1&y=%20&");
  EXPECT_EQ(requests[0].header("X-Test"), "yes");
  EXPECT_EQ(requests[0].body, "");
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].body, std::string("line\r\n\0binary\xff", 14));
  EXPECT_EQ(requests[1].header("Content-Type"), "ignored");
  EXPECT_EQ(requests[1].header("Content-Length"), "14");
  EXPECT_FALSE(requests[1].header("Expect")) << "no waiting for 100 Continue";

  EXPECT_FALSE(got.error);
  EXPECT_EQ(got.data, "hello");
  ASSERT_TRUE(got.response);
  EXPECT_EQ(got.response->statusCode, 201);
  EXPECT_EQ(got.response->valueForHTTPHeaderField("x-answer"), "42");
  EXPECT_TRUE(got.onSessionThread);
  EXPECT_FALSE(got.onCallingThread);
  EXPECT_FALSE(session->isCurrent());
}

// A relative redirect resolves against the URL the request went to, the answer names where it
// finally came from, and the next task on the session goes to its own URL.
TEST_F(HTTPSessionTest, FollowsARedirectFromWhereTheRequestWent) {
  server.enqueueResponse({302, "", "text/plain", {{"Location", "next?step=2"}}});
  server.enqueueResponse({200, "arrived", "text/plain", {}});
  server.setDefaultResponse({200, "elsewhere", "text/plain", {}});
  const Outcome followed = run(session, HTTPRequest(server.origin() + "/a/first?step=1"));
  ASSERT_TRUE(followed.response);
  EXPECT_EQ(followed.data, "arrived");
  EXPECT_EQ(followed.response->url, server.origin() + "/a/next?step=2");
  const Outcome next = run(session, HTTPRequest(server.origin() + "/b"));
  ASSERT_TRUE(next.response);
  EXPECT_EQ(next.response->url, server.origin() + "/b");

  ASSERT_TRUE(server.waitForRequests(3));
  const auto requests = server.requests();
  EXPECT_EQ(requests[0].target, "/a/first?step=1");
  EXPECT_EQ(requests[1].target, "/a/next?step=2");
  EXPECT_EQ(requests[2].target, "/b");
}

// A server compresses what a client accepts (cpp-httplib compresses JSON whenever it may), and
// compressing small answers costs it more than sending them: the session asks for none unless a
// request does, and decodes a compressed answer whether it asked or not.
TEST_F(HTTPSessionTest, AsksForNoCompressionAndDecodesWhatComesCompressed) {
  std::string json = "[";
  for (int i = 0; i < 200; ++i) {
    json += R"({"M_I":")" + std::to_string(i) + R"(","M":"Hello, how can I help?"},)";
  }
  json.back() = ']';
  server.setDefaultResponse({200, json, "application/json", {}});
  const Outcome plain = run(session, HTTPRequest(server.origin() + "/poll"));
  ASSERT_TRUE(plain.response);
  EXPECT_FALSE(plain.response->valueForHTTPHeaderField("Content-Encoding"));
  EXPECT_EQ(plain.data, json);

  HTTPRequest asking(server.origin() + "/poll");
  asking.setValue("gzip", "Accept-Encoding");
  const Outcome compressed = run(session, asking);
  ASSERT_TRUE(compressed.response);
  EXPECT_EQ(compressed.response->valueForHTTPHeaderField("Content-Encoding"), "gzip");
  EXPECT_EQ(compressed.data, json);

  // gzip of {"status":1,"note":"sent compressed"}, sent without being asked for.
  const std::string gzipped(
      "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\x03\xab\x56\x2a\x2e\x49\x2c\x29\x2d\x56\xb2\x32"
      "\xd4\x51\xca\xcb\x2f\x49\x55\xb2\x52\x2a\x4e\xcd\x2b\x51\x48\xce\xcf\x2d\x28\x4a\x2d"
      "\x2e\x4e\x4d\x51\xaa\x05\x00\x7a\x83\x74\xf8\x25\x00\x00\x00",
      57);
  server.setDefaultResponse(
      {200, gzipped, "application/octet-stream", {{"Content-Encoding", "gzip"}}});
  const Outcome unasked = run(session, HTTPRequest(server.origin() + "/poll"));
  EXPECT_EQ(unasked.data, R"({"status":1,"note":"sent compressed"})");

  ASSERT_TRUE(server.waitForRequests(3));
  const auto requests = server.requests();
  EXPECT_FALSE(requests[0].header("Accept-Encoding")) << *requests[0].header("Accept-Encoding");
  EXPECT_EQ(requests[1].header("Accept-Encoding"), "gzip");
}

TEST_F(HTTPSessionTest, AnyMethodIsSentAsWrittenWithOrWithoutABody) {
  test::RawHTTPServer raw(test::rawResponse(200, "ok"));
  HTTPRequest lowerCase(raw.origin() + "/p?q=1");
  lowerCase.httpMethod = "get";
  lowerCase.httpBody = "{}";
  lowerCase.setValue("", "X-Empty");
  HTTPRequest remove(raw.origin() + "/r");
  remove.httpMethod = "DELETE";
  EXPECT_EQ(run(session, lowerCase).data, "ok");
  EXPECT_EQ(run(session, remove).data, "ok");
  const auto requests = raw.rawRequests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].substr(0, requests[0].find("\r\n")), "get /p?q=1 HTTP/1.1");
  EXPECT_NE(requests[0].find("\r\nX-Empty:\r\n"), std::string::npos) << requests[0];
  EXPECT_NE(requests[0].find("\r\nContent-Length: 2\r\n"), std::string::npos);
  EXPECT_EQ(requests[0].substr(requests[0].size() - 6), "\r\n\r\n{}");
  EXPECT_EQ(requests[1].substr(0, requests[1].find("\r\n")), "DELETE /r HTTP/1.1");
  EXPECT_EQ(requests[1].find("Content-Length"), std::string::npos);
}

// Sessions reuse what a finished task leaves behind; nothing of one request reaches the next,
// whichever method follows which.
TEST_F(HTTPSessionTest, NothingOfOneRequestCarriesIntoTheNext) {
  test::RawHTTPServer raw(test::rawResponse(200, "ok"));
  const auto request = [&](const std::string& method, const std::string& path,
                           std::optional<std::string> body = std::nullopt) {
    HTTPRequest made(raw.origin() + path);
    made.httpMethod = method;
    made.httpBody = std::move(body);
    return made;
  };
  HTTPRequest put = request("PUT", "/put", "payload");
  put.setValue("1", "X-First-Only");
  EXPECT_EQ(run(session, put).data, "ok");
  EXPECT_EQ(run(session, request("GET", "/get")).data, "ok");
  EXPECT_EQ(run(session, request("HEAD", "/head")).data, "");
  EXPECT_EQ(run(session, request("POST", "/post", "form")).data, "ok");
  EXPECT_EQ(run(session, request("DELETE", "/delete")).data, "ok");
  EXPECT_EQ(run(session, request("GET", "/last")).data, "ok");

  const auto requests = raw.rawRequests();
  ASSERT_EQ(requests.size(), 6U);
  const auto requestLine = [&](std::size_t i) {
    return requests[i].substr(0, requests[i].find("\r\n"));
  };
  EXPECT_EQ(requestLine(0), "PUT /put HTTP/1.1");
  EXPECT_EQ(requestLine(1), "GET /get HTTP/1.1");
  EXPECT_EQ(requestLine(2), "HEAD /head HTTP/1.1");
  EXPECT_EQ(requestLine(3), "POST /post HTTP/1.1");
  EXPECT_EQ(requestLine(4), "DELETE /delete HTTP/1.1");
  EXPECT_EQ(requestLine(5), "GET /last HTTP/1.1");
  EXPECT_EQ(requests[3].substr(requests[3].size() - 8), "\r\n\r\nform");
  for (const std::size_t i : {1, 2, 4, 5}) {
    EXPECT_EQ(requests[i].find("X-First-Only"), std::string::npos) << requests[i];
    EXPECT_EQ(requests[i].find("Content-Length"), std::string::npos) << requests[i];
    EXPECT_EQ(requests[i].substr(requests[i].size() - 4), "\r\n\r\n") << requests[i];
  }
}

TEST_F(HTTPSessionTest, ErrorStatusesAndEmptyBodiesAreAnswersNotErrors) {
  server.enqueueResponse({500, "server trouble", "text/plain", {}});
  server.enqueueResponse({404, "", "text/plain", {}});
  const Outcome failed = run(session, HTTPRequest(server.origin() + "/x"));
  const Outcome empty = run(session, HTTPRequest(server.origin() + "/y"));
  EXPECT_FALSE(failed.error);
  EXPECT_EQ(failed.response->statusCode, 500);
  EXPECT_EQ(failed.data, "server trouble");
  EXPECT_FALSE(empty.error);
  EXPECT_EQ(empty.response->statusCode, 404);
  EXPECT_EQ(empty.data, "") << "an empty body is data, not an absent one";
}

TEST_F(HTTPSessionTest, TransportFailuresCarryCurlsCodeAndADescription) {
  const std::string refusedURL = "http://127.0.0.1:" + std::to_string(test::unusedPort()) + "/x";
  const Outcome refused = run(session, HTTPRequest(refusedURL));
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->domain, "CURLE");
  EXPECT_EQ(refused.error->code, HTTPSession::kErrorCouldNotConnect);
  EXPECT_FALSE(refused.error->userInfo["NSLocalizedDescription"].get<std::string>().empty());
  EXPECT_EQ(refused.error->userInfo["NSErrorFailingURLStringKey"], refusedURL);
  EXPECT_FALSE(refused.data);
  EXPECT_FALSE(refused.response);
  EXPECT_TRUE(refused.onSessionThread);

  // Requests that cannot be put on the wire fail the same way, and nothing is sent.
  HTTPRequest badMethod(server.origin() + "/x");
  badMethod.httpMethod = "GE T";
  HTTPRequest badHeader(server.origin() + "/x");
  badHeader.setValue("a\r\nInjected: yes", "X-Test");
  EXPECT_EQ(run(session, badMethod).error->code, HTTPSession::kErrorBadRequest);
  EXPECT_EQ(run(session, badHeader).error->code, HTTPSession::kErrorBadRequest);
  EXPECT_EQ(run(session, HTTPRequest("ftp://127.0.0.1/x")).error->code,
            HTTPSession::kErrorUnsupportedProtocol);
  EXPECT_EQ(run(session, HTTPRequest("http://exa mple/")).error->code,
            HTTPSession::kErrorMalformedURL);
  EXPECT_TRUE(server.requests().empty());
}

// Runs a task from the completion of another and waits for the second: every turn of the
// session's loop that began before the first completion has then ended.
void drain(const std::shared_ptr<HTTPSession>& session, const std::string& url) {
  std::promise<void> done;
  session->dataTaskWithRequest(HTTPRequest(url), [&](auto, auto, auto) {
    session->dataTaskWithRequest(HTTPRequest(url), [&](auto, auto, auto) { done.set_value(); });
  });
  ASSERT_EQ(done.get_future().wait_for(test::kPatience), std::future_status::ready);
}

TEST(HTTPSessionTimeoutTest, ARequestWithNoAnswerFailsOnceItHasBeenIdleForItsTimeout) {
  test::ManualClockScope clock;
  RecordingHTTPServer silent;
  RecordingHTTPServer answering;
  const auto session = HTTPSession::create({});
  silent.holdResponses();
  std::promise<std::optional<KQError>> failed;
  session->dataTaskWithRequest(
      HTTPRequest(silent.origin() + "/slow", 60s),
      [&](auto, auto, std::optional<KQError> error) { failed.set_value(std::move(error)); });
  ASSERT_TRUE(silent.waitForRequests(1));
  auto outcome = failed.get_future();

  clock->advance(59s);
  drain(session, answering.origin() + "/probe");
  EXPECT_EQ(outcome.wait_for(0s), std::future_status::timeout) << "timed out early";

  clock->advance(1s);
  ASSERT_EQ(outcome.wait_for(test::kPatience), std::future_status::ready);
  const auto error = outcome.get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, HTTPSession::kErrorTimedOut);
  EXPECT_NE(error->description().find("60000 ms"), std::string::npos) << error->description();
  silent.release();
}

// Idle means nothing moved: an answer whose parts keep arriving, each within the time-out of the
// one before, completes however long it takes in all.
TEST(HTTPSessionTimeoutTest, AnAnswerThatKeepsArrivingIsNeverIdle) {
  test::ManualClockScope clock;
  RecordingHTTPServer answering;
  const auto session = HTTPSession::create({});

  // One connection, answered in three parts, each written when the test says.
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::array<std::string, 3> parts = {
      "HTTP/1.1 200 OK\r\nContent-Length: 6\r\nConnection: close\r\n\r\nab", "cd", "ef"};
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t allowed = 0;  // guarded by mutex: parts the server may write
  std::size_t written = 0;  // guarded by mutex
  std::thread server([&] {
    const int connection = ::accept(listener, nullptr, nullptr);
    std::string request;
    char buffer[4096];
    while (connection >= 0 && request.find("\r\n\r\n") == std::string::npos) {
      const ssize_t got = ::read(connection, buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      request.append(buffer, static_cast<std::size_t>(got));
    }
    for (const auto& part : parts) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return allowed > written; });
      if (connection >= 0) {
        EXPECT_EQ(::write(connection, part.data(), part.size()), static_cast<ssize_t>(part.size()));
      }
      ++written;
      changed.notify_all();
    }
    ::close(connection);
  });
  // Lets the server write its next part and waits until it has.
  const auto writeNextPart = [&] {
    std::unique_lock lock(mutex);
    ++allowed;
    changed.notify_all();
    changed.wait(lock, [&] { return written == allowed; });
  };

  std::promise<Outcome> finished;
  session->dataTaskWithRequest(
      HTTPRequest("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/slow", 60s),
      [&](std::optional<std::string> data, std::optional<HTTPResponse> response,
          std::optional<KQError> error) {
        finished.set_value({std::move(data), std::move(response), std::move(error)});
      });
  writeNextPart();
  drain(session, answering.origin() + "/probe");  // the session has read what was written
  clock->advance(40s);
  writeNextPart();
  drain(session, answering.origin() + "/probe");
  clock->advance(40s);  // 80 s since the request went out, 40 s since anything arrived
  writeNextPart();
  server.join();
  ::close(listener);

  auto outcome = finished.get_future();
  ASSERT_EQ(outcome.wait_for(test::kPatience), std::future_status::ready);
  const Outcome got = outcome.get();
  EXPECT_FALSE(got.error) << got.error->description();
  EXPECT_EQ(got.data, "abcdef");
}

TEST_F(HTTPSessionTest, CancellingOrClosingTheSessionEndsRunningTasksAsCancelled) {
  server.holdResponses();
  std::promise<Outcome> cancelled;
  const auto identifier = session->dataTaskWithRequest(
      HTTPRequest(server.origin() + "/a"), [&](auto, auto, const std::optional<KQError>& error) {
        cancelled.set_value({std::nullopt, std::nullopt, error, session->isCurrent()});
      });
  // The second task's completion starts a third while the session closes: that one still
  // completes, once.
  std::optional<KQError> closed;
  std::vector<std::optional<KQError>> late;
  HTTPSession* closing = session.get();
  session->dataTaskWithRequest(
      HTTPRequest(server.origin() + "/b"), [&](auto, auto, const std::optional<KQError>& error) {
        closed = error;
        closing->dataTaskWithRequest(HTTPRequest(server.origin() + "/c"),
                                     [&](auto, auto, const std::optional<KQError>& lateError) {
                                       late.push_back(lateError);
                                     });
      });
  ASSERT_TRUE(server.waitForRequests(2));

  session->cancelTask(identifier);
  auto future = cancelled.get_future();
  ASSERT_EQ(future.wait_for(test::kPatience), std::future_status::ready);
  const Outcome outcome = future.get();
  EXPECT_EQ(outcome.error->code, HTTPSession::kErrorCancelled);
  EXPECT_TRUE(outcome.onSessionThread);

  session.reset();  // the second task is still waiting for its answer
  ASSERT_TRUE(closed) << "closing the session must still complete its tasks";
  EXPECT_EQ(closed->code, HTTPSession::kErrorCancelled);
  ASSERT_EQ(late.size(), 1U) << "a task started while the session closes completes once";
  ASSERT_TRUE(late[0]);
  EXPECT_EQ(late[0]->code, HTTPSession::kErrorCancelled);
  server.release();
}

TEST_F(HTTPSessionTest, KeepsConnectionsAliveAndRunsTasksConcurrently) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(run(session, HTTPRequest(server.origin() + "/seq")).error);
  }
  ASSERT_TRUE(server.waitForRequests(3));
  auto requests = server.requests();
  EXPECT_EQ(requests[1].remotePort, requests[0].remotePort) << "the connection was not reused";
  EXPECT_EQ(requests[2].remotePort, requests[0].remotePort);

  // Tasks started from several threads all reach the server while every answer is held
  // back: a session that ran one task at a time would stop at the first.
  constexpr int kTasks = 8;
  server.holdResponses();
  std::mutex mutex;
  int completed = 0;
  std::promise<void> allDone;
  std::vector<std::thread> starters;
  starters.reserve(4);
  for (int t = 0; t < 4; ++t) {
    starters.emplace_back([&, t] {
      for (int i = 0; i < kTasks / 4; ++i) {
        session->dataTaskWithRequest(
            HTTPRequest(server.origin() + "/c/" + std::to_string(t) + "/" + std::to_string(i)),
            [&](auto, std::optional<HTTPResponse> response, auto) {
              bool last = false;
              {
                std::scoped_lock lock(mutex);
                last = response && response->statusCode == 200 && ++completed == kTasks;
              }
              if (last) {
                allDone.set_value();
              }
            });
      }
    });
  }
  for (auto& starter : starters) {
    starter.join();
  }
  ASSERT_TRUE(server.waitForRequests(3 + kTasks)) << "the tasks did not run at the same time";
  server.release();
  ASSERT_EQ(allDone.get_future().wait_for(test::kPatience), std::future_status::ready);
  session.reset();  // the last completion may still be returning: it uses this test's locals
  requests = server.requests();
  std::set<std::string> targets;
  for (const auto& request : requests) {
    targets.insert(request.target);
  }
  EXPECT_EQ(targets.size(), kTasks + 1U);
}

TEST(HTTPSessionSetUpTest, ASessionThatCannotWakeItsLoopFailsEveryTaskInsteadOfHanging) {
  // In a fresh process: the session is made while no file descriptor is left, so libcurl has
  // no wake-up channel; the descriptors are then given back and two tasks are started.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        RecordingHTTPServer server;
        run(HTTPSession::create({}), HTTPRequest(server.origin() + "/warm-up"));
        std::vector<int> hogs;
        for (int fd = ::open("/dev/null", O_RDONLY); fd >= 0; fd = ::open("/dev/null", O_RDONLY)) {
          hogs.push_back(fd);
        }
        const auto session = HTTPSession::create({});
        for (const int fd : hogs) {
          ::close(fd);
        }
        std::string problem;
        for (int i = 0; i < 2; ++i) {
          const Outcome outcome = run(session, HTTPRequest(server.origin() + "/x"));
          if (!outcome.error || outcome.error->code != HTTPSession::kErrorClientUnusable ||
              outcome.error->description().find("file descriptors") == std::string::npos) {
            problem = "task " + std::to_string(i) + " did not fail as unusable";
          }
        }
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::exit(problem.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(HTTPSessionTest, KeepsCookiesLikeTheSharedSession) {
  server.enqueueResponse({200, "", "text/plain", {{"Set-Cookie", "session=abc; Path=/"}}});
  run(session, HTTPRequest(server.origin() + "/login"));
  run(session, HTTPRequest(server.origin() + "/next"));
  ASSERT_TRUE(server.waitForRequests(2));
  EXPECT_EQ(server.requests()[1].header("Cookie"), "session=abc");
}

TEST_F(HTTPSessionTest, ReportsUploadProgressUpToTheWholeBodyBeforeTheCompletion) {
  const std::string body(std::size_t{3} * 1024 * 1024, 'x');
  HTTPRequest request(server.origin() + "/upload");
  request.httpMethod = "POST";
  request.httpBody = body;
  std::vector<std::pair<std::int64_t, std::int64_t>> reports;  // session thread only
  bool allOnSession = true;
  const Outcome outcome = run(session, request, [&](std::int64_t sent, std::int64_t total) {
    reports.emplace_back(sent, total);
    allOnSession = allOnSession && session->isCurrent();
  });
  EXPECT_FALSE(outcome.error);
  ASSERT_FALSE(reports.empty());
  EXPECT_TRUE(allOnSession);
  EXPECT_EQ(reports.back(), std::make_pair(std::int64_t{3145728}, std::int64_t{3145728}));
  for (std::size_t i = 1; i < reports.size(); ++i) {
    EXPECT_LE(reports[i - 1].first, reports[i].first);
    EXPECT_EQ(reports[i].second, 3145728);
  }
}

// --- TLS -------------------------------------------------------------------------------------

class HTTPSessionTLSTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<test::TemporaryDirectory>();
    matching = test::makeTestCertificates(folder->file("ip"), {"127.0.0.1"});
    otherName = test::makeTestCertificates(folder->file("other"), {"other.example"});
  }
  static void TearDownTestSuite() { folder.reset(); }

  static Outcome get(const test::TestCertificates& served, HTTPSession::Configuration trust) {
    RecordingHTTPServer server(RecordingHTTPServer::TLS{served.certFile, served.keyFile});
    server.setDefaultResponse({200, "secret", "text/plain", {}});
    return run(HTTPSession::create(std::move(trust)), HTTPRequest(server.origin() + "/"));
  }

  static inline std::unique_ptr<test::TemporaryDirectory> folder;
  static inline test::TestCertificates matching;
  static inline test::TestCertificates otherName;
};

TEST_F(HTTPSessionTLSTest, TrustsTheConfiguredAuthorityBesideTheSystemOnes) {
  const Outcome outcome = get(matching, {matching.caFile, true, "kq.test"});
  EXPECT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_EQ(outcome.data, "secret");
}

TEST_F(HTTPSessionTLSTest, RefusesAnUnknownAuthorityAndACertificateForAnotherName) {
  const Outcome unknown = get(matching, {});
  ASSERT_TRUE(unknown.error);
  EXPECT_EQ(unknown.error->code, HTTPSession::kErrorPeerFailedVerification);
  EXPECT_FALSE(unknown.data);

  const Outcome wrongName = get(otherName, {otherName.caFile, true, "kq.test"});
  ASSERT_TRUE(wrongName.error);
  EXPECT_EQ(wrongName.error->code, HTTPSession::kErrorPeerFailedVerification);
  EXPECT_NE(
      wrongName.error->userInfo["NSLocalizedDescription"].get<std::string>().find("127.0.0.1"),
      std::string::npos)
      << wrongName.error->description();
}

TEST_F(HTTPSessionTLSTest, AnUnreadableAuthorityFileFailsEveryTLSConnectionByName) {
  const std::string missing = folder->file("missing.pem");
  const Outcome outcome = get(matching, {missing, true, "kq.test"});
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, HTTPSession::kErrorTrustStoreUnusable);
  EXPECT_NE(outcome.error->userInfo["NSLocalizedDescription"].get<std::string>().find(missing),
            std::string::npos);
}

TEST_F(HTTPSessionTLSTest, AnHTTPSRequestNeverFollowsARedirectToPlainHTTP) {
  RecordingHTTPServer plain;
  plain.setDefaultResponse({200, "in the clear", "text/plain", {}});
  RecordingHTTPServer secure(RecordingHTTPServer::TLS{matching.certFile, matching.keyFile});
  secure.enqueueResponse({302, "", "text/plain", {{"Location", plain.origin() + "/leak"}}});
  secure.enqueueResponse({302, "", "text/plain", {{"Location", secure.origin() + "/moved"}}});
  secure.setDefaultResponse({200, "still secret", "text/plain", {}});
  const auto session = HTTPSession::create({matching.caFile, true, "kq.test"});

  const Outcome downgraded = run(session, HTTPRequest(secure.origin() + "/"));
  ASSERT_TRUE(downgraded.error);
  EXPECT_FALSE(downgraded.data);
  EXPECT_TRUE(plain.requests().empty()) << "nothing was sent in the clear";

  // A redirect that stays on HTTPS is followed as before.
  const Outcome followed = run(session, HTTPRequest(secure.origin() + "/"));
  EXPECT_FALSE(followed.error) << followed.error->description();
  EXPECT_EQ(followed.data, "still secret");
}

}  // namespace
}  // namespace kq
