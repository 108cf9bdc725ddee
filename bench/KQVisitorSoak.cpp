// A long chat between the visitor and an operator while the network keeps failing: connection
// resets and silent drops of 3 to 30 s at random moments a few seconds apart, and restarts of
// the server, while each side writes a numbered line every interval. Prints each fault as it
// heals, then what arrived each way and how long recovery took; exits non-zero when a line was
// lost, shown twice or out of order. Not a test: it runs for a quarter of an hour.
//
//   kq_bench_soak [--cuts N] [--restarts M] [--interval-ms MS] [--seed S] [--tls]

#include "tests/support/ChatSurvival.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using kq::test::ChatSurvival;
using Kind = ChatSurvival::FaultKind;
using namespace std::chrono_literals;

std::string seconds(const std::optional<ChatSurvival::Seconds>& duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", duration ? duration->count() : 0.0);
  return duration ? text : "never";
}

void printDirection(const char* name, const ChatSurvival::Direction& direction) {
  std::printf("%-24s %6d %8d %6d %11d %13d\n", name, direction.sent,
              direction.sent - direction.lost, direction.lost, direction.duplicated,
              direction.outOfOrder);
  for (std::size_t i = 0; i < direction.problems.size() && i < 20; ++i) {
    std::printf("    %s\n", direction.problems[i].c_str());
  }
}

// "n, median x s, max y s" of `values` (seconds).
std::string spread(std::vector<double> values) {
  if (values.empty()) {
    return "none";
  }
  std::sort(values.begin(), values.end());
  char text[96];
  std::snprintf(text, sizeof text, "%3zu  median %5.1f s  max %5.1f s", values.size(),
                values[values.size() / 2], values.back());
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  int cuts = 50;
  int restarts = 3;
  int intervalMs = 400;
  unsigned seed = 1;
  bool tls = false;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (option == "--tls") {
      tls = true;
    } else if (value != nullptr && option == "--cuts") {
      cuts = std::atoi(argv[++i]);
    } else if (value != nullptr && option == "--restarts") {
      restarts = std::atoi(argv[++i]);
    } else if (value != nullptr && option == "--interval-ms") {
      intervalMs = std::atoi(argv[++i]);
    } else if (value != nullptr && option == "--seed") {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      std::fprintf(stderr,
                   "usage: %s [--cuts N] [--restarts M] [--interval-ms MS] [--seed S] [--tls]\n",
                   argv[0]);
      return 2;
    }
  }

  // The faults in order: the cuts, resets and silent drops at random, with the restarts among
  // them at random places.
  std::mt19937 random(seed);
  std::vector<Kind> plan;
  for (int i = 0; i < cuts; ++i) {
    plan.push_back(std::bernoulli_distribution(0.5)(random) ? Kind::Reset : Kind::SilentDrop);
  }
  for (int i = 0; i < restarts; ++i) {
    const auto at = std::uniform_int_distribution<std::size_t>(0, plan.size())(random);
    plan.insert(plan.begin() + static_cast<long>(at), Kind::Restart);
  }
  std::printf("soak: %d cuts, %d restarts, a line each way every %d ms, seed %u%s\n", cuts,
              restarts, intervalMs, seed, tls ? ", TLS" : "");

  ChatSurvival chat({.interval = std::chrono::milliseconds(intervalMs), .tls = tls});
  if (!chat.start()) {
    std::fprintf(stderr, "soak: the chat did not open\n");
    return 2;
  }
  int cut = 0;
  int restart = 0;
  for (const Kind kind : plan) {
    ChatSurvival::runFor(
        std::chrono::milliseconds(std::uniform_int_distribution<int>(2000, 6000)(random)));
    std::string line;
    if (kind == Kind::Restart) {
      line = "restart " + std::to_string(++restart) + "/" + std::to_string(restarts);
      chat.restartServer();
    } else if (kind == Kind::Reset) {
      line = "cut " + std::to_string(++cut) + "/" + std::to_string(cuts) + ": reset";
      chat.reset();
    } else {
      const int length = std::uniform_int_distribution<int>(3, 30)(random);
      line = "cut " + std::to_string(++cut) + "/" + std::to_string(cuts) + ": silent drop " +
             std::to_string(length) + " s";
      chat.beginSilentDrop();
      ChatSurvival::runFor(std::chrono::seconds(length));
      chat.endSilentDrop();
    }
    chat.waitUntilFlowing(120s);
    const auto& fault = chat.lastFault();
    if (kind == Kind::SilentDrop) {
      line += fault.noticed ? ", noticed after " + seconds(fault.noticed) : ", not noticed";
    }
    line += ", flowing again after " + seconds(fault.flowing);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }

  const auto report = chat.finish(120s);
  std::printf("\n%-24s %6s %8s %6s %11s %13s\n", "", "sent", "arrived", "lost", "duplicated",
              "out of order");
  printDirection("visitor -> operator", report.visitorToOperator);
  printDirection("operator -> visitor", report.operatorToVisitor);
  printDirection("visitor's own lines", report.visitorEchoes);
  if (!report.drained) {
    std::printf("not everything had arrived 120 s after the writing stopped\n");
  }
  std::map<Kind, std::vector<double>> recovery;
  std::vector<double> noticed;
  int unnoticed = 0;
  int unhealed = 0;
  for (const auto& fault : report.faults) {
    if (fault.flowing) {
      recovery[fault.kind].push_back(fault.flowing->count());
    } else {
      ++unhealed;
    }
    if (fault.kind == Kind::SilentDrop) {
      if (fault.noticed) {
        noticed.push_back(fault.noticed->count());
      } else {
        ++unnoticed;
      }
    }
  }
  std::printf("\nflowing again after\n");
  for (const Kind kind : {Kind::Reset, Kind::SilentDrop, Kind::Restart}) {
    std::printf("  %-12s %s\n", ChatSurvival::nameOf(kind), spread(recovery[kind]).c_str());
  }
  if (unhealed > 0) {
    std::printf("  %d faults never healed within 120 s\n", unhealed);
  }
  std::printf("silent drops noticed after  %s  (%d over before they were noticed)\n",
              spread(noticed).c_str(), unnoticed);
  const bool clean = report.clean() && unhealed == 0;
  std::printf("\n%s\n", clean ? "clean: nothing lost, nothing twice" : "NOT CLEAN");
  return clean ? 0 : 1;
}
