#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Utilities/DatePlus.h>

#include <gtest/gtest.h>

#include <string>

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

TEST(XMPPMessageKQVisitorTest, ChatPacketFieldsComeFromTheAttributes) {
  const XMPPMessage message = received(
      "<message xmlns='jabber:client' from='room42@conference.localhost/Ann' "
      "to='v1@localhost/TellioiPhone' type='groupchat' user_id='7' custom_packet='true' "
      "website_id='W9' manager_id='3' chat_id='42' visitor_name='Ann &amp; &lt;Bob&gt;' "
      "time_stamp='2026-11-15 00:05:52'><body>Hi &amp; bye</body></message>");
  EXPECT_EQ(chatId(message), "42");
  EXPECT_EQ(websiteId(message), "W9");
  EXPECT_EQ(visitorId(message), "7");
  EXPECT_EQ(visitorName(message), "Ann & <Bob>");
  EXPECT_EQ(managerId(message), "3");
  EXPECT_FALSE(greeting(message));
  EXPECT_EQ(kqChatMessage(message), "Hi & bye");
  EXPECT_TRUE(isGroupChat(message));
  EXPECT_FALSE(isErrorMessage(message));
  EXPECT_FALSE(ignoreMessage(message));
  const auto stamp = getTimeStamp(message);
  ASSERT_TRUE(stamp);
  EXPECT_EQ(DatePlus::stringFromDate(*stamp, "yyyy-MM-dd HH:mm:ss"), "2026-11-15 00:05:52");
  // Reading declares nothing in the stanza itself.
  EXPECT_EQ(message.XMLString().find("xmlns1"), std::string::npos);
}

TEST(XMPPMessageKQVisitorTest, MissingAttributesReadAsAbsent) {
  const XMPPMessage message =
      received("<message xmlns='jabber:client' type='chat' time_stamp='yesterday'/>");
  EXPECT_FALSE(chatId(message));
  EXPECT_FALSE(managerId(message));
  EXPECT_FALSE(getTimeStamp(message));
  EXPECT_FALSE(getTimeStamp(received("<message xmlns='jabber:client'/>")));
  EXPECT_FALSE(isGroupChat(message));
  EXPECT_EQ(kqChatMessage(message), "Other Than Body Packet");
  EXPECT_TRUE(ignoreMessage(message));
}

TEST(XMPPMessageKQVisitorTest, InvitationFieldsComeFromTheReasonByPosition) {
  const XMPPMessage six = received(
      "<message xmlns='jabber:client' from='room42@conference.localhost' to='42@localhost' "
      "chat_id='ignored'><x xmlns='http://jabber.org/protocol/muc#user'><invite "
      "from='v1@localhost/TellioiPhone'><reason>42|W9|7|Ann|x|Welcome!</reason></invite></x>"
      "</message>");
  EXPECT_EQ(chatId(six), "42");
  EXPECT_EQ(websiteId(six), "W9");
  EXPECT_EQ(visitorId(six), "7");
  EXPECT_EQ(visitorName(six), "Ann");
  EXPECT_FALSE(managerId(six));
  EXPECT_EQ(greeting(six), "Welcome!");

  const XMPPMessage three = received(
      "<message xmlns='jabber:client'><x xmlns='http://jabber.org/protocol/muc#user'><invite>"
      "<reason>a|b|c</reason></invite></x></message>");
  EXPECT_EQ(chatId(three), "a");
  EXPECT_EQ(websiteId(three), "b");
  EXPECT_EQ(visitorId(three), "c");
  EXPECT_FALSE(visitorName(three));
  EXPECT_FALSE(managerId(three));
  EXPECT_FALSE(greeting(three));  // too few fields: absent rather than out of range

  // A reason in another namespace is no invitation reason.
  const XMPPMessage foreign =
      received("<message xmlns='jabber:client' chat_id='9'><reason>a|b</reason></message>");
  EXPECT_EQ(chatId(foreign), "9");
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
