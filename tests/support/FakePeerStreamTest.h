#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
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

/// The same, logged in, with room42@conference.localhost active on the stream: its events are
/// recorded on the main queue, its messages kept in a storage of its own.
class FakePeerRoomTest : public FakePeerStreamTest {
 protected:
  void SetUp() override {
    FakePeerStreamTest::SetUp();
    room = std::make_shared<xmpp::XMPPRoom>(
        storage, *xmpp::XMPPJID::jidWithString("room42@conference.localhost"),
        DispatchQueue::main());
    room->addDelegate(roomEvents, DispatchQueue::main());
    room->activate(stream);
    login();
  }

  bool waitForRoom(const std::string& event, int times = 1) {
    return runMainQueueUntil([&] { return roomEvents->count(event) >= times; });
  }

  /// Joins as Visitor; the server confirms with our own presence (plus `extra` in its x).
  /// Returns the presence sent.
  std::string join(const std::string& extra = "") {
    room->joinRoomUsingNickname("Visitor", std::nullopt);
    std::string sent = peer.receiveUntil("</presence>");
    peer.send(
        "<presence from='room42@conference.localhost/Visitor'><x "
        "xmlns='http://jabber.org/protocol/muc#user'>" +
        extra + "<status code='110'/></x></presence>");
    EXPECT_TRUE(waitForRoom("didJoin", roomEvents->count("didJoin") + 1));
    return sent;
  }

  std::shared_ptr<xmpp::XMPPRoomMemoryStorage> storage =
      std::make_shared<xmpp::XMPPRoomMemoryStorage>();
  std::shared_ptr<xmpp::XMPPRoom> room;
  std::shared_ptr<RoomEvents> roomEvents = std::make_shared<RoomEvents>();
};

}  // namespace kq::test
