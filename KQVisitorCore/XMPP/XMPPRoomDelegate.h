#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>

namespace kq::xmpp {

class XMPPRoom;

/// What a multi-user-chat room tells its delegates, on the queue each was added with. Every
/// method does nothing unless overridden.
class KQ_EXPORT XMPPRoomDelegate {
 public:
  XMPPRoomDelegate() = default;
  XMPPRoomDelegate(const XMPPRoomDelegate&) = delete;
  XMPPRoomDelegate& operator=(const XMPPRoomDelegate&) = delete;
  virtual ~XMPPRoomDelegate();

  /// The server created the room for our join (status 201); did-join follows.
  virtual void xmppRoomDidCreate(XMPPRoom& /*sender*/) {}
  /// We are in the room.
  virtual void xmppRoomDidJoin(XMPPRoom& /*sender*/) {}
  /// The room refused our join: `error` is its error presence (a nickname in use, a room
  /// that is locked or members-only…). We are not in the room; nothing is tried again.
  virtual void xmppRoomDidNotJoin(XMPPRoom& /*sender*/, const XMPPPresence& /*error*/) {}
  /// We are out of the room (we left, were removed, the room was destroyed, the stream
  /// disconnected while we were in it, or the room refused a message of ours as from someone
  /// who is not an occupant, "not-acceptable", which it then hands to the message event too).
  virtual void xmppRoomDidLeave(XMPPRoom& /*sender*/) {}
  /// The room was destroyed at our request.
  virtual void xmppRoomDidDestroy(XMPPRoom& /*sender*/) {}
  /// The room was not destroyed; `iqError` is the server's refusal, or, when no answer came
  /// within 60 s or the connection ended first, an error IQ the room made itself: type "wait",
  /// condition XMPPRoom::kNoAnswerCondition, and no "from" (see XMPPRoom::isNoAnswer).
  virtual void xmppRoomDidFailToDestroy(XMPPRoom& /*sender*/, const XMPPIQ& /*iqError*/) {}
  /// The server accepted the room configuration we submitted.
  virtual void xmppRoomDidConfigure(XMPPRoom& /*sender*/, const XMPPIQ& /*iqResult*/) {}
  /// The configuration was not accepted: the server's refusal, or a missing answer told as for
  /// xmppRoomDidFailToDestroy.
  virtual void xmppRoomDidNotConfigure(XMPPRoom& /*sender*/, const XMPPIQ& /*iqResult*/) {}
  /// A group-chat message with a body, or an error message, came from the room;
  /// `occupantJID` is its sender (`room@service/nick`, or the room itself).
  virtual void xmppRoomDidReceiveMessage(XMPPRoom& /*sender*/, const XMPPMessage& /*message*/,
                                         const XMPPJID& /*occupantJID*/) {}
};

}  // namespace kq::xmpp
