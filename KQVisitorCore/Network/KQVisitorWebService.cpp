#include <KQVisitorCore/Network/KQVisitorWebService.h>

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Network/detail/WebServiceText.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/PercentEscapes.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {

struct KQVisitorWebService::State {
  std::shared_ptr<KQVisitorUser> currentUser;
  std::shared_ptr<Timer> timer;
};

KQVisitorWebService::KQVisitorWebService() : KQVisitorWebService(Dependencies{}) {}

KQVisitorWebService::KQVisitorWebService(Dependencies dependencies)
    : dependencies_(std::move(dependencies)), state_(std::make_unique<Guarded<State>>()) {}

KQVisitorWebService::~KQVisitorWebService() = default;

KQVisitorWebService& KQVisitorWebService::sharedInstance() {
  // Never destroyed: completions on the HTTP session's thread may still reach it at exit.
  static auto* instance = new KQVisitorWebService;
  return *instance;
}

std::shared_ptr<KQVisitorUser> KQVisitorWebService::currentUser() const {
  return state_->get(&State::currentUser);
}

void KQVisitorWebService::setCurrentUser(std::shared_ptr<KQVisitorUser> currentUser) {
  state_->set(&State::currentUser, std::move(currentUser));
}

std::shared_ptr<Timer> KQVisitorWebService::timer() const {
  return state_->get(&State::timer);
}

void KQVisitorWebService::setTimer(std::shared_ptr<Timer> timer) {
  state_->set(&State::timer, std::move(timer));
}

std::shared_ptr<HTTPSession> KQVisitorWebService::session() const {
  return dependencies_.session ? dependencies_.session : HTTPSession::sharedSession();
}

bool KQVisitorWebService::internetAvailable() const {
  return dependencies_.isInternetAvaliable ? dependencies_.isInternetAvaliable()
                                           : KQVisitorXMPPClient::instance().isInternetAvaliable();
}

// --- Login -----------------------------------------------------------------------------------

void KQVisitorWebService::loginClientUser(std::shared_ptr<KQVisitorUser> user) {
  setCurrentUser(std::move(user));
  if (!isHTTPClient()) {
    KQVisitorXMPPClient::instance().connectUser(currentUser());
  }
}

void KQVisitorWebService::logout() {
  const auto stopped =
      state_->with([](State& state) { return std::exchange(state.timer, nullptr); });
  // Outside the lock: invalidate() waits for a tick in progress, which may use this object.
  if (stopped) {
    stopped->invalidate();
  }
  KQVisitorXMPPClient::instance().signout();
}

// --- JSON service ----------------------------------------------------------------------------

std::string KQVisitorWebService::jsonServiceBaseURL() const {
  if (isHTTPClient()) {
    return KQVisitorConfig::sharedSetting(&KQVisitorConfig::jsonServiceBetaOrigin,
                                          {"jsonServiceBetaOrigin", "caFile"})
        .append(kBetaServicePath);
  }
  return KQVisitorConfig::sharedSetting(&KQVisitorConfig::jsonServiceProductionOrigin,
                                        {"jsonServiceProductionOrigin", "caFile"})
      .append(kProductionServicePath);
}

std::string KQVisitorWebService::urlBuilder(const nlohmann::ordered_json& parameters) {
  std::string query = "?";
  if (!parameters.is_object()) {
    return query;
  }
  for (const auto& [key, value] : parameters.get_ref<const nlohmann::ordered_json::object_t&>()) {
    query.append(key).push_back('=');
    detail::appendParameter(query, value);
    query.push_back('&');
  }
  return query;
}

void KQVisitorWebService::requestDataWithParameters(const nlohmann::ordered_json& parameters,
                                                    const std::string& method,
                                                    const std::string& serviceName,
                                                    const Success& success,
                                                    const Failure& failure) {
  std::string baseURL;
  try {
    baseURL = jsonServiceBaseURL();
  } catch (const KQVisitorConfig::Error& error) {
    if (failure) {
      failure(nullptr, detail::configurationError(error.what()));
    }
    return;
  }

  std::string url = std::move(baseURL);
  url.append(serviceName);
  std::optional<std::string> body;
  if (method == "GET") {
    url = stringByAddingPercentEscapes(url.append(urlBuilder(parameters)));
  } else {
    body = parameters.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  }
  HTTPRequest request(std::move(url), dependencies_.requestTimeout);
  request.httpBody = std::move(body);
  request.httpMethod = method;
  request.setValue("text/json", "Content-Type");

  session()->dataTaskWithRequest(
      std::move(request), [success, failure](const std::optional<std::string>& data,
                                             const std::optional<HTTPResponse>& /*response*/,
                                             std::optional<KQError> error) {
        if (error) {
          if (failure) {
            failure(nullptr, std::move(*error));
          }
          return;
        }
        if (success) {
          success(nullptr,
                  resultFromResponseData(data ? std::string_view(*data) : std::string_view()));
        }
      });

  // Asked only now, after the request has left: the request is not held back, and a caller
  // without network hears of it twice (now, and when the request ends).
  if (!internetAvailable() && failure) {
    failure(nullptr, KQError::withStatus(std::string(kNoInternetMessage), 400, 3));
  }
}

nlohmann::ordered_json KQVisitorWebService::resultFromResponseData(std::string_view data) {
  const std::string cleaned = detail::cleanedResponseText(detail::decodeUTF8(data));
  nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(cleaned, nullptr, false);
  // Only a document counts: a bare string, number or literal is not accepted at the top level.
  if (!parsed.is_discarded() && (parsed.is_object() || parsed.is_array())) {
    return parsed;
  }
  nlohmann::ordered_json fallback = nlohmann::ordered_json::object();
  fallback["response"] = detail::removingCharacters(cleaned, "\"");
  return fallback;
}

}  // namespace kq
