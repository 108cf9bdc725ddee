#include <KQVisitorCore/XMPP/XMPPCapabilities.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPParser.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kq::xmpp {
namespace {

TEST(XMPPElementTest, AttributesKeepTheirOrderAndValuesRoundTripExactly) {
  XMPPElement element("message");
  element.addAttributeWithName("to", "room@conference.localhost");
  element.addAttributeWithName("user_id", "a&b<c>\"d'e");
  element.addAttributeWithName("type", "groupchat");
  element.addAttributeWithName("user_id", "x & y");  // replaced in place
  EXPECT_EQ(element.XMLString(),
            "<message to=\"room@conference.localhost\" user_id=\"x &amp; y\" "
            "type=\"groupchat\"/>");

  element.addAttributeWithName("user_id", "a&b<c>\"d'e");
  const auto parsed = XMPPElement::elementWithXMLString(element.XMLString());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->attributeStringValueForName("user_id"), "a&b<c>\"d'e");
  EXPECT_EQ(parsed->XMLString(), element.XMLString());
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"to", "room@conference.localhost"}, {"user_id", "a&b<c>\"d'e"}, {"type", "groupchat"}};
  EXPECT_EQ(parsed->attributes(), expected);
}

TEST(XMPPElementTest, EntitiesInAttributesAndTextAreSubstitutedWhenRead) {
  const auto element = XMPPElement::elementWithXMLString(
      "<message a='1 &amp; 2 &lt; 3 &quot;q&quot; &apos;s&apos; &#38;'><body>x &amp;&lt; "
      "y</body></message>");
  ASSERT_TRUE(element);
  EXPECT_EQ(element->attributeStringValueForName("a"), "1 & 2 < 3 \"q\" 's' &");
  EXPECT_EQ(element->elementForName("body")->stringValue(), "x &< y");
  EXPECT_FALSE(element->attributeStringValueForName("missing"));
  EXPECT_EQ(element->attributeStringValueForName("missing", "fallback"), "fallback");
}

TEST(XMPPElementTest, ChildrenNamespacesAndCopies) {
  XMPPElement message("message", "jabber:client");
  message.addChildElement("body").setStringValue("Hi");
  XMPPElement x = message.addChildElement("x", "http://jabber.org/protocol/muc#user");
  x.addChildElement("invite").addAttributeWithName("to", "42@localhost");
  EXPECT_EQ(message.XMLString(),
            "<message xmlns=\"jabber:client\"><body>Hi</body>"
            "<x xmlns=\"http://jabber.org/protocol/muc#user\"><invite to=\"42@localhost\"/></x>"
            "</message>");
  EXPECT_EQ(message.elementForName("body")->xmlns(), "jabber:client");
  EXPECT_TRUE(message.elementForName("x", "http://jabber.org/protocol/muc#user"));
  EXPECT_FALSE(message.elementForName("x", "jabber:client"));

  // A copy is independent; a handle is not.
  XMPPElement copy = message.copy();
  XMPPElement handle = message;
  handle.addAttributeWithName("id", "1");
  EXPECT_EQ(message.attributeStringValueForName("id"), "1");
  EXPECT_FALSE(copy.attributeStringValueForName("id"));
  // A child added from another tree is copied in, namespaces and all.
  XMPPElement other("iq");
  other.addChild(*message.elementForName("x"));
  EXPECT_EQ(other.XMLString(),
            "<iq><x xmlns=\"http://jabber.org/protocol/muc#user\"><invite to=\"42@localhost\"/>"
            "</x></iq>");
  message.removeElementsForName("x");
  EXPECT_FALSE(message.elementForName("x"));
  EXPECT_TRUE(other.elementForName("x"));
}

TEST(XMPPElementTest, XPathUsesDeclaredPrefixesPerHandle) {
  const auto element = XMPPElement::elementWithXMLString(
      "<message xmlns='jabber:client'><x xmlns='http://jabber.org/protocol/muc#user'>"
      "<invite><reason>a|b</reason></invite></x><body>B</body></message>");
  ASSERT_TRUE(element);
  XMPPElement query = *element;
  EXPECT_TRUE(query.nodesForXPath("//xmlns1:reason").empty());  // prefix unknown: no match
  query.declareXPathNamespace("xmlns1", "http://jabber.org/protocol/muc#user");
  query.declareXPathNamespace("xmlns", "jabber:client");
  const auto reasons = query.nodesForXPath("//xmlns1:reason");
  ASSERT_EQ(reasons.size(), 1U);
  EXPECT_EQ(reasons.front().stringValue(), "a|b");
  ASSERT_EQ(query.nodesForXPath("//xmlns:body").size(), 1U);
  EXPECT_TRUE(query.nodesForXPath("//xmlns:reason").empty());  // wrong namespace
  EXPECT_TRUE(query.nodesForXPath("this is not ((( xpath").empty());
  // The declarations belong to the handle: the XML is unchanged.
  EXPECT_EQ(query.XMLString(), element->XMLString());
}

