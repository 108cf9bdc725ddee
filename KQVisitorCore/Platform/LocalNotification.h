#pragma once

#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>

namespace kq {

/// A notification the host application shows to the user outside the chat screen.
struct KQ_EXPORT LocalNotification {
  /// When to show it; absent for "now".
  std::optional<Date> fireDate;
  /// Title of the action that opens the application ("Launch").
  std::string alertAction;
  /// The text shown.
  std::string alertBody;
  /// Whether the notification offers the action of alertAction.
  bool hasAction = true;
  /// The icon badge number to show with it.
  long applicationIconBadgeNumber = 0;
  /// Sound to play; absent for none.
  std::optional<std::string> soundName;
};

}  // namespace kq
