#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include "tests/support/FakePeerStreamTest.h"
#include "tests/support/ManualClockScope.h"

#include <future>
#include <regex>
#include <thread>

namespace kq::xmpp {
namespace {

using test::FakeXMPPPeer;
using test::runMainQueueUntil;
using namespace std::chrono_literals;

constexpr const char* kClientHeader =
    "<?xml version='1.0'?><stream:stream to='localhost' version='1.0' xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams'>";

using XMPPStreamTest = test::FakePeerStreamTest;

TEST_F(XMPPStreamTest, AnonymousLoginStepByStep) {
  EXPECT_TRUE(stream->isDisconnected());
  ASSERT_TRUE(stream->connectWithTimeout(XMPPStreamTimeoutNone));
  EXPECT_TRUE(stream->isConnecting());
  KQError error;
  EXPECT_FALSE(stream->connectWithTimeout(XMPPStreamTimeoutNone, &error));
  EXPECT_EQ(error.code, XMPPStream::kErrorInvalidState);

  ASSERT_TRUE(peer.accept());
  EXPECT_EQ(peer.receiveUntil("'http://etherx.jabber.org/streams'>"), kClientHeader);
  EXPECT_EQ(stream->state(), XMPPStreamState::Negotiating);
  peer.send(FakeXMPPPeer::serverHeader() + FakeXMPPPeer::features("PLAIN ANONYMOUS"));
  ASSERT_TRUE(waitFor("didConnect"));
  EXPECT_EQ(stream->state(), XMPPStreamState::Connected);
  EXPECT_FALSE(stream->isAuthenticated());
  EXPECT_FALSE(stream->isSecure());
  EXPECT_TRUE(stream->supportsAnonymousAuthentication());
  EXPECT_TRUE(stream->supportsPlainAuthentication());
  EXPECT_EQ(events->events,
            (std::vector<std::string>{"socketWillConnect", "socketDidConnect", "didConnect"}));

  ASSERT_TRUE(stream->authenticate(std::make_shared<XMPPAnonymousAuthentication>()));
  EXPECT_TRUE(stream->isAuthenticating());
  test::flushQueue(detail::XMPPQueues::of(*stream));  // the <auth/> is on its way; no answer yet
  EXPECT_EQ(stream->state(), XMPPStreamState::Negotiating);
  const std::string bind = peer.completeAuthentication("k3j2h1@localhost/TellioiPhone");
  EXPECT_TRUE(std::regex_match(
      bind, std::regex("<iq type=\"set\" id=\"[0-9A-F-]{36}\"><bind "
                       "xmlns=\"urn:ietf:params:xml:ns:xmpp-bind\"><resource>TellioiPhone"
                       "</resource></bind></iq>")))
      << bind;
  ASSERT_TRUE(waitFor("didAuthenticate"));
  EXPECT_TRUE(stream->isAuthenticated());
  EXPECT_FALSE(stream->isAuthenticating());
  EXPECT_EQ(stream->state(), XMPPStreamState::Connected);
  // The server chose the node: the stream's address follows the bind result.
  EXPECT_EQ(stream->myJID()->full(), "k3j2h1@localhost/TellioiPhone");

  stream->disconnect();
  EXPECT_EQ(peer.receiveUntilClosed(), "</stream:stream>");
  ASSERT_TRUE(waitFor("didDisconnect"));
  EXPECT_FALSE(events->disconnectError);
  EXPECT_TRUE(stream->isDisconnected());
  EXPECT_FALSE(stream->isAuthenticated());
}

// A mechanism the server does not offer is refused at once, and nothing is sent; PLAIN sends the
// user and the password; a refusal leaves the stream ready for another try. (The session a
// server requires is the negotiation's own test.)
TEST_F(XMPPStreamTest, PlainLoginAfterARefusedMechanismAndARefusedPassword) {
  stream->setMyJID(XMPPJID::jidWithString("42@localhost/agent"));
  connect("SCRAM-SHA-1 PLAIN");
  EXPECT_FALSE(stream->supportsAnonymousAuthentication());
  KQError error;
  EXPECT_FALSE(stream->authenticate(std::make_shared<XMPPAnonymousAuthentication>(), &error));
  EXPECT_EQ(error.code, XMPPStream::kErrorUnsupportedAction);
  EXPECT_EQ(stream->state(), XMPPStreamState::Connected);

  ASSERT_TRUE(stream->authenticate(std::make_shared<XMPPPlainAuthentication>("secret")));
  EXPECT_EQ(peer.receiveUntil("</auth>"),
            "<auth xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\" "
            "mechanism=\"PLAIN\">ADQyAHNlY3JldA==</auth>");
  peer.send("<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><not-authorized/></failure>");
  ASSERT_TRUE(waitFor("didNotAuthenticate"));
  ASSERT_TRUE(events->authenticationError);
  EXPECT_TRUE(events->authenticationError->elementForName("not-authorized"));
  EXPECT_EQ(stream->state(), XMPPStreamState::Connected);
  EXPECT_FALSE(stream->isAuthenticated());
  EXPECT_FALSE(stream->isAuthenticating());
  EXPECT_EQ(events->count("didDisconnect"), 0);

  ASSERT_TRUE(stream->authenticate(std::make_shared<XMPPPlainAuthentication>("secret")));
  peer.completeAuthentication("42@localhost/agent");
  ASSERT_TRUE(waitFor("didAuthenticate"));
}

TEST_F(XMPPStreamTest, FaultsFromTheServerEndInDisconnectWithAnError) {
  struct Fault {
    std::string name;
    std::string bytes;
    std::string domain;
    long code;
  };
  const std::vector<Fault> faults = {
      {"entity declaration", "<!DOCTYPE x [<!ENTITY a 'b'>]>", XMPPParser::kErrorDomain,
       XMPPParser::kErrorMalformed},
      {"over 1 MiB", "<message><body>" + std::string(std::size_t{1100} * 1024, 'z'),
       XMPPParser::kErrorDomain, XMPPParser::kErrorTooLarge},
      {"closed mid-stanza", "<message><body>half", XMPPStream::kErrorDomain,
       XMPPStream::kErrorServerClosed},
      {"stream error",
       "<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>",
       XMPPStream::kErrorDomain, XMPPStream::kErrorStreamError},
  };
  int round = 0;
  for (const auto& fault : faults) {
    SCOPED_TRACE(fault.name);
    ++round;
    connect();
    peer.send(fault.bytes);
    if (fault.name == "closed mid-stanza") {
      peer.closeConnection();
    }
    ASSERT_TRUE(waitFor("didDisconnect", round));
    ASSERT_TRUE(events->disconnectError);
    EXPECT_EQ(events->disconnectError->domain, fault.domain);
    EXPECT_EQ(events->disconnectError->code, fault.code);
    EXPECT_TRUE(stream->isDisconnected());
    peer.closeConnection();
  }
}

TEST_F(XMPPStreamTest, StanzasReachTheDelegatesAndUnansweredRequestsGetAnError) {
  auto removed = std::make_shared<test::StreamEvents>();
  stream->addDelegate(removed, DispatchQueue::main());
  login();
  ASSERT_TRUE(runMainQueueUntil([&] { return removed->count("didAuthenticate") == 1; }));
  stream->removeDelegate(removed.get());
  peer.send(
      "<message from='room1@conference.localhost/op' to='a1b2c3@localhost/TellioiPhone' "
      "type='groupchat' note='&amp;&lt;&quot;'><body>hi</body></message>"
      "<presence from='someone@localhost/x'/>"
      "<iq type='get' id='v1' from='localhost'><query xmlns='urn:a&amp;b&lt;c&gt;d&quot;'/></iq>");
  ASSERT_TRUE(waitFor("didReceiveIQ"));
  ASSERT_EQ(events->messages.size(), 1U);
  EXPECT_EQ(events->messages[0].attributeStringValueForName("note"), "&<\"");
  EXPECT_EQ(events->messages[0].body(), "hi");
  ASSERT_EQ(events->presences.size(), 1U);
  EXPECT_EQ(events->presences[0].from()->full(), "someone@localhost/x");
  test::drainMainQueue();
  EXPECT_EQ(removed->events.back(), "didAuthenticate") << "a removed delegate hears nothing more";
  // The answer copies the request's child, its namespace as it came.
  EXPECT_EQ(peer.receiveUntil("</iq>"),
            "<iq type=\"error\" to=\"localhost\" id=\"v1\"><query "
            "xmlns=\"urn:a&amp;b&lt;c&gt;d&quot;\"/><error type=\"cancel\"><service-unavailable "
            "xmlns=\"urn:ietf:params:xml:ns:xmpp-stanzas\"/></error></iq>");

  // A delegate that handles the request keeps the stream from answering it.
  events->answerIQs = true;
  peer.send("<iq type='get' id='v2' from='localhost'><query xmlns='jabber:iq:version'/></iq>");
  ASSERT_TRUE(waitFor("didReceiveIQ", 2));
  stream->sendElement(XMPPPresence(std::string("unavailable"), std::nullopt));
  EXPECT_EQ(peer.receiveUntil("/>"), "<presence type=\"unavailable\"/>");
}

// Sends run on the caller's thread while the stream's queue is idle and are queued behind its
// work otherwise; what the socket cannot take yet is kept. Either way the peer gets every stanza
// whole and in the order given, also from several threads at once.
TEST_F(XMPPStreamTest, StanzasArriveWholeAndInOrderWhenTheSocketFillsUp) {
  login();
  const std::string big(32 << 20, 'x');  // more than the socket buffers hold
  auto message = [](const std::string& id, const std::string& body) {
    XMPPMessage stanza("chat", XMPPJID::jidWithString("op@localhost"));
    stanza.addAttributeWithName("id", id);
    stanza.addBody(body);
    return stanza;
  };
  stream->sendElement(message("m0", big));
  // m1 waits for the held queue while the sender changes it through another handle: it goes out
  // as it was handed over.
  std::promise<void> release;
  detail::XMPPQueues::of(*stream)->async([held = release.get_future().share()] { held.wait(); });
  XMPPMessage m1 = message("m1", "small");
  XMPPElement body = *m1.elementForName("body");
  stream->sendElement(std::move(m1));
  body.setStringValue("changed afterwards");
  release.set_value();
  std::thread other([&] {
    for (int i = 0; i < 20; ++i) {
      stream->sendElement(message("t" + std::to_string(i), "from another thread"));
    }
  });
  for (int i = 2; i <= 20; ++i) {
    stream->sendElement(message("m" + std::to_string(i), "small"));
    // Some while the queue is busy with work of its own.
    detail::XMPPQueues::of(*stream)->async([] {});
  }
  other.join();
  EXPECT_TRUE(peer.receiveUntil("</message>") == message("m0", big).XMLString());
  int nextMain = 1;
  int nextOther = 0;
  while (nextMain <= 20 || nextOther < 20) {
    const std::string stanza = peer.receiveUntil("</message>");
    ASSERT_FALSE(stanza.empty());
    if (stanza.find("id=\"m") != std::string::npos) {
      EXPECT_NE(stanza.find("id=\"m" + std::to_string(nextMain++) + "\"><body>small</body>"),
                std::string::npos)
          << stanza;
    } else {
      EXPECT_NE(stanza.find("id=\"t" + std::to_string(nextOther++) + "\""), std::string::npos)
          << stanza;
    }
  }
  EXPECT_FALSE(events->disconnectError);
}

TEST_F(XMPPStreamTest, SendingWhileDisconnectedIsReportedAndAnIQWaitsForItsAnswer) {
  stream->sendElement(XMPPMessage());
  ASSERT_TRUE(waitFor("didFailToSendElement"));
  EXPECT_EQ(events->failedToSend.at(0).name(), "message");

  login();
  std::optional<XMPPIQ> answer;
  bool answered = false;
  // Runs on the stream's queue; hands the answer to the test thread.
  const auto record = [&](const std::optional<XMPPIQ>& response) {
    DispatchQueue::main()->async([&, response] {
      answer = response;
      answered = true;
    });
  };
  stream->sendIQ(XMPPIQ("get", XMPPJID::jidWithString("localhost"), std::string("p1")),
                 std::chrono::seconds(60), record);
  EXPECT_EQ(peer.receiveUntil("/>"), "<iq type=\"get\" to=\"localhost\" id=\"p1\"/>");
  peer.send("<iq type='result' id='p1' from='localhost'/>");
  ASSERT_TRUE(runMainQueueUntil([&] { return answered; }));
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->isResultIQ());
  EXPECT_EQ(events->count("didReceiveIQ"), 0);  // the tracked answer goes to its caller only

