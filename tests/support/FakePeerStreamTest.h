#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/FakeXMPPPeer.h"
#include "tests/support/MainQueue.h"
#include "tests/support/XMPPTestDelegates.h"

#include <gtest/gtest.h>

#include <memory>

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

  FakeXMPPPeer peer;
  std::shared_ptr<xmpp::XMPPStream> stream;
  std::shared_ptr<StreamEvents> events = std::make_shared<StreamEvents>();
};

}  // namespace kq::test
