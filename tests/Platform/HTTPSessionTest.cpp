#include <KQVisitorCore/Platform/HTTPSession.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"
#include "tests/support/RecordingHTTPServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
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
};

// Starts a task and waits for its completion.
Outcome run(const std::shared_ptr<HTTPSession>& session, HTTPRequest request) {
  std::promise<Outcome> promise;
  auto future = promise.get_future();
  session->dataTaskWithRequest(
      std::move(request), [&](std::optional<std::string> data, std::optional<HTTPResponse> response,
                              std::optional<KQError> error) {
        promise.set_value(
            {std::move(data), std::move(response), std::move(error), session->isCurrent()});
      });
  if (future.wait_for(test::kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the task never completed";
    return {};
  }
  return future.get();
}

HTTPRequest request(const std::string& url, const std::string& method = "GET",
                    std::optional<std::string> body = std::nullopt) {
  HTTPRequest made(url);
  made.httpMethod = method;
  made.httpBody = std::move(body);
  return made;
}

class HTTPSessionTest : public ::testing::Test {
 protected:
  RecordingHTTPServer server;
  std::shared_ptr<HTTPSession> session = HTTPSession::create({});
};

// Target, headers (one field whatever its spelling), binary body, any status, an empty body and
// cookies pass unchanged; a relative redirect resolves against the URL the request went to, and
// the next task goes to its own; completions run on the session's thread.
TEST_F(HTTPSessionTest, SendsTheRequestAsWrittenAndReportsTheAnswerOnItsOwnThread) {
  server.enqueueResponse(
      {201, "hello", "text/plain", {{"X-Answer", "42"}, {"Set-Cookie", "session=abc; Path=/"}}});
  server.enqueueResponse({500, "server trouble", "text/plain", {}});
  server.enqueueResponse({302, "", "text/plain", {{"Location", "next?step=2"}}});
  server.enqueueResponse({200, "arrived", "text/plain", {}});
  server.enqueueResponse({404, "", "text/plain", {}});
  HTTPRequest get(server.origin() + "/a/b?x=1&y=%20&");
  get.setValue("yes", "X-Test");
  const Outcome got = run(session, get);
  HTTPRequest post =
      request(server.origin() + "/post", "POST", std::string("line\r\n\0binary\xff", 14));
  post.setValue("application/octet-stream", "Content-Type");
  post.setValue("ignored", "content-type");  // same field, another spelling: replaces it
  const Outcome failed = run(session, post);
  const Outcome followed = run(session, HTTPRequest(server.origin() + "/a/first?step=1"));
  const Outcome empty = run(session, HTTPRequest(server.origin() + "/y"));

  ASSERT_TRUE(server.waitForRequests(5));
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
  EXPECT_EQ(requests[1].header("Cookie"), "session=abc");
  EXPECT_EQ(requests[2].target, "/a/first?step=1");
  EXPECT_EQ(requests[3].target, "/a/next?step=2");
  EXPECT_EQ(requests[4].target, "/y");

  EXPECT_FALSE(got.error);
  EXPECT_EQ(got.data, "hello");
  ASSERT_TRUE(got.response);
  EXPECT_EQ(got.response->statusCode, 201);
  EXPECT_EQ(got.response->valueForHTTPHeaderField("x-answer"), "42");
  EXPECT_TRUE(got.onSessionThread);
  EXPECT_FALSE(session->isCurrent());
  EXPECT_FALSE(failed.error);
  EXPECT_EQ(failed.response->statusCode, 500);
  EXPECT_EQ(failed.data, "server trouble");
  ASSERT_TRUE(followed.response);
  EXPECT_EQ(followed.data, "arrived");
  EXPECT_EQ(followed.response->url, server.origin() + "/a/next?step=2");
  EXPECT_FALSE(empty.error);
  EXPECT_EQ(empty.response->statusCode, 404);
  EXPECT_EQ(empty.response->url, server.origin() + "/y");
  EXPECT_EQ(empty.data, "") << "an empty body is data, not an absent one";
}

// No compression is asked for unless the request does; a compressed answer is decoded anyway.
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
  EXPECT_EQ(run(session, HTTPRequest(server.origin() + "/poll")).data,
            R"({"status":1,"note":"sent compressed"})");
  ASSERT_TRUE(server.waitForRequests(3));
  const auto requests = server.requests();
  EXPECT_FALSE(requests[0].header("Accept-Encoding")) << *requests[0].header("Accept-Encoding");
  EXPECT_EQ(requests[1].header("Accept-Encoding"), "gzip");
}

