#pragma once

#include <KQVisitorCore/Platform/NotificationCenter.h>

#include <nlohmann/json.hpp>

#include <vector>

namespace kq::test {

/// Records what follows a room's end: the information of each "removeIdleRooms" and the number
/// of "reloadData", for the lifetime of the object. Not thread-safe: for main-queue posts.
class IdleRoomNotifications {
 public:
  IdleRoomNotifications()
      : removal_(NotificationCenter::defaultCenter().addObserver(
            "removeIdleRooms",
            [this](const Notification& notification) {
              removals.push_back(notification.userInfo);
            })),
        reload_(NotificationCenter::defaultCenter().addObserver(
            "reloadData", [this](const Notification&) { ++reloads; })) {}
  ~IdleRoomNotifications() {
    NotificationCenter::defaultCenter().removeObserver(removal_);
    NotificationCenter::defaultCenter().removeObserver(reload_);
  }
  IdleRoomNotifications(const IdleRoomNotifications&) = delete;
  IdleRoomNotifications& operator=(const IdleRoomNotifications&) = delete;

  std::vector<nlohmann::ordered_json> removals;
  int reloads = 0;

 private:
  NotificationCenter::Token removal_;
  NotificationCenter::Token reload_;
};

}  // namespace kq::test
