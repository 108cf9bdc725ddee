#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPRoomArchive.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kq {
class Timer;
namespace xmpp {
class XMPPReconnect;
class XMPPRoom;
class XMPPStream;
}  // namespace xmpp
}  // namespace kq

namespace kq::test {

/// The operator "42" (password "secret") straight to the server, in one chat room, made to
/// survive the server's restart: it reconnects, joins the room again, and then
/// - catches up from the room's archive what was said while it was out (after the last stanza
///   id it heard), each stanza once, in order, before what arrives live after the rejoin;
/// - sends again, in order and with the same "id" attribute, its lines the archive does not
///   hold; lines written while it is out wait until it is back.
///
/// Everything runs on the main queue; the caller pumps it. Create with std::make_shared, call
/// stop() before letting it go.
class RejoiningOperator : public xmpp::XMPPStreamDelegate,
                          public xmpp::XMPPRoomDelegate,
                          public std::enable_shared_from_this<RejoiningOperator> {
 public:
  /// A room message as the operator heard it: the text, and when it came.
  struct Heard {
    std::string text;
    std::string sender;  ///< the occupant's nickname
    Clock::TimePoint at;
  };

  RejoiningOperator(std::uint16_t port, xmpp::XMPPJID roomJID, std::string chatId);
  ~RejoiningOperator() override;
  RejoiningOperator(const RejoiningOperator&) = delete;
  RejoiningOperator& operator=(const RejoiningOperator&) = delete;

  /// Connects and logs in; false when that failed within the patience of the tests.
  bool login();
  /// Joins the room, now and after every reconnect, whenever `mayJoin` answers true (checked
  /// a few times a second while out).
  void join(std::function<bool()> mayJoin = [] { return true; });
  [[nodiscard]] bool isJoined() const { return joined_ && !catchingUp_; }
  /// Sends `text` with `text` as its "id" attribute, once joined, until the room echoes it.
  void say(const std::string& text);
  /// Every room message heard, the operator's own echoes included, in order.
  [[nodiscard]] const std::vector<Heard>& heard() const { return heard_; }
  /// Called for each message appended to heard().
  std::function<void(const Heard&)> onHeard;
  /// Leaves, disconnects and lets go of the stream and its modules.
  void stop();

  void xmppStreamDidConnect(xmpp::XMPPStream& sender) override;
  void xmppStreamDidAuthenticate(xmpp::XMPPStream& sender) override;
  void xmppStreamDidDisconnect(xmpp::XMPPStream& sender,
                               const std::optional<KQError>& error) override;
  void xmppRoomDidCreate(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidJoin(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidLeave(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidReceiveMessage(xmpp::XMPPRoom& sender, const xmpp::XMPPMessage& message,
                                 const xmpp::XMPPJID& occupant) override;

 private:
  void sendJoin();
  void catchUp(bool wholeArchive);
  void caughtUp(std::uint64_t attempt, bool wholeArchive,
                const std::optional<std::vector<xmpp::XMPPRoomArchive::Item>>& items);
  void take(const xmpp::XMPPMessage& message, const std::optional<std::string>& stanzaId);
  void flush();

  const std::string chatId_;
  const xmpp::XMPPJID roomJID_;
  std::shared_ptr<xmpp::XMPPStream> stream_;
  std::shared_ptr<xmpp::XMPPReconnect> reconnect_;
  std::shared_ptr<xmpp::XMPPRoom> room_;
  std::shared_ptr<xmpp::XMPPRoomArchive> archive_;
  std::function<bool()> mayJoin_;
  std::shared_ptr<Timer> joinRetry_;
  std::shared_ptr<Timer> fetchRetry_;
  bool authenticated_ = false;
  bool wantsRoom_ = false;
  bool everJoined_ = false;
  bool joined_ = false;
  bool catchingUp_ = false;
  std::uint64_t attempt_ = 0;  // answers to an earlier catch-up are dropped
  std::vector<xmpp::XMPPMessage> heldBack_;
  std::deque<std::string> unsent_;
  std::vector<std::string> unechoed_;  // sent, not heard back yet, in order
  std::set<std::string> stanzaIds_;
  std::optional<std::string> lastStanzaId_;
  std::vector<Heard> heard_;
};

}  // namespace kq::test
