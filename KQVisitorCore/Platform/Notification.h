#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json.hpp>

#include <any>
#include <string>

namespace kq {

/// One posted notification.
struct KQ_EXPORT Notification {
  /// The name observers subscribe to, such as "LoginSuccess".
  std::string name;
  /// The notification's object: a value (a boolean for "LoginSuccess", the service's result for
  /// "KQVisitor_HTTP_Refresh") or the poster's shared object (the room of
  /// "RoomStatusFirstMessage"). Empty when the poster gives none.
  std::any object;
  /// Further information, such as {"roomId": ..., "siteId": ...}; null when there is none.
  nlohmann::ordered_json userInfo;
  /// Identity of the poster, matched against an observer's sender filter; null when anonymous.
  const void* sender = nullptr;
};

}  // namespace kq
