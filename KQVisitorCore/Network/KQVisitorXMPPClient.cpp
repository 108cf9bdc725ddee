#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/HostApplication.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Reachability.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Utilities/DatePlus.h>
#include <KQVisitorCore/XMPP/XMPPAnonymousAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPCapabilities.h>
#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
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

// The stream and the modules set up around it, replaced as one.
struct XMPPModules {
  std::shared_ptr<xmpp::XMPPStream> stream;
  std::shared_ptr<xmpp::XMPPReconnect> reconnect;
  std::shared_ptr<xmpp::XMPPRoster> roster;
  std::shared_ptr<xmpp::XMPPRosterMemoryStorage> rosterStorage;
  std::shared_ptr<xmpp::XMPPvCardMemoryStorage> vCardStorage;
  std::shared_ptr<xmpp::XMPPvCardTempModule> vCardTempModule;
  std::shared_ptr<xmpp::XMPPvCardAvatarModule> vCardAvatarModule;
  std::shared_ptr<xmpp::XMPPCapabilities> capabilities;
  std::shared_ptr<xmpp::XMPPCapabilitiesMemoryStorage> capabilitiesStorage;
};

struct KQVisitorXMPPClient::State {
  std::shared_ptr<KQVisitorSitesManager> sitesManager;
  std::shared_ptr<Reachability> reachability;
  XMPPModules modules;

  // Connection.
  bool allowSelfSignedCertificates = false;
  bool allowSSLHostNameMismatch = false;
  bool isXmppConnected = false;
  bool isxmppStreamDisconnected = false;
  bool isDisconnectedAllRooms = false;
  std::shared_ptr<AlertView> loadingAlert;
  std::shared_ptr<AlertView> alertForConectivity;
  std::shared_ptr<Timer> timerForQAScreen;

  // Rooms, invitations and notifications.
  std::int32_t badgeCount = 0;
  std::int32_t messageCounterForOperatorBadge = 0;
  bool operatorScreenActive = false;
  std::int64_t panelType = 0;
  std::vector<std::any> kqCanMessagesArray;
  std::any loadingActivityIndicator;
  std::weak_ptr<void> chatDelegate;
  std::weak_ptr<void> messageDelegate;
};

KQVisitorXMPPClient::KQVisitorXMPPClient() : state_(std::make_unique<Guarded<State>>()) {}

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
  state_->with([](State& state) {
    state.badgeCount = 0;
    state.messageCounterForOperatorBadge = 0;
  });
  addInternetListener();
}

std::shared_ptr<KQVisitorSitesManager> KQVisitorXMPPClient::sitesManager() {
  return state_->with([](State& state) {
    if (!state.sitesManager) {
      state.sitesManager = makeSitesManager();
    }
    return state.sitesManager;
  });
}

void KQVisitorXMPPClient::setSitesManager(std::shared_ptr<KQVisitorSitesManager> sitesManager) {
  state_->set(&State::sitesManager, std::move(sitesManager));
}

// --- Connection ----------------------------------------------------------------------------

namespace {

constexpr std::string_view kResource = "TellioiPhone";

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
  XMPPModules built;
  const auto& stream = built.stream = xmpp::XMPPStream::create();
  stream->setEnableBackgroundingOnSocket(true);

  const auto& reconnect = built.reconnect = std::make_shared<xmpp::XMPPReconnect>();
  reconnect->setAutoReconnect(true);
  reconnect->setReconnectTimerInterval(
      std::chrono::duration<double>(KQVisitorConfig::shared().xmppReconnectInterval));

  built.rosterStorage = std::make_shared<xmpp::XMPPRosterMemoryStorage>();
  const auto& roster = built.roster = std::make_shared<xmpp::XMPPRoster>(built.rosterStorage);
  roster->setAutoFetchRoster(true);
  roster->setAutoAcceptKnownPresenceSubscriptionRequests(true);

