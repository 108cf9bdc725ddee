#include <KQVisitorCore/XMPP/XMPPCapabilities.h>
#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPRoster.h>
#include <KQVisitorCore/XMPP/XMPPRosterDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPvCardAvatarModule.h>
#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPvCardTempModule.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueues.h>

#include "tests/support/FakePeerStreamTest.h"
#include "tests/support/ManualClockScope.h"

namespace kq::xmpp {
namespace {

constexpr auto idOf = &test::FakeXMPPPeer::idOf;
using test::runMainQueueUntil;

using XMPPModulesTest = test::FakePeerStreamTest;

TEST_F(XMPPModulesTest, ReconnectAfterAnAccidentOnlyAndOnTheClock) {
  test::ManualClockScope clock;
  auto reconnect = std::make_shared<XMPPReconnect>();
  reconnect->setReconnectTimerInterval(std::chrono::duration<double>(5.0));
  auto observer = std::make_shared<test::ReconnectEvents>();
  reconnect->addDelegate(observer, DispatchQueue::main());
  ASSERT_TRUE(reconnect->activate(stream));
  EXPECT_FALSE(reconnect->activate(stream));  // once only
  login();

  // Being told to disconnect is no accident; manualStart() connects all the same.
  stream->disconnect();
  ASSERT_TRUE(waitFor("didDisconnect"));
  clock->advance(std::chrono::seconds(60));
  test::drainMainQueue();
  EXPECT_EQ(observer->accidents, 0);
  EXPECT_EQ(observer->questions, 0);
  EXPECT_FALSE(reconnect->isReconnecting());
  reconnect->manualStart();
  ASSERT_TRUE(runMainQueueUntil([&] { return observer->questions == 1; }));
  connect("ANONYMOUS", false);
  authenticate();

  // The server drops the connection: an accident.
  peer.closeConnection();
  ASSERT_TRUE(runMainQueueUntil([&] { return observer->accidents == 1; }));
  EXPECT_TRUE(reconnect->isReconnecting());
  EXPECT_TRUE(stream->isDisconnected());
  // Nothing happens before the delay has passed on the clock.
  clock->advance(std::chrono::milliseconds(1900));
  test::drainMainQueue();
  EXPECT_EQ(observer->questions, 1);
  clock->advance(std::chrono::milliseconds(200));
  ASSERT_TRUE(runMainQueueUntil([&] { return observer->questions == 2; }));
  connect("ANONYMOUS", false);
  authenticate();
  EXPECT_FALSE(reconnect->isReconnecting());

  // A delegate that says no stops that attempt, not the ones after it; stop() ends them.
  observer->allow = false;
  peer.closeConnection();
  ASSERT_TRUE(runMainQueueUntil([&] { return observer->accidents == 2; }));
  for (const int question : {3, 4}) {
    clock->advance(std::chrono::seconds(question == 3 ? 2 : 5));  // the delay, then the interval
    ASSERT_TRUE(runMainQueueUntil([&] { return observer->questions == question; }));
    test::flushQueue(detail::XMPPQueues::of(*stream));  // where the answer is acted on
    EXPECT_TRUE(stream->isDisconnected());
  }
  reconnect->stop();
  ASSERT_TRUE(runMainQueueUntil([&] { return !reconnect->isReconnecting(); }));
  clock->advance(std::chrono::seconds(30));
  test::drainMainQueue();
  EXPECT_EQ(observer->questions, 4);
}

TEST_F(XMPPModulesTest, RosterFetchesAcceptsKnownContactsAndForwardsOtherRequests) {
  struct Buddies : XMPPRosterDelegate {
    std::vector<XMPPPresence> requests;
    int populated = 0;
    void xmppRosterDidReceiveBuddyRequest(XMPPRoster& /*sender*/,
                                          const XMPPPresence& presence) override {
      requests.push_back(presence);
    }
    void xmppRosterDidEndPopulating(XMPPRoster& /*sender*/) override { ++populated; }
  };
  auto storage = std::make_shared<XMPPRosterMemoryStorage>();
  auto roster = std::make_shared<XMPPRoster>(storage);
  roster->setAutoFetchRoster(true);
  roster->setAutoAcceptKnownPresenceSubscriptionRequests(true);
  auto buddies = std::make_shared<Buddies>();
  roster->addDelegate(buddies, DispatchQueue::main());
  roster->activate(stream);
  login();

  const std::string get = peer.receiveUntil("</iq>");
  EXPECT_EQ(get,
            "<iq type=\"get\" id=\"" + idOf(get) + "\"><query xmlns=\"jabber:iq:roster\"/></iq>");
  peer.send("<iq type='result' id='" + idOf(get) +
            "'><query xmlns='jabber:iq:roster'><item jid='friend@localhost' name='Friend' "
            "subscription='to'><group>A</group></item></query></iq>");
  ASSERT_TRUE(runMainQueueUntil([&] { return buddies->populated == 1; }));
  const auto friendItem = storage->userForJID(*XMPPJID::jidWithString("friend@localhost/phone"));
  ASSERT_TRUE(friendItem);
  EXPECT_EQ(friendItem->displayName(), "Friend");
  EXPECT_EQ(friendItem->groups, std::vector<std::string>{"A"});

  // A known contact is accepted on its own; a stranger reaches the delegate.
  peer.send("<presence type='subscribe' from='friend@localhost'/>");
  EXPECT_EQ(peer.receiveUntil("/>"), "<presence type=\"subscribed\" to=\"friend@localhost\"/>");
  peer.send("<presence type='subscribe' from='stranger@localhost'/>");
  ASSERT_TRUE(runMainQueueUntil([&] { return buddies->requests.size() == 1; }));
  EXPECT_EQ(buddies->requests[0].from()->bare(), "stranger@localhost");

  // A roster push from the server updates the storage and is answered.
  peer.send(
      "<iq type='set' id='push1'><query xmlns='jabber:iq:roster'>"
      "<item jid='friend@localhost' subscription='remove'/></query></iq>");
  EXPECT_EQ(peer.receiveUntil("/>"), "<iq type=\"result\" id=\"push1\"/>");
  EXPECT_FALSE(storage->userForJID(*XMPPJID::jidWithString("friend@localhost")));
}

TEST_F(XMPPModulesTest, CapabilitiesAreAnnouncedAnsweredAndFetched) {
  auto storage = std::make_shared<XMPPCapabilitiesMemoryStorage>();
  auto capabilities = std::make_shared<XMPPCapabilities>(storage);
  capabilities->activate(stream);
  login();
  const std::string ver =
      XMPPCapabilities::hashCapabilitiesFromQuery(XMPPCapabilities::myCapabilitiesQuery());

  stream->sendElement(XMPPPresence());
  EXPECT_EQ(peer.receiveUntil("</presence>"),
            "<presence><c xmlns=\"http://jabber.org/protocol/caps\" hash=\"sha-1\" "
            "node=\"https://kqvisitor.example/KQVisitorCore\" ver=\"" +
                ver + "\"/></presence>");
  stream->sendElement(XMPPPresence(std::string("unavailable"), std::nullopt));
  EXPECT_EQ(peer.receiveUntil("/>"), "<presence type=\"unavailable\"/>");

  peer.send(
      "<iq type='get' id='d1' from='peer@localhost/x'><query "
      "xmlns='http://jabber.org/protocol/disco#info' "
      "node='https://kqvisitor.example/KQVisitorCore#" +
      ver + "'/></iq>");
  const std::string answer = peer.receiveUntil("</iq>");
  EXPECT_NE(answer.find("type=\"result\""), std::string::npos);
  EXPECT_NE(answer.find("<identity category=\"client\" type=\"phone\" name=\"KQVisitorCore\"/>"),
            std::string::npos);
  EXPECT_NE(answer.find("<feature var=\"http://jabber.org/protocol/muc\"/>"), std::string::npos);
  EXPECT_NE(answer.find("<feature var=\"http://jabber.org/protocol/disco#info\"/>"),
            std::string::npos);
  peer.send(
      "<iq type='get' id='d2' from='peer@localhost/x'><query "
      "xmlns='http://jabber.org/protocol/disco#info' node='other#x'/></iq>");
  EXPECT_NE(peer.receiveUntil("</iq>").find("<item-not-found"), std::string::npos);

  // A peer announces capabilities we do not know: we ask, check the hash, store.
  const std::string peerQuery =
      "<query xmlns='http://jabber.org/protocol/disco#info'>"
      "<identity category='client' name='Exodus 0.9.1' type='pc'/>"
      "<feature var='http://jabber.org/protocol/caps'/>"
      "<feature var='http://jabber.org/protocol/disco#info'/>"
      "<feature var='http://jabber.org/protocol/disco#items'/>"
      "<feature var='http://jabber.org/protocol/muc'/></query>";
  peer.send(
      "<presence from='op@localhost/desk'><c xmlns='http://jabber.org/protocol/caps' "
      "hash='sha-1' node='http://exodus' ver='QgayPKawpkPSDYmwT/WM94uAlu0='/></presence>");
  const std::string ask = peer.receiveUntil("</iq>");
  EXPECT_NE(ask.find("to=\"op@localhost/desk\""), std::string::npos);
  EXPECT_NE(ask.find("node=\"http://exodus#QgayPKawpkPSDYmwT/WM94uAlu0=\""), std::string::npos);
  peer.send("<iq type='result' id='" + idOf(ask) + "' from='op@localhost/desk'>" + peerQuery +
            "</iq>");
  const auto jid = *XMPPJID::jidWithString("op@localhost/desk");
  ASSERT_TRUE(runMainQueueUntil([&] { return storage->capabilitiesForJID(jid).has_value(); }));
  EXPECT_TRUE(storage->areCapabilitiesKnownForVer("QgayPKawpkPSDYmwT/WM94uAlu0="));

  // An answer that does not match its announcement is not stored.
  peer.send(
      "<presence from='liar@localhost/x'><c xmlns='http://jabber.org/protocol/caps' "
      "hash='sha-1' node='n' ver='AAAA'/></presence>");
  const std::string second = peer.receiveUntil("</iq>");
  peer.send("<iq type='result' id='" + idOf(second) + "' from='liar@localhost/x'>" + peerQuery +
            "</iq>");
  stream->sendElement(XMPPPresence(std::string("unavailable"), std::nullopt));
  peer.receiveUntil("/>");  // the stream has handled the answer by now
  EXPECT_FALSE(storage->capabilitiesForJID(*XMPPJID::jidWithString("liar@localhost/x")));
}

TEST_F(XMPPModulesTest, VCardsAreAnsweredFetchedAndAvatarsFollowTheirHash) {
  auto storage = std::make_shared<XMPPvCardMemoryStorage>();
  auto vCards = std::make_shared<XMPPvCardTempModule>(storage);
  auto avatars = std::make_shared<XMPPvCardAvatarModule>(vCards);
  vCards->activate(stream);
  avatars->activate(stream);
  login();

  peer.send("<iq type='get' id='vc1' from='peer@localhost/x'><vCard xmlns='vcard-temp'/></iq>");
  EXPECT_EQ(peer.receiveUntil("</iq>").find("<iq type=\"result\" to=\"peer@localhost/x\" "
                                            "id=\"vc1\"><vCard xmlns=\"vcard-temp\"/></iq>"),
            0U);
  // Our vCard is unknown: available presences carry no avatar element.
  stream->sendElement(XMPPPresence());
  EXPECT_EQ(peer.receiveUntil("/>"), "<presence/>");

  // A contact announces a photo: its vCard is fetched and the photo decoded.
  const std::string photo =
      "<presence from='op@localhost/desk'><x xmlns='vcard-temp:x:update'>"
      "<photo>0beec7b5ea3f0fdbc95d0dd47f3c5bc275da8a33</photo></x></presence>";
  peer.send(photo);
  const std::string get = peer.receiveUntil("</iq>");
  EXPECT_NE(get.find("to=\"op@localhost\""), std::string::npos);
  peer.send("<iq type='result' id='" + idOf(get) +
            "' from='op@localhost'><vCard "
            "xmlns='vcard-temp'><PHOTO><BINVAL>Zm9v</BINVAL></PHOTO></vCard></iq>");
  const auto op = *XMPPJID::jidWithString("op@localhost");
  ASSERT_TRUE(runMainQueueUntil([&] { return avatars->photoDataForJID(op).has_value(); }));
  EXPECT_EQ(avatars->photoDataForJID(op), "foo");
  EXPECT_EQ(storage->photoHashForJID(op), "0beec7b5ea3f0fdbc95d0dd47f3c5bc275da8a33");
  // The same hash again fetches nothing.
  peer.send(photo);
  stream->sendElement(XMPPPresence(std::string("unavailable"), std::nullopt));
  EXPECT_EQ(peer.receiveUntil("/>"), "<presence type=\"unavailable\"/>");

  // Once our own vCard is stored, presences announce its (empty) photo.
  storage->setvCardTemp(XMPPElement("vCard", "vcard-temp"), *stream->myJID());
  stream->sendElement(XMPPPresence());
  EXPECT_EQ(peer.receiveUntil("</presence>"),
            "<presence><x xmlns=\"vcard-temp:x:update\"><photo/></x></presence>");
}

using XMPPRoomTest = test::FakePeerRoomTest;

// A long conversation keeps its newest messages, oldest first; a sent message is kept as it was
// sent, whatever its sender does with it afterwards.
TEST(XMPPRoomMemoryStorageTest, KeepsTheNewestMessagesAndSentOnesAsSent) {
  XMPPRoomMemoryStorage memory;
  const auto roomJID = *XMPPJID::jidWithString("room42@conference.localhost");
  const auto chatLine = [](const std::string& text) {
    XMPPMessage message(std::string("groupchat"), std::nullopt);
    message.addChildElement("body").setStringValue(text);
    return message;
  };
  const std::size_t total = XMPPRoomMemoryStorage::kMaxMessagesPerRoom + 3;
  std::vector<XMPPMessage> firstThree;  // handles on the trees of the messages dropped
  for (std::size_t i = 0; i < total; ++i) {
    XMPPMessage message = chatLine(std::to_string(i));
    memory.handleIncomingMessage(message, roomJID);
    if (i < 3) {
      firstThree.push_back(std::move(message));
    }
  }
  auto kept = memory.messages(roomJID);
  ASSERT_EQ(kept.size(), XMPPRoomMemoryStorage::kMaxMessagesPerRoom);
  EXPECT_EQ(kept.front().body(), "3");
  EXPECT_EQ(kept.back().body(), std::to_string(total - 1));
  // A dropped message is let go by the next message stored at the latest.
  EXPECT_TRUE(firstThree[0].isSoleHandleOnTree());
  EXPECT_TRUE(firstThree[1].isSoleHandleOnTree());

  XMPPMessage sent = chatLine("as sent");
  memory.handleOutgoingMessage(sent, roomJID);
  EXPECT_TRUE(firstThree[2].isSoleHandleOnTree());
  sent.elementForName("body")->setStringValue("changed later");
  kept = memory.messages(roomJID);
  EXPECT_EQ(kept.back().body(), "as sent");
  EXPECT_EQ(kept.front().body(), "4");
  // What a caller gets is its own: changing it changes nothing kept.
  kept.back().elementForName("body")->setStringValue("edited copy");
  EXPECT_EQ(memory.messages(roomJID).back().body(), "as sent");
}

// Dates as XMPP writes them (a missed line's time comes so), and the room's stanza id, which
// counts only when the room itself set it.
TEST(XMPPRoomArchiveTest, ReadsDatesAndTheRoomsStanzaId) {
  const Date noon = Date::dateWithTimeIntervalSince1970(1795089600);  // 2026-11-19 12:00:00 UTC
  EXPECT_EQ(XMPPRoomArchive::dateTimeString(noon.dateByAddingTimeInterval(0.75)),
            "2026-11-19T12:00:00Z");
  const std::pair<const char*, std::optional<Date>> dates[] = {
      {"2026-11-19T12:00:00Z", noon},
      {"2026-11-19T12:00:00.250Z", noon.dateByAddingTimeInterval(0.25)},
      {"2026-11-19T17:30:00+05:30", noon},
      {"2026-11-19T04:00:00-08:00", noon},
      {"2026-11-19T12:00:00", std::nullopt},
      {"2026-02-30T12:00:00Z", std::nullopt},
  };
  for (const auto& [text, date] : dates) {
    EXPECT_EQ(XMPPRoomArchive::dateFromDateTimeString(text), date) << text;
  }

  const auto message = XMPPElement::elementWithXMLString(
      "<message xmlns='jabber:client' from='room7@conference.localhost/Omar'>"
      "<stanza-id xmlns='urn:xmpp:sid:0' by='someone@localhost' id='forged'/>"
      "<stanza-id xmlns='urn:xmpp:sid:0' by='room7@conference.localhost' id='s1'/>"
      "<delay xmlns='urn:xmpp:delay' stamp='2026-11-19T12:00:00Z'/></message>");
  ASSERT_TRUE(message);
  EXPECT_EQ(XMPPRoomArchive::stanzaId(XMPPMessage(*message),
                                      *XMPPJID::jidWithString("room7@conference.localhost")),
            "s1");
  EXPECT_EQ(XMPPRoomArchive::delayStamp(XMPPMessage(*message)), noon);
}

TEST_F(XMPPRoomTest, JoinCreatedRoomConfigureAndLeave) {
  EXPECT_TRUE(detail::XMPPQueues::of(*room)->isCurrent());  // the main queue, pumped by this thread
  EXPECT_EQ(join("<item affiliation='owner' role='moderator'/><status code='201'/>"),
            "<presence to=\"room42@conference.localhost/Visitor\"><x "
            "xmlns=\"http://jabber.org/protocol/muc\"/></presence>");
  EXPECT_EQ(roomEvents->events, (std::vector<std::string>{"didCreate", "didJoin"}));
  EXPECT_TRUE(room->isJoined());
  EXPECT_EQ(storage->occupantNicknames(room->roomJID()), std::vector<std::string>{"Visitor"});

  room->configureRoomUsingOptions(std::nullopt);
  const std::string configure = peer.receiveUntil("</iq>");
  EXPECT_EQ(configure, "<iq type=\"set\" to=\"room42@conference.localhost\" id=\"" +
                           idOf(configure) +
                           "\"><query xmlns=\"http://jabber.org/protocol/muc#owner\"><x "
                           "xmlns=\"jabber:x:data\" type=\"submit\"/></query></iq>");
  peer.send("<iq type='result' id='" + idOf(configure) + "' from='room42@conference.localhost'/>");
  ASSERT_TRUE(waitForRoom("didConfigure"));

  // Someone else's presence is no join of ours.
  peer.send(
      "<presence from='room42@conference.localhost/Operator'><x "
      "xmlns='http://jabber.org/protocol/muc#user'><item role='participant'/></x>"
      "</presence>");
  room->leaveRoom();
  EXPECT_EQ(peer.receiveUntil("/>"),
            "<presence type=\"unavailable\" to=\"room42@conference.localhost/Visitor\"/>");
  peer.send(
      "<presence type='unavailable' from='room42@conference.localhost/Visitor'><x "
      "xmlns='http://jabber.org/protocol/muc#user'><status code='110'/></x></presence>");
  ASSERT_TRUE(waitForRoom("didLeave"));
  EXPECT_FALSE(room->isJoined());
  EXPECT_EQ(roomEvents->count("didJoin"), 1);
  EXPECT_EQ(storage->occupantNicknames(room->roomJID()), std::vector<std::string>{"Operator"});
}

TEST_F(XMPPRoomTest, MessagesFromTheRoomOnlyRefusalsAndDestroyOutcomes) {
  join();
  peer.send(
      "<message type='groupchat' from='room42@conference.localhost/Operator' "
      "chat_id='42'><body>Hello</body></message>"
      "<message type='groupchat' from='other@conference.localhost/Operator'>"
      "<body>elsewhere</body></message>"
      "<message type='groupchat' from='room42@conference.localhost/Operator'>"
      "<composing xmlns='http://jabber.org/protocol/chatstates'/></message>"
      "<message type='error' from='room42@conference.localhost'><body>x</body><error "
      "type='modify'><not-acceptable xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>"
      "</message>");
  ASSERT_TRUE(waitForRoom("didReceiveMessage", 2));
  test::drainMainQueue();
  ASSERT_EQ(roomEvents->messages.size(), 2U);
  EXPECT_EQ(roomEvents->messages[0].attributeStringValueForName("chat_id"), "42");
  EXPECT_EQ(roomEvents->occupants[0].full(), "room42@conference.localhost/Operator");
  EXPECT_TRUE(roomEvents->messages[1].isErrorMessage());
  EXPECT_EQ(storage->messages(room->roomJID()).size(), 1U);
  // "not-acceptable": the room no longer has us, and we are out before the error is handed on.
  EXPECT_FALSE(room->isJoined());
  EXPECT_EQ(roomEvents->events, (std::vector<std::string>{"didJoin", "didReceiveMessage",
                                                          "didLeave", "didReceiveMessage"}));
  // A join the room refuses is told, and leaves us out.
  room->joinRoomUsingNickname("Visitor", std::nullopt);
  peer.receiveUntil("</presence>");
  peer.send(
      "<presence type='error' from='room42@conference.localhost/Visitor'><error type='cancel'>"
      "<conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></presence>");
  ASSERT_TRUE(waitForRoom("didNotJoin"));
  EXPECT_FALSE(room->isJoined());

  room->destroyRoom();
  std::string destroy = peer.receiveUntil("</iq>");
  EXPECT_NE(destroy.find("<query xmlns=\"http://jabber.org/protocol/muc#owner\"><destroy/>"
                         "</query>"),
            std::string::npos);
  peer.send("<iq type='error' id='" + idOf(destroy) +
            "' from='room42@conference.localhost'>"
            "<error type='auth'><forbidden xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error>"
            "</iq>");
  ASSERT_TRUE(waitForRoom("didFailToDestroy"));
  EXPECT_FALSE(XMPPRoom::isNoAnswer(roomEvents->ownerErrors.at(0))) << "the server refused";
  room->destroyRoom();
  destroy = peer.receiveUntil("</iq>");
  peer.send("<iq type='result' id='" + idOf(destroy) + "' from='room42@conference.localhost'/>");
  ASSERT_TRUE(waitForRoom("didDestroy"));

  // The connection ends before the server answers: told apart from a refusal.
  room->destroyRoom();
  peer.receiveUntil("</iq>");
  peer.closeConnection();
  ASSERT_TRUE(waitForRoom("didFailToDestroy", 2));
  EXPECT_TRUE(XMPPRoom::isNoAnswer(roomEvents->ownerErrors.at(1)))
      << roomEvents->ownerErrors.at(1).XMLString();
}

// A sent chat line is kept as it went out: with what a module activated after the room added to
// it, and unchanged by whatever its sender does with its message afterwards.
TEST_F(XMPPRoomTest, InvitationsAndMessagesAreAddressedToTheRoomAndKeptAsSent) {
  room->inviteUser(*XMPPJID::jidWithString("42@localhost"), std::string("come in"));
  EXPECT_EQ(peer.receiveUntil("</message>"),
            "<message to=\"room42@conference.localhost\"><x "
            "xmlns=\"http://jabber.org/protocol/muc#user\"><invite to=\"42@localhost\">"
            "<reason>come in</reason></invite></x></message>");
  class Stamper : public XMPPModule {
   protected:
    void streamWillSendElement(XMPPElement& element) override {
      if (element.name() == "message") {
        element.addChildElement("stamped");
      }
    }
  };
  auto stamper = std::make_shared<Stamper>();
  ASSERT_TRUE(stamper->activate(stream));
  XMPPMessage message;
  message.addBody("typed");
  room->sendMessage(message);
  const std::string wire = peer.receiveUntil("</message>");
  EXPECT_EQ(wire,
            "<message to=\"room42@conference.localhost\" type=\"groupchat\"><body>typed</body>"
            "<stamped/></message>");
  message.elementForName("body")->setStringValue("changed later");
  test::flushQueue(detail::XMPPQueues::of(*stream));
  const auto kept = storage->messages(room->roomJID());
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(kept[0].XMLString(), wire);

  // A disconnect takes a joined room out.
  join();
  peer.closeConnection();
  ASSERT_TRUE(waitForRoom("didLeave"));
}

}  // namespace
}  // namespace kq::xmpp
