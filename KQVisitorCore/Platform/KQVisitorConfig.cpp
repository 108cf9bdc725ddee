#include <KQVisitorCore/Platform/KQVisitorConfig.h>

#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>

namespace kq {
namespace {

using Json = nlohmann::ordered_json;

struct StringSetting {
  std::string_view name;
  std::string KQVisitorConfig::*member;
};

constexpr StringSetting kStringSettings[] = {
    {"jsonServiceProductionOrigin", &KQVisitorConfig::jsonServiceProductionOrigin},
    {"jsonServiceBetaOrigin", &KQVisitorConfig::jsonServiceBetaOrigin},
    {"soapServiceOrigin", &KQVisitorConfig::soapServiceOrigin},
    {"soapNamespace", &KQVisitorConfig::soapNamespace},
    {"uploadServiceOrigin", &KQVisitorConfig::uploadServiceOrigin},
    {"xmppHost", &KQVisitorConfig::xmppHost},
    {"caFile", &KQVisitorConfig::caFile},
    {"reachabilityHost", &KQVisitorConfig::reachabilityHost},
    {"userDefaultsPath", &KQVisitorConfig::userDefaultsPath},
};
constexpr std::string_view kPortKey = "xmppPort";
// Intervals in seconds, above 0 and at most an hour.
struct IntervalSetting {
  std::string_view name;
  double KQVisitorConfig::*member;
};
constexpr IntervalSetting kIntervalSettings[] = {
    {"httpPollInterval", &KQVisitorConfig::httpPollInterval},
    {"xmppReconnectInterval", &KQVisitorConfig::xmppReconnectInterval},
};
constexpr double kLongestInterval = 3600;

std::string knownKeys() {
  std::string keys;
  for (const auto& setting : kStringSettings) {
    keys.append(setting.name).append(", ");
  }
  keys.append(kPortKey);
  for (const auto& setting : kIntervalSettings) {
    keys.append(", ").append(setting.name);
  }
  return keys;
}

bool hasSpace(std::string_view text) {
  return text.find_first_of(" \t\r\n") != std::string_view::npos;
}

// "scheme://host[:port]" with scheme http or https, no user information, path or query.
std::optional<std::string> originProblem(std::string_view origin) {
  const auto schemeEnd = origin.find("://");
  if (schemeEnd == std::string_view::npos) {
    return "must be an origin such as https://host or https://host:8443";
  }
  const auto scheme = origin.substr(0, schemeEnd);
  if (scheme != "http" && scheme != "https") {
    return "must use http or https, not \"" + std::string(scheme) + "\"";
  }
  auto authority = origin.substr(schemeEnd + 3);
  if (authority.find_first_of("/?#@") != std::string_view::npos || hasSpace(authority)) {
    return "must hold only scheme, host and port (the library adds the paths)";
  }
  std::string_view host = authority;
  if (!authority.empty() && authority.front() == '[') {  // IPv6 literal
    const auto close = authority.find(']');
    if (close == std::string_view::npos) {
      return "has an unclosed IPv6 address";
    }
    host = authority.substr(0, close + 1);
    authority.remove_prefix(close + 1);
    if (!authority.empty() && authority.front() != ':') {
      return "must hold only scheme, host and port (the library adds the paths)";
    }
  } else {
    const auto colon = authority.find(':');
    host = authority.substr(0, colon);
    authority = colon == std::string_view::npos ? std::string_view() : authority.substr(colon);
  }
  if (host.empty()) {
    return "has no host";
  }
  if (!authority.empty()) {
    const auto port = authority.substr(1);
    const bool digits = !port.empty() && port.size() <= 5 &&
                        port.find_first_not_of("0123456789") == std::string_view::npos;
    if (!digits || std::atoi(std::string(port).c_str()) < 1 ||
        std::atoi(std::string(port).c_str()) > 65535) {
      return "has a port that is not a number from 1 to 65535";
    }
  }
  return std::nullopt;
}

struct SharedConfig {
  std::optional<KQVisitorConfig> config;
  // Why the file named in KQVISITOR_CONFIG could not be used, when it could not.
  std::optional<KQVisitorConfig::Error> loadProblem;
};

Guarded<SharedConfig>& sharedConfig() {
  static Guarded<SharedConfig> shared;
  return shared;
}

bool isKnownKey(std::string_view key) {
  return key == kPortKey || std::any_of(std::begin(kStringSettings), std::end(kStringSettings),
                                        [key](const auto& setting) { return setting.name == key; });
}

}  // namespace

KQVisitorConfig::Error::Error(std::string key, const std::string& message)
    : std::invalid_argument(message), key_(std::move(key)) {}

void KQVisitorConfig::validate() const {
  const auto fail = [](std::string_view key, const std::string& problem) {
    throw Error(std::string(key), "\"" + std::string(key) + "\" " + problem);
  };
  const std::pair<std::string_view, const std::string*> origins[] = {
      {"jsonServiceProductionOrigin", &jsonServiceProductionOrigin},
      {"jsonServiceBetaOrigin", &jsonServiceBetaOrigin},
      {"soapServiceOrigin", &soapServiceOrigin},
      {"uploadServiceOrigin", &uploadServiceOrigin},
  };
  for (const auto& [key, value] : origins) {
    if (auto problem = originProblem(*value)) {
      fail(key, *problem + " (got \"" + *value + "\")");
    }
  }
  if (soapNamespace.empty() || hasSpace(soapNamespace)) {
    fail("soapNamespace", "must be a namespace URI without spaces (got \"" + soapNamespace + "\")");
  }
  if (xmppHost.empty() || hasSpace(xmppHost) || xmppHost.find('/') != std::string::npos) {
    fail("xmppHost", "must be a host name or address (got \"" + xmppHost + "\")");
  }
  if (xmppPort < 1 || xmppPort > 65535) {
    fail(kPortKey, "must be an integer from 1 to 65535 (got " + std::to_string(xmppPort) + ")");
  }
  for (const auto& [key, member] : kIntervalSettings) {
    const double seconds = this->*member;
    if (!(seconds > 0 && seconds <= kLongestInterval)) {
      fail(key, "must be a number of seconds above 0 and at most 3600 (got " +
                    std::to_string(seconds) + ")");
    }
  }
  if (reachabilityHost.empty() || hasSpace(reachabilityHost)) {
    fail("reachabilityHost", "must be a host name or address (got \"" + reachabilityHost + "\")");
  }
  if (!caFile.empty() && !std::ifstream(caFile).good()) {
    fail("caFile", "names a file that cannot be read: " + caFile);
  }
}

KQVisitorConfig KQVisitorConfig::fromJSON(std::string_view text, const KQVisitorConfig& base) {
  const Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) {
    throw Error("", "is not valid JSON");
  }
  if (!json.is_object()) {
    throw Error("", "must hold a JSON object of settings, not " + std::string(json.type_name()));
  }
  KQVisitorConfig config = base;
  for (const auto& item : json.items()) {
    const std::string& key = item.key();
    const Json& value = item.value();
    if (key == kPortKey) {
      if (!value.is_number_integer()) {
        throw Error(key, "\"" + key + "\" must be an integer from 1 to 65535, not " + value.dump());
      }
      const auto port = value.get<long long>();
      config.xmppPort = port < 1 || port > 65535 ? 0 : static_cast<int>(port);
      continue;
    }
    const auto* interval =
        std::find_if(std::begin(kIntervalSettings), std::end(kIntervalSettings),
                     [&](const IntervalSetting& known) { return known.name == key; });
    if (interval != std::end(kIntervalSettings)) {
      if (!value.is_number()) {
        throw Error(key, "\"" + key + "\" must be a number of seconds, not " + value.dump());
      }
      config.*(interval->member) = value.get<double>();
      continue;
    }
    const auto* setting =
        std::find_if(std::begin(kStringSettings), std::end(kStringSettings),
                     [&](const StringSetting& known) { return known.name == key; });
    if (setting == std::end(kStringSettings)) {
      throw Error(key, "unknown key \"" + key + "\" (known keys: " + knownKeys() + ")");
    }
    if (!value.is_string()) {
      throw Error(key, "\"" + key + "\" must be a string, not " + value.dump());
    }
    config.*(setting->member) = value.get<std::string>();
  }
  config.validate();
  return config;
}