// Any method goes as written, with or without a body; nothing of one request (a header, a body,
// its length) carries into the next on the reused handle, whichever method follows which.
TEST_F(HTTPSessionTest, AnyMethodGoesAsWrittenAndNothingCarriesIntoTheNext) {
  test::RawHTTPServer raw(test::rawResponse(200, "ok"));
  HTTPRequest lowerCase = request(raw.origin() + "/p?q=1", "get", "{}");
  lowerCase.setValue("", "X-Empty");
  HTTPRequest put = request(raw.origin() + "/put", "PUT", "payload");
  put.setValue("1", "X-First-Only");
  EXPECT_EQ(run(session, lowerCase).data, "ok");
  EXPECT_EQ(run(session, put).data, "ok");
  EXPECT_EQ(run(session, request(raw.origin() + "/get")).data, "ok");
  EXPECT_EQ(run(session, request(raw.origin() + "/head", "HEAD")).data, "");
  EXPECT_EQ(run(session, request(raw.origin() + "/post", "POST", "form")).data, "ok");
  EXPECT_EQ(run(session, request(raw.origin() + "/delete", "DELETE")).data, "ok");
  EXPECT_EQ(run(session, request(raw.origin() + "/last")).data, "ok");

  const auto requests = raw.rawRequests();
  const std::string lines[] = {"get /p?q=1", "PUT /put",       "GET /get", "HEAD /head",
                               "POST /post", "DELETE /delete", "GET /last"};
  ASSERT_EQ(requests.size(), std::size(lines));
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].substr(0, requests[i].find("\r\n")), lines[i] + " HTTP/1.1");
  }
  EXPECT_NE(requests[0].find("\r\nX-Empty:\r\n"), std::string::npos) << requests[0];
  EXPECT_NE(requests[0].find("\r\nContent-Length: 2\r\n"), std::string::npos);
  EXPECT_EQ(requests[0].substr(requests[0].size() - 6), "\r\n\r\n{}");
  EXPECT_EQ(requests[1].substr(requests[1].size() - 11), "\r\n\r\npayload");
  EXPECT_EQ(requests[4].substr(requests[4].size() - 8), "\r\n\r\nform");
  for (const std::size_t i : {2, 3, 5, 6}) {
    EXPECT_EQ(requests[i].find("X-First-Only"), std::string::npos) << requests[i];
    EXPECT_EQ(requests[i].find("Content-Length"), std::string::npos) << requests[i];
    EXPECT_EQ(requests[i].substr(requests[i].size() - 4), "\r\n\r\n") << requests[i];
  }
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
  HTTPRequest badHeader(server.origin() + "/x");
  badHeader.setValue("a\r\nInjected: yes", "X-Test");
  EXPECT_EQ(run(session, request(server.origin() + "/x", "GE T")).error->code,
            HTTPSession::kErrorBadRequest);
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

