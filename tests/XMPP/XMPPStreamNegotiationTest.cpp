#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamNegotiation.h>

#include "tests/support/FakeXMPPPeer.h"
#include "tests/support/MainQueue.h"
#include "tests/support/ManualClockScope.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace kq::xmpp {
namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;
constexpr auto idOf = &test::FakeXMPPPeer::idOf;

const std::string kMechanisms =
    "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>PLAIN</mechanism>"
    "<mechanism>ANONYMOUS</mechanism></mechanisms>";
const std::string kStartTLS = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
const std::string kBind = "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>";

std::string features(const std::string& inside) {
  return "<stream:features xmlns:stream='http://etherx.jabber.org/streams'>" + inside +
         "</stream:features>";
}

// `calls` with every id sent written "ID".
Calls withoutIDs(Calls calls) {
  for (auto& call : calls) {
    call = std::regex_replace(call, std::regex("id=\"[^\"]*\""), "id=\"ID\"");
  }
  return calls;
}

// The negotiation of one connection to "localhost", its timers on the main queue, timed by the
// manual clock; it records what it asks of the stream, one line per call.
class XMPPStreamNegotiationTest : public ::testing::Test, public XMPPStreamNegotiation::Host {
 protected:
  void send(std::string_view text) override {
    calls.push_back(text.starts_with("<?xml") ? "header" : "send " + std::string(text));
  }
  void restartParser(bool afterChunk) override {
    calls.emplace_back(afterChunk ? "parser after chunk" : "parser");
  }
  void secureAfterChunk() override { calls.emplace_back("secure"); }
  void fail(const KQError& error) override {
    calls.push_back("fail " + std::to_string(error.code));
  }
  void connectDidTimeOut(const KQError& error) override {
    calls.push_back("connect timeout " + std::to_string(error.code));
  }
  void negotiationDidConnect() override { calls.emplace_back("did connect"); }
  void negotiationDidNotAuthenticate(const XMPPElement& failure) override {
    calls.push_back("did not authenticate " + failure.children().at(0).name());
  }
  void negotiationDidAuthenticate() override { calls.emplace_back("did authenticate"); }
  void negotiationDidResume(std::uint32_t handled) override {
    calls.push_back("did resume " + std::to_string(handled));
  }
  void negotiationDidNotResume(const KQError& error) override {
    calls.push_back("did not resume " + std::to_string(error.code));
  }

  // A new negotiation, for a new connection; opens its stream.
  void open() {
    negotiation.emplace(*this, settings, schedule, "localhost");
    calls.clear();
    negotiation->openStream();
    EXPECT_EQ(calls, (Calls{"parser", "header"}));
  }

  // Moves the clock on by `by` and runs the timers due; the calls they made.
  void advance(Clock::Duration by) {
    calls.clear();
    clock->advance(by);
    test::drainMainQueue();
  }

  // Hands `text` to the negotiation; the calls it made.
  Calls receive(const std::string& text) {
    calls.clear();
    EXPECT_TRUE(negotiation->receive(*XMPPElement::elementWithXMLString(text))) << text;
    return calls;
  }

  // Opens the stream and authenticates anonymously, up to the restarted stream's features.
  void authenticate() {
    open();
    receive(features(kMechanisms));
    ASSERT_TRUE(negotiation->canAuthenticate());
    negotiation->authenticate(std::make_shared<XMPPAnonymousAuthentication>());
    ASSERT_EQ(receive("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"),
              (Calls{"parser after chunk", "header"}));
  }

  test::ManualClockScope clock;
  Calls calls;
  Guarded<XMPPStreamSettings> settings;
  XMPPStreamSchedule schedule = [](Clock::Duration delay, std::function<void()> task) {
    return Timer::scheduledTimer(DispatchQueue::main(), delay, false, [task](Timer&) { task(); });
  };
  std::optional<XMPPStreamNegotiation> negotiation;
};

