#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>

#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace kq {

namespace {

constexpr std::string_view kTimeStampFormat = "yyyy-MM-dd HH:mm:ss";
constexpr std::string_view kNoBody = "Other Than Body Packet";

// The fields of the first invitation reason, or nullopt when the stanza has no reason.
std::optional<std::vector<std::string>> reasonFields(const xmpp::XMPPMessage& message) {
  const auto reason = message.firstElementInDocumentForName("reason", xmpp::kXMPPMUCUserNamespace);
  if (!reason) {
    return std::nullopt;
  }
  std::vector<std::string> fields;
  const std::string text = reason->stringValue();
  std::size_t start = 0;
  while (true) {
    const std::size_t bar = text.find('|', start);
    fields.push_back(
        text.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
    if (bar == std::string::npos) {
      break;
    }
    start = bar + 1;
  }
  return fields;
}

std::optional<std::string> field(const std::vector<std::string>& fields, std::size_t index) {
  return index < fields.size() ? std::optional<std::string>(fields[index]) : std::nullopt;
}

}  // namespace

void registerNamespaces(xmpp::XMPPMessage& message) {
  message.declareXPathNamespace("xmlns", std::string(xmpp::kXMPPClientNamespace));
  message.declareXPathNamespace("xmlns1", std::string(xmpp::kXMPPMUCUserNamespace));
}

std::optional<std::string> chatId(const xmpp::XMPPMessage& message) {
  if (const auto fields = reasonFields(message)) {
    return field(*fields, 0);
  }
  return message.attributeStringValueForName("chat_id");
}

std::optional<std::string> websiteId(const xmpp::XMPPMessage& message) {
  if (const auto fields = reasonFields(message)) {
    return field(*fields, 1);
  }
  return message.attributeStringValueForName("website_id");
}

std::optional<std::string> visitorId(const xmpp::XMPPMessage& message) {
  if (const auto fields = reasonFields(message)) {
    return field(*fields, 2);
  }
  return message.attributeStringValueForName("user_id");
}

std::optional<std::string> visitorName(const xmpp::XMPPMessage& message) {
  if (const auto fields = reasonFields(message)) {
    return field(*fields, 3);
  }
  return message.attributeStringValueForName("visitor_name");
}

std::optional<std::string> managerId(const xmpp::XMPPMessage& message) {
  if (reasonFields(message)) {
    return std::nullopt;
  }
  return message.attributeStringValueForName("manager_id");
}

std::optional<std::string> greeting(const xmpp::XMPPMessage& message) {
  if (const auto fields = reasonFields(message)) {
    return field(*fields, 5);
  }
  return std::nullopt;
}

std::string kqChatMessage(const xmpp::XMPPMessage& message) {
  const auto body = message.firstElementInDocumentForName("body", xmpp::kXMPPClientNamespace);
  return body ? body->stringValue() : std::string(kNoBody);
}

std::optional<std::string> kqChatSender(const xmpp::XMPPMessage& message) {
  const auto from = message.attributeStringValueForName("from");
  if (!from) {
    return std::nullopt;
  }
  std::size_t cut = 0;
  if (const auto to = message.attributeStringValueForName("to")) {
    cut = to->find('@');
    if (cut == std::string::npos) {
      return std::nullopt;
    }
  }
  if (cut > from->size()) {
    return std::nullopt;
  }
  return from->substr(0, cut);
}

std::optional<std::string> kqChatRoomId(const xmpp::XMPPMessage& message) {
  const auto to = message.attributeStringValueForName("to");
  if (!to) {
    return std::nullopt;
  }
  const auto at = to->find('@');
  if (at == std::string::npos) {
    return std::nullopt;
  }
  return to->substr(0, at);
}

std::optional<Date> getTimeStamp(const xmpp::XMPPMessage& message) {
  const auto text = message.attributeStringValueForName("time_stamp");
  if (!text) {
    return std::nullopt;
  }
  auto date = DatePlus::dateWithLocalTimeZone(*text, kTimeStampFormat);
  if (!date) {
    date = DatePlus::dateWithLocalTimeZone(*text, kTimeStampFormat);  // one more try, as before
  }
  return date;
}

bool isGroupChat(const xmpp::XMPPMessage& message) {
  return message.attributeStringValueForName("type") == "groupchat";
}

void addComposingState(xmpp::XMPPMessage& message) {
  message.addComposingChatState();
}

bool isErrorMessage(const xmpp::XMPPMessage& message) {
  return message.firstElementInDocumentForName("error", xmpp::kXMPPClientNamespace).has_value();
}

bool isIgnoredChatText(std::string_view text) {
  static constexpr std::string_view kIgnored[] = {
      "[DND]",
      "[Ignore]",
      "[LockChat]",
      "[NICKCHANGE]",
      "This room is not anonymous.",
      "[UnLockChat]",
      "This room is locked from entry until configuration is confirmed.",
  };
  return std::find(std::begin(kIgnored), std::end(kIgnored), text) != std::end(kIgnored);
}

bool ignoreMessage(const xmpp::XMPPMessage& message) {
  const std::string body = kqChatMessage(message);
  return isIgnoredChatText(body) || body == kNoBody;
}

}  // namespace kq
