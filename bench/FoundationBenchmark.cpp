// Hot paths of the foundation: reading numbers from packet fields and dates from time stamps.

#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Utilities/DatePlus.h>

#include <benchmark/benchmark.h>

namespace {

void BM_IntegerValue(benchmark::State& state) {
  const std::string text = "  -1234567890";
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::integerValue(text));
  }
}
BENCHMARK(BM_IntegerValue);

// A received chat packet's time stamp goes through this round trip.
void BM_DateWithLocalTimeZone(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        kq::DatePlus::dateWithLocalTimeZone("2026-11-15 00:05:52", "yyyy-MM-dd HH:mm:ss"));
  }
}
BENCHMARK(BM_DateWithLocalTimeZone);

void BM_StringFromDate(benchmark::State& state) {
  const kq::Date date = kq::Date::now();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::DatePlus::stringFromDate(date, "yyyy-MM-dd HH:mm:ss"));
  }
}
BENCHMARK(BM_StringFromDate);

}  // namespace

BENCHMARK_MAIN();
