#include <KQVisitorCore/XMPP/XMPPMessage.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>

namespace kq::xmpp {

namespace {
constexpr std::string_view kChatStates[] = {"active", "composing", "paused", "inactive", "gone"};
}  // namespace

XMPPMessage::XMPPMessage() : XMPPElement("message") {}

XMPPMessage::XMPPMessage(std::optional<std::string> type, const std::optional<XMPPJID>& to)
    : XMPPElement("message") {
  if (type) {
    addAttributeWithName("type", *type);
  }
  if (to) {
    addAttributeWithName("to", to->full());
  }
}

std::optional<std::string> XMPPMessage::type() const {
  return attributeStringValueForName("type");
}

std::optional<std::string> XMPPMessage::body() const {
  const auto element = elementForName("body");
  return element ? std::optional<std::string>(element->stringValue()) : std::nullopt;
}

void XMPPMessage::addBody(std::string_view text) {
  addChildElement("body").setStringValue(text);
}

bool XMPPMessage::isChatMessage() const {
  return type() == "chat";
}

bool XMPPMessage::isGroupChatMessage() const {
  return type() == "groupchat";
}

bool XMPPMessage::isGroupChatMessageWithBody() const {
  return isGroupChatMessage() && body().has_value();
}

bool XMPPMessage::isErrorMessage() const {
  return type() == "error" || elementForName("error").has_value();
}

void XMPPMessage::addChatState(std::string_view state) {
  for (const auto name : kChatStates) {
    removeElementsForName(name);
  }
  addChildElement(state, kXMPPChatStatesNamespace);
}

void XMPPMessage::addActiveChatState() {
  addChatState("active");
}
void XMPPMessage::addComposingChatState() {
  addChatState("composing");
}
void XMPPMessage::addPausedChatState() {
  addChatState("paused");
}
void XMPPMessage::addInactiveChatState() {
  addChatState("inactive");
}
void XMPPMessage::addGoneChatState() {
  addChatState("gone");
}

std::optional<std::string> XMPPMessage::chatState() const {
  for (const auto name : kChatStates) {
    if (elementForName(name, kXMPPChatStatesNamespace)) {
      return std::string(name);
    }
  }
  return std::nullopt;
}

}  // namespace kq::xmpp