  built.vCardStorage = xmpp::XMPPvCardMemoryStorage::sharedInstance();
  built.vCardTempModule = std::make_shared<xmpp::XMPPvCardTempModule>(built.vCardStorage);
  built.vCardAvatarModule = std::make_shared<xmpp::XMPPvCardAvatarModule>(built.vCardTempModule);

  built.capabilitiesStorage = xmpp::XMPPCapabilitiesMemoryStorage::sharedInstance();
  built.capabilities = std::make_shared<xmpp::XMPPCapabilities>(built.capabilitiesStorage);
  built.capabilities->setAutoFetchHashedCapabilities(true);
  built.capabilities->setAutoFetchNonHashedCapabilities(false);

  reconnect->activate(stream);
  roster->activate(stream);
  built.vCardTempModule->activate(stream);
  built.vCardAvatarModule->activate(stream);
  built.capabilities->activate(stream);

  const auto self = shared_from_this();
  const auto& main = DispatchQueue::main();
  reconnect->addDelegate(self, main);
  stream->addDelegate(self, main);
  roster->addDelegate(self, main);

  const KQVisitorConfig config = KQVisitorConfig::shared();
  stream->setHostName(config.xmppHost);
  stream->setHostPort(static_cast<std::uint16_t>(config.xmppPort));
  stream->setStartTLSPolicy(xmpp::XMPPStreamStartTLSPolicy::Preferred);

  state_->with([&built](State& state) {
    state.modules = std::move(built);
    state.allowSSLHostNameMismatch = false;
  });
}

