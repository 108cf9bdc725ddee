#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Utilities/DatePlus.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace kq {
namespace {

using xmpp::XMPPElement;
using xmpp::XMPPMessage;

// A message as the stream hands it over: in the jabber:client namespace.
XMPPMessage received(const std::string& xml) {
  const auto element = XMPPElement::elementWithXMLString(xml);
  EXPECT_TRUE(element) << xml;
  return XMPPMessage(element ? *element : XMPPElement("message"));
}

// A chat packet's fields come from its attributes, an invitation's from its reason by position
// (too few fields read as absent rather than out of range). Reading declares nothing in the
// stanza itself.
TEST(XMPPMessageKQVisitorTest, FieldsComeFromTheAttributesOrTheInvitationsReason) {
  // Chat, website, visitor, visitor's name, manager, greeting.
  using Fields = std::vector<std::optional<std::string>>;
  const std::pair<std::string, Fields> cases[] = {
      {"<message xmlns='jabber:client' user_id='7' custom_packet='true' website_id='W9' "
       "manager_id='3' chat_id='42' visitor_name='Ann &amp; &lt;Bob&gt;'/>",
       {"42", "W9", "7", "Ann & <Bob>", "3", std::nullopt}},
      {"<message xmlns='jabber:client' type='chat'/>", Fields(6)},
      {"<message xmlns='jabber:client' chat_id='ignored'><x "
       "xmlns='http://jabber.org/protocol/muc#user'><invite from='v1@localhost/TellioiPhone'>"
       "<reason>42|W9|7|Ann|x|Welcome!</reason></invite></x></message>",
       {"42", "W9", "7", "Ann", std::nullopt, "Welcome!"}},
      {"<message xmlns='jabber:client'><x xmlns='http://jabber.org/protocol/muc#user'><invite>"
       "<reason>a|b|c</reason></invite></x></message>",
       {"a", "b", "c", std::nullopt, std::nullopt, std::nullopt}},
      // A reason in another namespace is no invitation reason.
      {"<message xmlns='jabber:client' chat_id='9'><reason>a|b</reason></message>",
       {"9", std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt}},
  };
  for (const auto& [xml, expected] : cases) {
    const XMPPMessage message = received(xml);
    EXPECT_EQ((Fields{chatId(message), websiteId(message), visitorId(message), visitorName(message),
                      managerId(message), greeting(message)}),
              expected)
        << xml;
    EXPECT_EQ(message.XMLString().find("xmlns1"), std::string::npos) << xml;
  }
}

TEST(XMPPMessageKQVisitorTest, BodyTypeAndTimeStamp) {
  const XMPPMessage packet = received(
      "<message xmlns='jabber:client' type='groupchat' time_stamp='2026-11-15 00:05:52'>"
      "<body>Hi &amp; bye</body></message>");
  EXPECT_EQ(kqChatMessage(packet), "Hi & bye");
  EXPECT_TRUE(isGroupChat(packet));
  EXPECT_FALSE(ignoreMessage(packet));
  const auto stamp = getTimeStamp(packet);
  ASSERT_TRUE(stamp);
  EXPECT_EQ(DatePlus::stringFromDate(*stamp, "yyyy-MM-dd HH:mm:ss"), "2026-11-15 00:05:52");

  const XMPPMessage bare =
      received("<message xmlns='jabber:client' type='chat' time_stamp='yesterday'/>");
  EXPECT_FALSE(getTimeStamp(bare));
  EXPECT_FALSE(getTimeStamp(received("<message xmlns='jabber:client'/>")));
  EXPECT_FALSE(isGroupChat(bare));
  EXPECT_EQ(kqChatMessage(bare), "Other Than Body Packet");
  EXPECT_TRUE(ignoreMessage(bare));
}

TEST(XMPPMessageKQVisitorTest, ControlTextsAreIgnoredExactly) {
  for (const char* text :
       {"[DND]", "[Ignore]", "[LockChat]", "[NICKCHANGE]", "This room is not anonymous.",
        "[UnLockChat]", "This room is locked from entry until configuration is confirmed."}) {
    XMPPMessage message = received("<message xmlns='jabber:client'/>");
    message.addBody(text);
    EXPECT_TRUE(ignoreMessage(message)) << text;
  }
  for (const char* text : {"[dnd]", "[DND] ", "Hello", ""}) {
    XMPPMessage message = received("<message xmlns='jabber:client'/>");
    message.addBody(text);
    EXPECT_FALSE(ignoreMessage(message)) << text;
  }
}

TEST(XMPPMessageKQVisitorTest, SenderAndRoomAreCutAtTheAtSign) {
  const XMPPMessage message = received(
      "<message xmlns='jabber:client' from='room7@conference.localhost/op' "
      "to='abcd@server/res'/>");
  EXPECT_EQ(kqChatSender(message), "room");
  EXPECT_EQ(kqChatRoomId(message), "abcd");
  EXPECT_FALSE(kqChatSender(received("<message xmlns='jabber:client' to='a@b'/>")));
  EXPECT_EQ(kqChatSender(received("<message xmlns='jabber:client' from='x@y'/>")), "");
  EXPECT_FALSE(kqChatSender(received("<message xmlns='jabber:client' from='x' to='abc@d'/>")));
  EXPECT_FALSE(kqChatRoomId(received("<message xmlns='jabber:client' to='localhost'/>")));
}

TEST(XMPPMessageKQVisitorTest, ErrorsAreFoundInTheClientNamespace) {
  EXPECT_TRUE(isErrorMessage(
      received("<message xmlns='jabber:client' type='error'><body>x</body><error type='cancel'>"
               "<not-allowed xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></message>")));
  EXPECT_FALSE(isErrorMessage(
      received("<message xmlns='jabber:client'><x xmlns='urn:example'><error/></x></message>")));
  XMPPMessage message = received("<message xmlns='jabber:client'/>");
  addComposingState(message);
  EXPECT_EQ(message.chatState(), "composing");
}

}  // namespace
}  // namespace kq
