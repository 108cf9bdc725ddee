#pragma once

#include "tests/support/MainQueue.h"
#include "tests/support/RecordingHTTPServer.h"

#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kq::test {

/// One callback invocation as a test saw it.
struct CallbackEvent {
  std::string kind;  ///< "success", "failure", "result", "progress"...
  nlohmann::ordered_json value;
  std::thread::id thread;
  bool onSession = false;  ///< ran on the HTTP session's thread
};

/// Collects callback invocations from any thread; tests wait for a number of them.
class CallbackRecorder {
 public:
  /// `session` (not owned; may be null) tells which thread is the session's.
  void watch(const HTTPSession* session) { session_ = session; }

  void record(std::string kind, nlohmann::ordered_json value = nullptr) {
    // Notified under the lock: a waiter that then destroys the recorder cannot do so while
    // this call still touches it.
    std::scoped_lock lock(mutex_);
    events_.push_back({std::move(kind), std::move(value), std::this_thread::get_id(),
                       session_ != nullptr && session_->isCurrent()});
    changed_.notify_all();
  }

  /// Waits (up to kPatience) for `count` events; returns them all (fewer on a time-out).
  std::vector<CallbackEvent> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
    return events_;
  }

  std::vector<CallbackEvent> events() {
    std::scoped_lock lock(mutex_);
    return events_;
  }

  // Callbacks of the web service that record themselves.
  KQVisitorWebService::Success success() {
    return [this](std::nullptr_t, nlohmann::ordered_json result) {
      record("success", std::move(result));
    };
  }
  KQVisitorWebService::Failure failure() {
    return [this](std::nullptr_t, const KQError& error) {
      record("failure",
             {{"domain", error.domain}, {"code", error.code}, {"userInfo", error.userInfo}});
    };
  }

 private:
  const HTTPSession* session_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CallbackEvent> events_;
};

/// Points every origin of the shared configuration at `origin` (a RecordingHTTPServer's).
inline void pointServicesAt(const std::string& origin) {
  KQVisitorConfig config;
  config.jsonServiceProductionOrigin = origin;
  config.jsonServiceBetaOrigin = origin;
  config.soapServiceOrigin = origin;
  config.uploadServiceOrigin = origin;
  config.soapNamespace = "http://kq.test/";
  KQVisitorConfig::setShared(config);
}

/// Waits until the shared web service's HTTP session has taken every request made before: a
/// request made now through it (to "Flush") is answered. Call it before asserting that a
/// request was not made.
inline void flushSharedWebService() {
  auto answered = std::make_shared<std::promise<void>>();
  auto once = std::make_shared<std::once_flag>();
  const auto done = [answered, once] { std::call_once(*once, [&] { answered->set_value(); }); };
  KQVisitorWebService::sharedInstance().requestDataWithParameters(
      nullptr, "GET", "Flush", [done](std::nullptr_t, const nlohmann::ordered_json&) { done(); },
      [done](std::nullptr_t, const KQError& error) {
        if (error.domain != KQVisitorWebService::kNoInternetMessage) {  // said before it goes
          done();
        }
      });
  EXPECT_EQ(answered->get_future().wait_for(kPatience), std::future_status::ready);
}

/// A web service talking to a RecordingHTTPServer: every configured origin points at the
/// server, the service has its own HTTP session, and the network check always finds the
/// internet.
class WebServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder.watch(session.get());
    pointServicesAt(server.origin());
    service = std::make_unique<KQVisitorWebService>(dependencies());
  }

  void TearDown() override { KQVisitorConfig::setShared(KQVisitorConfig()); }

  KQVisitorWebService::Dependencies dependencies() {
    KQVisitorWebService::Dependencies result;
    result.session = session;
    result.isInternetAvaliable = [] { return true; };
    return result;
  }

  // Destroyed in reverse: the service, then the session (whose cancelled tasks still report to
  // the recorder), then the recorder, then the server.
  RecordingHTTPServer server;
  CallbackRecorder recorder;
  std::shared_ptr<HTTPSession> session = HTTPSession::create({});
  std::unique_ptr<KQVisitorWebService> service;
};

}  // namespace kq::test
