// Hot paths of the web service: decoding an answer, building a query, and the JSON call over
// loopback beside raw libcurl.

#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/PercentEscapes.h>

#include "bench/RatioReporter.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using Json = nlohmann::ordered_json;

// A poll's answer as the service writes it: the payload serialised into a string member.
std::string typicalAnswer() {
  Json payload = {{"status", 1}, {"C_I", "4711"}, {"Messages", Json::array()}};
  for (int i = 0; i < 10; ++i) {
    payload["Messages"].push_back({{"M_I", std::to_string(1000 + i)},
                                   {"S_I", "17"},
                                   {"M", "Hello, how can I help you with your order today?"},
                                   {"T", "2026-11-15 00:05:52"},
                                   {"MT", 2}});
  }
  return Json({{"GetChatMessagesAltResult", payload.dump()}}).dump();
}

void BM_ResultFromResponseData(benchmark::State& state) {
  const std::string answer = typicalAnswer();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::KQVisitorWebService::resultFromResponseData(answer));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * answer.size()));
}
BENCHMARK(BM_ResultFromResponseData);

// The visitor registration's parameters, as a GET query with the whole-URL escaping.
const Json& visitorParameters() {
  static const Json parameters = {{"V_I", "0"},
                                  {"V_N", "Zoë Visitor"},
                                  {"W_I", 17},
                                  {"S_I", "a1b2c3"},
                                  {"parD", "2026-11-15 00:05:52 +0000"},
                                  {"parTZ", "Europe/Berlin"},
                                  {"L_I", 1}};
  return parameters;
}

void BM_UrlBuilderWithEscaping(benchmark::State& state) {
  const Json& parameters = visitorParameters();
  const std::string base = "https://chat.kqvisitor.example/VisitorServiceXMPPSSL/ChatService.svc/";
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::stringByAddingPercentEscapes(
        base + "InVsIn" + kq::KQVisitorWebService::urlBuilder(parameters)));
  }
}
BENCHMARK(BM_UrlBuilderWithEscaping);

// --- The JSON call beside raw libcurl --------------------------------------------------------
//
// A GET with seven parameters answered by a string-encoded JSON object, against a cpp-httplib
// server on loopback that answers JSON. Ours goes through
// the whole frame (query building and escaping, the session thread, cleaning, parsing); the
// reference is libcurl's multi interface with kept-alive connections, transfer only. Each
// iteration is kCalls calls, `range(0)` of them in flight at a time.

constexpr int kCalls = 64;

