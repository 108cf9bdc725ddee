#include <KQVisitorCore/XMPP/XMPPPresence.h>

namespace kq::xmpp {

XMPPPresence::XMPPPresence() : XMPPElement("presence") {}

XMPPPresence::XMPPPresence(std::optional<std::string> type, const std::optional<XMPPJID>& to)
    : XMPPElement("presence") {
  if (type) {
    addAttributeWithName("type", *type);
  }
  if (to) {
    addAttributeWithName("to", to->full());
  }
}

std::string XMPPPresence::type() const {
  return attributeStringValueForName("type", "available");
}

std::optional<std::string> XMPPPresence::show() const {
  const auto element = elementForName("show");
  return element ? std::optional<std::string>(element->stringValue()) : std::nullopt;
}

std::optional<std::string> XMPPPresence::status() const {
  const auto element = elementForName("status");
  return element ? std::optional<std::string>(element->stringValue()) : std::nullopt;
}

}  // namespace kq::xmpp
