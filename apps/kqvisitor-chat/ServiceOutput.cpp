#include "ServiceOutput.h"

#include <iostream>

namespace kqchat {

void printJSONLine(const nlohmann::ordered_json& line) {
  static kq::Mutex mutex;  // one writer of stdout at a time
  const std::string text =
      line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  kq::MutexLock lock(mutex);
  std::cout << text << std::endl;
}

nlohmann::ordered_json errorJSON(const kq::KQError& error) {
  return {{"domain", error.domain}, {"code", error.code}, {"userInfo", error.userInfo}};
}

std::optional<std::string> addParameter(const std::string& argument,
                                        nlohmann::ordered_json& parameters) {
  const auto equals = argument.find('=');
  if (equals == std::string::npos || equals == 0 || (equals == 1 && argument.front() == ':')) {
    return "expected KEY=VALUE or KEY:=JSON, got \"" + argument + "\"";
  }
  if (argument[equals - 1] == ':') {
    const std::string key = argument.substr(0, equals - 1);
    auto value = nlohmann::ordered_json::parse(argument.substr(equals + 1), nullptr, false);
    if (value.is_discarded()) {
      return "the value of \"" + key + "\" is not valid JSON: " + argument.substr(equals + 1);
    }
    parameters[key] = std::move(value);
    return std::nullopt;
  }
  parameters[argument.substr(0, equals)] = argument.substr(equals + 1);
  return std::nullopt;
}

}  // namespace kqchat