KQVisitorConfig KQVisitorConfig::fromFile(const std::string& path, const KQVisitorConfig& base) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw Error("", "configuration file " + path + " cannot be read");
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  try {
    return fromJSON(contents.str(), base);
  } catch (const Error& error) {
    throw Error(error.key(), "configuration file " + path + ": " + error.what());
  }
}

KQVisitorConfig KQVisitorConfig::fromJSON(std::string_view text) {
  return fromJSON(text, KQVisitorConfig{});
}

KQVisitorConfig KQVisitorConfig::fromFile(const std::string& path) {
  return fromFile(path, KQVisitorConfig{});
}

KQVisitorConfig KQVisitorConfig::fromEnvironment() {
  const char* path = std::getenv(std::string(kEnvironmentVariable).c_str());
  if (path == nullptr || *path == '\0') {
    return KQVisitorConfig{};
  }
  return fromFile(path);
}

KQVisitorConfig KQVisitorConfig::shared() {
  if (auto config = sharedConfig().get(&SharedConfig::config)) {
    return *std::move(config);
  }
  // Loaded outside the lock, since a failure is logged through the host's sink.
  KQVisitorConfig loaded;
  std::optional<Error> problem;
  try {
    loaded = fromEnvironment();
  } catch (const Error& error) {
    problem = error;
  }
  const auto theirs = sharedConfig().with([&](SharedConfig& shared) {
    if (shared.config) {  // Another thread loaded or set it meanwhile: theirs stands.
      return shared.config;
    }
    shared.config = loaded;
    shared.loadProblem = problem;
    return std::optional<KQVisitorConfig>();
  });
  if (theirs) {
    return *theirs;
  }
  if (problem) {
    log("KQVisitorConfig: ", problem->what(),
        "; fix the file named by KQVISITOR_CONFIG. Until then the compiled-in defaults stand in, "
        "and what needs that setting fails");
  }
  return loaded;
}