class LoopbackService {
 public:
  LoopbackService() {
    server_.set_tcp_nodelay(true);
    server_.set_keep_alive_max_count(1000000);
    // A thread per kept-alive connection, with room to spare: cpp-httplib's default pool (8 on
    // this machine) would make a ninth connection wait for a free thread.
    server_.new_task_queue = [] { return new httplib::ThreadPool(32); };
    // "application/json" exactly: the one JSON type cpp-httplib compresses when the client
    // accepts it, as a service may.
    server_.Get(".*", [](const httplib::Request&, httplib::Response& response) {
      response.set_content(R"({"InVsInResult":"{\"status\":1,\"V_I\":\"4711\"}"})",
                           "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    listener_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) {
      std::this_thread::yield();
    }
  }
  ~LoopbackService() {
    server_.stop();
    listener_.join();
  }
  LoopbackService(const LoopbackService&) = delete;
  LoopbackService& operator=(const LoopbackService&) = delete;

  [[nodiscard]] std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread listener_;
};

// How the next call is made once one has ended: by the completion itself, on the session's
// thread (as the reference's loop does it), or by another thread that waits to hear of it,
// which costs two thread switches per call.
enum class NextCall { FromTheCompletion, FromAWaitingThread };

void runOurJSONCalls(benchmark::State& state, NextCall next) {
  const auto inFlight = static_cast<std::size_t>(state.range(0));
  LoopbackService loopback;
  kq::KQVisitorConfig config;
  config.jsonServiceProductionOrigin = loopback.origin();
  kq::KQVisitorConfig::setShared(config);
  kq::KQVisitorWebService::Dependencies dependencies;
  dependencies.session = kq::HTTPSession::create({});
  dependencies.isInternetAvaliable = [] { return true; };
  kq::KQVisitorWebService service(dependencies);

  std::mutex mutex;
  std::condition_variable changed;
  std::size_t sent = 0;       // guarded by mutex
  std::size_t completed = 0;  // guarded by mutex
  std::size_t target = 0;     // guarded by mutex
  std::string failure;        // guarded by mutex
  std::function<void()> call;
  // Counts a call that ended, and makes the next one when the completion is to. The waiting
  // thread hears only when it has something to do: waking it for every call would charge ours
  // a thread switch the reference's loop does not make.
  const auto finish = [&](std::string problem) {
    bool again = false;
    {
      std::scoped_lock lock(mutex);
      ++completed;
      if (!problem.empty()) {
        failure = std::move(problem);
      }
      if (next == NextCall::FromTheCompletion && sent < target) {
        ++sent;
        again = true;
      }
    }
    if (again) {
      call();
    } else {
      changed.notify_one();
    }
  };
  call = [&] {
    service.requestDataWithParameters(
        visitorParameters(), "GET", "InVsIn",
        [&](std::nullptr_t, const Json& result) {
          const bool answered =
              result.contains("InVsInResult") && result["InVsInResult"].value("status", 0) == 1;
          finish(answered ? std::string() : "an answer without status 1");
        },
        [&](std::nullptr_t, const kq::KQError& error) { finish(error.description()); });
  };
  const auto callMany = [&] {
    std::unique_lock lock(mutex);
    target = sent + kCalls;
    while (completed < target) {
      while (sent < target && sent - completed < inFlight) {
        ++sent;
        lock.unlock();
        call();
        lock.lock();
      }
      changed.wait(lock, [&] {
        return completed == target || (next == NextCall::FromAWaitingThread && sent < target &&
                                       sent - completed < inFlight);
      });
    }
  };
  callMany();  // opens the connections: the server's listen backlog (5) makes some wait 1 s
  for (auto _ : state) {
    callMany();
    std::scoped_lock lock(mutex);
    if (!failure.empty()) {
      state.SkipWithError(failure.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kCalls);
}

void JSONCall_ours(benchmark::State& state) {
  runOurJSONCalls(state, NextCall::FromTheCompletion);
}
BENCHMARK(JSONCall_ours)->Name("JSONCall/ours")->Arg(1)->Arg(8)->ArgName("inFlight")->UseRealTime();

void JSONCallFromAWaitingThread_ours(benchmark::State& state) {
  runOurJSONCalls(state, NextCall::FromAWaitingThread);
}
BENCHMARK(JSONCallFromAWaitingThread_ours)
    ->Name("JSONCallFromAWaitingThread/ours")
    ->Arg(1)
    ->Arg(8)
    ->ArgName("inFlight")
    ->UseRealTime();

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

void JSONCall_libcurl(benchmark::State& state) {
  const auto inFlight = static_cast<std::size_t>(state.range(0));
  LoopbackService loopback;
  const std::string url = kq::stringByAddingPercentEscapes(
      loopback.origin() + "/VisitorServiceXMPPSSL/ChatService.svc/InVsIn" +
      kq::KQVisitorWebService::urlBuilder(visitorParameters()));
  CURLM* multi = curl_multi_init();
  std::vector<CURL*> handles(inFlight);
  std::vector<std::string> bodies(inFlight);
  for (std::size_t i = 0; i < inFlight; ++i) {
    handles[i] = curl_easy_init();
    curl_easy_setopt(handles[i], CURLOPT_URL, url.c_str());
    curl_easy_setopt(handles[i], CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(handles[i], CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handles[i], CURLOPT_WRITEDATA, &bodies[i]);
  }
  bool failed = false;
  const auto callMany = [&] {
    std::size_t started = 0;
    std::size_t finished = 0;
    for (std::size_t i = 0; i < inFlight && started < kCalls; ++i, ++started) {
      bodies[i].clear();
      curl_multi_add_handle(multi, handles[i]);
    }
    while (finished < kCalls && !failed) {
      int running = 0;
      curl_multi_perform(multi, &running);
      const std::size_t before = finished;
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) {
          continue;
        }
        failed = failed || message->data.result != CURLE_OK;
        ++finished;
        CURL* easy = message->easy_handle;
        curl_multi_remove_handle(multi, easy);
        if (started < kCalls) {
          ++started;
          const auto slot = static_cast<std::size_t>(
              std::find(handles.begin(), handles.end(), easy) - handles.begin());
          bodies[slot].clear();
          curl_multi_add_handle(multi, easy);
        }
      }
      if (finished == before) {
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
      }
    }
  };
  callMany();  // opens the connections, as for ours
  for (auto _ : state) {
    callMany();
    if (failed) {
      state.SkipWithError("a libcurl transfer failed");
      break;
    }
  }
  for (CURL* easy : handles) {
    curl_easy_cleanup(easy);
  }
  curl_multi_cleanup(multi);
  state.SetItemsProcessed(state.iterations() * kCalls);
}
BENCHMARK(JSONCall_libcurl)
    ->Name("JSONCall/libcurl-multi")
    ->Arg(1)
    ->Arg(8)
    ->ArgName("inFlight")
    ->UseRealTime();
// The same reference again, to set beside the waiting thread's figures in the same rounds.
BENCHMARK(JSONCall_libcurl)
    ->Name("JSONCallFromAWaitingThread/libcurl-multi")
    ->Arg(1)
    ->Arg(8)
    ->ArgName("inFlight")
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return kq::bench::runWithRatios(argc, argv);
}
