#pragma once

#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>

#include <optional>
#include <string>

namespace kqsandbox {

/// The chat service's side of the chat packet: a groupchat message whose plain attributes name
/// the visitor ("user_id"), the website, the operator ("manager_id", "0" on the visitor's lines),
/// the chat and the visitor's name; and the visitor's invitation, whose reason carries
/// "chat|website|visitor id|visitor name|visitor name|greeting". Written apart from the
/// library's packet code, from the wire format, so that a mistake on one side shows as a chat
/// that fails instead of passing on both.
struct ChatPacket {
  /// Who an operator's line is from, and in which chat.
  struct Sender {
    std::string operatorId;
    std::string operatorName;
    std::string websiteId;
    std::string chatId;
  };

  /// The visitor's chat line in `message`: its text when the message is one of the visitor's
  /// packets with a body and no error, nullopt for anything else (the operators' lines, the
  /// room's notices, chat states, bounced messages).
  static std::optional<std::string> visitorLine(const kq::xmpp::XMPPMessage& message);

  /// The operator's line `text` to the room `roomJID`, stamped with the local time.
  static kq::xmpp::XMPPMessage operatorLine(const kq::xmpp::XMPPJID& roomJID,
                                            const std::string& text, const Sender& sender);

  /// The chat, website and visitor's name an invitation names; nullopt when `message` is not an
  /// invitation with a reason of at least four fields.
  struct Invitation {
    std::string chatId;
    std::string websiteId;
    std::string visitorName;
  };
  static std::optional<Invitation> invitation(const kq::xmpp::XMPPMessage& message);
};

}  // namespace kqsandbox