namespace {

// Throws the problem of the configuration file when it concerns one of `keys`.
void refuseIfConcerned(const SharedConfig& shared, std::initializer_list<std::string_view> keys) {
  const auto& problem = shared.loadProblem;
  if (problem) {
    const bool concernsAll = !isKnownKey(problem->key());
    for (const auto key : keys) {
      if (concernsAll || key == problem->key()) {
        throw *problem;
      }
    }
  }
}

}  // namespace

KQVisitorConfig KQVisitorConfig::sharedFor(std::initializer_list<std::string_view> keys) {
  KQVisitorConfig config = shared();
  sharedConfig().with([&](const SharedConfig& current) { refuseIfConcerned(current, keys); });
  return config;
}

std::string KQVisitorConfig::sharedSetting(std::string KQVisitorConfig::*setting,
                                           std::initializer_list<std::string_view> keys) {
  auto value = sharedConfig().with([&](const SharedConfig& current) {
    std::optional<std::string> found;
    if (current.config) {
      refuseIfConcerned(current, keys);
      found = (*current.config).*setting;
    }
    return found;
  });
  if (value) {
    return *std::move(value);
  }
  return sharedFor(keys).*setting;  // the first use loads the settings
}

void KQVisitorConfig::setShared(const KQVisitorConfig& config) {
  config.validate();
  sharedConfig().with([&](SharedConfig& shared) {
    shared.config = config;
    shared.loadProblem.reset();
  });
}

std::string KQVisitorConfig::resolvedUserDefaultsPath() const {
  if (!userDefaultsPath.empty()) {
    return userDefaultsPath;
  }
  std::string base;
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && *xdg == '/') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = std::string(home) + "/.config";
  } else {
    base = "/tmp";
  }
  return base + "/KQVisitorCore/UserDefaults.json";
}

}  // namespace kq
