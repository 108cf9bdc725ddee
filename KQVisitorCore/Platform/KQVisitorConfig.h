#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json_fwd.hpp>

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kq {

/// The deployment settings of the library: where the services live and what to trust.
///
/// Each setting has a compiled-in default. A host overrides them before the library's first
/// use, either with setShared() or with a JSON file named by the environment variable
/// KQVISITOR_CONFIG, whose keys are the member names below (every key optional):
///
///     {"jsonServiceProductionOrigin": "https://chat.example.com", "xmppPort": 5225}
///
/// An origin is "scheme://host[:port]" with the scheme http or https and nothing after the host
/// and port; the library appends each service's fixed path.
struct KQ_EXPORT KQVisitorConfig {
  /// Thrown for an unusable setting; the message names the key and what is wrong with it.
  class KQ_EXPORT Error : public std::invalid_argument {
   public:
    /// An error about setting `key` ("" when it concerns the whole text or file), with
    /// `message` as what().
    Error(std::string key, const std::string& message);
    /// The setting the error concerns; "" when it concerns the whole text or file.
    [[nodiscard]] const std::string& key() const { return key_; }

   private:
    std::string key_;
  };

  /// Origin of the JSON chat service used over XMPP (the web service's isHTTPClient is false).
  std::string jsonServiceProductionOrigin = "https://chat.kqvisitor.example";
  /// Origin of the JSON chat service used by HTTP-polling clients (isHTTPClient is true).
  std::string jsonServiceBetaOrigin = "https://beta.kqvisitor.example";
  /// Origin of the SOAP management service.
  std::string soapServiceOrigin = "https://manage.kqvisitor.example";
  /// XML namespace of the management service's operations; also the prefix of their SOAP actions.
  std::string soapNamespace = "http://kqvisitor.example/";
  /// Origin of the file upload service.
  std::string uploadServiceOrigin = "https://files.kqvisitor.example";
  /// Host name (or address) of the XMPP server; TLS certificates are checked against it.
  std::string xmppHost = "xmpp.kqvisitor.example";
  /// TCP port of the XMPP server.
  int xmppPort = 5225;
  /// A PEM file of further trusted certificate authorities for HTTPS and XMPP TLS, on top of
  /// the system's store; empty for none.
  std::string caFile;
  /// The probe address of the general internet check: the internet counts as reachable while
  /// the system has a route to it. No packet is ever sent to it.
  std::string reachabilityHost = "198.51.100.1";
  /// Seconds between two polls of a chat carried over HTTP (more than 0, at most 3600). Tests
  /// and local sandboxes shorten it; the chat service expects the default.
  double httpPollInterval = 2.0;
  /// Seconds between two attempts to reach the XMPP server again after a lost connection (more
  /// than 0, at most 3600), read when the client is made. Tests shorten it.
  double xmppReconnectInterval = 5.0;
  /// The user-defaults file; empty for $XDG_CONFIG_HOME/KQVisitorCore/UserDefaults.json
  /// (or ~/.config/... when XDG_CONFIG_HOME is not set).
  std::string userDefaultsPath;

  /// Name of the environment variable that names a configuration file.
  static constexpr std::string_view kEnvironmentVariable = "KQVISITOR_CONFIG";

  /// The settings in use. The first call loads them: the defaults, overridden by the file named
  /// in KQVISITOR_CONFIG when it is set. Never throws: when that file is unusable, the reason
  /// (naming the file and the key) is written to the log once, the compiled-in defaults stand
  /// in, and sharedFor() refuses the settings the problem concerns, so that work needing them
  /// fails through its own callbacks instead of quietly using a default. A host that wants to
  /// report a bad file itself calls fromEnvironment() first.
  static KQVisitorConfig shared();

  /// shared(), for work that needs the settings named `keys`. Throws Error (naming the file and
  /// the key) when the file named in KQVISITOR_CONFIG could not be used and the problem
  /// concerns one of them; a file that cannot be read or parsed, or holds an unknown key,
  /// concerns every setting.
  static KQVisitorConfig sharedFor(std::initializer_list<std::string_view> keys);

  /// sharedFor(keys).*setting, without copying the other settings: for work that runs often.
  static std::string sharedSetting(std::string KQVisitorConfig::*setting,
                                   std::initializer_list<std::string_view> keys);

  /// Replaces the settings in use (and forgets a problem of the file). Throws Error when
  /// `config` is not valid.
  static void setShared(const KQVisitorConfig& config);

  /// The defaults overridden by the file named in KQVISITOR_CONFIG (the defaults alone when the
  /// variable is unset or empty). Throws Error naming the file and the key.
  static KQVisitorConfig fromEnvironment();

  /// `base` overridden by the keys of a JSON object. Throws Error for text that is not a JSON
  /// object, an unknown key, a value of the wrong type or an invalid value.
  static KQVisitorConfig fromJSON(std::string_view text, const KQVisitorConfig& base);
  /// fromJSON() over the compiled-in defaults.
  static KQVisitorConfig fromJSON(std::string_view text);

  /// fromJSON() on the contents of a file; errors name the file.
  static KQVisitorConfig fromFile(const std::string& path, const KQVisitorConfig& base);
  /// fromFile() over the compiled-in defaults.
  static KQVisitorConfig fromFile(const std::string& path);

  /// Checks every setting; throws Error naming the first that is unusable.
  void validate() const;

  /// The user-defaults file with the default applied.
  [[nodiscard]] std::string resolvedUserDefaultsPath() const;
};

}  // namespace kq
