#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ProsodyServer.h"
#include "tests/support/XMPPTestDelegates.h"

#include <memory>

namespace kq::test {

// A client logged in with a password, as the operator's agent logs in.
struct Operator {
  explicit Operator(const ProsodyServer& server) {
    stream->setHostName("127.0.0.1");
    stream->setHostPort(server.port());
    stream->setMyJID(xmpp::XMPPJID::jidWithString("42@localhost/agent"));
    stream->addDelegate(events, DispatchQueue::main());
  }
  ~Operator() {
    stream->disconnect();
    runMainQueueUntil([&] { return stream->isDisconnected(); });
    for (const auto& module : stream->registeredModules()) {
      module->deactivate();
    }
    const std::weak_ptr<xmpp::XMPPStream> gone = stream;
    stream.reset();
    runMainQueueUntil([&] { return gone.expired(); });
  }
  Operator(const Operator&) = delete;
  Operator& operator=(const Operator&) = delete;

  bool login() {
    if (!stream->connectWithTimeout(xmpp::XMPPStreamTimeoutNone) ||
        !runMainQueueUntil([&] { return events->count("didConnect") == 1; }) ||
        !stream->authenticate(std::make_shared<xmpp::XMPPPlainAuthentication>("secret"))) {
      return false;
    }
    if (!runMainQueueUntil([&] { return events->count("didAuthenticate") == 1; })) {
      return false;
    }
    stream->sendElement(xmpp::XMPPPresence());  // available: messages to 42@localhost reach us
    return true;
  }

  std::shared_ptr<xmpp::XMPPStream> stream = xmpp::XMPPStream::create();
  std::shared_ptr<test::StreamEvents> events = std::make_shared<test::StreamEvents>();

  // Joins `roomJID` under the nickname "Operator"; its events go to `roomEvents`.
  [[nodiscard]] std::shared_ptr<xmpp::XMPPRoom> joinRoom(
      const xmpp::XMPPJID& roomJID, const std::shared_ptr<RoomEvents>& roomEvents) const {
    auto room = std::make_shared<xmpp::XMPPRoom>(xmpp::XMPPRoomMemoryStorage::sharedInstance(),
                                                 roomJID, DispatchQueue::main());
    room->addDelegate(roomEvents, DispatchQueue::main());
    room->activate(stream);
    room->joinRoomUsingNickname("Operator", std::nullopt);
    return room;
  }
};

}  // namespace kq::test
