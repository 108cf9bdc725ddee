#pragma once

#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

/// The message archive of one multi-user-chat room (XEP-0313, "urn:xmpp:mam:2"), kept by the
/// server at the room's bare JID: whether the room has one, and the messages it holds after a
/// point, fetched page by page (XEP-0059).
///
/// The archive's answers come as `<message/>` stanzas from the room's bare JID that carry a
/// `<result/>` and no body: no XMPPRoom takes them for the room's own messages. This module
/// unwraps those of its own queries and hands each query's messages over once the archive says
/// it has sent them all.
///
/// The public methods may be called from any thread while the module is active on a stream.
/// Completions run on the dispatch queue given at construction, else on the stream's queue;
/// never inside the call that asked, except for a module that has neither queue (no dispatch
/// queue given, never activated), which answers at once.
class KQ_EXPORT XMPPRoomArchive : public XMPPModule {
 public:
  /// One archived message.
  struct Item {
    /// The message as the room sent it (from `room@service/nick`), a stanza of its own.
    XMPPMessage message;
    /// The archive's id of it, which is also the room's stanza id (XEP-0359) of the message.
    std::string archiveId;
    /// When the room archived it (the forwarded `<delay/>`); nullopt when the stamp is missing or
    /// does not read.
    std::optional<Date> stamp;
  };

  /// What to fetch: the messages after `after` (an archive id, the surest point) and/or from
  /// `start` on. With neither, the whole archive.
  struct Query {
    /// The archive id after which to fetch (RSM `<after/>`); nullopt for no such bound.
    std::optional<std::string> after;
    /// The earliest time of a message to fetch (the form's "start" field); nullopt for no such
    /// bound.
    std::optional<Date> start;
    /// Messages per page (RSM `<max/>`); 0 leaves the page size to the server.
    int pageSize = 0;
  };

  /// The archive's messages oldest first; nullopt when a page was refused, not answered in
  /// time, or the connection ended first.
  using Completion = std::function<void(std::optional<std::vector<Item>> items)>;

  /// The archive of room `roomJID` (its bare JID is used).
  explicit XMPPRoomArchive(const XMPPJID& roomJID,
                           std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPRoomArchive() override;

  /// The room's bare address, `room@service`.
  [[nodiscard]] const XMPPJID& roomJID() const { return roomJID_; }

  /// Asks the room for its features (service discovery, disco#info) and answers true when it
  /// lists "urn:xmpp:mam:2"; false for a room without an archive, an error (such as a room
  /// that does not exist), or no answer within 30 s.
  void discoverArchive(std::function<void(bool supported)> completion);

  /// Fetches the messages `query` names: one query per page, each after the last id of the page
  /// before, until the archive's `<fin/>` says complete (or a page brings nothing new). Each page
  /// must be answered within 30 s.
  void fetchMessages(const Query& query, Completion completion);

  /// The room's stanza id (XEP-0359) in `message`: the id of a `<stanza-id/>` whose "by" is the
  /// room. Ids set by anybody else are not trusted, so they are not read.
  [[nodiscard]] static std::optional<std::string> stanzaId(const XMPPMessage& message,
                                                           const XMPPJID& roomJID);
  /// The stamp of the message's `<delay xmlns="urn:xmpp:delay"/>` (XEP-0203): when the server
  /// first had a message it hands out late, as room history does.
  [[nodiscard]] static std::optional<Date> delayStamp(const XMPPMessage& message);

  /// A date as XMPP writes it (XEP-0082), in UTC to the whole second: "2026-11-26T00:16:15Z".
  [[nodiscard]] static std::string dateTimeString(const Date& date);
  /// Reads "YYYY-MM-DDThh:mm:ss", optional fraction, then "Z" or "+hh:mm"/"-hh:mm".
  [[nodiscard]] static std::optional<Date> dateFromDateTimeString(std::string_view text);

 protected:
  void streamDidReceiveMessage(const XMPPMessage& message) override;

 private:
  void fetchPage(Query query, std::vector<Item> gathered, Completion completion);
  void deliver(std::function<void()> task) const;

  const XMPPJID roomJID_;
  // The pages in flight by query id, under the module's lock; defined in XMPPRoomArchive.cpp.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq::xmpp
