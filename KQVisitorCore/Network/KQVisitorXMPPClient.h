#pragma once

#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/AlertView.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/Notification.h>
#include <KQVisitorCore/Platform/NotificationCenter.h>
#include <KQVisitorCore/XMPP/XMPPReconnectDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRosterDelegate.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include <any>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kq {

class KQVisitorRoom;
class KQVisitorSitesManager;
class Reachability;
class Timer;
template <class T>
class Guarded;

namespace xmpp {
class XMPPCapabilities;
class XMPPCapabilitiesMemoryStorage;
class XMPPReconnect;
class XMPPRoster;
class XMPPRosterMemoryStorage;
class XMPPStream;
class XMPPvCardAvatarModule;
class XMPPvCardMemoryStorage;
class XMPPvCardTempModule;
}  // namespace xmpp

/// The process-wide owner of the XMPP connection, of the one sites manager and of the network
/// listener. Reached only through instance().
///
/// The client is a delegate of its stream, of the reconnect module and of the roster, all on
/// the main queue: every event of the connection (and every object added with
/// addStreamDelegate) is handled on the main queue's thread, which the host application runs.
/// Its state may be read from any thread.
///
/// The client sits with the network clients, yet it hands out the session (sitesManager()) and
/// makes and configures the session's rooms. Those calls are defined beside the session
/// (KQVisitorXMPPClient+Session.cpp in Session/), so that this folder includes nothing above
/// it; include KQVisitorSitesManager.h (or KQVisitorCore.h) to use what sitesManager() answers.
class KQ_EXPORT KQVisitorXMPPClient : public std::enable_shared_from_this<KQVisitorXMPPClient>,
                                      public xmpp::XMPPStreamDelegate,
                                      public xmpp::XMPPReconnectDelegate,
                                      public xmpp::XMPPRosterDelegate,
                                      public xmpp::XMPPRoomDelegate {
 public:
  KQVisitorXMPPClient(const KQVisitorXMPPClient&) = delete;
  KQVisitorXMPPClient& operator=(const KQVisitorXMPPClient&) = delete;
  ~KQVisitorXMPPClient() override;

  /// The client, built on first use (thread-safe): nothing connects then. It lives until the
  /// process ends. The stream takes the XMPP host and port of KQVisitorConfig::shared() as it
  /// is at that moment. When the configuration file broke one of them (or the CA file),
  /// connectUser() logs why and answers false instead of connecting to a default server.
  static KQVisitorXMPPClient& instance();

  /// A client of its own, built as instance() builds the singleton (stream and modules set up,
  /// nothing connected), for tests and tools that need a second connection. The library itself
  /// only ever uses instance(); signout() of any client signs the singleton out.
  static std::shared_ptr<KQVisitorXMPPClient> createClient();

  /// The one sites manager, created on first read.
  [[nodiscard]] std::shared_ptr<KQVisitorSitesManager> sitesManager();
  /// Replaces the manager; null makes the next read create a new, empty one.
  void setSitesManager(std::shared_ptr<KQVisitorSitesManager> sitesManager);

  // --- Connection -------------------------------------------------------------------------

  /// Builds the stream and its modules (reconnect every 5.0 s, roster, vCard, avatars,
  /// capabilities) and adds the client as their delegate on the main queue; sets the host, the
  /// port and the "preferred" start-TLS policy. Nothing connects. A second call is a programming
  /// error: it throws std::logic_error "Method setupStream invoked multiple times".
  void setupStream();
  /// Lets go of the stream and its modules (after disconnecting it).
  void teardownStream();

  /// Connects `user` as "<userId>@localhost/TellioiPhone" (a null user or id writes "(null)")
  /// with no timeout. Answers true when a connection is under way or up already (nothing more is
  /// done then), false when the address cannot be built or the connect call fails at once.
  bool connectUser(const std::shared_ptr<KQVisitorUser>& user);
  /// Starts SASL ANONYMOUS when the server offers it and answers the stream's answer; answers
  /// true without sending anything when the server does not offer it.
  bool authenticateAnonymousUser();
  /// Sends an available presence, then has the sites manager rejoin the current room.
  void goOnline();
  /// Sends an unavailable presence.
  void goOffline();
  /// Closes the current room, goes offline and disconnects the stream (which stays, ready for
  /// the next connectUser()).
  void disconnect();
  /// Closes the visitor's rooms, says goodbye and disconnects: disconnect() on instance().
  void signout();
  /// disconnect(), stops timerForQAScreen, then signout().
  void performForcefullLogout();
  /// Does nothing.
  void scheduler();

  /// Adds `delegate` as a delegate of the stream, called on the main queue.
  void addStreamDelegate(const std::shared_ptr<xmpp::XMPPStreamDelegate>& delegate);
  /// Removes `delegate` from the stream's delegates; nothing without a stream.
  void removeStreamDelegate(const xmpp::XMPPStreamDelegate* delegate);

  // The stream and its modules, owned by the client and shared with the caller.

  /// The XMPP stream; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPStream> xmppStream() const;
  /// The reconnect module; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPReconnect> xmppReconnect() const;
  /// The roster module; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPRoster> xmppRoster() const;
  /// The roster's storage; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPRosterMemoryStorage> xmppRosterStorage() const;
  /// The vCard storage; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPvCardMemoryStorage> xmppvCardStorage() const;
  /// The vCard module; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPvCardTempModule> xmppvCardTempModule() const;
  /// The avatar module; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPvCardAvatarModule> xmppvCardAvatarModule() const;
  /// The capabilities module; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPCapabilities> xmppCapabilities() const;
  /// The capabilities' storage; null before setupStream() and after teardownStream().
  [[nodiscard]] std::shared_ptr<xmpp::XMPPCapabilitiesMemoryStorage> xmppCapabilitiesStorage()
      const;

  /// Declared for hosts; never set or read by the library.
  [[nodiscard]] bool allowSelfSignedCertificates() const;
  /// Sets allowSelfSignedCertificates().
  void setAllowSelfSignedCertificates(bool value);
  /// When true the server certificate's name is not checked (the chain still is). False after
  /// setupStream().
  [[nodiscard]] bool allowSSLHostNameMismatch() const;
  /// Sets allowSSLHostNameMismatch(), read when the stream secures its next connection.
  void setAllowSSLHostNameMismatch(bool value);
  /// The socket-level connection is up: set by did-connect, cleared by a disconnect that finds
  /// isxmppStreamDisconnected() false.
  [[nodiscard]] bool isXmppConnected() const;
  /// Sets isXmppConnected().
  void setIsXmppConnected(bool value);
  /// The stream was lost while not connected (a failed connect or reconnect); cleared by the
  /// next successful authentication.
  [[nodiscard]] bool isxmppStreamDisconnected() const;
  /// Sets isxmppStreamDisconnected().
  void setIsxmppStreamDisconnected(bool value);
  /// Owned by the sites manager; stored here only.
  [[nodiscard]] bool isDisconnectedAllRooms() const;
  /// Sets isDisconnectedAllRooms().
  void setIsDisconnectedAllRooms(bool value);
  /// An alert the host may show while connecting; dismissed (button 0, animated) when the login
  /// completes, and cleared then.
  [[nodiscard]] std::shared_ptr<AlertView> loadingAlert() const;
  /// Sets loadingAlert(); the client shares ownership of the alert.
  void setLoadingAlert(std::shared_ptr<AlertView> alert);
  /// Declared for hosts; never used by the library.
  [[nodiscard]] std::shared_ptr<AlertView> alertForConectivity() const;
  /// Sets alertForConectivity().
  void setAlertForConectivity(std::shared_ptr<AlertView> alert);
  /// A timer the host may start; performForcefullLogout() stops it and clears the field.
  [[nodiscard]] std::shared_ptr<Timer> timerForQAScreen() const;
  /// Keeps `timer` in place of the one kept before, which is released, not stopped.
  void setTimerForQAScreen(std::shared_ptr<Timer> timer);

  // --- Rooms, invitations and notifications -------------------------------------------------

  /// Fills the record of the room about to be joined: the sites manager's current room, made
  /// (and filed under "currentRoom" of the website) when there is none. One more unread
  /// message; the operator's id, `forUser`'s name as operator name, the greeting; `description`
  /// then `forUser` filed as occupants by user id. Sends nothing. `websiteID` and `chatId` are
  /// not used: the join sets the room id.
  void createXmpproomwithwebsiteID(const std::optional<std::string>& websiteID,
                                   const std::optional<std::string>& chatId,
                                   const std::shared_ptr<KQVisitorUser>& description,
                                   const std::optional<std::string>& operatorId,
                                   const std::optional<std::string>& forGreeting,
                                   const std::shared_ptr<KQVisitorUser>& forUser);
  /// Joins the chat "room<chatId>@conference.localhost" as the current room: an XMPPRoom on the
  /// main queue, activated on the stream, asked at once for the server's default
  /// configuration; the room and then the client become its delegates; the room connects and
  /// is recorded as joined by the sites manager. A current room already joined is answered as
  /// it is. Null for a missing chat id, one that makes no address, or no current room.
  std::shared_ptr<KQVisitorRoom> joinXmpproomwitChatID(const std::optional<std::string>& chatId);
  /// Configures the current room with the server's defaults and invites its operator. (`jid` is
  /// not used.) Called for each status 201 of a received presence.
  void sendDefaultRoomConfig(const std::optional<std::string>& jid);
  /// Invites the current room's operator "<operatorId>@localhost" with the room's reason
  /// packet, without configuring.
  void inviteUser();
  /// Handles "removeIdleRooms": removes the room "roomId" from the website's rooms and posts
  /// "reloadData". Without "roomId" it throws std::invalid_argument.
  void removeIdleRooms(const Notification& notification);
  /// With false: schedules the local notification "New Message Received" (action "Launch") one
  /// second from now, with the application's badge number plus badgeCount(). With true: nothing.
  void performLoacalNotification(bool notify);

  /// Added to the application badge by performLoacalNotification; 0 at start.
  [[nodiscard]] std::int32_t badgeCount() const;
  /// Sets badgeCount().
  void setBadgeCount(std::int32_t value);
  /// Kept for the host application; 0 at start.
  [[nodiscard]] std::int32_t messageCounterForOperatorBadge() const;
  /// Sets messageCounterForOperatorBadge().
  void setMessageCounterForOperatorBadge(std::int32_t value);
  /// Kept for the host application; false at start.
  [[nodiscard]] bool operatorScreenActive() const;
  /// Sets operatorScreenActive().
  void setOperatorScreenActive(bool value);
  /// Kept for the host application; 0 at start.
  [[nodiscard]] std::int64_t panelType() const;
  /// Sets panelType().
  void setPanelType(std::int64_t value);
  /// Kept for the host application (a copy); empty at start.
  [[nodiscard]] std::vector<std::any> kqCanMessagesArray() const;
  /// Replaces kqCanMessagesArray().
  void setKqCanMessagesArray(std::vector<std::any> messages);
  /// A host view object; kept only.
  [[nodiscard]] std::any loadingActivityIndicator() const;
  /// Sets loadingActivityIndicator().
  void setLoadingActivityIndicator(std::any indicator);
  /// A host object, not owned: the host clears it before it goes away. Never called by the
  /// library.
  [[nodiscard]] std::weak_ptr<void> chatDelegate() const;
  /// Sets chatDelegate(); the client keeps only a weak reference.
  void setChatDelegate(std::weak_ptr<void> delegate);
  /// A host object, not owned, like chatDelegate(). Never called by the library.
  [[nodiscard]] std::weak_ptr<void> messageDelegate() const;
  /// Sets messageDelegate(); the client keeps only a weak reference.
  void setMessageDelegate(std::weak_ptr<void> delegate);

  // --- Events of the stream, reconnect module and roster (on the main queue) ----------------

  void xmppStreamSocketWillConnect(xmpp::XMPPStream& sender) override;
  void xmppStreamWillSecureWithSettings(xmpp::XMPPStream& sender,
                                        xmpp::XMPPTLSSettings& settings) override;
  void xmppStreamDidConnect(xmpp::XMPPStream& sender) override;
  void xmppStreamDidAuthenticate(xmpp::XMPPStream& sender) override;
  void xmppStreamDidNotAuthenticate(xmpp::XMPPStream& sender,
                                    const xmpp::XMPPElement& error) override;
  bool xmppStreamDidReceiveIQ(xmpp::XMPPStream& sender, const xmpp::XMPPIQ& iq) override;
  /// For each multi-user-chat status 201 (the room was just created) in `presence`, calls
  /// sendDefaultRoomConfig() with the presence's "from"; other presences are ignored.
  void xmppStreamDidReceivePresence(xmpp::XMPPStream& sender,
                                    const xmpp::XMPPPresence& presence) override;
  void xmppStreamDidDisconnect(xmpp::XMPPStream& sender,
                               const std::optional<KQError>& error) override;
  bool xmppReconnectShouldAttemptAutoReconnect(xmpp::XMPPReconnect& sender) override;
  void xmppRosterDidReceiveBuddyRequest(xmpp::XMPPRoster& sender,
                                        const xmpp::XMPPPresence& presence) override;

  // --- Network reachability ---------------------------------------------------------------

  /// Starts the listener of the general internet connection; it logs "UNREACHABLE!" on each
  /// change to unreachable and does nothing else.
  void addInternetListener();
  /// Whether the general internet connection is reachable now (asked afresh on each call).
  [[nodiscard]] bool isInternetAvaliable() const;
  /// The listener addInternetListener() started, shared with the caller; null before.
  [[nodiscard]] std::shared_ptr<Reachability> reachability() const;
  /// Keeps `reachability` as the listener; the one replaced is released outside the client's
  /// lock, which stops it when nothing else holds it.
  void setReachability(std::shared_ptr<Reachability> reachability);

 private:
  // The XMPP domain under which the service knows its users and rooms; never resolved.
  static constexpr std::string_view kXMPPDomain = "localhost";

  KQVisitorXMPPClient();
  void initSingleton();
  // What the connection asks of the session, defined beside it: a new, empty sites manager;
  // the current room joins again (after a reconnect); the current room closes (a disconnect).
  static std::shared_ptr<KQVisitorSitesManager> makeSitesManager();
  void rejoinSessionRooms();
  void closeSessionRooms();

  // Everything the accessors above read and write, private to KQVisitorXMPPClient.cpp, under
  // one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
  NotificationCenter::Token removeIdleRoomsObserver_ = 0;
};

}  // namespace kq
