// Hot paths of the web service: decoding an answer, building a query, and one JSON request
// over loopback, with and without keep-alive.

#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/PercentEscapes.h>

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <condition_variable>
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
void BM_UrlBuilderWithEscaping(benchmark::State& state) {
  const Json parameters = {{"V_I", "0"},
                           {"V_N", "Zoë Visitor"},
                           {"W_I", 17},
                           {"S_I", "a1b2c3"},
                           {"parD", "2026-11-15 00:05:52 +0000"},
                           {"parTZ", "Europe/Berlin"},
                           {"L_I", 1}};
  const std::string base = "https://chat.kqvisitor.example/VisitorServiceXMPPSSL/ChatService.svc/";
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::stringByAddingPercentEscapes(
        base + "InVsIn" + kq::KQVisitorWebService::urlBuilder(parameters)));
  }
}
BENCHMARK(BM_UrlBuilderWithEscaping);

// One GET through the whole frame (query, session thread, cleaning, parse) to a cpp-httplib
// server on loopback. range(0): 1 keeps connections alive, 0 closes each after one request.
void BM_JSONRoundTrip(benchmark::State& state) {
  const bool keepAlive = state.range(0) == 1;
  httplib::Server server;
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(keepAlive ? 1000000 : 1);
  const std::string answer = typicalAnswer();
  // Not a JSON content type: cpp-httplib would compress the answer with brotli at its highest
  // quality (the client accepts br), and the benchmark would time that instead of the client.
  server.Get(".*", [&](const httplib::Request&, httplib::Response& response) {
    response.set_content(answer, "application/octet-stream");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread listener([&] { server.listen_after_bind(); });
  while (!server.is_running()) {
    std::this_thread::yield();
  }
  kq::KQVisitorConfig config;
  config.jsonServiceProductionOrigin = "http://127.0.0.1:" + std::to_string(port);
  kq::KQVisitorConfig::setShared(config);
  kq::KQVisitorWebService::Dependencies dependencies;
  dependencies.session = kq::HTTPSession::create({});
  dependencies.isInternetAvaliable = [] { return true; };
  kq::KQVisitorWebService service(dependencies);

  std::mutex mutex;
  std::condition_variable done;
  std::size_t completed = 0;
  std::string failure;
  std::size_t sent = 0;
  const Json parameters = {{"parCI", "4711"}, {"parLMI", 1009}};
  const auto finish = [&](std::string problem) {
    {
      std::scoped_lock lock(mutex);
      ++completed;
      failure = std::move(problem);
    }
    done.notify_one();
  };
  for (auto _ : state) {
    service.requestDataWithParameters(
        parameters, "GET", "GetChatMessagesAlt",
        [&](std::nullptr_t, const Json& result) {
          benchmark::DoNotOptimize(result.size());
          finish({});
        },
        [&](std::nullptr_t, const kq::KQError& error) { finish(error.description()); });
    ++sent;
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return completed == sent; });
    if (!failure.empty()) {
      state.SkipWithError(failure.c_str());
      break;
    }
  }
  server.stop();
  listener.join();
}
BENCHMARK(BM_JSONRoundTrip)->Arg(1)->Arg(0)->ArgName("keepAlive")->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
