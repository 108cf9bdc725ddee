// A chat that survives the network: the visitor and the operator go on writing through a
// connection reset, a silent drop and a restart of the server, and each transcript ends up
// holding every line of the other side (and the visitor's own), once and in order. Through the
// reset and the drop the visitor's stream resumes its session: no new login, the same full JID.

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/ChatSurvival.h"

#include <gtest/gtest.h>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::ChatSurvival;

TEST(KQVisitorChatSurvivalTest, BothTranscriptsStayWholeThroughAResetASilentDropAndARestart) {
  // Short intervals: a silent drop is noticed after 1 s of lines unacknowledged.
  ChatSurvival chat({.interval = 100ms, .acknowledgementTimeout = 1s});
  ASSERT_TRUE(chat.start());
  const auto& events = chat.visitorEvents();
  const auto stream = KQVisitorXMPPClient::instance().xmppStream();
  const auto boundJID = stream->myJID();

  // A reset: the visitor's stream resumes its session at once.
  chat.reset();
  ASSERT_TRUE(chat.waitUntilFlowing());
  EXPECT_EQ(events.count("didResume"), 1);

  // A silent drop, held until the stream has taken the link for dead (the line waiting for its
  // acknowledgement shows it) and its first try to resume hangs in the dead network too.
  chat.beginSilentDrop();
  ASSERT_TRUE(chat.waitUntilNoticed());
  ASSERT_TRUE(events.resumeError);
  EXPECT_EQ(events.resumeError->code, xmpp::XMPPStream::kErrorAcknowledgementTimeout);
  EXPECT_TRUE(stream->isAuthenticated());
  const int accepted = chat.relayCounts().accepted;
  ASSERT_TRUE(test::runMainQueueUntil([&] { return chat.relayCounts().accepted > accepted; }));
  chat.endSilentDrop();
  ASSERT_TRUE(chat.waitUntilFlowing());
  EXPECT_EQ(events.count("didResume"), 2);
  EXPECT_EQ(events.count("didAuthenticate"), 1) << "no new login";
  EXPECT_EQ(events.count("didDisconnect"), 0);
  EXPECT_TRUE(events.failedToSend.empty());
  EXPECT_EQ(stream->myJID(), boundJID);

  // A restart: both sides lose their sessions, log in again, rejoin and catch up.
  chat.restartServer();
  ASSERT_TRUE(chat.waitUntilFlowing());

  const auto report = chat.finish(test::kPatience);
  EXPECT_TRUE(report.drained);
  for (const auto* direction :
       {&report.visitorToOperator, &report.operatorToVisitor, &report.visitorEchoes}) {
    EXPECT_GT(direction->sent, 0);
    // Each line lost, repeated or out of order, and the fault it followed.
    EXPECT_EQ(direction->problems, std::vector<std::string>{});
  }
}

}  // namespace
}  // namespace kq
