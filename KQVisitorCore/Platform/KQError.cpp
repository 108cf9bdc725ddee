#include <KQVisitorCore/Platform/KQError.h>

namespace kq {

KQError KQError::withStatus(std::string domain, long code, long status) {
  KQError error{std::move(domain), code, nlohmann::ordered_json::object()};
  error.userInfo["status"] = status;
  return error;
}

std::optional<long> KQError::status() const {
  const auto found = userInfo.find("status");
  if (found == userInfo.end() || !found->is_number_integer()) {
    return std::nullopt;
  }
  return found->get<long>();
}

std::string KQError::description() const {
  return "Error Domain=" + domain + " Code=" + std::to_string(code) +
         " UserInfo=" + userInfo.dump();
}

}  // namespace kq
