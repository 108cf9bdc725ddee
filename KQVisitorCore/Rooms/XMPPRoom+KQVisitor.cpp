#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>

#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include <functional>

namespace kq {

namespace {

// The domain of the service's users and rooms.
constexpr std::string_view kDomain = "localhost";

std::string timeStamp() {
  return describe(DatePlus::stringFromDate(DatePlus::now(), "yyyy-MM-dd HH:mm:ss"));
}

std::string value(const std::optional<std::string>& text) {
  return text ? *text : std::string();
}

// Runs `task` on the room's module queue: at once when already there.
void onModuleQueue(const std::shared_ptr<xmpp::XMPPRoom>& room, std::function<void()> task) {
  const auto queue = xmpp::detail::XMPPQueues::of(*room);
  if (!queue || queue->isCurrent()) {
    task();
  } else {
    queue->async(std::move(task));
  }
}

void sendChatState(const std::shared_ptr<xmpp::XMPPRoom>& room,
                   void (xmpp::XMPPMessage::*addState)()) {
  if (!room) {
    return;
  }
  const auto stream = room->xmppStream();
  if (!stream) {
    return;
  }
  xmpp::XMPPMessage message = getKQVisitorGroupMessage(*room);
  (message.*addState)();
  stream->sendElement(message);
}

}  // namespace

void sendKQVisitorMessage(const std::shared_ptr<xmpp::XMPPRoom>& room, const std::string& text,
                          const std::optional<std::string>& userId,
                          const std::optional<std::string>& websiteId,
                          const std::optional<std::string>& managerId,
                          const std::optional<std::string>& visitorName,
                          const std::optional<std::string>& chatId,
                          const std::optional<std::string>& stanzaId) {
  if (text.empty() || !room) {
    return;
  }
  onModuleQueue(room, [room, text, userId, websiteId, managerId, visitorName, chatId, stanzaId] {
    if (const auto stream = room->xmppStream()) {
      stream->sendElement(makeKQVisitorMessage(room->roomJID(), text, userId, websiteId, managerId,
                                               visitorName, chatId, stanzaId));
    }
  });
}

xmpp::XMPPMessage makeKQVisitorMessage(const xmpp::XMPPJID& roomJID, const std::string& text,
                                       const std::optional<std::string>& userId,
                                       const std::optional<std::string>& websiteId,
                                       const std::optional<std::string>& managerId,
                                       const std::optional<std::string>& visitorName,
                                       const std::optional<std::string>& chatId,
                                       const std::optional<std::string>& stanzaId) {
  xmpp::XMPPMessage message;
  message.addAttributeWithName("to", roomJID.full());
  message.addAttributeWithName("type", "groupchat");
  if (stanzaId) {
    message.addAttributeWithName("id", *stanzaId);
  }
  message.addBody(text);
  message.addAttributeWithName("user_id", value(userId));
  message.addAttributeWithName("custom_packet", "true");
  message.addAttributeWithName("website_id", value(websiteId));
  message.addAttributeWithName("manager_id", value(managerId));
  message.addAttributeWithName("chat_id", value(chatId));
  message.addAttributeWithName("visitor_name", value(visitorName));
  message.addAttributeWithName("time_stamp", timeStamp());
  return message;
}

void sendKQVisitorInvite(const std::shared_ptr<xmpp::XMPPRoom>& room, const std::string& text,
                         const std::optional<std::string>& /*userId*/,
                         const std::optional<std::string>& /*websiteId*/,
                         const std::optional<std::string>& /*managerId*/,
                         const std::optional<std::string>& /*visitorName*/,
                         const std::optional<std::string>& /*chatId*/,
                         const std::optional<std::string>& operatorID) {
  if (text.empty() || !room) {
    return;
  }
  onModuleQueue(room, [room, text, operatorID] {
    const auto stream = room->xmppStream();
    if (!stream) {
      return;
    }
    xmpp::XMPPMessage message;
    message.addAttributeWithName("to", room->roomJID().full());
    xmpp::XMPPElement invite =
        message.addChildElement("x", xmpp::kXMPPMUCUserNamespace).addChildElement("invite");
    invite.addAttributeWithName("to", describe(operatorID) + "@" + std::string(kDomain));
    invite.addChildElement("reason").setStringValue(text);
    stream->sendElement(message);
  });
}

void sendKQVisitorRoomDestroyMessageUserid(const std::shared_ptr<xmpp::XMPPRoom>& room,
                                           const std::optional<std::string>& /*Userid*/,
                                           const std::optional<std::string>& andWebSiteId,
                                           const std::optional<std::string>& andVisitorName,
                                           const std::optional<std::string>& andChatId) {
  if (!room) {
    return;
  }
  const auto stream = room->xmppStream();
  if (!stream) {
    return;
  }
  const auto me = stream->myJID();
  const std::optional<std::string> myJID =
      me ? std::optional<std::string>(me->full()) : std::nullopt;
  log(describe(myJID));
  xmpp::XMPPMessage message;
  message.addAttributeWithName("from", value(myJID));
  message.addAttributeWithName("to", room->roomJID().full());
  message.addAttributeWithName("type", "groupchat");
  message.addAttributeWithName("user_id", "0");
  message.addAttributeWithName("custom_packet", "true");
  message.addAttributeWithName("website_id", value(andWebSiteId));
  message.addAttributeWithName("manager_id", "0");
  message.addAttributeWithName("chat_id", value(andChatId));
  message.addAttributeWithName("visitor_name", value(andVisitorName));
  message.addAttributeWithName("end_time", "true");
  message.addAttributeWithName("xmlns", xmpp::kXMPPClientNamespace);
  message.addAttributeWithName("time_stamp", timeStamp());
  message.addBody("[destroy room]");
  stream->sendElement(message);
}

void sendActiveChatState(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  sendChatState(room, &xmpp::XMPPMessage::addActiveChatState);
}

void sendComposingChatState(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  sendChatState(room, &xmpp::XMPPMessage::addComposingChatState);
}

void sendPausedChatState(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  sendChatState(room, &xmpp::XMPPMessage::addPausedChatState);
}

void sendInactiveChatState(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  sendChatState(room, &xmpp::XMPPMessage::addInactiveChatState);
}

void sendGoneChatState(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  sendChatState(room, &xmpp::XMPPMessage::addGoneChatState);
}

xmpp::XMPPMessage getKQVisitorGroupMessage(const xmpp::XMPPRoom& room) {
  return xmpp::XMPPMessage(std::string("groupchat"), room.roomJID());
}

void disconnect(const std::shared_ptr<xmpp::XMPPRoom>& room) {
  if (!room) {
    return;
  }
  if (const auto stream = room->xmppStream()) {
    stream->disconnect();
  }
}

}  // namespace kq
