#pragma once

#include <KQVisitorCore/Platform/NotificationCenter.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

namespace kq::test {

/// Records the notifications called one of `names` that the default centre delivers while it
/// exists, in order. Not thread-safe: for posts on the thread that reads it (the main queue).
class PostedNotifications {
 public:
  PostedNotifications(std::initializer_list<const char*> names) {
    for (const char* name : names) {
      NotificationCenter::defaultCenter().addObserver(
          name, [this](const Notification& notification) { posted.push_back(notification); },
          nullptr, this);
    }
  }
  ~PostedNotifications() { NotificationCenter::defaultCenter().removeObserver(this); }
  PostedNotifications(const PostedNotifications&) = delete;
  PostedNotifications& operator=(const PostedNotifications&) = delete;

  /// The names, in order of delivery.
  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& notification : posted) {
      result.push_back(notification.name);
    }
    return result;
  }
  /// The ones called `name`, in order.
  [[nodiscard]] std::vector<Notification> named(const std::string& name) const {
    std::vector<Notification> result;
    std::copy_if(posted.begin(), posted.end(), std::back_inserter(result),
                 [&](const Notification& notification) { return notification.name == name; });
    return result;
  }
  [[nodiscard]] int count(const std::string& name) const {
    return static_cast<int>(named(name).size());
  }

  std::vector<Notification> posted;
};

}  // namespace kq::test
