#include "Command.h"
#include "ServiceOutput.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <atomic>
#include <iostream>

namespace kqchat {

namespace {

constexpr std::string_view kUsage = "soap offline|languages [KEY=VALUE | KEY:=JSON ...]";

void printHelp() {
  std::cout << "usage: kqvisitor-chat " << kUsage << "\n\n"
            << "Calls the SOAP management service and prints the outcome as a JSON line:\n"
            << "  {\"callback\":\"result\",\"ok\":true,\"status\":6}\n\n"
            << "  offline     SendOfflineEmail: status 6 when the service accepted the message\n"
            << "              (a 2xx answer), 7 otherwise\n"
            << "  languages   GetAllLanguages: status 6 once the call has ended\n"
            << "  KEY=VALUE   a parameter element of the envelope, in order (KEY:=JSON for a\n"
            << "              number or boolean); the service's contract says which it needs\n\n"
            << "Exits 0 when the status is 6, 1 otherwise.\n";
}

}  // namespace

// One call of the SOAP management service.
int runSoap(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    printHelp();
    return kExitOk;
  }
  if (arguments.empty()) {
    return usageError(kUsage, "missing the operation (offline or languages)");
  }
  const std::string& operation = arguments.front();
  if (operation != "offline" && operation != "languages") {
    return usageError(kUsage, "unknown operation \"" + operation + "\"");
  }
  nlohmann::ordered_json parameters = nlohmann::ordered_json::object();
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    if (auto problem = addParameter(arguments[i], parameters)) {
      return usageError(kUsage, *problem);
    }
  }

  Completion finished;
  std::atomic<long> reported = 0;
  const auto block = [&](bool ok, long status) {
    printJSONLine({{"callback", "result"}, {"ok", ok}, {"status", status}});
    reported = status;
    finished.signal();
  };
  auto& service = kq::KQVisitorWebService::sharedInstance();
  if (operation == "offline") {
    service.sendofflineContactToServer(parameters, block);
  } else {
    service.getLanguagesList(parameters, block);
  }
  finished.wait();
  return reported == 6 ? kExitOk : kExitFailure;
}

}  // namespace kqchat
