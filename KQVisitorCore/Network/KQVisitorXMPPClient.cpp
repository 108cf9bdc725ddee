#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/HostApplication.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Reachability.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPCapabilities.h>
#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoster.h>
#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/XMPPvCardAvatarModule.h>
#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPvCardTempModule.h>

#include <chrono>
#include <sstream>
#include <stdexcept>

namespace kq {

KQVisitorXMPPClient& KQVisitorXMPPClient::instance() {
  // Never destroyed: the library's threads may reach the client until the process ends.
  static auto* client = new std::shared_ptr<KQVisitorXMPPClient>(createClient());
  return **client;
}

std::shared_ptr<KQVisitorXMPPClient> KQVisitorXMPPClient::createClient() {
  std::shared_ptr<KQVisitorXMPPClient> created(new KQVisitorXMPPClient);
  created->initSingleton();
  return created;
}

KQVisitorXMPPClient::~KQVisitorXMPPClient() {
  if (removeIdleRoomsObserver_ != 0) {
    NotificationCenter::defaultCenter().removeObserver(removeIdleRoomsObserver_);
  }
  teardownStream();
}

void KQVisitorXMPPClient::initSingleton() {
  setupStream();
  std::weak_ptr<KQVisitorXMPPClient> weak = shared_from_this();
  removeIdleRoomsObserver_ = NotificationCenter::defaultCenter().addObserver(
      "removeIdleRooms", [weak](const Notification& notification) {
        if (const auto client = weak.lock()) {
          client->removeIdleRooms(notification);
        }
      });
  {
    std::scoped_lock lock(mutex_);
    badgeCount_ = 0;
    messageCounterForOperatorBadge_ = 0;
  }
  addInternetListener();
}

std::shared_ptr<KQVisitorSitesManager> KQVisitorXMPPClient::sitesManager() {
  std::scoped_lock lock(mutex_);
  if (!sitesManager_) {
    sitesManager_ = std::make_shared<KQVisitorSitesManager>();
  }
  return sitesManager_;
}

void KQVisitorXMPPClient::setSitesManager(std::shared_ptr<KQVisitorSitesManager> sitesManager) {
  std::scoped_lock lock(mutex_);
  sitesManager_ = std::move(sitesManager);
}

// --- Connection ----------------------------------------------------------------------------

namespace {

// The XMPP domain under which the service knows its users and rooms; never resolved.
constexpr std::string_view kXMPPDomain = "localhost";
constexpr std::string_view kResource = "TellioiPhone";
constexpr std::chrono::duration<double> kReconnectTimerInterval{5.0};

// Reports a programming error as the platform's assertion handler would, then throws.
[[noreturn]] void assertionFailure(const char* method, const void* object, const char* file,
                                   const std::string& description) {
  const std::string path = file != nullptr ? file : "<Unknown File>";
  const std::string name = path.substr(path.find_last_of('/') + 1);
  std::ostringstream line;
  line << "*** Assertion failure in " << method << ", object " << object << ", " << name;
  log(line.str());
  throw std::logic_error(description);
}

void dismissLoadingAlert(const std::shared_ptr<AlertView>& alert) {
  if (alert) {
    HostApplication::shared()->dismissAlert(alert, 0, true);
  }
}

}  // namespace

void KQVisitorXMPPClient::setupStream() {
  if (xmppStream()) {
    assertionFailure("setupStream", this, __FILE__, "Method setupStream invoked multiple times");
  }
  auto stream = xmpp::XMPPStream::create();
  stream->setEnableBackgroundingOnSocket(true);

  auto reconnect = std::make_shared<xmpp::XMPPReconnect>();
  reconnect->setAutoReconnect(true);
  reconnect->setReconnectTimerInterval(kReconnectTimerInterval);

  auto rosterStorage = std::make_shared<xmpp::XMPPRosterMemoryStorage>();
  auto roster = std::make_shared<xmpp::XMPPRoster>(rosterStorage);
  roster->setAutoFetchRoster(true);
  roster->setAutoAcceptKnownPresenceSubscriptionRequests(true);

  auto vCardStorage = xmpp::XMPPvCardMemoryStorage::sharedInstance();
  auto vCardTempModule = std::make_shared<xmpp::XMPPvCardTempModule>(vCardStorage);
  auto vCardAvatarModule = std::make_shared<xmpp::XMPPvCardAvatarModule>(vCardTempModule);

  auto capabilitiesStorage = xmpp::XMPPCapabilitiesMemoryStorage::sharedInstance();
  auto capabilities = std::make_shared<xmpp::XMPPCapabilities>(capabilitiesStorage);
  capabilities->setAutoFetchHashedCapabilities(true);
  capabilities->setAutoFetchNonHashedCapabilities(false);

  reconnect->activate(stream);
  roster->activate(stream);
  vCardTempModule->activate(stream);
  vCardAvatarModule->activate(stream);
  capabilities->activate(stream);

  const auto self = shared_from_this();
  const auto& main = DispatchQueue::main();
  reconnect->addDelegate(self, main);
  stream->addDelegate(self, main);
  roster->addDelegate(self, main);

  const KQVisitorConfig config = KQVisitorConfig::shared();
  stream->setHostName(config.xmppHost);
  stream->setHostPort(static_cast<std::uint16_t>(config.xmppPort));
  stream->setStartTLSPolicy(xmpp::XMPPStreamStartTLSPolicy::Preferred);

  std::scoped_lock lock(mutex_);
  xmppStream_ = std::move(stream);
  xmppReconnect_ = std::move(reconnect);
  xmppRoster_ = std::move(roster);
  xmppRosterStorage_ = std::move(rosterStorage);
  xmppvCardStorage_ = std::move(vCardStorage);
  xmppvCardTempModule_ = std::move(vCardTempModule);
  xmppvCardAvatarModule_ = std::move(vCardAvatarModule);
  xmppCapabilities_ = std::move(capabilities);
  xmppCapabilitiesStorage_ = std::move(capabilitiesStorage);
  allowSSLHostNameMismatch_ = false;
}

void KQVisitorXMPPClient::teardownStream() {
  std::shared_ptr<xmpp::XMPPStream> stream;
  std::shared_ptr<xmpp::XMPPReconnect> reconnect;
  std::shared_ptr<xmpp::XMPPRoster> roster;
  std::shared_ptr<xmpp::XMPPvCardTempModule> vCardTempModule;
  std::shared_ptr<xmpp::XMPPvCardAvatarModule> vCardAvatarModule;
  std::shared_ptr<xmpp::XMPPCapabilities> capabilities;
  {
    std::scoped_lock lock(mutex_);
    stream = std::move(xmppStream_);
    reconnect = std::move(xmppReconnect_);
    roster = std::move(xmppRoster_);
    xmppRosterStorage_.reset();
    xmppvCardStorage_.reset();
    vCardTempModule = std::move(xmppvCardTempModule_);
    vCardAvatarModule = std::move(xmppvCardAvatarModule_);
    capabilities = std::move(xmppCapabilities_);
    xmppCapabilitiesStorage_.reset();
  }
  if (stream) {
    stream->removeDelegate(this);
  }
  if (roster) {
    roster->removeDelegate(this);
  }
  for (const std::shared_ptr<xmpp::XMPPModule>& module :
       std::initializer_list<std::shared_ptr<xmpp::XMPPModule>>{reconnect, roster, vCardTempModule,
                                                                vCardAvatarModule, capabilities}) {
    if (module) {
      module->deactivate();
    }
  }
  if (stream) {
    stream->disconnect();
  }
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
bool KQVisitorXMPPClient::connectUser(const std::shared_ptr<KQVisitorUser>& user) {
  const auto stream = xmppStream();
  if (!stream) {
    return false;
  }
  if (!stream->isDisconnected()) {
    return true;
  }
  const std::optional<std::string> userId = user ? user->userId() : std::nullopt;
  const std::string text =
      describe(userId) + "@" + std::string(kXMPPDomain) + "/" + std::string(kResource);
  const auto jid = xmpp::XMPPJID::jidWithString(text);
  if (!jid) {
    return false;
  }
  stream->setMyJID(jid);
  KQError ignored;
  return stream->connectWithTimeout(xmpp::XMPPStreamTimeoutNone, &ignored);
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
bool KQVisitorXMPPClient::authenticateAnonymousUser() {
  bool result = true;
  const auto stream = xmppStream();
  if (stream && stream->supportsAnonymousAuthentication()) {
    KQError ignored;
    result = stream->authenticate(std::make_shared<xmpp::XMPPAnonymousAuthentication>(), &ignored);
  }
  return result;
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::goOnline() {
  if (const auto stream = xmppStream()) {
    stream->sendElement(xmpp::XMPPPresence());
  }
  // The sites manager's joinAllOperatorRooms() goes here once the session flow exists: it
  // reconnects the current room after a reconnect.
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::goOffline() {
  if (const auto stream = xmppStream()) {
    stream->sendElement(xmpp::XMPPPresence(std::string("unavailable"), std::nullopt));
  }
}

void KQVisitorXMPPClient::disconnect() {
  // The sites manager's closeAllOperatorRooms() goes here once the session flow exists.
  goOffline();
  if (const auto stream = xmppStream()) {
    stream->disconnect();
  }
}

void KQVisitorXMPPClient::signout() {
  instance().disconnect();
}

void KQVisitorXMPPClient::performForcefullLogout() {
  disconnect();
  std::shared_ptr<Timer> timer;
  {
    std::scoped_lock lock(mutex_);
    timer = std::move(timerForQAScreen_);
  }
  if (timer) {
    timer->invalidate();
  }
  signout();
}

void KQVisitorXMPPClient::scheduler() {}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::addStreamDelegate(
    const std::shared_ptr<xmpp::XMPPStreamDelegate>& delegate) {
  if (const auto stream = xmppStream()) {
    stream->addDelegate(delegate, DispatchQueue::main());
  }
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::removeStreamDelegate(const xmpp::XMPPStreamDelegate* delegate) {
  if (const auto stream = xmppStream()) {
    stream->removeDelegate(delegate);
  }
}

void KQVisitorXMPPClient::xmppStreamSocketWillConnect(xmpp::XMPPStream& /*sender*/) {
  // The socket's own backgrounding switch would go here; on Linux a connection is never
  // suspended, and the stream's flag is set in setupStream().
}

void KQVisitorXMPPClient::xmppStreamWillSecureWithSettings(xmpp::XMPPStream& sender,
                                                           xmpp::XMPPTLSSettings& settings) {
  if (allowSSLHostNameMismatch()) {
    settings.setPeerName(std::nullopt);
    return;
  }
  std::string expectedName = sender.hostName();
  if (expectedName.empty()) {
    const auto me = sender.myJID();
    expectedName = me ? me->domain() : std::string();
  }
  if (!expectedName.empty()) {
    settings.setPeerName(expectedName);
  }
}

void KQVisitorXMPPClient::xmppStreamDidConnect(xmpp::XMPPStream& /*sender*/) {
  setIsXmppConnected(true);
  authenticateAnonymousUser();
}

void KQVisitorXMPPClient::xmppStreamDidAuthenticate(xmpp::XMPPStream& /*sender*/) {
  goOnline();
  std::shared_ptr<AlertView> alert;
  std::shared_ptr<xmpp::XMPPReconnect> reconnect;
  {
    std::scoped_lock lock(mutex_);
    alert = std::move(loadingAlert_);
    isxmppStreamDisconnected_ = false;
    reconnect = xmppReconnect_;
  }
  dismissLoadingAlert(alert);
  if (reconnect) {
    reconnect->manualStart();
  }
  NotificationCenter::defaultCenter().post("LoginSuccess", std::any(true));
  NotificationCenter::defaultCenter().post("ConnectNotification");
}

void KQVisitorXMPPClient::xmppStreamDidNotAuthenticate(xmpp::XMPPStream& /*sender*/,
                                                       const xmpp::XMPPElement& /*error*/) {
  NotificationCenter::defaultCenter().post("LoginSuccess", std::any(false));
  if (const auto reconnect = xmppReconnect()) {
    reconnect->manualStart();
  }
}

bool KQVisitorXMPPClient::xmppStreamDidReceiveIQ(xmpp::XMPPStream& /*sender*/,
                                                 const xmpp::XMPPIQ& /*iq*/) {
  return false;
}

void KQVisitorXMPPClient::xmppStreamDidReceivePresence(xmpp::XMPPStream& /*sender*/,
                                                       const xmpp::XMPPPresence& presence) {
  const auto x = presence.elementForName("x", xmpp::kXMPPMUCUserNamespace);
  if (!x) {
    return;
  }
  for (const auto& status : x->elementsForName("status")) {
    if (status.attributeIntValueForName("code") == 201) {
      sendDefaultRoomConfig(presence.attributeStringValueForName("from"));
    }
  }
}

void KQVisitorXMPPClient::xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                                                  const std::optional<KQError>& /*error*/) {
  std::shared_ptr<AlertView> alert;
  {
    std::scoped_lock lock(mutex_);
    if (isxmppStreamDisconnected_) {
      return;
    }
    if (isXmppConnected_) {
      isXmppConnected_ = false;  // the first loss after a working connection
      return;
    }
    // A disconnect while not connected: a failed connect or reconnect attempt.
    alert = loadingAlert_;
    isxmppStreamDisconnected_ = true;
  }
  dismissLoadingAlert(alert);
}

bool KQVisitorXMPPClient::xmppReconnectShouldAttemptAutoReconnect(xmpp::XMPPReconnect& /*sender*/) {
  return true;
}

void KQVisitorXMPPClient::xmppRosterDidReceiveBuddyRequest(xmpp::XMPPRoster& /*sender*/,
                                                           const xmpp::XMPPPresence& presence) {
  const auto storage = xmppRosterStorage();
  const auto from = presence.from();
  const auto user = storage && from ? storage->userForJID(*from) : std::nullopt;
  const std::optional<std::string> displayName =
      user ? std::optional<std::string>(user->displayName()) : std::nullopt;
  const std::optional<std::string> jidText = presence.attributeStringValueForName("from");
  const std::string body = displayName == jidText ? "Buddy request from " + describe(displayName)
                                                  : "Buddy request from " + describe(displayName) +
                                                        " <" + describe(jidText) + ">";
  const auto host = HostApplication::shared();
  if (host->applicationState() == ApplicationState::Active) {
    host->showAlert(std::make_shared<AlertView>(AlertView{"Corvane", body, "Not implemented", {}}));
  } else {
    LocalNotification notification;
    notification.alertAction = "Not implemented";
    notification.alertBody = body;
    host->presentLocalNotificationNow(notification);
  }
}

std::shared_ptr<xmpp::XMPPStream> KQVisitorXMPPClient::xmppStream() const {
  std::scoped_lock lock(mutex_);
  return xmppStream_;
}

std::shared_ptr<xmpp::XMPPReconnect> KQVisitorXMPPClient::xmppReconnect() const {
  std::scoped_lock lock(mutex_);
  return xmppReconnect_;
}

std::shared_ptr<xmpp::XMPPRoster> KQVisitorXMPPClient::xmppRoster() const {
  std::scoped_lock lock(mutex_);
  return xmppRoster_;
}

std::shared_ptr<xmpp::XMPPRosterMemoryStorage> KQVisitorXMPPClient::xmppRosterStorage() const {
  std::scoped_lock lock(mutex_);
  return xmppRosterStorage_;
}

std::shared_ptr<xmpp::XMPPvCardMemoryStorage> KQVisitorXMPPClient::xmppvCardStorage() const {
  std::scoped_lock lock(mutex_);
  return xmppvCardStorage_;
}

std::shared_ptr<xmpp::XMPPvCardTempModule> KQVisitorXMPPClient::xmppvCardTempModule() const {
  std::scoped_lock lock(mutex_);
  return xmppvCardTempModule_;
}

std::shared_ptr<xmpp::XMPPvCardAvatarModule> KQVisitorXMPPClient::xmppvCardAvatarModule() const {
  std::scoped_lock lock(mutex_);
  return xmppvCardAvatarModule_;
}

std::shared_ptr<xmpp::XMPPCapabilities> KQVisitorXMPPClient::xmppCapabilities() const {
  std::scoped_lock lock(mutex_);
  return xmppCapabilities_;
}

std::shared_ptr<xmpp::XMPPCapabilitiesMemoryStorage> KQVisitorXMPPClient::xmppCapabilitiesStorage()
    const {
  std::scoped_lock lock(mutex_);
  return xmppCapabilitiesStorage_;
}

bool KQVisitorXMPPClient::allowSelfSignedCertificates() const {
  std::scoped_lock lock(mutex_);
  return allowSelfSignedCertificates_;
}

void KQVisitorXMPPClient::setAllowSelfSignedCertificates(bool value) {
  std::scoped_lock lock(mutex_);
  allowSelfSignedCertificates_ = value;
}

bool KQVisitorXMPPClient::allowSSLHostNameMismatch() const {
  std::scoped_lock lock(mutex_);
  return allowSSLHostNameMismatch_;
}

void KQVisitorXMPPClient::setAllowSSLHostNameMismatch(bool value) {
  std::scoped_lock lock(mutex_);
  allowSSLHostNameMismatch_ = value;
}

bool KQVisitorXMPPClient::isXmppConnected() const {
  std::scoped_lock lock(mutex_);
  return isXmppConnected_;
}

void KQVisitorXMPPClient::setIsXmppConnected(bool value) {
  std::scoped_lock lock(mutex_);
  isXmppConnected_ = value;
}

bool KQVisitorXMPPClient::isxmppStreamDisconnected() const {
  std::scoped_lock lock(mutex_);
  return isxmppStreamDisconnected_;
}

void KQVisitorXMPPClient::setIsxmppStreamDisconnected(bool value) {
  std::scoped_lock lock(mutex_);
  isxmppStreamDisconnected_ = value;
}

bool KQVisitorXMPPClient::isDisconnectedAllRooms() const {
  std::scoped_lock lock(mutex_);
  return isDisconnectedAllRooms_;
}

void KQVisitorXMPPClient::setIsDisconnectedAllRooms(bool value) {
  std::scoped_lock lock(mutex_);
  isDisconnectedAllRooms_ = value;
}

std::shared_ptr<AlertView> KQVisitorXMPPClient::loadingAlert() const {
  std::scoped_lock lock(mutex_);
  return loadingAlert_;
}

void KQVisitorXMPPClient::setLoadingAlert(std::shared_ptr<AlertView> value) {
  std::scoped_lock lock(mutex_);
  loadingAlert_ = std::move(value);
}

std::shared_ptr<AlertView> KQVisitorXMPPClient::alertForConectivity() const {
  std::scoped_lock lock(mutex_);
  return alertForConectivity_;
}

void KQVisitorXMPPClient::setAlertForConectivity(std::shared_ptr<AlertView> value) {
  std::scoped_lock lock(mutex_);
  alertForConectivity_ = std::move(value);
}

std::shared_ptr<Timer> KQVisitorXMPPClient::timerForQAScreen() const {
  std::scoped_lock lock(mutex_);
  return timerForQAScreen_;
}

void KQVisitorXMPPClient::setTimerForQAScreen(std::shared_ptr<Timer> value) {
  std::scoped_lock lock(mutex_);
  timerForQAScreen_ = std::move(value);
}

// --- Rooms, invitations and notifications -------------------------------------------------

void KQVisitorXMPPClient::sendDefaultRoomConfig(const std::optional<std::string>& /*jid*/) {
  // Acts on the sites manager's current room once the session flow exists: its XMPPRoom is
  // configured with no options (configureRoomUsingOptions(std::nullopt)), then inviteUser().
  inviteUser();
}

void KQVisitorXMPPClient::inviteUser() {
  // Invites "<operatorId>@localhost" into the sites manager's current room, with the room's
  // reason packet, once the session flow and the product's rooms exist.
}

void KQVisitorXMPPClient::removeIdleRooms(const Notification& notification) {
  const auto& info = notification.userInfo;
  if (!info.is_object() || !info.contains("roomId") || info["roomId"].is_null()) {
    throw std::invalid_argument("removeIdleRooms: the notification carries no \"roomId\"");
  }
  // The room "roomId" leaves the rooms of the sites manager's website here once the session
  // flow exists ("siteId" is read and not used).
  NotificationCenter::defaultCenter().post("reloadData");
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::performLoacalNotification(bool notify) {
  if (notify) {
    return;
  }
  const auto host = HostApplication::shared();
  LocalNotification notification;
  notification.fireDate =
      Date::dateWithTimeIntervalSince1970(Date::now().timeIntervalSince1970() + 1.0);
  notification.alertAction = "Launch";
  notification.alertBody = "New Message Received";
  notification.hasAction = true;
  notification.applicationIconBadgeNumber = host->applicationIconBadgeNumber() + badgeCount();
  host->scheduleLocalNotification(notification);
}

std::int32_t KQVisitorXMPPClient::badgeCount() const {
  std::scoped_lock lock(mutex_);
  return badgeCount_;
}

void KQVisitorXMPPClient::setBadgeCount(std::int32_t value) {
  std::scoped_lock lock(mutex_);
  badgeCount_ = value;
}

std::int32_t KQVisitorXMPPClient::messageCounterForOperatorBadge() const {
  std::scoped_lock lock(mutex_);
  return messageCounterForOperatorBadge_;
}

void KQVisitorXMPPClient::setMessageCounterForOperatorBadge(std::int32_t value) {
  std::scoped_lock lock(mutex_);
  messageCounterForOperatorBadge_ = value;
}

bool KQVisitorXMPPClient::operatorScreenActive() const {
  std::scoped_lock lock(mutex_);
  return operatorScreenActive_;
}

void KQVisitorXMPPClient::setOperatorScreenActive(bool value) {
  std::scoped_lock lock(mutex_);
  operatorScreenActive_ = value;
}

std::int64_t KQVisitorXMPPClient::panelType() const {
  std::scoped_lock lock(mutex_);
  return panelType_;
}

void KQVisitorXMPPClient::setPanelType(std::int64_t value) {
  std::scoped_lock lock(mutex_);
  panelType_ = value;
}

std::vector<std::any> KQVisitorXMPPClient::kqCanMessagesArray() const {
  std::scoped_lock lock(mutex_);
  return kqCanMessagesArray_;
}

void KQVisitorXMPPClient::setKqCanMessagesArray(std::vector<std::any> value) {
  std::scoped_lock lock(mutex_);
  kqCanMessagesArray_ = std::move(value);
}

std::any KQVisitorXMPPClient::loadingActivityIndicator() const {
  std::scoped_lock lock(mutex_);
  return loadingActivityIndicator_;
}

void KQVisitorXMPPClient::setLoadingActivityIndicator(std::any value) {
  std::scoped_lock lock(mutex_);
  loadingActivityIndicator_ = std::move(value);
}

std::weak_ptr<void> KQVisitorXMPPClient::chatDelegate() const {
  std::scoped_lock lock(mutex_);
  return chatDelegate_;
}

void KQVisitorXMPPClient::setChatDelegate(std::weak_ptr<void> value) {
  std::scoped_lock lock(mutex_);
  chatDelegate_ = std::move(value);
}

std::weak_ptr<void> KQVisitorXMPPClient::messageDelegate() const {
  std::scoped_lock lock(mutex_);
  return messageDelegate_;
}

void KQVisitorXMPPClient::setMessageDelegate(std::weak_ptr<void> value) {
  std::scoped_lock lock(mutex_);
  messageDelegate_ = std::move(value);
}

// --- Network reachability ------------------------------------------------------------------

void KQVisitorXMPPClient::addInternetListener() {
  auto listener = Reachability::reachabilityForInternetConnection();
  listener->setReachableBlock([](Reachability& /*reachability*/) {});
  listener->setUnreachableBlock([](Reachability& /*reachability*/) { log("UNREACHABLE!"); });
  listener->startNotifier();
  setReachability(std::move(listener));
}

bool KQVisitorXMPPClient::isInternetAvaliable() const {
  // A fresh check each time, not the listener's last word.
  return Reachability::reachabilityForInternetConnection()->currentReachabilityStatus() !=
         NetworkStatus::NotReachable;
}

std::shared_ptr<Reachability> KQVisitorXMPPClient::reachability() const {
  std::scoped_lock lock(mutex_);
  return reachability_;
}

void KQVisitorXMPPClient::setReachability(std::shared_ptr<Reachability> reachability) {
  {
    std::scoped_lock lock(mutex_);
    reachability_.swap(reachability);
  }
  // The previous listener (now in `reachability`) stops outside the lock: stopping waits for
  // a handler in progress.
}

}  // namespace kq
