// Two ways text reaches our serialiser: a peer's element that the parser accepted, and values
// the library puts into a stanza it builds (a visitor's line, a nickname, a reason). Either way
// what we write must be XML that reads back the same, so nothing can break the stream.

#include "fuzz/FuzzCheck.h"

#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using kq::xmpp::XMPPElement;
using kq::xmpp::XMPPIQ;

XMPPElement parseOrFail(const std::string& written, const char* what) {
  kq::KQError error;
  auto parsed = XMPPElement::elementWithXMLString(written, &error);
  if (!parsed) {
    kq::fuzz::fail(what, written, error.description());
  }
  return *parsed;
}

// A peer's element: parsed, written, parsed again.
void roundTripParsed(std::string_view text) {
  const auto first = XMPPElement::elementWithXMLString(text);
  if (!first) {
    return;
  }
  const std::string written = first->XMLString();
  const XMPPElement second = parseOrFail(written, "an accepted element was written as bad XML");
  kq::fuzz::expectEqual("written twice differs", written, second.XMLString());
  kq::fuzz::expectEqual("the text changed", first->stringValue(), second.stringValue());
  if (first->attributes() != second.attributes()) {
    kq::fuzz::fail("the attributes changed", written, second.XMLString());
  }
  // The automatic answer to a request copies the request's child.
  parseOrFail(XMPPIQ::errorIQ(XMPPIQ(*first), "cancel", "service-unavailable").XMLString(),
              "the error answer to an accepted element is bad XML");
}

// Values from the library's side, put into a stanza through the element API.
void roundTripBuilt(std::string_view text) {
  std::vector<std::string_view> values;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find('\xff', start);
    values.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos || values.size() == 4) {
      break;
    }
    start = end + 1;
  }
  values.resize(4);
  XMPPElement message("message", "jabber:client");
  message.addAttributeWithName("to", values[0]);
  message.addChildElement("body").setStringValue(values[1]);
  XMPPElement invite = message.addChildElement("x", values[2]);
  invite.addChildElement("reason").setStringValue(values[3]);

  const std::string written = message.XMLString();
  const XMPPElement parsed = parseOrFail(written, "a stanza we built is bad XML");
  kq::fuzz::expectEqual("written twice differs", written, parsed.XMLString());
  kq::fuzz::expectEqual("the attribute changed", message.attributeStringValueForName("to").value(),
                        parsed.attributeStringValueForName("to").value_or("<absent>"));
  kq::fuzz::expectEqual("the text changed", message.stringValue(), parsed.stringValue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  // The first byte picks the way in; the rest is the text.
  const std::string_view text(reinterpret_cast<const char*>(bytes + 1), size - 1);
  if (bytes[0] % 2 == 0) {
    roundTripParsed(text);
  } else {
    roundTripBuilt(text);
  }
  return 0;
}
