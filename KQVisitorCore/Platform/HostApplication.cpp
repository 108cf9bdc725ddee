#include <KQVisitorCore/Platform/HostApplication.h>

#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {
namespace {

std::string describeNotification(const LocalNotification& notification) {
  std::string text = "\"" + notification.alertBody + "\" action \"" + notification.alertAction +
                     "\" badge " + std::to_string(notification.applicationIconBadgeNumber);
  if (notification.fireDate) {
    text += " at " + notification.fireDate->description();
  }
  return text;
}

struct SharedHost {
  std::shared_ptr<HostApplication> host = std::make_shared<HostApplication>();
};

Guarded<SharedHost>& sharedHost() {
  static auto* host = new Guarded<SharedHost>;
  return *host;
}

}  // namespace

HostApplication::~HostApplication() = default;

ApplicationState HostApplication::applicationState() const {
  return ApplicationState::Active;
}

long HostApplication::applicationIconBadgeNumber() const {
  return badgeNumber_.load();
}

void HostApplication::setApplicationIconBadgeNumber(long number) {
  badgeNumber_ = number;
  log("HostApplication: icon badge number ", number);
}

void HostApplication::scheduleLocalNotification(const LocalNotification& notification) {
  log("HostApplication: schedule local notification ", describeNotification(notification));
}

void HostApplication::presentLocalNotificationNow(const LocalNotification& notification) {
  log("HostApplication: present local notification ", describeNotification(notification));
}

void HostApplication::showAlert(const std::shared_ptr<AlertView>& alert) {
  if (alert) {
    log("HostApplication: alert \"", alert->title, "\": ", alert->message, " [",
        alert->cancelButtonTitle, "]");
  }
}

void HostApplication::dismissAlert(const std::shared_ptr<AlertView>& alert, long buttonIndex,
                                   bool animated) {
  if (alert) {
    log("HostApplication: dismiss alert \"", alert->title, "\" with button ", buttonIndex,
        animated ? " (animated)" : "");
  }
}

std::shared_ptr<HostApplication> HostApplication::shared() {
  return sharedHost().get(&SharedHost::host);
}

void HostApplication::setShared(std::shared_ptr<HostApplication> host) {
  sharedHost().set(&SharedHost::host, host ? std::move(host) : std::make_shared<HostApplication>());
}

}  // namespace kq
