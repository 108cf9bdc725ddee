// A chat that survives the network: the visitor and the operator go on writing through a
// connection reset, a silent drop and a restart of the server, and each transcript ends up
// holding every line of the other side (and the visitor's own), once and in order.

#include "tests/support/ChatSurvival.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::ChatSurvival;

void expectWhole(const ChatSurvival::Direction& direction, const char* what) {
  EXPECT_GT(direction.sent, 0) << what;
  EXPECT_EQ(direction.arrived, direction.sent) << what;
  EXPECT_EQ(direction.lost, 0) << what;
  EXPECT_EQ(direction.duplicated, 0) << what;
  EXPECT_EQ(direction.outOfOrder, 0) << what;
  for (const auto& problem : direction.problems) {
    ADD_FAILURE() << what << ": " << problem;
  }
}

TEST(KQVisitorChatSurvivalTest, BothTranscriptsStayWholeThroughAResetASilentDropAndARestart) {
  // Short intervals: a silent drop is noticed after 1 s of lines unacknowledged.
  ChatSurvival chat({.interval = 100ms, .acknowledgementTimeout = 1s});
  ASSERT_TRUE(chat.start());

  // A reset: the visitor's stream resumes its session at once.
  chat.reset();
  ASSERT_TRUE(chat.waitUntilFlowing());

  // A silent drop, held until the stream has taken the link for dead and its first try to
  // resume hangs in the dead network too.
  chat.beginSilentDrop();
  ASSERT_TRUE(chat.waitUntilNoticed());
  const int accepted = chat.relayCounts().accepted;
  ASSERT_TRUE(test::runMainQueueUntil([&] { return chat.relayCounts().accepted > accepted; }));
  chat.endSilentDrop();
  ASSERT_TRUE(chat.waitUntilFlowing());
  EXPECT_LT(*chat.lastFault().noticed, *chat.lastFault().length);

  // A restart: both sides lose their sessions, log in again, rejoin and catch up.
  chat.restartServer();
  ASSERT_TRUE(chat.waitUntilFlowing());

  const auto report = chat.finish(test::kPatience);
  EXPECT_TRUE(report.drained);
  expectWhole(report.visitorToOperator, "the visitor's lines at the operator");
  expectWhole(report.operatorToVisitor, "the operator's lines at the visitor");
  expectWhole(report.visitorEchoes, "the visitor's lines in its own transcript");
  ASSERT_EQ(report.faults.size(), 3U);
  for (const auto& fault : report.faults) {
    EXPECT_TRUE(fault.flowing);
  }
}

}  // namespace
}  // namespace kq