TEST(XMPPElementTest, StanzaHelpers) {
  XMPPMessage message(std::string("groupchat"),
                      XMPPJID::jidWithString("room@conference.localhost"));
  message.addBody("Hello");
  message.addComposingChatState();
  message.addPausedChatState();  // replaces the earlier state
  EXPECT_EQ(message.XMLString(),
            "<message type=\"groupchat\" to=\"room@conference.localhost\"><body>Hello</body>"
            "<paused xmlns=\"http://jabber.org/protocol/chatstates\"/></message>");
  EXPECT_TRUE(message.isGroupChatMessageWithBody());
  EXPECT_EQ(message.chatState(), "paused");

  const auto request = XMPPElement::elementWithXMLString(
      "<iq type='get' id='q1' from='a@b/c'><query xmlns='http://jabber.org/protocol/disco#info'/>"
      "</iq>");
  ASSERT_TRUE(request);
  EXPECT_EQ(XMPPIQ::errorIQ(XMPPIQ(*request), "cancel", "service-unavailable").XMLString(),
            "<iq type=\"error\" to=\"a@b/c\" id=\"q1\"><query "
            "xmlns=\"http://jabber.org/protocol/disco#info\"/><error type=\"cancel\">"
            "<service-unavailable xmlns=\"urn:ietf:params:xml:ns:xmpp-stanzas\"/></error></iq>");
}

TEST(XMPPElementTest, TextThatIsNotOneElementIsRefusedWithAReason) {
  const std::vector<std::pair<std::string, long>> refused = {
      {"<message><body>unclosed</message>", XMPPParser::kErrorMalformed},
      {"", XMPPParser::kErrorMalformed},
      {"<a/><b/>", XMPPParser::kErrorMalformed},
      {"<a>&undefined;</a>", XMPPParser::kErrorMalformed},
      {"<!DOCTYPE a [<!ENTITY e 'boom'>]><a>&e;</a>", XMPPParser::kErrorDeclarationRefused},
      {"<!DOCTYPE a SYSTEM 'http://example.com/a.dtd'><a/>", XMPPParser::kErrorDeclarationRefused},
  };
  for (const auto& [text, code] : refused) {
    KQError error;
    EXPECT_FALSE(XMPPElement::elementWithXMLString(text, &error)) << text;
    EXPECT_EQ(error.domain, XMPPParser::kErrorDomain) << text;
    EXPECT_EQ(error.code, code) << text;
  }
}

TEST(XMPPJIDTest, ParsesAndPrintsAddresses) {
  const auto full = XMPPJID::jidWithString("visitor@localhost/TellioiPhone");
  ASSERT_TRUE(full);
  EXPECT_EQ(full->user(), "visitor");
  EXPECT_EQ(full->domain(), "localhost");
  EXPECT_EQ(full->resource(), "TellioiPhone");
  EXPECT_EQ(full->bare(), "visitor@localhost");
  EXPECT_EQ(full->full(), "visitor@localhost/TellioiPhone");
  EXPECT_TRUE(full->isEqualToJIDIgnoringResource(*XMPPJID::jidWithString("visitor@localhost")));
  EXPECT_FALSE(*full == *XMPPJID::jidWithString("visitor@localhost"));
  EXPECT_EQ(XMPPJID::jidWithString("conference.localhost")->full(), "conference.localhost");
  EXPECT_EQ(XMPPJID::jidWithString("room@conference.localhost/a/b")->resource(), "a/b");
  EXPECT_EQ(XMPPJID::jidWithString("(null)@localhost/TellioiPhone")->user(), "(null)");
  for (const char* bad : {"", "@localhost", "user@", "user@host/", "/resource", "a@b@c"}) {
    EXPECT_FALSE(XMPPJID::jidWithString(bad)) << bad;
  }
}

TEST(XMPPEncodingTest, Base64AndDigests) {
  EXPECT_EQ(base64Encode(std::string("\0user\0pass", 10)), "AHVzZXIAcGFzcw==");
  EXPECT_EQ(base64Decode("AHVz ZXIA\ncGFzcw=="), std::string("\0user\0pass", 10));
  EXPECT_EQ(base64Decode("Zg=="), "f");
  EXPECT_EQ(base64Decode(""), "");
  EXPECT_FALSE(base64Decode("abc"));
  EXPECT_EQ(hexString(sha1("abc")), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(XMPPCapabilitiesTest, VerificationStringFollowsTheProtocolsWorkedExample) {
  // The simple example of XEP-0115 section 5.2.
  const auto query = XMPPElement::elementWithXMLString(
      "<query xmlns='http://jabber.org/protocol/disco#info'>"
      "<identity category='client' name='Exodus 0.9.1' type='pc'/>"
      "<feature var='http://jabber.org/protocol/caps'/>"
      "<feature var='http://jabber.org/protocol/disco#info'/>"
      "<feature var='http://jabber.org/protocol/disco#items'/>"
      "<feature var='http://jabber.org/protocol/muc'/></query>");
  ASSERT_TRUE(query);
  EXPECT_EQ(XMPPCapabilities::hashCapabilitiesFromQuery(*query), "QgayPKawpkPSDYmwT/WM94uAlu0=");
}

}  // namespace
}  // namespace kq::xmpp
