#include <KQVisitorCore/XMPP/XMPPIQ.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>

namespace kq::xmpp {

XMPPIQ::XMPPIQ(std::string_view type, const std::optional<XMPPJID>& to,
               const std::optional<std::string>& elementID, const std::optional<XMPPElement>& child)
    : XMPPElement("iq") {
  addAttributeWithName("type", type);
  if (to) {
    addAttributeWithName("to", to->full());
  }
  if (elementID) {
    addAttributeWithName("id", *elementID);
  }
  if (child) {
    addChild(*child);
  }
}

XMPPIQ XMPPIQ::resultIQ(const XMPPIQ& request, const std::optional<XMPPElement>& child) {
  XMPPIQ result("result", std::nullopt, std::nullopt, std::nullopt);
  if (const auto from = request.attributeStringValueForName("from")) {
    result.addAttributeWithName("to", *from);
  }
  if (const auto id = request.elementID()) {
    result.addAttributeWithName("id", *id);
  }
  if (child) {
    result.addChild(*child);
  }
  return result;
}

XMPPIQ XMPPIQ::errorIQ(const XMPPIQ& request, std::string_view errorType,
                       std::string_view condition) {
  XMPPIQ result = resultIQ(request, request.childElement());
  result.addAttributeWithName("type", "error");
  XMPPElement error = result.addChildElement("error");
  error.addAttributeWithName("type", errorType);
  error.addChildElement(condition, kXMPPStanzasNamespace);
  return result;
}

std::string XMPPIQ::type() const {
  return attributeStringValueForName("type", "");
}

std::optional<XMPPElement> XMPPIQ::childElement() const {
  for (const auto& child : children()) {
    if (child.name() != "error") {
      return child;
    }
  }
  return std::nullopt;
}

}  // namespace kq::xmpp
