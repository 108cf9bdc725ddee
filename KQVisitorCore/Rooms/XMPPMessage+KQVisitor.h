#pragma once

#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>

#include <optional>
#include <string>

// Reading the chat packet: the fields this library carries on group-chat messages (the
// attributes "user_id", "custom_packet", "website_id", "manager_id", "chat_id",
// "visitor_name", "time_stamp") and in the reason of an invitation (six fields joined by "|":
// chat id, website id, visitor id, visitor name, a fifth field, greeting).
//
// Every reader is a pure function of the stanza and may run on any thread; none changes the
// stanza. A field that is absent reads nullopt, also where a reason has too few fields.
namespace kq {

/// Binds the prefixes of the chat packet's XPath queries on `message` (this handle only):
/// "xmlns" to "jabber:client" and "xmlns1" to the multi-user-chat user namespace. The readers
/// below find what "//xmlns:body", "//xmlns1:reason" and "//xmlns:error" find, by walking the
/// stanza instead of evaluating the queries, and need no binding.
KQ_EXPORT void registerNamespaces(xmpp::XMPPMessage& message);

/// With an invitation reason: its field 0. Otherwise the "chat_id" attribute.
KQ_EXPORT std::optional<std::string> chatId(const xmpp::XMPPMessage& message);
/// With a reason: field 1. Otherwise "website_id".
KQ_EXPORT std::optional<std::string> websiteId(const xmpp::XMPPMessage& message);
/// With a reason: field 2 (nullopt when there are fewer than 3 fields). Otherwise "user_id".
KQ_EXPORT std::optional<std::string> visitorId(const xmpp::XMPPMessage& message);
/// With a reason: field 3 (nullopt when there are fewer than 4 fields). Otherwise
/// "visitor_name".
KQ_EXPORT std::optional<std::string> visitorName(const xmpp::XMPPMessage& message);
/// With a reason: nullopt. Otherwise "manager_id".
KQ_EXPORT std::optional<std::string> managerId(const xmpp::XMPPMessage& message);
/// With a reason: field 5. Otherwise nullopt.
KQ_EXPORT std::optional<std::string> greeting(const xmpp::XMPPMessage& message);

/// The text of the first body in the jabber:client namespace; "Other Than Body Packet" when
/// there is none.
KQ_EXPORT std::string kqChatMessage(const xmpp::XMPPMessage& message);
/// The "from" attribute cut at the position of the first "@" of the "to" attribute (no "to":
/// position 0). nullopt without "from", or when "to" has no "@" or "from" is shorter.
KQ_EXPORT std::optional<std::string> kqChatSender(const xmpp::XMPPMessage& message);
/// The "to" attribute up to its first "@" (the room's local part); nullopt without "to" or
/// without "@".
KQ_EXPORT std::optional<std::string> kqChatRoomId(const xmpp::XMPPMessage& message);
/// The "time_stamp" attribute read as local time with "yyyy-MM-dd HH:mm:ss"; nullopt when it
/// is absent or does not read.
KQ_EXPORT std::optional<Date> getTimeStamp(const xmpp::XMPPMessage& message);
/// True when "type" is "groupchat".
KQ_EXPORT bool isGroupChat(const xmpp::XMPPMessage& message);
/// Adds the chat state "composing" to `message`.
KQ_EXPORT void addComposingState(xmpp::XMPPMessage& message);
/// True when the stanza holds an <error> of the jabber:client namespace.
KQ_EXPORT bool isErrorMessage(const xmpp::XMPPMessage& message);
/// True for the control texts that are not chat, as a host application's list has them:
/// "[DND]", "[Ignore]", "[LockChat]", "[NICKCHANGE]", "This room is not anonymous.",
/// "[UnLockChat]", "This room is locked from entry until configuration is confirmed.".
KQ_EXPORT bool isIgnoredChatText(std::string_view text);
/// True when kqChatMessage is one of those texts or "Other Than Body Packet".
KQ_EXPORT bool ignoreMessage(const xmpp::XMPPMessage& message);

}  // namespace kq
