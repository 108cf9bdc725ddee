#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>

#include "tests/support/FakePeerStreamTest.h"
#include "tests/support/LogCapture.h"

#include <cmath>
#include <regex>
#include <thread>

namespace kq {
namespace {

// `packet` with its time stamp, if that is a date and time, written "T".
std::string stamped(const std::string& packet) {
  static const std::regex stamp(R"(time_stamp="\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}")");
  return std::regex_replace(packet, stamp, "time_stamp=\"T\"");
}

class XMPPRoomKQVisitorTest : public test::FakePeerRoomTest {
 protected:
  // Sends a marker presence and returns what the server read before it.
  std::string receivedBeforeMarker() {
    stream->sendElement(xmpp::XMPPPresence(std::string("probe"), std::nullopt));
    const std::string text = peer.receiveUntil("<presence type=\"probe\"/>");
    return text.substr(0, text.size() - std::string("<presence type=\"probe\"/>").size());
  }
};

TEST_F(XMPPRoomKQVisitorTest, ChatPacketHasItsAttributesInOrder) {
  sendKQVisitorMessage(room, "Hi", "0", "W9", "0", "Ann & \"Bob\" <b>", "42");
  const std::string packet = peer.receiveUntil("</message>");
  EXPECT_EQ(stamped(packet),
            "<message to=\"room42@conference.localhost\" type=\"groupchat\" user_id=\"0\" "
            "custom_packet=\"true\" website_id=\"W9\" manager_id=\"0\" chat_id=\"42\" "
            "visitor_name=\"Ann &amp; &quot;Bob&quot; &lt;b&gt;\" time_stamp=\"T\"><body>Hi</body>"
            "</message>");
  const auto stamp =
      getTimeStamp(xmpp::XMPPMessage(*xmpp::XMPPElement::elementWithXMLString(packet)));
  ASSERT_TRUE(stamp) << "the time of sending";
  EXPECT_LT(std::abs(stamp->timeIntervalSince1970() - Date::now().timeIntervalSince1970()), 120.0);
  // Absent ids are written empty; empty text sends nothing.
  sendKQVisitorMessage(room, "", "0", "W9", "0", "Ann", "42");
  sendKQVisitorMessage(room, "x", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                       std::nullopt);
  EXPECT_EQ(stamped(receivedBeforeMarker()),
            "<message to=\"room42@conference.localhost\" type=\"groupchat\" user_id=\"\" "
            "custom_packet=\"true\" website_id=\"\" manager_id=\"\" chat_id=\"\" visitor_name=\"\" "
            "time_stamp=\"T\"><body>x</body></message>");
}

TEST_F(XMPPRoomKQVisitorTest, PacketsWaitForTheModuleQueueWhenSentFromElsewhere) {
  // From another thread the packet is posted to the room's queue (the main queue here): it
  // leaves only once that queue runs.
  std::thread other([&] { sendKQVisitorMessage(room, "later", "0", "W", "0", "A", "42"); });
  other.join();
  EXPECT_EQ(receivedBeforeMarker(), "");
  test::drainMainQueue();
  EXPECT_NE(peer.receiveUntil("</message>").find("<body>later</body>"), std::string::npos);
  // On the room's queue it is built and handed to the stream at once.
  sendKQVisitorMessage(room, "now", "0", "W", "0", "A", "42");
  EXPECT_NE(receivedBeforeMarker().find("<body>now</body>"), std::string::npos);
}

TEST_F(XMPPRoomKQVisitorTest, InvitationCarriesOnlyTheReasonAndTheOperator) {
  sendKQVisitorInvite(room, "42|W9|7|Ann|x|Hello", "0", "W9", "0", "Ann", "42", "77");
  EXPECT_EQ(peer.receiveUntil("</message>"),
            "<message to=\"room42@conference.localhost\"><x "
            "xmlns=\"http://jabber.org/protocol/muc#user\"><invite to=\"77@localhost\"><reason>"
            "42|W9|7|Ann|x|Hello</reason></invite></x></message>");
  sendKQVisitorInvite(room, "", "0", "W9", "0", "Ann", "42", "77");
  EXPECT_EQ(receivedBeforeMarker(), "");
}

TEST_F(XMPPRoomKQVisitorTest, DestroyNoticeIgnoresTheUserIdAndLogsTheStreamAddress) {
  test::LogCapture log;
  sendKQVisitorRoomDestroyMessageUserid(room, "42", "W9", "Ann", "42");
  EXPECT_EQ(stamped(peer.receiveUntil("</message>")),
            "<message from=\"a1b2c3@localhost/TellioiPhone\" to=\"room42@conference.localhost\" "
            "type=\"groupchat\" user_id=\"0\" custom_packet=\"true\" website_id=\"W9\" "
            "manager_id=\"0\" chat_id=\"42\" visitor_name=\"Ann\" end_time=\"true\" "
            "xmlns=\"jabber:client\" time_stamp=\"T\"><body>[destroy room]</body></message>");
  EXPECT_TRUE(log.contains("a1b2c3@localhost/TellioiPhone"));
}

TEST_F(XMPPRoomKQVisitorTest, ChatStatesAreBodilessGroupMessages) {
  sendComposingChatState(room);
  sendPausedChatState(room);
  sendActiveChatState(room);
  sendInactiveChatState(room);
  sendGoneChatState(room);
  const std::string prefix = R"(<message type="groupchat" to="room42@conference.localhost"><)";
  const std::string suffix = R"( xmlns="http://jabber.org/protocol/chatstates"/></message>)";
  EXPECT_EQ(receivedBeforeMarker(), prefix + "composing" + suffix + prefix + "paused" + suffix +
                                        prefix + "active" + suffix + prefix + "inactive" + suffix +
                                        prefix + "gone" + suffix);
  EXPECT_EQ(getKQVisitorGroupMessage(*room).XMLString(),
            "<message type=\"groupchat\" to=\"room42@conference.localhost\"/>");
}

TEST_F(XMPPRoomKQVisitorTest, DisconnectClosesTheWholeStream) {
  disconnect(room);
  EXPECT_EQ(peer.receiveUntilClosed(), "</stream:stream>");
  ASSERT_TRUE(waitFor("didDisconnect"));
  // Nothing to do for a room without a stream.
  room->deactivate();
  sendKQVisitorMessage(room, "Hi", "0", "W", "0", "A", "42");
  sendComposingChatState(room);
  disconnect(room);
  sendKQVisitorMessage(nullptr, "Hi", "0", "W", "0", "A", "42");
}

}  // namespace
}  // namespace kq
