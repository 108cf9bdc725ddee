#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <iostream>

namespace kqchat {

namespace {
constexpr std::string_view kUsage = "config";
}

// Prints the settings in use, so that a deployment can check what the library will talk to.
int runConfig(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << "usage: kqvisitor-chat " << kUsage << "\n\n"
              << "Prints the settings in use as JSON: the compiled-in defaults overridden by the\n"
              << "file named in KQVISITOR_CONFIG.\n";
    return kExitOk;
  }
  if (!arguments.empty()) {
    return usageError(kUsage, "unexpected argument \"" + arguments.front() + "\"");
  }
  const kq::KQVisitorConfig config = kq::KQVisitorConfig::shared();
  nlohmann::ordered_json json = {
      {"jsonServiceProductionOrigin", config.jsonServiceProductionOrigin},
      {"jsonServiceBetaOrigin", config.jsonServiceBetaOrigin},
      {"soapServiceOrigin", config.soapServiceOrigin},
      {"soapNamespace", config.soapNamespace},
      {"uploadServiceOrigin", config.uploadServiceOrigin},
      {"xmppHost", config.xmppHost},
      {"xmppPort", config.xmppPort},
      {"caFile", config.caFile},
      {"reachabilityHost", config.reachabilityHost},
      {"httpPollInterval", config.httpPollInterval},
      {"xmppReconnectInterval", config.xmppReconnectInterval},
      {"userDefaultsPath", config.resolvedUserDefaultsPath()},
  };
  std::cout << json.dump(2) << "\n";
  return kExitOk;
}

}  // namespace kqchat
