#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPIQTracker.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace kq::xmpp {
namespace {

using namespace std::chrono_literals;

// The tracker of one connection, its timers on the main queue, timed by the manual clock; it
// records the answers it hands out and what it asks of the stream.
class XMPPIQTrackerTest : public ::testing::Test, public XMPPIQTracker::Host {
 protected:
  void sendPing(const XMPPIQ& ping) override { pings.emplace_back(ping.XMLString()); }
  void keepAliveDidTimeOut(const KQError& error) override { deaths.push_back(error.code); }

  XMPPIQTracker::Response record(const std::string& id) {
    return [this, id](const std::optional<XMPPIQ>& answer) {
      answers.push_back(id + " " + (answer ? answer->type() : "none"));
    };
  }

  void advance(Clock::Duration by) {
    clock->advance(by);
    test::drainMainQueue();
  }

  static XMPPIQ iq(const char* type, const char* id) { return XMPPIQ(type, std::nullopt, id); }

  test::ManualClockScope clock;
  std::vector<std::string> answers;
  std::vector<std::string> pings;
  std::vector<long> deaths;
  Guarded<XMPPStreamSettings> settings;
  XMPPStreamSchedule schedule = [](Clock::Duration delay, std::function<void()> task) {
    return Timer::scheduledTimer(DispatchQueue::main(), delay, false, [task](Timer&) { task(); });
  };
  XMPPIQTracker tracker{*this, settings, schedule, "localhost"};
};

TEST_F(XMPPIQTrackerTest, EachIQGetsOneAnswerItsOwnOrNoneAtItsTimeOut) {
  tracker.track("a", 5s, record("a"));
  tracker.track("b", 10s, record("b"));
  tracker.track("c", -1s, record("c"));  // never times out
  advance(4s);
  EXPECT_TRUE(answers.empty());
  // Only a result or an error answers; an answer's time-out no longer counts.
  EXPECT_FALSE(tracker.answer(iq("get", "b")));
  EXPECT_FALSE(tracker.answer(iq("result", "z")));
  EXPECT_TRUE(tracker.answer(iq("result", "b")));
  advance(1s);
  EXPECT_EQ(answers, (std::vector<std::string>{"b result", "a none"}));
  advance(1h);
  EXPECT_TRUE(tracker.answer(iq("error", "c")));
  EXPECT_FALSE(tracker.answer(iq("error", "c")));
  EXPECT_FALSE(tracker.answer(iq("result", "a")));
  EXPECT_EQ(answers, (std::vector<std::string>{"b result", "a none", "c error"}));
}

TEST_F(XMPPIQTrackerTest, ThePingComesAfterAQuietIntervalAndNeverWhenSwitchedOff) {
  struct Case {
    const char* name;
    XMPPStream::Seconds interval;
    std::optional<Clock::Duration> received;  // when the server last sent something
    std::optional<Clock::Duration> ping;      // when the ping is expected
  };
  const std::vector<Case> cases = {
      {"quiet", 60s, std::nullopt, 60s},
      {"traffic at 50 s", 60s, 50s, 110s},
      {"switched off", 0s, std::nullopt, std::nullopt},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    pings.clear();
    settings.set(&XMPPStreamSettings::keepAliveInterval, row.interval);
    XMPPIQTracker keepAlive(*this, settings, schedule, "localhost");
    const auto start = clock->now();
    keepAlive.startKeepAlive();
    if (row.received) {
      advance(*row.received);
      keepAlive.didReceive();
    }
    advance(row.ping.value_or(10min) - 1s - (clock->now() - start));
    EXPECT_TRUE(pings.empty());
    advance(1s);
    EXPECT_EQ(pings.size(), row.ping ? 1U : 0U);
    if (!pings.empty()) {
      EXPECT_NE(pings[0].find("to=\"localhost\""), std::string::npos) << pings[0];
      EXPECT_NE(pings[0].find("<ping xmlns=\"urn:xmpp:ping\"/>"), std::string::npos) << pings[0];
    }
    keepAlive.close();
  }
  EXPECT_TRUE(deaths.empty());
}

// The connection's close answers what waits with nothing, the ping too, which then reports no
// dead connection: the stream is ending anyway.
TEST_F(XMPPIQTrackerTest, CloseAnswersWhatWaitsAndEndsTheKeepAlive) {
  settings.set(&XMPPStreamSettings::keepAliveInterval, XMPPStream::Seconds(60s));
  tracker.startKeepAlive();
  advance(60s);
  ASSERT_EQ(pings.size(), 1U);
  tracker.track("b", 30s, record("b"));
  tracker.track("a", -1s, record("a"));
  tracker.close();
  EXPECT_EQ(answers, (std::vector<std::string>{"a none", "b none"}));
  advance(1h);
  EXPECT_EQ(answers.size(), 2U);
  EXPECT_EQ(pings.size(), 1U);
  EXPECT_TRUE(deaths.empty());
}

}  // namespace
}  // namespace kq::xmpp
