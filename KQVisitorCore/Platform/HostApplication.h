#pragma once

#include <KQVisitorCore/Platform/AlertView.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/LocalNotification.h>

#include <atomic>
#include <memory>

namespace kq {

/// Whether the user currently sees the host application.
enum class ApplicationState {
  Active,     ///< in front, taking the user's input
  Inactive,   ///< in front but not taking input (for example behind a system dialog)
  Background  ///< not shown
};

/// What the library needs from the application that embeds it: its state, its icon badge,
/// local notifications and alerts. A host implements this and installs it with setShared()
/// before using the library; the default keeps the badge number and writes one log line per
/// call, so that a program without a user interface still shows what the library asked for.
///
/// The library calls these methods on the main queue's thread.
class KQ_EXPORT HostApplication {
 public:
  HostApplication() = default;
  HostApplication(const HostApplication&) = delete;
  HostApplication& operator=(const HostApplication&) = delete;
  virtual ~HostApplication();

  /// The default reports Active.
  [[nodiscard]] virtual ApplicationState applicationState() const;

  /// The number on the application's icon; the default answers the last number set (0 at
  /// first).
  [[nodiscard]] virtual long applicationIconBadgeNumber() const;
  /// Puts `number` on the application's icon (0 for none); the default keeps it and logs it.
  virtual void setApplicationIconBadgeNumber(long number);

  /// Shows `notification` at its fire date.
  virtual void scheduleLocalNotification(const LocalNotification& notification);
  /// Shows `notification` now.
  virtual void presentLocalNotificationNow(const LocalNotification& notification);

  /// Shows `alert` until the user answers it or dismissAlert() is called.
  virtual void showAlert(const std::shared_ptr<AlertView>& alert);
  /// Takes `alert` away as if button `buttonIndex` had been pressed.
  virtual void dismissAlert(const std::shared_ptr<AlertView>& alert, long buttonIndex,
                            bool animated);

  /// The installed host; never null.
  static std::shared_ptr<HostApplication> shared();
  /// Installs `host`; null restores the logging default.
  static void setShared(std::shared_ptr<HostApplication> host);

 private:
  std::atomic<long> badgeNumber_{0};
};

}  // namespace kq