  // A disconnect answers a pending request with nothing.
  answered = false;
  stream->sendIQ(XMPPIQ("get", std::nullopt, std::string("p2")), std::chrono::seconds(60), record);
  peer.receiveUntil("/>");
  peer.closeConnection();
  ASSERT_TRUE(runMainQueueUntil([&] { return answered; }));
  EXPECT_FALSE(answer);
}

// (Which TLS offers fail is the negotiation's own test; one that fails ends the stream.)
TEST_F(XMPPStreamTest, ConnectTimedOutRefusedOrImpossible) {
  stream->setStartTLSPolicy(XMPPStreamStartTLSPolicy::Required);
  ASSERT_TRUE(stream->connectWithTimeout(XMPPStreamTimeoutNone));
  ASSERT_TRUE(peer.openStream("ANONYMOUS"));
  ASSERT_TRUE(waitFor("didDisconnect"));
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorTLS);
  EXPECT_EQ(events->count("didConnect"), 0);
  peer.closeConnection();

  // The server accepts (the kernel does, from its backlog) but never answers the header.
  ASSERT_TRUE(stream->connectWithTimeout(std::chrono::milliseconds(1)));
  ASSERT_TRUE(waitFor("didDisconnect", 2));
  EXPECT_EQ(events->count("connectDidTimeout"), 1);
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorConnectTimeout);

  peer.stopListening();
  const int socketsConnected = events->count("socketDidConnect");
  ASSERT_TRUE(stream->connectWithTimeout(XMPPStreamTimeoutNone));
  ASSERT_TRUE(waitFor("didDisconnect", 3));
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorSocket);
  EXPECT_EQ(events->count("socketDidConnect"), socketsConnected);

  KQError error;
  stream->setMyJID(std::nullopt);
  EXPECT_FALSE(stream->connectWithTimeout(XMPPStreamTimeoutNone, &error));
  EXPECT_EQ(error.code, XMPPStream::kErrorInvalidProperty);
}

