#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <string>
#include <thread>
#include <vector>

namespace kq::xmpp {
namespace {

TEST(XMPPElementTest, AttributesKeepTheirOrderAndEntitiesReadBackExactly) {
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

  // Entities in attributes and text are substituted when read.
  const auto entities = XMPPElement::elementWithXMLString(
      "<message a='1 &amp; 2 &lt; 3 &quot;q&quot; &apos;s&apos; &#38;'><body>x &amp;&lt; "
      "y</body></message>");
  ASSERT_TRUE(entities);
  EXPECT_EQ(entities->attributeStringValueForName("a"), "1 & 2 < 3 \"q\" 's' &");
  EXPECT_EQ(entities->elementForName("body")->stringValue(), "x &< y");
  EXPECT_FALSE(entities->attributeStringValueForName("missing"));
  EXPECT_EQ(entities->attributeStringValueForName("missing", "fallback"), "fallback");
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

// The direct walk stands in for "//p:name" queries on received stanzas: it must find the very
// node the query finds first, in whatever tree and from whichever handle. A prefix is declared
// on one handle only and changes nothing in the XML.
TEST(XMPPElementTest, FirstElementInDocumentFindsWhatTheXPathQueryFindsFirst) {
  const char* documents[] = {
      "<message xmlns='jabber:client'><body>plain</body></message>",
      "<message xmlns='jabber:client'><x xmlns='http://jabber.org/protocol/muc#user'>"
      "<invite><reason>deep|first</reason></invite></x><reason>shallow</reason>"
      "<body>B1</body><body>B2</body></message>",
      // A body of another namespace comes first and must be passed over.
      "<message xmlns='jabber:client'><html xmlns='http://jabber.org/protocol/xhtml-im'>"
      "<body>formatted</body></html>text<body>plain</body></message>",
      // Prefixed names, an error nested in text, and the root itself matching.
      "<c:error xmlns:c='jabber:client'>t<c:body/><c:error><c:reason/></c:error></c:error>",
      "<message xmlns='urn:other'><body>wrong namespace</body></message>",
      "<message xmlns='jabber:client'/>",
  };
  const std::pair<std::string, std::string> queries[] = {
      {"body", "jabber:client"},
      {"error", "jabber:client"},
      {"reason", "http://jabber.org/protocol/muc#user"},
      {"reason", "jabber:client"},
  };
  for (const char* text : documents) {
    const auto root = XMPPElement::elementWithXMLString(text);
    ASSERT_TRUE(root) << text;
    // Ask from the root and from the deepest last element: "//" searches the whole document.
    std::vector<XMPPElement> handles{*root};
    for (auto children = root->children(); !children.empty();
         children = children.back().children()) {
      handles.push_back(children.back());
    }
    for (const auto& handle : handles) {
      for (const auto& [name, xmlns] : queries) {
        XMPPElement query = handle;
        const std::string xml = handle.XMLString();
        query.declareXPathNamespace("p", xmlns);
        const auto expected = query.nodesForXPath("//p:" + name);
        EXPECT_TRUE(handle.nodesForXPath("//p:" + name).empty());  // not declared on this one
        EXPECT_TRUE(query.nodesForXPath("//p:" + name + " ((( not xpath").empty());
        EXPECT_EQ(query.XMLString(), xml);
        const auto found = handle.firstElementInDocumentForName(name, xmlns);
        SCOPED_TRACE(std::string(text) + " //" + name + " in " + xmlns);
        ASSERT_EQ(found.has_value(), !expected.empty());
        if (found) {
          EXPECT_TRUE(found->isSameNode(expected.front()));
        }
      }
    }
  }
}

TEST(XMPPElementTest, ANewChatStateReplacesTheEarlierOne) {
  XMPPMessage message(std::string("groupchat"),
                      XMPPJID::jidWithString("room@conference.localhost"));
  message.addBody("Hello");
  message.addComposingChatState();
  message.addPausedChatState();
  EXPECT_EQ(message.XMLString(),
            "<message type=\"groupchat\" to=\"room@conference.localhost\"><body>Hello</body>"
            "<paused xmlns=\"http://jabber.org/protocol/chatstates\"/></message>");
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

TEST(XMPPElementTest, TextXMLForbidsIsReplacedSoTheStanzaStaysWellFormed) {
  using namespace std::string_literals;
  const std::string r = "\xEF\xBF\xBD";  // U+FFFD, the replacement character
  struct Case {
    std::string name;
    std::string text;
    std::string readBack;
  };
  const std::vector<Case> cases = {
      {"a control character", "a\x01z", "a" + r + "z"},
      {"a form feed", "a\fz", "a" + r + "z"},
      {"a NUL does not cut the text", "a\0z"s, "a" + r + "z"},
      {"U+FFFE and U+FFFF", "a\xEF\xBF\xBE\xEF\xBF\xBFz", "a" + r + r + "z"},
      {"an encoded surrogate", "a\xED\xA0\x80z", "a" + r + "z"},
      {"a stray continuation byte", "a\x80z", "a" + r + "z"},
      {"a truncated sequence at the end", "ab\xE2\x82", "ab" + r + r},
      {"an overlong form", "a\xC0\xAFz", "a" + r + r + "z"},
      {"past U+10FFFF", "a\xF4\x90\x80\x80", "a" + r + r + r + r},
      {"valid text is kept", "tab\tline\ncr\r é 😀 " + r, "tab\tline\ncr\r é 😀 " + r},
  };
  for (const auto& [name, text, expected] : cases) {
    SCOPED_TRACE(name);
    XMPPMessage message;
    message.addAttributeWithName("visitor_name", text);
    message.addBody(text);
    message.addChildElement("x", "urn:test").addAttributeWithName("reason", text);
    const std::string written = message.XMLString();
    KQError error;
    const auto parsed = XMPPElement::elementWithXMLString(written, &error);
    ASSERT_TRUE(parsed) << error.description() << "\n" << written;
    EXPECT_EQ(XMPPMessage(*parsed).body(), expected);
    EXPECT_EQ(parsed->attributeStringValueForName("visitor_name"), expected);
    EXPECT_EQ(parsed->elementForName("x")->attributeStringValueForName("reason"), expected);
  }
}

TEST(XMPPElementTest, ThreadsMayReadOneTreeAtOnce) {
  // A stanza is handed to every delegate of the stream, each on its own queue. Reads must not
  // change the tree: the sanitizer build reports any that does. Two trees: one parsed, one
  // built, neither of which has looked up the xml prefix yet.
  const auto parsed = XMPPElement::elementWithXMLString(
      "<message xmlns='jabber:client' type='groupchat' xmlns:x='urn:x'>"
      "<body>hello</body><x:data x:k='v'/></message>");
  ASSERT_TRUE(parsed);
  XMPPElement built("message", "jabber:client");
  built.addChildElement("body").setStringValue("hello");
  for (const XMPPElement& tree : {*parsed, built}) {
    std::vector<std::string> seen(4);
    std::vector<std::thread> readers;
    readers.reserve(seen.size());
    for (std::size_t r = 0; r < seen.size(); ++r) {
      readers.emplace_back([&tree, &seen, r] {
        std::string& out = seen[r];
        for (int i = 0; i < 50; ++i) {
          out = tree.attributeStringValueForName("xml:lang").value_or("-") +
                tree.attributeStringValueForName("x:k").value_or("-") +
                std::to_string(tree.nodesForXPath("./*[local-name()='body']").size()) +
                tree.stringValue() + tree.elementForName("body")->stringValue() +
                tree.copy().XMLString();
        }
      });
    }
    for (auto& reader : readers) {
      reader.join();
    }
    for (const auto& result : seen) {
      EXPECT_EQ(result, seen[0]);
    }
    EXPECT_NE(seen[0].find("1hellohello<message"), std::string::npos) << seen[0];
    // The one write libxml2 makes on a lookup: the xml namespace, added to the document the
    // first time the prefix is searched. Readers on several threads would race on it.
    EXPECT_EQ(tree.xmlNode()->doc->oldNs, nullptr) << "a read changed the document";
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

// Plain encoding and the digests are checked through PLAIN logins, capabilities and avatars.
TEST(XMPPEncodingTest, Base64DecodingSkipsWhitespaceAndRefusesBrokenInput) {
  EXPECT_EQ(base64Decode("AHVz ZXIA\ncGFzcw=="), std::string("\0user\0pass", 10));
  EXPECT_EQ(base64Decode("Zg=="), "f");
  EXPECT_EQ(base64Decode(""), "");
  EXPECT_FALSE(base64Decode("abc"));
}

}  // namespace
}  // namespace kq::xmpp
