// Stream management against a real Prosody, with a fault relay between the visitor and the
// server: the visitor's session survives a reset and a silent drop without a new login, and no
// line is lost or repeated either way.

#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/FaultRelay.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ProsodyOperator.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kq {
namespace {

using namespace std::chrono_literals;
using test::runMainQueueUntil;

std::vector<std::string> bodies(const std::vector<xmpp::XMPPMessage>& messages) {
  std::vector<std::string> texts;
  for (const auto& message : messages) {
    if (const auto body = message.body()) {
      texts.push_back(*body);
    }
  }
  return texts;
}

class XMPPStreamManagementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KQVisitorConfig config = KQVisitorConfig::shared();
    config.caFile = server.caFile();
    KQVisitorConfig::setShared(config);
    ASSERT_TRUE(agent.login());
    visitor->setHostName("127.0.0.1");
    visitor->setHostPort(relay.port());
    visitor->setMyJID(xmpp::XMPPJID::jidWithString("localhost"));
    // A shortened acknowledgement time-out: the silent drop is noticed after 1 s.
    visitor->setAcknowledgementTimeout(1s);
    visitor->addDelegate(events, DispatchQueue::main());
    ASSERT_TRUE(visitor->connectWithTimeout(xmpp::XMPPStreamTimeoutNone));
    ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didConnect") == 1; }));
    ASSERT_TRUE(visitor->authenticate(std::make_shared<xmpp::XMPPAnonymousAuthentication>()));
    ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didAuthenticate") == 1; }));
    visitor->sendElement(xmpp::XMPPPresence());
  }

  void TearDown() override {
    visitor->disconnect();
    runMainQueueUntil([&] { return visitor->isDisconnected(); });
    KQVisitorConfig::setShared(KQVisitorConfig());
  }

  // One line each way: the visitor's to the operator, the operator's to the visitor.
  void exchange(const std::string& line) {
    xmpp::XMPPMessage toOperator("chat", xmpp::XMPPJID::jidWithString("42@localhost"));
    toOperator.addBody("visitor " + line);
    visitor->sendElement(toOperator);
    xmpp::XMPPMessage toVisitor("chat", visitor->myJID());
    toVisitor.addBody("operator " + line);
    agent.stream->sendElement(toVisitor);
  }

  // Every line arrived once, in order, both ways.
  void expectArrived(const std::vector<std::string>& lines) {
    std::vector<std::string> fromVisitor;
    std::vector<std::string> fromOperator;
    for (const auto& line : lines) {
      fromVisitor.push_back("visitor " + line);
      fromOperator.push_back("operator " + line);
    }
    ASSERT_TRUE(runMainQueueUntil([&] {
      return bodies(agent.events->messages).size() >= lines.size() &&
             bodies(events->messages).size() >= lines.size();
    }));
    test::drainMainQueue();
    EXPECT_EQ(bodies(agent.events->messages), fromVisitor);
    EXPECT_EQ(bodies(events->messages), fromOperator);
  }

  test::ProsodyServer server{{.accounts = {{"42", "secret"}}}};
  test::FaultRelay relay{server.port()};
  test::Operator agent{server};
  std::shared_ptr<xmpp::XMPPStream> visitor = xmpp::XMPPStream::create();
  std::shared_ptr<test::StreamEvents> events = std::make_shared<test::StreamEvents>();
};

TEST_F(XMPPStreamManagementTest, TheSessionResumesAfterAResetAndASilentDropWithNothingLost) {
  exchange("1");
  expectArrived({"1"});
  const auto boundJID = visitor->myJID();

  // A reset: the stream resumes at once; what either side sent meanwhile arrives once.
  relay.reset();
  exchange("2");
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didResume") == 1; }));
  exchange("3");
  expectArrived({"1", "2", "3"});

  // A silent drop: the line waiting for its acknowledgement shows the link is dead; the stream
  // stays authenticated and resumes once the network is back.
  relay.dropSilently(true);
  exchange("4");
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("willResume") == 2; }));
  ASSERT_TRUE(events->resumeError);
  EXPECT_EQ(events->resumeError->code, xmpp::XMPPStream::kErrorAcknowledgementTimeout);
  EXPECT_TRUE(visitor->isAuthenticated());
  exchange("5");  // held until the session is back
  relay.dropSilently(false);
  ASSERT_TRUE(runMainQueueUntil([&] { return events->count("didResume") == 2; }));
  expectArrived({"1", "2", "3", "4", "5"});

  EXPECT_EQ(events->count("didAuthenticate"), 1) << "no new login";
  EXPECT_EQ(events->count("didDisconnect"), 0);
  EXPECT_EQ(visitor->myJID(), boundJID);
  EXPECT_TRUE(events->failedToSend.empty());
}

}  // namespace
}  // namespace kq