// A connection that ends at an awkward moment leaves nothing behind that trips the next one.
TEST_F(XMPPStreamTest, ANewConnectionStartsCleanAfterOneThatEndedAbruptly) {
  // The server's success and the end of its stream arrive in one chunk: the stream is about to
  // restart its parser for the new stream when the connection ends.
  connect();
  ASSERT_TRUE(stream->authenticate(std::make_shared<XMPPAnonymousAuthentication>()));
  peer.receiveUntil("/>");
  peer.send("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/></stream:stream>");
  ASSERT_TRUE(waitFor("didDisconnect"));
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorServerClosed);
  peer.closeConnection();

  // The next connection must read the server's first stream header with a fresh parser.
  login();

  // Many large stanzas queue up behind one write in flight; the connection drops while that
  // write's buffer is still in the socket's hands.
  const std::string big(64 * 1024, 'x');
  for (int i = 0; i < 32; ++i) {
    XMPPMessage message;
    message.addBody(big);
    stream->sendElement(message);
  }
  peer.closeConnection();
  ASSERT_TRUE(waitFor("didDisconnect", 2));
  login();
}

class XMPPStreamDeadConnectionTest : public XMPPStreamTest {
 protected:
  void SetUp() override {
    XMPPStreamTest::SetUp();
    stream->setNegotiationTimeout(30s);
    stream->setKeepAliveInterval(60s);
    stream->setKeepAliveTimeout(20s);
  }