// A task with no answer fails once nothing has moved for its time-out, not before; one whose
// answer keeps arriving, each part within the time-out of the one before, never does.
TEST(HTTPSessionTimeoutTest, ATaskFailsOnceItHasBeenIdleForItsTimeout) {
  test::ManualClockScope clock;
  RecordingHTTPServer silent;
  RecordingHTTPServer answering;
  silent.holdResponses();
  std::uint16_t port = 0;
  const int listener = test::listenOnLoopback(port);  // answers in parts, when told
  std::promise<std::optional<KQError>> failed;
  std::promise<Outcome> finished;
  const auto session = HTTPSession::create({});
  session->dataTaskWithRequest(
      HTTPRequest(silent.origin() + "/slow", 60s),
      [&](auto, auto, std::optional<KQError> error) { failed.set_value(std::move(error)); });
  session->dataTaskWithRequest(
      HTTPRequest("http://127.0.0.1:" + std::to_string(port) + "/parts", 60s),
      [&](std::optional<std::string> data, auto, std::optional<KQError> error) {
        finished.set_value({std::move(data), std::nullopt, std::move(error)});
      });
  ASSERT_TRUE(silent.waitForRequests(1));
  const int connection = ::accept(listener, nullptr, nullptr);
  ::close(listener);
  ASSERT_GE(connection, 0);
  std::string request;
  char buffer[4096];
  for (ssize_t got = 1; got > 0 && request.find("\r\n\r\n") == std::string::npos;) {
    got = ::read(connection, buffer, sizeof buffer);
    request.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  }
  const auto send = [&](const std::string& part) {
    EXPECT_EQ(::write(connection, part.data(), part.size()), static_cast<ssize_t>(part.size()));
    drain(session, answering.origin() + "/probe");  // the session has read what was written
  };
  send("HTTP/1.1 200 OK\r\nContent-Length: 6\r\nConnection: close\r\n\r\nab");
  clock->advance(40s);
  send("cd");
  clock->advance(19s);
  drain(session, answering.origin() + "/probe");
  auto timedOut = failed.get_future();
  EXPECT_EQ(timedOut.wait_for(0s), std::future_status::timeout) << "timed out early";
  clock->advance(1s);
  ASSERT_EQ(timedOut.wait_for(test::kPatience), std::future_status::ready);
  const auto error = timedOut.get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, HTTPSession::kErrorTimedOut);
  EXPECT_NE(error->description().find("60000 ms"), std::string::npos) << error->description();
  clock->advance(30s);  // 90 s since the request went out, 50 s since anything arrived
  send("ef");
  ::close(connection);
  auto outcome = finished.get_future();
  ASSERT_EQ(outcome.wait_for(test::kPatience), std::future_status::ready);
  const Outcome got = outcome.get();
  EXPECT_FALSE(got.error) << got.error->description();
  EXPECT_EQ(got.data, "abcdef");
  silent.release();
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

  // Tasks started from several threads all reach the server while every answer is held back:
  // a session that ran one task at a time would stop at the first.
  constexpr int kTasks = 8;
  server.holdResponses();
  std::atomic<int> completed = 0;
  std::promise<void> allDone;
  std::vector<std::thread> starters;
  starters.reserve(4);
  for (int t = 0; t < 4; ++t) {
    starters.emplace_back([&, t] {
      for (int i = 0; i < kTasks / 4; ++i) {
        session->dataTaskWithRequest(
            HTTPRequest(server.origin() + "/c/" + std::to_string(t) + "/" + std::to_string(i)),
            [&](auto, std::optional<HTTPResponse> response, auto) {
              if (response && response->statusCode == 200 && ++completed == kTasks) {
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
  std::set<std::string> targets;
  for (const auto& request : server.requests()) {
    targets.insert(request.target);
  }
  EXPECT_EQ(targets.size(), kTasks + 1U);
}

// In a fresh process the session is made while no file descriptor is left, so libcurl has no
// wake-up channel; the descriptors are then given back and two tasks are started.
TEST(HTTPSessionSetUpTest, ASessionThatCannotWakeItsLoopFailsEveryTaskInsteadOfHanging) {
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

// The configured authority is trusted beside the system's; an unknown authority, a certificate
// for another name and an unreadable authority file (named in the error) are refused.
TEST_F(HTTPSessionTLSTest, TrustsTheConfiguredAuthorityForTheRightNameOnlyAndStaysOnHTTPS) {
  const Outcome trusted = get(matching, {matching.caFile, true, "kq.test"});
  EXPECT_FALSE(trusted.error) << trusted.error->description();
  EXPECT_EQ(trusted.data, "secret");

  const Outcome unknown = get(matching, {});
  ASSERT_TRUE(unknown.error);
  EXPECT_EQ(unknown.error->code, HTTPSession::kErrorPeerFailedVerification);
  EXPECT_FALSE(unknown.data);
  const auto description = [](const Outcome& outcome) {
    return outcome.error->userInfo["NSLocalizedDescription"].get<std::string>();
  };
  const Outcome wrongName = get(otherName, {otherName.caFile, true, "kq.test"});
  ASSERT_TRUE(wrongName.error);
  EXPECT_EQ(wrongName.error->code, HTTPSession::kErrorPeerFailedVerification);
  EXPECT_NE(description(wrongName).find("127.0.0.1"), std::string::npos) << description(wrongName);

  const std::string missing = folder->file("missing.pem");
  const Outcome unreadable = get(matching, {missing, true, "kq.test"});
  ASSERT_TRUE(unreadable.error);
  EXPECT_EQ(unreadable.error->code, HTTPSession::kErrorTrustStoreUnusable);
  EXPECT_NE(description(unreadable).find(missing), std::string::npos);

  // A redirect from HTTPS to plain HTTP is never followed; one that stays on HTTPS is.
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
  const Outcome followed = run(session, HTTPRequest(secure.origin() + "/"));
  EXPECT_FALSE(followed.error) << followed.error->description();
  EXPECT_EQ(followed.data, "still secret");
}

}  // namespace
}  // namespace kq
