#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>

#include <memory>
#include <optional>
#include <string>

namespace kq::xmpp {
class XMPPJID;
class XMPPRoom;
}  // namespace kq::xmpp

// Writing the chat packet into a room: chat messages, the invitation of the operator, the
// room-destroy notice and chat states. Each sends through the room's stream; a room that is not
// active on a stream (or a null room) sends nothing. An absent id is written as an empty
// attribute value.
namespace kq {

/// Sends `text` as the chat packet: <message to="room" type="groupchat"> with <body>text</body>
/// and the attributes "user_id", "custom_packet" ("true"), "website_id", "manager_id",
/// "chat_id", "visitor_name" and "time_stamp" (now, local time, "yyyy-MM-dd HH:mm:ss"), in that
/// order. Nothing when `text` is empty. Built and sent on the room's moduleQueue: at once when
/// called on it, else posted (and this returns before the packet is sent). With `stanzaId`
/// the message also carries it as its "id" attribute, after "type".
KQ_EXPORT void sendKQVisitorMessage(const std::shared_ptr<xmpp::XMPPRoom>& room,
                                    const std::string& text,
                                    const std::optional<std::string>& userId,
                                    const std::optional<std::string>& websiteId,
                                    const std::optional<std::string>& managerId,
                                    const std::optional<std::string>& visitorName,
                                    const std::optional<std::string>& chatId,
                                    const std::optional<std::string>& stanzaId = std::nullopt);

/// The chat packet sendKQVisitorMessage sends to `roomJID`, built now (time stamp included) and
/// not sent.
KQ_EXPORT xmpp::XMPPMessage makeKQVisitorMessage(
    const xmpp::XMPPJID& roomJID, const std::string& text, const std::optional<std::string>& userId,
    const std::optional<std::string>& websiteId, const std::optional<std::string>& managerId,
    const std::optional<std::string>& visitorName, const std::optional<std::string>& chatId,
    const std::optional<std::string>& stanzaId = std::nullopt);

/// Invites "<operatorID>@localhost" into the room (mediated invitation) with `text` as the
/// reason. Only the text, the operator id and the room are used: the other fields travel inside
/// the text. Nothing when `text` is empty. Built and sent on the room's moduleQueue, as
/// sendKQVisitorMessage.
KQ_EXPORT void sendKQVisitorInvite(
    const std::shared_ptr<xmpp::XMPPRoom>& room, const std::string& text,
    const std::optional<std::string>& userId, const std::optional<std::string>& websiteId,
    const std::optional<std::string>& managerId, const std::optional<std::string>& visitorName,
    const std::optional<std::string>& chatId, const std::optional<std::string>& operatorID);

/// Sends the room-destroy notice: attributes "from" (the stream's own address), "to", "type"
/// ("groupchat"), "user_id" ("0" whatever `Userid` is), "custom_packet", "website_id",
/// "manager_id" ("0"), "chat_id", "visitor_name", "end_time" ("true"), "xmlns"
/// ("jabber:client"), "time_stamp", and the body "[destroy room]". Logs the stream's address.
/// Built and sent on the calling thread.
KQ_EXPORT void sendKQVisitorRoomDestroyMessageUserid(
    const std::shared_ptr<xmpp::XMPPRoom>& room, const std::optional<std::string>& Userid,
    const std::optional<std::string>& andWebSiteId,
    const std::optional<std::string>& andVisitorName, const std::optional<std::string>& andChatId);

/// Each sends getKQVisitorGroupMessage with one chat state (XEP-0085) and no body, on the
/// calling thread.
KQ_EXPORT void sendActiveChatState(const std::shared_ptr<xmpp::XMPPRoom>& room);
KQ_EXPORT void sendComposingChatState(const std::shared_ptr<xmpp::XMPPRoom>& room);
KQ_EXPORT void sendPausedChatState(const std::shared_ptr<xmpp::XMPPRoom>& room);
KQ_EXPORT void sendInactiveChatState(const std::shared_ptr<xmpp::XMPPRoom>& room);
KQ_EXPORT void sendGoneChatState(const std::shared_ptr<xmpp::XMPPRoom>& room);

/// A new <message to="room" type="groupchat"/>, not sent.
KQ_EXPORT xmpp::XMPPMessage getKQVisitorGroupMessage(const xmpp::XMPPRoom& room);

/// Disconnects the room's whole stream, not only the room.
KQ_EXPORT void disconnect(const std::shared_ptr<xmpp::XMPPRoom>& room);

}  // namespace kq