TEST_F(XMPPStreamNegotiationTest, WhatTheServerOffersAtTheStartDecidesOnTLS) {
  using Policy = XMPPStreamStartTLSPolicy;
  struct Case {
    const char* name;
    Policy policy;
    bool secure;  // TLS is on already
    std::string received;
    Calls calls;
  };
  const std::string offered = features(kStartTLS + kMechanisms);
  const std::string demanded =
      features("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/></starttls>");
  const std::string success = "<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>";
  const std::string proceed = "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
  const std::vector<Case> cases = {
      {"TLS offered and preferred", Policy::Preferred, false, offered, {"send " + kStartTLS}},
      {"TLS offered, not wanted", Policy::None, false, offered, {"did connect"}},
      {"TLS demanded, not wanted", Policy::None, false, demanded, {"fail 6"}},
      {"TLS required, not offered", Policy::Required, false, features(kMechanisms), {"fail 6"}},
      {"TLS on, offered again", Policy::Required, true, offered, {"did connect"}},
      {"SASL before authenticating", Policy::Preferred, false, success, {"fail 9"}},
      {"TLS agreed without asking", Policy::Preferred, false, proceed, {"fail 6"}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    settings.with([&row](XMPPStreamSettings& state) {
      state = XMPPStreamSettings();
      state.policy = row.policy;
      state.secure = row.secure;
    });
    open();
    EXPECT_EQ(receive(row.received), row.calls);
    const bool connected = row.calls == Calls{"did connect"};
    EXPECT_EQ(negotiation->canAuthenticate(), connected);
    EXPECT_EQ(settings.get(&XMPPStreamSettings::state),
              connected ? XMPPStreamState::Connected : XMPPStreamState::Disconnected);
    EXPECT_EQ(settings.get(&XMPPStreamSettings::mechanisms),
              (connected ? Calls{"PLAIN", "ANONYMOUS"} : Calls{}));
  }
}

TEST_F(XMPPStreamNegotiationTest, BindingAndTheSessionAsTheServerOffersAndAnswersThem) {
  struct Case {
    const char* name;
    std::string offered;  // the restarted stream's features
    std::string bound;    // the inside of the bind result; empty: the server refuses to bind
    Calls afterBind;      // the calls the bind answer makes
    std::string session;  // the type of the answer to the session request, if one is sent
    Calls afterSession;
  };
  const std::string jid =
      "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>k3@localhost/x</jid></bind>";
  const std::string optional =
      "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'><optional/></session>";
  const std::string required = "<session xmlns='urn:ietf:params:xml:ns:xmpp-session'/>";
  const std::string request =
      "send <iq type=\"set\" id=\"ID\"><session "
      "xmlns=\"urn:ietf:params:xml:ns:xmpp-session\"/></iq>";
  const std::vector<Case> cases = {
      {"no session", kBind, jid, {"did authenticate"}, "", {}},
      {"optional session", kBind + optional, jid, {"did authenticate"}, "", {}},
      {"required session", kBind + required, jid, {request}, "result", {"did authenticate"}},
      {"session refused", kBind + required, jid, {request}, "error", {"fail 9"}},
      {"binding refused", kBind, "", {"fail 9"}, "", {}},
      {"bound to no address", kBind, kBind, {"fail 9"}, "", {}},
      {"no binding offered", required, "", {}, "", {}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    settings.with([](XMPPStreamSettings& state) {
      state = XMPPStreamSettings();
      state.myJID = XMPPJID::jidWithString("visitor@localhost/x");
    });
    authenticate();
    const Calls offered = receive(features(row.offered));
    if (row.afterBind.empty()) {
      EXPECT_EQ(offered, (Calls{"fail 9"}));
      continue;
    }
    EXPECT_EQ(
        withoutIDs(offered),
        (Calls{"send <iq type=\"set\" id=\"ID\"><bind xmlns=\"urn:ietf:params:xml:ns:xmpp-bind\">"
               "<resource>x</resource></bind></iq>"}));
    EXPECT_EQ(receive("<iq type='result' id='other'/>"), Calls{});  // not the bind result
    const Calls afterBind =
        receive("<iq type='" + std::string(row.bound.empty() ? "error" : "result") + "' id='" +
                idOf(offered.back()) + "'>" + row.bound + "</iq>");
    EXPECT_EQ(withoutIDs(afterBind), row.afterBind);
    if (!row.session.empty()) {
      EXPECT_EQ(receive("<iq type='" + row.session + "' id='" + idOf(afterBind.back()) + "'/>"),
                row.afterSession);
    }
    const bool authenticated =
        (row.session.empty() ? row.afterBind : row.afterSession) == Calls{"did authenticate"};
    EXPECT_EQ(settings.get(&XMPPStreamSettings::authenticated), authenticated);
    EXPECT_EQ(negotiation->carriesStanzas(), authenticated);
    EXPECT_EQ(settings.get(&XMPPStreamSettings::myJID)->full(),
              row.bound == jid ? "k3@localhost/x" : "visitor@localhost/x");
  }
}

TEST_F(XMPPStreamNegotiationTest, ConnectingTakesTheNegotiationTimeOutOrTheCallersShorterOne) {
  struct Case {
    const char* name;
    XMPPStream::Seconds negotiation;
    XMPPStream::Seconds connect;  // the caller's
    std::optional<Clock::Duration> timeout;
  };
  const std::vector<Case> cases = {
      {"the negotiation's", 30s, XMPPStreamTimeoutNone, 30s},
      {"the caller's, shorter", 30s, 10s, 10s},
      {"none", 0s, XMPPStreamTimeoutNone, std::nullopt},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    settings.set(&XMPPStreamSettings::negotiationTimeout, row.negotiation);
    open();
    negotiation->start(row.connect);
    advance(row.timeout.value_or(1h) - 1ms);
    EXPECT_EQ(calls, Calls{});
    advance(1ms);
    EXPECT_EQ(calls, (row.timeout ? Calls{"connect timeout 4"} : Calls{}));
  }
}

}  // namespace
}  // namespace kq::xmpp
