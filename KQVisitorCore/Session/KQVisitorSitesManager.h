#pragma once

#include <KQVisitorCore/Model/KQVisitorMessage.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>

#include <nlohmann/json.hpp>

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq {

template <class T>
class Guarded;

/// The visitor's session: from the website's domain name through the pre-chat check to a
/// started chat, and the room of that chat. Reached through
/// KQVisitorXMPPClient::instance().sitesManager().
///
/// It keeps two views of the session's rooms: the website's rooms table, whose one entry is the
/// current conversation (getCurrentRoom()), and allRooms(), the rooms joined over XMPP, newest
/// first. Fields may be read and written from any thread.
///
/// The session flow (visitorPanelWithResult, chatPreLan) needs the manager to be owned by a
/// std::shared_ptr, as the client's is: each step keeps it alive until the next.
class KQ_EXPORT KQVisitorSitesManager : public std::enable_shared_from_this<KQVisitorSitesManager> {
 public:
  /// The answer of the session flow: an error, or the result (null for none).
  using Result = std::function<void(std::optional<KQError> error, nlohmann::ordered_json result)>;
  /// The answer of a chat start: an error, the result (null for none), and whether the chat
  /// has been joined.
  using StartCallback =
      std::function<void(std::optional<KQError> error, nlohmann::ordered_json result, bool joined)>;
  /// The outcome of an HTTP message operation: an error, or the message made (either may be
  /// null).
  using MessageCallback =
      std::function<void(std::optional<KQError> error, std::shared_ptr<KQVisitorMessage> message)>;
  /// Rooms, newest first; the manager shares ownership of them.
  using Rooms = std::vector<std::shared_ptr<KQVisitorRoom>>;

  /// The errors the HTTP operations make: the text is the domain, the code kHTTPErrorCode, and
  /// there is no user information.
  /// This one: the service gave an empty answer to a line sent or to the end of the chat, or
  /// closeHTTPSession() found no chat id (KQVisitorRoom::kCannotInsertMessage).
  static constexpr const char* kCannotInsertMessage = KQVisitorRoom::kCannotInsertMessage;
  /// A poll brought no message (KQVisitorRoom::kNoMessageRecieved).
  static constexpr const char* kNoMessageRecieved = KQVisitorRoom::kNoMessageRecieved;
  /// The code of those errors (KQVisitorRoom::kHTTPErrorCode).
  static constexpr long kHTTPErrorCode = KQVisitorRoom::kHTTPErrorCode;

  /// Branding off, no website, no rooms.
  KQVisitorSitesManager();
  KQVisitorSitesManager(const KQVisitorSitesManager&) = delete;
  KQVisitorSitesManager& operator=(const KQVisitorSitesManager&) = delete;
  virtual ~KQVisitorSitesManager();

  // --- Properties -------------------------------------------------------------------------

  /// The session's website, made by chatPreLan() when there is none; null before. The manager
  /// shares ownership of it.
  [[nodiscard]] std::shared_ptr<KQVisitorSite> kqWebsite() const;
  /// Sets kqWebsite().
  void setKqWebsite(std::shared_ptr<KQVisitorSite> website);
  /// Whether the chat should show the service's branding, as the service's website record
  /// ("S_B") said in visitorPanelWithResult(); false until then.
  [[nodiscard]] bool toShowBranding() const;
  /// Sets toShowBranding().
  void setToShowBranding(bool value);
  /// The website's domain name in Arabic, used by visitorPanelWithResult() when
  /// preferredLanguage() is "ar". Set by the host.
  [[nodiscard]] std::optional<std::string> websiteDomainNameArabic() const;
  /// Sets websiteDomainNameArabic().
  void setWebsiteDomainNameArabic(std::optional<std::string> domain);
  /// The website's domain name in English, used by visitorPanelWithResult() for any other
  /// language. Set by the host.
  [[nodiscard]] std::optional<std::string> websiteDomainNameEnglish() const;
  /// Sets websiteDomainNameEnglish().
  void setWebsiteDomainNameEnglish(std::optional<std::string> domain);
  /// The visitor's language: "ar" picks the Arabic domain name and language 5 when asking for
  /// an operator; anything else, or nullopt, the English domain name and the visitor record's
  /// language. Set by the host.
  [[nodiscard]] std::optional<std::string> preferredLanguage() const;
  /// Sets preferredLanguage().
  void setPreferredLanguage(std::optional<std::string> language);
  /// The rooms joined over XMPP, newest first (a copy).
  [[nodiscard]] Rooms allRooms() const;
  /// Replaces allRooms().
  void setAllRooms(Rooms rooms);

  // --- The session flow --------------------------------------------------------------------

  /// Identifies the website by the domain name of the preferred language ("ar": the Arabic
  /// one, else the English one) with "GetWI", reads the service's data stamp ("ReadValue"),
  /// registers the visitor ("InVsIn") unless a record cached under "V_Inf:<website id>" is still
  /// valid for that stamp ("d_time"), then goes on with chatPreLan(). `result` is called once,
  /// on the web service's thread (at once on the calling thread without a domain name): see
  /// chatPreLan() for success. Errors have the message as domain and {"status": n}: 5 website
  /// not identified, 3 service call failed, 8 no internet (a transport error keeps its own
  /// domain and code, with status 8 for code -1009).
  ///
  /// Without a network, `result` is called twice: first at once with the web service's
  /// KQVisitorWebService::kNoInternetMessage (status 3), then with the outcome of the request,
  /// which still goes out. Take an error of that domain as a warning and wait for the second.
  void visitorPanelWithResult(Result result);

  /// Checks twice that the website is not blocked ("IsWbBl"), asks for an operator in the
  /// visitor's language ("ChatPreByLan"), makes the session's website (once), visitor and
  /// operator records and the current room, logs the visitor in, shows the greeting, records
  /// it ("InsGrtInfo") and answers (nullopt, {"websiteID": ...}). When the chat is already open
  /// on the server ("I_AIC" 1) the room takes the chat id and, 5 s later on the main queue, is
  /// joined over XMPP, or over HTTP (the web service's isHTTPClient then) starts polling.
  /// `visitor` is the seven-key record of visitorPanelWithResult. `result` is called once, on
  /// the web service's thread.
  void chatPreLan(const nlohmann::ordered_json& visitor, Result result);

  /// Starts the current room's chat with the visitor's opening `message` (nullopt: a fixed
  /// connection-state text). A room that has a chat id goes straight to startChatWithChatId();
  /// otherwise the chat is registered ("InsertCInfoM", or "InsertCInfoMwithSurvey" when the
  /// visitor gave a name, an email or a phone) and its answer's first element is the chat id.
  /// A failed registration answers "Network" (400, status 3) on the web service's thread; the
  /// other answers come as startChatWithChatId() gives them. Without a current room nothing
  /// happens and `callback` is never called.
  ///
  /// With a chat already open over XMPP ("I_AIC" 1), a call made after the 5 s join has joined
  /// the room never hears success: check getCurrentRoom()->isRoomJoined() before waiting.
  /// Without a network a failure may come twice, or come before a success: see
  /// visitorPanelWithResult().
  void startChat(const std::optional<std::string>& message, StartCallback callback);

  /// Joins the chat `chatId` and answers (nullopt, {"websiteID": ...}, true) each time the room
  /// reports itself joined (status 0): the listener stays on the room, so a later rejoin
  /// answers again. A chat id that reads 0 answers "Network" (400, status 3) at once. Without
  /// internet it answers "Internet" (400, status 8) and joins nothing. Until the first join a
  /// reachability watcher of KQVisitorConfig::reachabilityHost answers "Network" (400, status 3)
  /// at every loss.
  ///
  /// Over HTTP (the web service's isHTTPClient), there is no room to join: after the same
  /// checks (chat id, internet, the watcher), the current room takes the chat id, is recorded
  /// as joined, starts polling (as KQVisitorRoom::joinHTTPRoom does, once per room, whoever
  /// starts it) and the answer is (nullopt, {"websiteID": ...}, true) at once. Without a current
  /// room nothing is started and no success comes.
  ///
  /// Callbacks run on the main queue (the room's join, the delayed join), on the reachability
  /// watcher's thread ("Network" at a loss), or on the calling thread (the checks, the start
  /// over HTTP).
  void startChatWithChatId(const std::optional<std::string>& chatId, StartCallback callback);

  // --- Rooms ------------------------------------------------------------------------------

  /// kqWebsite().
  [[nodiscard]] std::shared_ptr<KQVisitorSite> getWebSite() const;
  /// The room under the first key of the website's rooms table; null without a website or a
  /// room.
  [[nodiscard]] std::shared_ptr<KQVisitorRoom> getCurrentRoom() const;
  /// Empties the website's rooms table (the rooms are not told).
  void clearCurrentRoom();
  /// Puts `room` at the front of allRooms unless it is there already.
  void joinRoom(const std::shared_ptr<KQVisitorRoom>& room);
  /// Removes `room` from allRooms.
  void leaveRoom(const std::shared_ptr<KQVisitorRoom>& room);
  /// The room of allRooms nearest the front whose roomId is `roomId`; null when none.
  [[nodiscard]] std::shared_ptr<KQVisitorRoom> getRoomById(const std::string& roomId) const;
  /// Marks the client's rooms as connected again and connects the current room.
  void joinAllOperatorRooms();
  /// Closes the current room, then empties the website's rooms table.
  void closeAllOperatorRooms();

  // --- Chat over HTTP (all on the current room) --------------------------------------------

  /// The operations of the current room's HTTP transport (KQVisitorRoom): each line made is
  /// stored in that room and announced to its update callbacks on the main queue.

  /// "InsertChatMessage": on an answer, a message of type 1 from the visitor is appended to the
  /// current room and passed on; an empty answer is kCannotInsertMessage; a transport error
  /// passes unchanged. `callback` runs on the web service's thread.
  void sendHTTPMessage(const std::string& text, MessageCallback callback);
  /// "GetChatMessagesAlt" with the room's httpMessageId: an answer [text, id] with a text moves
  /// the cursor to id and appends the operator's message of type 4; an empty text (or an
  /// answer of another shape) is kNoMessageRecieved and leaves the cursor. `callback` runs on
  /// the web service's thread.
  void getHTTPMessage(MessageCallback callback);
  /// "ET" with the chat id and the end time; kCannotInsertMessage without a chat id (nothing
  /// is sent, and `callback` runs at once on the calling thread) or on an empty answer;
  /// otherwise `callback` runs on the web service's thread.
  void closeHTTPSession(MessageCallback callback);
  /// Ends the session's chat: the current room stops being current, then leaves HTTP polling,
  /// asks for its destruction and forgets its messages. The argument is not used.
  ///
  /// The room is no longer current when it leaves, so its "ET" finds no chat id and is not
  /// sent: over HTTP, call closeHTTPSession() first and closeSession() once it has answered.
  void closeSession(const std::any& sender = {});

 private:
  struct State;
  void readValueAnswered(const std::string& domain, const nlohmann::ordered_json& website,
                         const std::optional<std::string>& websiteId,
                         const nlohmann::ordered_json& stamp,
                         const std::shared_ptr<Result>& result);
  // Carries the chat `chatId` over HTTP: the room takes the id, is recorded as joined and polls.
  void pollChat(const std::shared_ptr<KQVisitorRoom>& room,
                const std::optional<std::string>& chatId);
  void askForOperator(const nlohmann::ordered_json& record, const std::shared_ptr<Result>& result);
  void operatorAnswered(const nlohmann::ordered_json& record, const nlohmann::ordered_json& answer,
                        const std::shared_ptr<Result>& result);
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
