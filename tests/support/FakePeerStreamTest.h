#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/FakeXMPPPeer.h"
#include "tests/support/MainQueue.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

namespace kq::test {

/// A stream set up to connect to a scripted fake server as visitor@localhost/TellioiPhone, with
/// its events recorded on the main queue. Tear-down deactivates the modules, disconnects and
/// checks that the stream is let go.
class FakePeerStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    stream = xmpp::XMPPStream::create();
    stream->setHostName("127.0.0.1");
    stream->setHostPort(peer.port());
    stream->setMyJID(xmpp::XMPPJID::jidWithString("visitor@localhost/TellioiPhone"));
    stream->addDelegate(events, DispatchQueue::main());
  }

  void TearDown() override {
    for (const auto& module : stream->registeredModules()) {
      module->deactivate();
    }
    stream->disconnect();
    EXPECT_TRUE(runMainQueueUntil([&] { return stream->isDisconnected(); }));
    peer.closeConnection();
    EXPECT_TRUE(runMainQueueUntil([&] { return stream->registeredModules().empty(); }));
    const std::weak_ptr<xmpp::XMPPStream> gone = stream;
    stream.reset();
    EXPECT_TRUE(runMainQueueUntil([&] { return gone.expired(); }));
  }

  bool waitFor(const std::string& event, int times = 1) {
    return runMainQueueUntil([&] { return events->count(event) >= times; });
  }

  /// Connects (unless `start` is false: a module started already) up to did-connect.
  void connect(std::string_view mechanisms = "ANONYMOUS PLAIN", bool start = true) {
    const int before = events->count("didConnect");
    if (start) {
      ASSERT_TRUE(stream->connectWithTimeout(xmpp::XMPPStreamTimeoutNone));
    }
    ASSERT_TRUE(peer.openStream(mechanisms));
    ASSERT_TRUE(waitFor("didConnect", before + 1));
  }

  /// Logs in anonymously; the server binds `boundJID`.
  void authenticate(std::string_view boundJID = "a1b2c3@localhost/TellioiPhone") {
    const int before = events->count("didAuthenticate");
    ASSERT_TRUE(stream->authenticate(std::make_shared<xmpp::XMPPAnonymousAuthentication>()));
    peer.completeAuthentication(boundJID);
    ASSERT_TRUE(waitFor("didAuthenticate", before + 1));
  }

  void login(std::string_view boundJID = "a1b2c3@localhost/TellioiPhone") {
    connect();
    if (!HasFatalFailure()) {
      authenticate(boundJID);
    }
  }

  FakeXMPPPeer peer;
  std::shared_ptr<xmpp::XMPPStream> stream;
  std::shared_ptr<StreamEvents> events = std::make_shared<StreamEvents>();
};

}  // namespace kq::test
