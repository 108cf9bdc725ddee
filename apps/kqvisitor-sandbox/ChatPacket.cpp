#include "ChatPacket.h"

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>

#include <ctime>
#include <vector>

namespace kqsandbox {

namespace {

// "yyyy-MM-dd HH:mm:ss" of now, in the machine's time zone.
std::string localTimeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

std::vector<std::string> fields(const std::string& text) {
  std::vector<std::string> result(1);
  for (const char c : text) {
    if (c == '|') {
      result.emplace_back();
    } else {
      result.back() += c;
    }
  }
  return result;
}

}  // namespace

std::optional<std::string> ChatPacket::visitorLine(const kq::xmpp::XMPPMessage& message) {
  const auto body = message.elementForName("body");
  if (!body || message.elementForName("error") ||
      message.attributeStringValueForName("custom_packet") != "true" ||
      message.attributeStringValueForName("manager_id") != "0") {
    return std::nullopt;
  }
  return body->stringValue();
}

kq::xmpp::XMPPMessage ChatPacket::operatorLine(const kq::xmpp::XMPPJID& roomJID,
                                               const std::string& text, const Sender& sender) {
  kq::xmpp::XMPPMessage line;
  line.addAttributeWithName("to", roomJID.full());
  line.addAttributeWithName("type", "groupchat");
  line.addChildElement("body").setStringValue(text);
  line.addAttributeWithName("user_id", sender.operatorId);
  line.addAttributeWithName("custom_packet", "true");
  line.addAttributeWithName("website_id", sender.websiteId);
  line.addAttributeWithName("manager_id", sender.operatorId);
  line.addAttributeWithName("chat_id", sender.chatId);
  line.addAttributeWithName("visitor_name", sender.operatorName);
  line.addAttributeWithName("time_stamp", localTimeStamp());
  return line;
}

std::optional<ChatPacket::Invitation> ChatPacket::invitation(const kq::xmpp::XMPPMessage& message) {
  const auto x = message.elementForName("x", kq::xmpp::kXMPPMUCUserNamespace);
  const auto invite = x ? x->elementForName("invite") : std::nullopt;
  const auto reason = invite ? invite->elementForName("reason") : std::nullopt;
  if (!reason) {
    return std::nullopt;
  }
  const auto parts = fields(reason->stringValue());
  if (parts.size() < 4) {
    return std::nullopt;
  }
  return Invitation{parts[0], parts[1], parts[3]};
}

}  // namespace kqsandbox