  // Runs what the stream's timers have due after moving the clock.
  void advance(Clock::Duration by) {
    clock->advance(by);
    test::flushQueue(detail::XMPPQueues::of(*stream));
  }

  // Reads the next ping the stream sends and answers its id.
  std::string receivePing() {
    const std::string ping = peer.receiveUntil("</iq>");
    EXPECT_NE(ping.find("<ping xmlns=\"urn:xmpp:ping\"/>"), std::string::npos) << ping;
    EXPECT_NE(ping.find("type=\"get\""), std::string::npos) << ping;
    return test::FakeXMPPPeer::idOf(ping);
  }

  test::ManualClockScope clock;
};

TEST_F(XMPPStreamDeadConnectionTest, ALoginTheServerNeverFinishesEndsInTheNegotiationTimeout) {
  struct Stall {
    std::string name;
    std::string answer;  // what the server says to the <auth/>, before it goes quiet
  };
  const std::vector<Stall> stalls = {
      {"silence", ""},
      {"a challenge to a mechanism without one",
       "<challenge xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"},
      {"an unrelated stanza", "<message from='x@localhost'><body>hi</body></message>"},
  };
  int round = 0;
  for (const auto& stall : stalls) {
    SCOPED_TRACE(stall.name);
    ++round;
    connect();
    // Waiting for the host to authenticate is not the server's time.
    advance(45s);
    EXPECT_EQ(events->count("didDisconnect"), round - 1);
    ASSERT_TRUE(stream->authenticate(std::make_shared<XMPPAnonymousAuthentication>()));
    peer.receiveUntil("/>");
    if (!stall.answer.empty()) {
      peer.send(stall.answer);
    }
    advance(29s);
    EXPECT_EQ(events->count("didDisconnect"), round - 1);
    advance(1s);
    ASSERT_TRUE(waitFor("didDisconnect", round));
    EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorNegotiationTimeout);
    EXPECT_EQ(events->count("didAuthenticate"), 0);
    peer.closeConnection();
  }
}

