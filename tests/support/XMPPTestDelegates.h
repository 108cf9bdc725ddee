#pragma once

#include <KQVisitorCore/XMPP/XMPPReconnectDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace kq::test {

/// Records what a stream tells it. Add it on the main queue and read it on the thread that
/// pumps the main queue.
struct StreamEvents : xmpp::XMPPStreamDelegate {
  std::vector<std::string> events;
  std::vector<xmpp::XMPPMessage> messages;
  std::vector<xmpp::XMPPPresence> presences;
  std::vector<xmpp::XMPPElement> failedToSend;
  std::optional<xmpp::XMPPElement> authenticationError;
  std::optional<KQError> disconnectError;
  std::optional<KQError> resumeError;  // what ended the connection of the last resumption
  bool answerIQs = false;

  [[nodiscard]] int count(const std::string& event) const {
    return static_cast<int>(std::count(events.begin(), events.end(), event));
  }

  void xmppStreamSocketWillConnect(xmpp::XMPPStream& /*sender*/) override {
    events.push_back("socketWillConnect");
  }
  void xmppStreamSocketDidConnect(xmpp::XMPPStream& /*sender*/) override {
    events.push_back("socketDidConnect");
  }
  void xmppStreamDidSecure(xmpp::XMPPStream& /*sender*/) override { events.push_back("didSecure"); }
  void xmppStreamDidConnect(xmpp::XMPPStream& /*sender*/) override {
    events.push_back("didConnect");
  }
  void xmppStreamDidAuthenticate(xmpp::XMPPStream& /*sender*/) override {
    events.push_back("didAuthenticate");
  }
  void xmppStreamDidNotAuthenticate(xmpp::XMPPStream& /*sender*/,
                                    const xmpp::XMPPElement& error) override {
    events.push_back("didNotAuthenticate");
    authenticationError = error;
  }
  bool xmppStreamDidReceiveIQ(xmpp::XMPPStream& /*sender*/, const xmpp::XMPPIQ& /*iq*/) override {
    events.push_back("didReceiveIQ");
    return answerIQs;
  }
  void xmppStreamDidReceiveMessage(xmpp::XMPPStream& /*sender*/,
                                   const xmpp::XMPPMessage& message) override {
    events.push_back("didReceiveMessage");
    messages.push_back(message);
  }
  void xmppStreamDidReceivePresence(xmpp::XMPPStream& /*sender*/,
                                    const xmpp::XMPPPresence& presence) override {
    events.push_back("didReceivePresence");
    presences.push_back(presence);
  }
  void xmppStreamDidFailToSendElement(xmpp::XMPPStream& /*sender*/,
                                      const xmpp::XMPPElement& element,
                                      const KQError& /*error*/) override {
    events.push_back("didFailToSendElement");
    failedToSend.push_back(element);
  }
  void xmppStreamWillResume(xmpp::XMPPStream& /*sender*/, const KQError& error) override {
    events.push_back("willResume");
    resumeError = error;
  }
  void xmppStreamDidResume(xmpp::XMPPStream& /*sender*/) override { events.push_back("didResume"); }
  void xmppStreamConnectDidTimeout(xmpp::XMPPStream& /*sender*/) override {
    events.push_back("connectDidTimeout");
  }
  void xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                               const std::optional<KQError>& error) override {
    events.push_back("didDisconnect");
    disconnectError = error;
  }
};

/// Records what a room tells it (on the main queue).
struct RoomEvents : xmpp::XMPPRoomDelegate {
  std::vector<std::string> events;
  std::vector<xmpp::XMPPMessage> messages;
  std::vector<xmpp::XMPPJID> occupants;
  std::vector<xmpp::XMPPIQ> ownerErrors;

  [[nodiscard]] int count(const std::string& event) const {
    return static_cast<int>(std::count(events.begin(), events.end(), event));
  }

  void xmppRoomDidCreate(xmpp::XMPPRoom& /*sender*/) override { events.push_back("didCreate"); }
  void xmppRoomDidJoin(xmpp::XMPPRoom& /*sender*/) override { events.push_back("didJoin"); }
  void xmppRoomDidLeave(xmpp::XMPPRoom& /*sender*/) override { events.push_back("didLeave"); }
  void xmppRoomDidNotJoin(xmpp::XMPPRoom& /*sender*/,
                          const xmpp::XMPPPresence& /*error*/) override {
    events.push_back("didNotJoin");
  }
  void xmppRoomDidDestroy(xmpp::XMPPRoom& /*sender*/) override { events.push_back("didDestroy"); }
  void xmppRoomDidFailToDestroy(xmpp::XMPPRoom& /*sender*/, const xmpp::XMPPIQ& iq) override {
    events.push_back("didFailToDestroy");
    ownerErrors.push_back(iq);
  }
  void xmppRoomDidConfigure(xmpp::XMPPRoom& /*sender*/, const xmpp::XMPPIQ& /*iq*/) override {
    events.push_back("didConfigure");
  }
  void xmppRoomDidReceiveMessage(xmpp::XMPPRoom& /*sender*/, const xmpp::XMPPMessage& message,
                                 const xmpp::XMPPJID& occupant) override {
    events.push_back("didReceiveMessage");
    messages.push_back(message);
    occupants.push_back(occupant);
  }
};

/// Records the reconnect module's events and answers its question.
struct ReconnectEvents : xmpp::XMPPReconnectDelegate {
  int accidents = 0;
  int questions = 0;
  bool allow = true;
  void xmppReconnectDidDetectAccidentalDisconnect(
      xmpp::XMPPReconnect& /*sender*/, const std::optional<KQError>& /*error*/) override {
    ++accidents;
  }
  bool xmppReconnectShouldAttemptAutoReconnect(xmpp::XMPPReconnect& /*sender*/) override {
    ++questions;
    return allow;
  }
};

}  // namespace kq::test
