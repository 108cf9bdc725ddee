#include "Command.h"
#include "ServiceOutput.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <atomic>
#include <iostream>
#include <thread>

namespace kqchat {

namespace {

constexpr std::string_view kUsage =
    "call OPERATION [KEY=VALUE | KEY:=JSON ...] [--method M] [--http-client]";

void printHelp() {
  std::cout
      << "usage: kqvisitor-chat " << kUsage << "\n\n"
      << "Calls OPERATION of the JSON chat service once and prints each callback as a JSON\n"
      << "line:\n"
      << "  {\"callback\":\"success\",\"result\":...}\n"
      << "  {\"callback\":\"failure\",\"error\":{\"domain\":...,\"code\":...,\"userInfo\":{...}}}\n"
      << "Without network the failure \"Request failed due to internet problem\" comes at once\n"
      << "and the request's own outcome follows; the command ends after the latter, with status\n"
      << "0 when it was a success and 1 otherwise.\n\n"
      << "  KEY=VALUE      a string parameter (in order)\n"
      << "  KEY:=JSON      a parameter of any JSON type (KEY:=12, KEY:=true)\n"
      << "  --method M     the HTTP method, sent as written (default GET; GET puts the\n"
      << "                 parameters in the query, anything else in a JSON body)\n"
      << "  --http-client  use the HTTP-polling (beta) service instead of the production one\n";
}

}  // namespace

// One JSON service call through the web service's request frame.
int runCall(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    printHelp();
    return kExitOk;
  }
  std::optional<std::string> operation;
  std::string method = "GET";
  bool httpClient = false;
  nlohmann::ordered_json parameters = nlohmann::ordered_json::object();
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--method") {
      if (i + 1 >= arguments.size() || arguments[i + 1].empty()) {
        return usageError(kUsage, "--method needs a method name");
      }
      method = arguments[++i];
    } else if (argument == "--http-client") {
      httpClient = true;
    } else if (argument.starts_with("--")) {
      return usageError(kUsage, "unknown option \"" + argument + "\"");
    } else if (!operation) {
      if (argument.empty() || argument.find('=') != std::string::npos) {
        return usageError(kUsage, "the first argument must name the operation");
      }
      operation = argument;
    } else if (auto problem = addParameter(argument, parameters)) {
      return usageError(kUsage, *problem);
    }
  }
  if (!operation) {
    return usageError(kUsage, "missing OPERATION");
  }

  auto& service = kq::KQVisitorWebService::sharedInstance();
  service.setIsHTTPClient(httpClient);

  // The request's own outcome arrives on the HTTP session's thread; callbacks on this thread
  // are the immediate ones (no network, unusable settings).
  const auto caller = std::this_thread::get_id();
  Completion finished;
  std::atomic<bool> succeeded = false;
  bool settingsFailed = false;
  service.requestDataWithParameters(
      parameters, method, *operation,
      [&](std::nullptr_t, nlohmann::ordered_json result) {
        printJSONLine({{"callback", "success"}, {"result", std::move(result)}});
        if (std::this_thread::get_id() != caller) {
          succeeded = true;
          finished.signal();
        }
      },
      [&](std::nullptr_t, const kq::KQError& error) {
        printJSONLine({{"callback", "failure"}, {"error", errorJSON(error)}});
        if (std::this_thread::get_id() != caller) {
          finished.signal();
        } else if (error.domain == "KQVisitorConfig") {
          settingsFailed = true;  // nothing was sent, so nothing else will come
        }
      });
  if (settingsFailed) {
    return kExitFailure;
  }
  finished.wait();
  return succeeded ? kExitOk : kExitFailure;
}

}  // namespace kqchat
