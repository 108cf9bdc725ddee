#pragma once

#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq {

template <class T>
class Guarded;
namespace xmpp {
class XMPPRoom;
class XMPPRoomArchive;
}  // namespace xmpp

/// A rejoin of a chat room that already holds a conversation, and the fetch of what was said
/// while the visitor was away. Internal to the library; KQVisitorRoom says why it exists.
///
/// The steps: ask the room whether it keeps an archive (disco#info). With one, join asking for
/// no history, then fetch the archive from the last stanza id heard (or from a time, also when
/// the archive no longer knows that id) to the end. Without one, or when the fetch fails, join
/// asking for the history since that time, and take the answer to a question asked after the
/// join as the end of it (the server sends a join's history before it reads anything sent
/// later). Room messages that arrive meanwhile are held back, so that the conversation is
/// handed over in order, old messages first.
///
/// One catch-up at a time: while one is under way, a new start is not needed and is ignored; a
/// lost connection or a leave of the room ends it.
///
/// Every call and every callback runs on the main queue (the room's events come there).
class KQVisitorRoomCatchUp : public std::enable_shared_from_this<KQVisitorRoomCatchUp>,
                             public xmpp::XMPPStreamDelegate {
 public:
  /// A room message handed over at the end of a catch-up.
  struct Stanza {
    xmpp::XMPPMessage message;
    xmpp::XMPPJID occupant;  ///< the sender (room@service/nick)
    /// When the room had it: the archive's or the history's stamp, else when it arrived here.
    Date arrival;
    std::optional<std::string> stanzaId;  ///< the room's stanza id (XEP-0359)
    /// True for a message the archive or the room's history brought; false for one that came
    /// live during the catch-up.
    bool caughtUp = false;
  };

  /// Where the conversation stood: the room's stanza id of the last stanza heard, when it had
  /// one, and the time from which to ask otherwise.
  struct Mark {
    std::optional<std::string> afterId;
    Date since;
  };

  /// Called with the stanzas of a catch-up, in order; `finished` is false when the catch-up
  /// was cut short (the room was left), and the stanzas are then those held back so far.
  using Handover = std::function<void(std::vector<Stanza> stanzas, bool finished)>;

  KQVisitorRoomCatchUp(std::shared_ptr<xmpp::XMPPRoom> room, Handover handover);
  ~KQVisitorRoomCatchUp() override;
  KQVisitorRoomCatchUp(const KQVisitorRoomCatchUp&) = delete;
  KQVisitorRoomCatchUp& operator=(const KQVisitorRoomCatchUp&) = delete;

  /// Joins again under `nickname` and catches up from `mark`; nothing while a catch-up is under
  /// way (it joins already).
  void start(const std::string& nickname, const Mark& mark);
  /// The room reports it is joined.
  void roomDidJoin();
  /// The room reports it was left: unless the catch-up left on purpose, it ends, and hands
  /// over what it held back.
  void roomDidLeave();
  /// The connection ended: the catch-up ends as for a leave (its questions will not be
  /// answered, and the join may not have gone out).
  void xmppStreamDidDisconnect(xmpp::XMPPStream& sender,
                               const std::optional<KQError>& error) override;
  /// True when `message` is held back until the catch-up ends. Error messages never are.
  bool holdBack(const xmpp::XMPPMessage& message, const xmpp::XMPPJID& occupant);

 private:
  enum class Phase;
  struct State;
  void discovered(std::uint64_t attempt, bool archived);
  void fetchArchive(std::uint64_t attempt, const Mark& mark);
  void fetched(std::uint64_t attempt,
               std::optional<std::vector<Stanza>> archived);  // nullopt: the fetch failed
  void historyReplayed(std::uint64_t attempt);
  void join(const std::string& nickname, const Mark& mark, bool archived);
  void end();  // hands over what was held back, unfinished

  const std::shared_ptr<xmpp::XMPPRoom> room_;
  const std::shared_ptr<xmpp::XMPPRoomArchive> archive_;
  const Handover handover_;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