TEST_F(XMPPStreamDeadConnectionTest, AQuietConnectionIsPingedADeadOneEndsAndReconnectGoesOn) {
  auto reconnect = std::make_shared<XMPPReconnect>();
  reconnect->setReconnectDelay(2s);
  reconnect->setReconnectTimerInterval(5s);
  reconnect->activate(stream);
  login();
  // Traffic within the interval keeps the stream from pinging.
  advance(50s);
  peer.send("<message from='op@localhost'><body>one</body></message>");
  ASSERT_TRUE(waitFor("didReceiveMessage"));
  advance(50s);

  // Quiet for the whole interval: a ping; its answer keeps the connection.
  advance(10s);
  std::string id = receivePing();
  peer.send("<iq type='result' id='" + id +
            "' from='localhost'/>"
            "<message from='op@localhost'><body>two</body></message>");
  ASSERT_TRUE(waitFor("didReceiveMessage", 2));
  advance(20s);
  EXPECT_EQ(events->count("didDisconnect"), 0);
  EXPECT_TRUE(stream->isAuthenticated());
  // An error answer (a server without ping support) shows the connection is alive too.
  advance(40s);
  id = receivePing();
  peer.send("<iq type='error' id='" + id +
            "' from='localhost'><ping xmlns='urn:xmpp:ping'/>"
            "<error type='cancel'><service-unavailable "
            "xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>"
            "<message from='op@localhost'><body>three</body></message>");
  ASSERT_TRUE(waitFor("didReceiveMessage", 3));

  // The server stops answering: the next ping goes unanswered and the connection ends.
  advance(60s);
  receivePing();
  advance(19s);
  EXPECT_EQ(events->count("didDisconnect"), 0);
  advance(1s);
  ASSERT_TRUE(waitFor("didDisconnect"));
  ASSERT_TRUE(events->disconnectError);
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorKeepAliveTimeout);
  EXPECT_FALSE(stream->isAuthenticated());
  EXPECT_EQ(events->count("didReceiveIQ"), 0);  // ping answers go to the stream only
  peer.closeConnection();

  // The first attempt reaches a server that accepts and says nothing.
  advance(2s);
  ASSERT_TRUE(peer.accept());
  peer.receiveUntil("'http://etherx.jabber.org/streams'>");
  advance(29s);
  EXPECT_EQ(events->count("didDisconnect"), 1);
  advance(1s);
  ASSERT_TRUE(waitFor("didDisconnect", 2));
  EXPECT_EQ(events->count("connectDidTimeout"), 1);
  EXPECT_EQ(events->disconnectError->code, XMPPStream::kErrorConnectTimeout);
  EXPECT_EQ(peer.receiveUntilClosed(), "");

  // A later attempt finds the server healthy and logs in again.
  advance(5s);
  connect("ANONYMOUS", false);
  authenticate();
}

}  // namespace
}  // namespace kq::xmpp
