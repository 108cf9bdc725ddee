#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DateJSON.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Localization.h>
#include <KQVisitorCore/Platform/Reachability.h>
#include <KQVisitorCore/Platform/UserDefaults.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorHTTPRoomTransport.h>

#include <algorithm>

namespace kq {

struct KQVisitorSitesManager::State {
  std::shared_ptr<KQVisitorSite> kqWebsite;
  bool toShowBranding = false;
  std::optional<std::string> websiteDomainNameArabic;
  std::optional<std::string> websiteDomainNameEnglish;
  std::optional<std::string> preferredLanguage;
  Rooms allRooms;
  std::optional<std::string> userName;         // the operator's name from the pre-chat check
  std::optional<std::string> greetingId;       // the answer of "InsGrtInfo"
  std::shared_ptr<Reachability> startWatcher;  // of the last chat start
};

namespace {

// The sites manager of the client: the HTTP operations act on its current room, whichever
// manager they are called on.
std::shared_ptr<KQVisitorRoom> sharedCurrentRoom() {
  return KQVisitorXMPPClient::instance().sitesManager()->getCurrentRoom();
}

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

constexpr Clock::Duration kDelayedJoin = 5s;

// The opening text of a chat started without one.
constexpr const char* kNoOpeningMessage =
    "true AND true CONNECTING: true CONNFAIL: false DISCONNECTING: false DISCONNECTED: false "
    "AUTHENTICATING: true AUTHFAIL: false ERROR: false";

// The value under `key` of an object answer, as text (numbers written out); nullopt when the
// answer is not an object or lacks it.
std::optional<std::string> field(const Json& answer, const char* key) {
  return answer.is_object() && answer.contains(key) ? textValue(answer[key]) : std::nullopt;
}

// The one rule for transport failures of the session flow: the error keeps its domain and code,
// and says status 8 for no internet, 3 for anything else.
KQVisitorWebService::Failure transportFailure(
    std::shared_ptr<KQVisitorSitesManager::Result> result) {
  return [result](std::nullptr_t, const KQError& error) {
    const long status = error.code == HTTPSession::kErrorNotConnectedToInternet ? 8 : 3;
    (*result)(KQError::withStatus(error.domain, error.code, status), nullptr);
  };
}

void request(const Json& parameters, const char* service, KQVisitorWebService::Success success,
             KQVisitorWebService::Failure failure) {
  KQVisitorWebService::sharedInstance().requestDataWithParameters(parameters, "GET", service,
                                                                  success, failure);
}

}  // namespace

KQVisitorSitesManager::KQVisitorSitesManager() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorSitesManager::~KQVisitorSitesManager() = default;

std::shared_ptr<KQVisitorSite> KQVisitorSitesManager::kqWebsite() const {
  return state_->get(&State::kqWebsite);
}

void KQVisitorSitesManager::setKqWebsite(std::shared_ptr<KQVisitorSite> website) {
  state_->set(&State::kqWebsite, std::move(website));
}

bool KQVisitorSitesManager::toShowBranding() const {
  return state_->get(&State::toShowBranding);
}

void KQVisitorSitesManager::setToShowBranding(bool value) {
  state_->set(&State::toShowBranding, value);
}

std::optional<std::string> KQVisitorSitesManager::websiteDomainNameArabic() const {
  return state_->get(&State::websiteDomainNameArabic);
}

void KQVisitorSitesManager::setWebsiteDomainNameArabic(std::optional<std::string> domain) {
  state_->set(&State::websiteDomainNameArabic, std::move(domain));
}

std::optional<std::string> KQVisitorSitesManager::websiteDomainNameEnglish() const {
  return state_->get(&State::websiteDomainNameEnglish);
}

void KQVisitorSitesManager::setWebsiteDomainNameEnglish(std::optional<std::string> domain) {
  state_->set(&State::websiteDomainNameEnglish, std::move(domain));
}

std::optional<std::string> KQVisitorSitesManager::preferredLanguage() const {
  return state_->get(&State::preferredLanguage);
}

void KQVisitorSitesManager::setPreferredLanguage(std::optional<std::string> language) {
  state_->set(&State::preferredLanguage, std::move(language));
}

KQVisitorSitesManager::Rooms KQVisitorSitesManager::allRooms() const {
  return state_->get(&State::allRooms);
}

void KQVisitorSitesManager::setAllRooms(Rooms rooms) {
  state_->set(&State::allRooms, std::move(rooms));
}

// --- Rooms ------------------------------------------------------------------------------------

std::shared_ptr<KQVisitorSite> KQVisitorSitesManager::getWebSite() const {
  return kqWebsite();
}

std::shared_ptr<KQVisitorRoom> KQVisitorSitesManager::getCurrentRoom() const {
  const auto website = kqWebsite();
  if (!website) {
    return nullptr;
  }
  const auto rooms = website->rooms()->snapshot();
  return rooms.empty() ? nullptr : rooms.front().second;
}

void KQVisitorSitesManager::clearCurrentRoom() {
  if (const auto website = kqWebsite()) {
    website->rooms()->removeAllObjects();
  }
}

void KQVisitorSitesManager::joinRoom(const std::shared_ptr<KQVisitorRoom>& room) {
  state_->with([&room](State& state) {
    if (std::find(state.allRooms.begin(), state.allRooms.end(), room) == state.allRooms.end()) {
      state.allRooms.insert(state.allRooms.begin(), room);
    }
  });
}

void KQVisitorSitesManager::leaveRoom(const std::shared_ptr<KQVisitorRoom>& room) {
  Rooms left;  // released outside the lock: a room's end may call back in
  state_->with([&](State& state) {
    const auto removed = std::remove(state.allRooms.begin(), state.allRooms.end(), room);
    left.assign(std::make_move_iterator(removed), std::make_move_iterator(state.allRooms.end()));
    state.allRooms.erase(removed, state.allRooms.end());
  });
}

std::shared_ptr<KQVisitorRoom> KQVisitorSitesManager::getRoomById(const std::string& roomId) const {
  for (const auto& room : allRooms()) {
    if (room && room->roomId() == roomId) {
      return room;
    }
  }
  return nullptr;
}

void KQVisitorSitesManager::joinAllOperatorRooms() {
  KQVisitorXMPPClient::instance().setIsDisconnectedAllRooms(false);
  if (const auto room = getCurrentRoom()) {
    room->connect();
  }
}

void KQVisitorSitesManager::closeAllOperatorRooms() {
  if (const auto room = getCurrentRoom()) {
    room->closeRoom();
  }
  clearCurrentRoom();
}

// --- Chat over HTTP ---------------------------------------------------------------------------

void KQVisitorSitesManager::sendHTTPMessage(const std::string& text, MessageCallback callback) {
  KQVisitorHTTPRoomTransport::insertMessage(sharedCurrentRoom(), text, std::move(callback));
}

void KQVisitorSitesManager::getHTTPMessage(MessageCallback callback) {
  KQVisitorHTTPRoomTransport::fetchMessage(sharedCurrentRoom(), std::move(callback));
}

void KQVisitorSitesManager::closeHTTPSession(MessageCallback callback) {
  KQVisitorHTTPRoomTransport::endChat(sharedCurrentRoom(), std::move(callback));
}

void KQVisitorSitesManager::closeSession(const std::any& /*sender*/) {
  const auto manager = KQVisitorXMPPClient::instance().sitesManager();
  const auto room = manager->getCurrentRoom();
  manager->clearCurrentRoom();
  if (room) {
    room->leaveHTTPRoom();
    room->destroyRoom();
    room->clearAllMessages();
  }
}

// --- The session flow -------------------------------------------------------------------------

void KQVisitorSitesManager::visitorPanelWithResult(Result result) {
  auto shared = std::make_shared<Result>(std::move(result));
  const auto domain =
      preferredLanguage() == "ar" ? websiteDomainNameArabic() : websiteDomainNameEnglish();
  if (!domain) {
    (*shared)(KQError::withStatus("Domain not mentioned", 400, 5), nullptr);
    return;
  }
  auto self = shared_from_this();
  request(
      {{"parD", *domain}}, "GetWI",
      [self, shared, domain = *domain](std::nullptr_t, const Json& website) {
        if (website.is_null()) {
          (*shared)(KQError::withStatus(localizedString("Website call issue"), 400, 3), nullptr);
          return;
        }
        const auto websiteId = field(website, "W_I");
        if (websiteId == "0") {
          (*shared)(KQError::withStatus(localizedString("Website call issue"), 400, 5), nullptr);
          return;
        }
        request(
            nullptr, "ReadValue",
            [self, shared, domain, website, websiteId](std::nullptr_t, const Json& stamp) {
              self->readValueAnswered(domain, website, websiteId, stamp, shared);
            },
            transportFailure(shared));
      },
      transportFailure(shared));
}

void KQVisitorSitesManager::readValueAnswered(const std::string& domain, const Json& website,
                                              const std::optional<std::string>& websiteId,
                                              const Json& stamp,
                                              const std::shared_ptr<Result>& result) {
  if (website.is_null()) {
    (*result)(KQError::withStatus(localizedString("Some thing went wrong"), 400, 5), nullptr);
    return;
  }
  const Json timeZone = website.value("T_Z", Json());
  const Json languageId = website.value("P_L", Json());
  setToShowBranding(website.contains("S_B") && boolValue(website["S_B"]));

  // A new data stamp from the service drops the visitor record cached for the website.
  auto& defaults = UserDefaults::standard();
  const std::string cacheKey = "V_Inf:" + describe(websiteId);
  const auto currentStamp = field(stamp, "response");
  if (!currentStamp || defaults.stringForKey("d_time") != currentStamp) {
    defaults.setObject(stamp.is_object() ? stamp.value("response", Json()) : Json(), "d_time");
    defaults.removeObjectForKey(cacheKey);
  }
  if (const auto cached = defaults.objectForKey(cacheKey)) {
    chatPreLan(*cached, *result);
    return;
  }
  Json parameters;
  parameters["parWU"] = domain;
  parameters["parWI"] = jsonValue(websiteId);
  parameters["parRef"] = "";
  auto self = shared_from_this();
  request(
      parameters, "InVsIn",
      [self, result, domain, websiteId, timeZone, languageId, cacheKey](std::nullptr_t,
                                                                        const Json& registered) {
        if (registered.is_null()) {
          (*result)(KQError::withStatus(localizedString("Internet not availalbe"), 400, 8),
                    nullptr);
          return;
        }
        // The visitor record; a value the service left out is left out.
        Json record = Json::object();
        const auto put = [&record](const char* key, const Json& value) {
          if (!value.is_null()) {
            record[key] = value;
          }
        };
        put("V_I", registered.value("V_I", Json()));
        put("V_N", registered.value("V_N", Json()));
        put("W_I", jsonValue(websiteId));
        put("S_I", registered.value("S_I", Json()));
        put("parD", domain);
        put("parTZ", timeZone);
        put("L_I", languageId);
        auto& store = UserDefaults::standard();
        store.setObject(record, cacheKey);
        store.synchronize();
        self->chatPreLan(record, *result);
      },
      transportFailure(result));
}

void KQVisitorSitesManager::chatPreLan(const Json& visitor, Result result) {
  auto shared = std::make_shared<Result>(std::move(result));
  const Json record = visitor.is_object() ? visitor : Json::object();
  const auto visitorName = field(record, "V_N");
  if (const auto current = KQVisitorWebService::sharedInstance().currentUser()) {
    current->setUsername(visitorName);
    current->setName(visitorName);
  }
  auto self = shared_from_this();
  Json check;
  check["parWI"] = record.value("W_I", Json());
  check["parVI"] = record.value("V_I", Json());
  request(
      check, "IsWbBl",
      [self, shared, record](std::nullptr_t, const Json& blocked) {
        if (field(blocked, "response") != "0") {
          (*shared)(KQError::withStatus("WebSite Blocked", 400, 4), nullptr);
          return;
        }
        // The service expects the check twice, the second time with the keys swapped.
        Json again;
        again["parVI"] = record.value("V_I", Json());
        again["parWI"] = record.value("W_I", Json());
        request(
            again, "IsWbBl",
            [self, shared, record](std::nullptr_t, const Json& /*answer*/) {
              self->askForOperator(record, shared);
            },
            transportFailure(shared));
      },
      transportFailure(shared));
}

void KQVisitorSitesManager::askForOperator(const Json& record,
                                           const std::shared_ptr<Result>& result) {
  Json parameters;
  parameters["parS"] = record.value("S_I", Json());
  parameters["parD"] = record.value("parD", Json());
  parameters["parIsNew"] = "false";
  parameters["parWI"] = record.value("W_I", Json());
  if (record.contains("parTZ")) {
    parameters["parTZ"] = record["parTZ"];
  }
  if (record.contains("V_I")) {
    parameters["parVI"] = record["V_I"];
  }
  if (preferredLanguage() == "ar") {
    parameters["parLI"] = "5";
  } else if (record.contains("L_I")) {
    parameters["parLI"] = record["L_I"];
  }
  auto self = shared_from_this();
  request(
      parameters, "ChatPreByLan",
      [self, result, record](std::nullptr_t, const Json& answer) {
        self->operatorAnswered(record, answer, result);
      },
      transportFailure(result));
}

void KQVisitorSitesManager::operatorAnswered(const Json& record, const Json& answer,
                                             const std::shared_ptr<Result>& result) {
  if (answer.is_null()) {
    (*result)(KQError::withStatus(localizedString("Internet not availalbe"), 400, 8), nullptr);
    return;
  }
  const auto operatorId = field(answer, "U_I");
  const auto operatorName = field(answer, "U_N");
  state_->set(&State::userName, operatorName);
  const auto websiteId = field(record, "W_I");
  auto& client = KQVisitorXMPPClient::instance();
  const auto manager = client.sitesManager();
  if (!manager->getWebSite()) {
    auto website = std::make_shared<KQVisitorSite>();
    website->setSiteId(websiteId);
    website->setSiteName(field(record, "parD"));
    manager->setKqWebsite(std::move(website));
  }
  Json success;
  success["websiteID"] = record.value("W_I", Json());
  if (!operatorId) {
    (*result)(KQError::withStatus("Operator not found", 500, 2), success);
    return;
  }
  auto visitor = std::make_shared<KQVisitorUser>();
  visitor->setUsername(field(record, "V_N"));
  visitor->setUserId(field(record, "V_I"));
  auto agent = std::make_shared<KQVisitorUser>();
  agent->setUsername(operatorName);
  agent->setUserId(operatorId);
  const auto chatId = field(answer, "C_I");
  client.createXmpproomwithwebsiteID(websiteId, chatId, visitor, operatorId, field(answer, "AG_M"),
                                     agent);
  KQVisitorWebService::sharedInstance().loginClientUser(visitor);
  const auto room = manager->getCurrentRoom();
  if (room && intValue(field(answer, "I_AIC").value_or("")) == 1) {
    // The chat is open on the server already: join it once the login has had time.
    room->setRoomId(chatId);
    DispatchQueue::main()->asyncAfter(kDelayedJoin, [room, manager] {
      if (!KQVisitorWebService::sharedInstance().isHTTPClient()) {
        KQVisitorXMPPClient::instance().joinXmpproomwitChatID(room->roomId());
      } else if (manager->getCurrentRoom() == room) {  // over HTTP the chat goes on by polling
        manager->pollChat(room, room->roomId());
      }
    });
  }
  if (room) {
    room->addOperatorGreetingMessage();
  }
  Json greeting;
  greeting["parUI"] = jsonValue(operatorId);
  greeting["parWI"] = record.value("W_I", Json());
  greeting["parVI"] = record.value("V_I", Json());
  auto self = shared_from_this();
  request(
      greeting, "InsGrtInfo",
      [self, result, success](std::nullptr_t, const Json& recorded) {
        self->state_->set(&State::greetingId, field(recorded, "response"));
        (*result)(std::nullopt, success);
      },
      [result](std::nullptr_t, const KQError& /*error*/) {
        (*result)(KQError::withStatus("InsGrtInfo", 400, 3), nullptr);
      });
}

// --- Starting the chat ------------------------------------------------------------------------

void KQVisitorSitesManager::startChat(const std::optional<std::string>& message,
                                      StartCallback callback) {
  const auto room = KQVisitorXMPPClient::instance().sitesManager()->getCurrentRoom();
  if (!room) {
    return;
  }
  if (const auto chatId = room->roomId()) {
    startChatWithChatId(chatId, std::move(callback));
    return;
  }
  const auto visitor = room->getVisitor();
  const auto site = room->site();
  const auto siteName = site ? site->siteName() : std::nullopt;
  const auto [greetingId, operatorName] =
      state_->with([](const State& state) { return std::pair(state.greetingId, state.userName); });
  Json parameters;
  parameters["parUI"] = jsonValue(room->operatorId());
  parameters["parAUI"] = jsonValue(room->operatorId());
  parameters["parWI"] = jsonValue(site ? site->siteId() : std::nullopt);
  parameters["parRStatus"] = "false";
  parameters["parVN"] = jsonValue(visitor ? visitor->username() : std::nullopt);
  parameters["parGI"] = jsonValue(greetingId);
  parameters["parGM"] = room->greetingMessage().value_or("hi");
  parameters["parCM"] = message.value_or(kNoOpeningMessage);
  parameters["parOpN"] = jsonValue(operatorName);
  parameters["parR"] = "1401234567890";
  parameters["parVI"] = jsonValue(visitor ? visitor->userId() : std::nullopt);
  parameters["parUrl"] = "mobile";
  const char* service = "InsertCInfoM";
  if (visitor && (visitor->name() || visitor->email() || visitor->phone())) {
    service = "InsertCInfoMwithSurvey";
    parameters["parDM"] = jsonValue(siteName);
    parameters["parLan"] = "-1";
    parameters["parUrl"] = jsonValue(siteName);
    parameters["parReason"] = "";
    parameters["parName"] = visitor->name().value_or("");
    parameters["parEmail"] = visitor->email().value_or("");
    parameters["parPhone"] = visitor->phone().value_or("");
  }
  auto shared = std::make_shared<StartCallback>(std::move(callback));
  auto self = shared_from_this();
  request(
      parameters, service,
      [self, shared](std::nullptr_t, const Json& answer) {
        self->startChatWithChatId(
            answer.is_array() && !answer.empty() ? textValue(answer[0]) : std::nullopt, *shared);
      },
      [shared](std::nullptr_t, const KQError& /*error*/) {
        (*shared)(KQError::withStatus("Network", 400, 3), nullptr, false);
      });
}

void KQVisitorSitesManager::startChatWithChatId(const std::optional<std::string>& chatId,
                                                StartCallback callback) {
  auto shared = std::make_shared<StartCallback>(std::move(callback));
  auto watcher = Reachability::reachabilityWithHostname(KQVisitorConfig::shared().reachabilityHost);
  auto& client = KQVisitorXMPPClient::instance();
  const auto manager = client.sitesManager();
  const auto room = manager->getCurrentRoom();
  const auto site = room ? room->site() : nullptr;
  Json started;
  started["websiteID"] = jsonValue(site ? site->siteId() : std::nullopt);
  if (intValue(chatId.value_or("")) == 0) {
    (*shared)(KQError::withStatus("Network", 400, 3), nullptr, false);
    return;
  }
  if (!client.isInternetAvaliable()) {
    (*shared)(KQError::withStatus("Internet", 400, 8), nullptr, false);
  } else if (KQVisitorWebService::sharedInstance().isHTTPClient()) {
    // No room to wait for: the chat runs by polling, joined as soon as it polls.
    if (room) {
      manager->pollChat(room, chatId);
      (*shared)(std::nullopt, started, true);
      return;
    }
  } else if (const auto joining = client.joinXmpproomwitChatID(chatId)) {
    joining->addRoomUpdatesCallBack(std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
        [shared, watcher, started](const std::any& object, std::int64_t status) {
          if (status != KQRoomUpdateJoined) {
            return;
          }
          // The listener asks to be removed by a reference that was still empty when it was
          // made: it stays, and answers again after every later rejoin.
          if (const auto* joined = std::any_cast<std::shared_ptr<KQVisitorRoom>>(&object)) {
            (*joined)->removeRoomUpdateCallback(nullptr);
          }
          watcher->stopNotifier();
          (*shared)(std::nullopt, started, true);
        }));
  }
  watcher->setReachableBlock(
      [](Reachability& /*reachability*/) { DispatchQueue::main()->async([] {}); });
  watcher->setUnreachableBlock([shared](Reachability& /*reachability*/) {
    (*shared)(KQError::withStatus("Network", 400, 3), nullptr, false);
  });
  watcher->startNotifier();
  state_->set(&State::startWatcher, std::move(watcher));
}

void KQVisitorSitesManager::pollChat(const std::shared_ptr<KQVisitorRoom>& room,
                                     const std::optional<std::string>& chatId) {
  room->setRoomId(chatId);
  joinRoom(room);
  room->startPolling();
}

}  // namespace kq