void KQVisitorXMPPClient::teardownStream() {
  const XMPPModules old =
      state_->with([](State& state) { return std::exchange(state.modules, {}); });
  if (old.stream) {
    old.stream->removeDelegate(this);
  }
  if (old.roster) {
    old.roster->removeDelegate(this);
  }
  for (const std::shared_ptr<xmpp::XMPPModule>& module :
       std::initializer_list<std::shared_ptr<xmpp::XMPPModule>>{
           old.reconnect, old.roster, old.vCardTempModule, old.vCardAvatarModule,
           old.capabilities}) {
    if (module) {
      module->deactivate();
    }
  }
  if (old.stream) {
    old.stream->disconnect();
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
  // A server setting the configuration file broke is not replaced by a default server.
  try {
    KQVisitorConfig::sharedFor({"xmppHost", "xmppPort", "caFile"});
  } catch (const KQVisitorConfig::Error& error) {
    log("KQVisitorXMPPClient: not connecting: ", error.what());
    return false;
  }
  stream->setMyJID(jid);
  KQError error;
  if (!stream->connectWithTimeout(xmpp::XMPPStreamTimeoutNone, &error)) {
    log("KQVisitorXMPPClient: cannot connect: ", error.description());
    return false;
  }
  return true;
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
bool KQVisitorXMPPClient::authenticateAnonymousUser() {
  bool result = true;
  const auto stream = xmppStream();
  if (stream && stream->supportsAnonymousAuthentication()) {
    KQError error;
    result = stream->authenticate(std::make_shared<xmpp::XMPPAnonymousAuthentication>(), &error);
    if (!result) {
      log("KQVisitorXMPPClient: cannot authenticate: ", error.description());
    }
  }
  return result;
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::goOnline() {
  if (const auto stream = xmppStream()) {
    stream->sendElement(xmpp::XMPPPresence());
  }
  // After a reconnect the current room joins again.
  rejoinSessionRooms();
}

// NOLINTNEXTLINE(readability-make-member-function-const): acts on the connection it owns
void KQVisitorXMPPClient::goOffline() {
  if (const auto stream = xmppStream()) {
    stream->sendElement(xmpp::XMPPPresence(std::string("unavailable"), std::nullopt));
  }
}

void KQVisitorXMPPClient::disconnect() {
  closeSessionRooms();
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
  const auto timer =
      state_->with([](State& state) { return std::exchange(state.timerForQAScreen, nullptr); });
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
  const auto [alert, reconnect] = state_->with([](State& state) {
    state.isxmppStreamDisconnected = false;
    return std::pair(std::exchange(state.loadingAlert, nullptr), state.modules.reconnect);
  });
  dismissLoadingAlert(alert);
  if (reconnect) {
    reconnect->manualStart();
  }
  NotificationCenter::defaultCenter().post("LoginSuccess", std::any(true));
  NotificationCenter::defaultCenter().post("ConnectNotification");
}

void KQVisitorXMPPClient::xmppStreamDidNotAuthenticate(xmpp::XMPPStream& /*sender*/,
                                                       const xmpp::XMPPElement& error) {
  log("KQVisitorXMPPClient: the server refused the login: ", error.XMLString());
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
                                                  const std::optional<KQError>& error) {
  if (error) {
    log("KQVisitorXMPPClient: the connection ended: ", error->description());
  }
  const auto alert = state_->with([](State& state) -> std::shared_ptr<AlertView> {
    if (state.isxmppStreamDisconnected) {
      return nullptr;
    }
    if (state.isXmppConnected) {
      state.isXmppConnected = false;  // the first loss after a working connection
      return nullptr;
    }
    // A disconnect while not connected: a failed connect or reconnect attempt.
    state.isxmppStreamDisconnected = true;
    return state.loadingAlert;
  });
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
  return state_->with([](const State& state) { return state.modules.stream; });
}

std::shared_ptr<xmpp::XMPPReconnect> KQVisitorXMPPClient::xmppReconnect() const {
  return state_->with([](const State& state) { return state.modules.reconnect; });
}

std::shared_ptr<xmpp::XMPPRoster> KQVisitorXMPPClient::xmppRoster() const {
  return state_->with([](const State& state) { return state.modules.roster; });
}

std::shared_ptr<xmpp::XMPPRosterMemoryStorage> KQVisitorXMPPClient::xmppRosterStorage() const {
  return state_->with([](const State& state) { return state.modules.rosterStorage; });
}

std::shared_ptr<xmpp::XMPPvCardMemoryStorage> KQVisitorXMPPClient::xmppvCardStorage() const {
  return state_->with([](const State& state) { return state.modules.vCardStorage; });
}

std::shared_ptr<xmpp::XMPPvCardTempModule> KQVisitorXMPPClient::xmppvCardTempModule() const {
  return state_->with([](const State& state) { return state.modules.vCardTempModule; });
}

std::shared_ptr<xmpp::XMPPvCardAvatarModule> KQVisitorXMPPClient::xmppvCardAvatarModule() const {
  return state_->with([](const State& state) { return state.modules.vCardAvatarModule; });
}

std::shared_ptr<xmpp::XMPPCapabilities> KQVisitorXMPPClient::xmppCapabilities() const {
  return state_->with([](const State& state) { return state.modules.capabilities; });
}

std::shared_ptr<xmpp::XMPPCapabilitiesMemoryStorage> KQVisitorXMPPClient::xmppCapabilitiesStorage()
    const {
  return state_->with([](const State& state) { return state.modules.capabilitiesStorage; });
}

bool KQVisitorXMPPClient::allowSelfSignedCertificates() const {
  return state_->get(&State::allowSelfSignedCertificates);
}

void KQVisitorXMPPClient::setAllowSelfSignedCertificates(bool value) {
  state_->set(&State::allowSelfSignedCertificates, value);
}

bool KQVisitorXMPPClient::allowSSLHostNameMismatch() const {
  return state_->get(&State::allowSSLHostNameMismatch);
}

void KQVisitorXMPPClient::setAllowSSLHostNameMismatch(bool value) {
  state_->set(&State::allowSSLHostNameMismatch, value);
}

bool KQVisitorXMPPClient::isXmppConnected() const {
  return state_->get(&State::isXmppConnected);
}

void KQVisitorXMPPClient::setIsXmppConnected(bool value) {
  state_->set(&State::isXmppConnected, value);
}

bool KQVisitorXMPPClient::isxmppStreamDisconnected() const {
  return state_->get(&State::isxmppStreamDisconnected);
}

void KQVisitorXMPPClient::setIsxmppStreamDisconnected(bool value) {
  state_->set(&State::isxmppStreamDisconnected, value);
}

bool KQVisitorXMPPClient::isDisconnectedAllRooms() const {
  return state_->get(&State::isDisconnectedAllRooms);
}

void KQVisitorXMPPClient::setIsDisconnectedAllRooms(bool value) {
  state_->set(&State::isDisconnectedAllRooms, value);
}

std::shared_ptr<AlertView> KQVisitorXMPPClient::loadingAlert() const {
  return state_->get(&State::loadingAlert);
}

void KQVisitorXMPPClient::setLoadingAlert(std::shared_ptr<AlertView> value) {
  state_->set(&State::loadingAlert, std::move(value));
}

std::shared_ptr<AlertView> KQVisitorXMPPClient::alertForConectivity() const {
  return state_->get(&State::alertForConectivity);
}

void KQVisitorXMPPClient::setAlertForConectivity(std::shared_ptr<AlertView> value) {
  state_->set(&State::alertForConectivity, std::move(value));
}

std::shared_ptr<Timer> KQVisitorXMPPClient::timerForQAScreen() const {
  return state_->get(&State::timerForQAScreen);
}

void KQVisitorXMPPClient::setTimerForQAScreen(std::shared_ptr<Timer> value) {
  state_->set(&State::timerForQAScreen, std::move(value));
}

// --- Rooms, invitations and notifications -------------------------------------------------

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
  return state_->get(&State::badgeCount);
}

void KQVisitorXMPPClient::setBadgeCount(std::int32_t value) {
  state_->set(&State::badgeCount, value);
}

std::int32_t KQVisitorXMPPClient::messageCounterForOperatorBadge() const {
  return state_->get(&State::messageCounterForOperatorBadge);
}

void KQVisitorXMPPClient::setMessageCounterForOperatorBadge(std::int32_t value) {
  state_->set(&State::messageCounterForOperatorBadge, value);
}

bool KQVisitorXMPPClient::operatorScreenActive() const {
  return state_->get(&State::operatorScreenActive);
}

void KQVisitorXMPPClient::setOperatorScreenActive(bool value) {
  state_->set(&State::operatorScreenActive, value);
}

std::int64_t KQVisitorXMPPClient::panelType() const {
  return state_->get(&State::panelType);
}

void KQVisitorXMPPClient::setPanelType(std::int64_t value) {
  state_->set(&State::panelType, value);
}

std::vector<std::any> KQVisitorXMPPClient::kqCanMessagesArray() const {
  return state_->get(&State::kqCanMessagesArray);
}

void KQVisitorXMPPClient::setKqCanMessagesArray(std::vector<std::any> value) {
  state_->set(&State::kqCanMessagesArray, std::move(value));
}

std::any KQVisitorXMPPClient::loadingActivityIndicator() const {
  return state_->get(&State::loadingActivityIndicator);
}

void KQVisitorXMPPClient::setLoadingActivityIndicator(std::any value) {
  state_->set(&State::loadingActivityIndicator, std::move(value));
}

std::weak_ptr<void> KQVisitorXMPPClient::chatDelegate() const {
  return state_->get(&State::chatDelegate);
}

void KQVisitorXMPPClient::setChatDelegate(std::weak_ptr<void> value) {
  state_->set(&State::chatDelegate, std::move(value));
}

std::weak_ptr<void> KQVisitorXMPPClient::messageDelegate() const {
  return state_->get(&State::messageDelegate);
}

void KQVisitorXMPPClient::setMessageDelegate(std::weak_ptr<void> value) {
  state_->set(&State::messageDelegate, std::move(value));
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
  return state_->get(&State::reachability);
}

void KQVisitorXMPPClient::setReachability(std::shared_ptr<Reachability> reachability) {
  // The previous listener stops outside the lock: stopping waits for a handler in progress.
  state_->set(&State::reachability, std::move(reachability));
}

}  // namespace kq
