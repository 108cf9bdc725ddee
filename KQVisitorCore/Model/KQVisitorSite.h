#pragma once

#include <KQVisitorCore/Model/KQVisitorRoomTable.h>
#include <KQVisitorCore/Platform/Export.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kq {

/// One website of the chat service, with the chat rooms opened for it. Fields may be read and
/// written from any thread.
class KQ_EXPORT KQVisitorSite {
 public:
  KQVisitorSite() = default;
  KQVisitorSite(const KQVisitorSite&) = delete;
  KQVisitorSite& operator=(const KQVisitorSite&) = delete;

  /// The website id of the chat service.
  [[nodiscard]] std::optional<std::string> siteId() const;
  void setSiteId(std::optional<std::string> siteId);
  [[nodiscard]] std::optional<std::string> siteName() const;
  void setSiteName(std::optional<std::string> siteName);
  [[nodiscard]] std::optional<std::string> siteDesc() const;
  void setSiteDesc(std::optional<std::string> siteDesc);
  /// The site's position in its owner's list.
  [[nodiscard]] std::int64_t indexInArray() const;
  void setIndexInArray(std::int64_t indexInArray);

  /// The site's rooms by key; the room of the running chat is filed under "currentRoom". Made
  /// empty on the first read and the same table on every read until setRooms() replaces it.
  [[nodiscard]] std::shared_ptr<KQVisitorRoomTable> rooms();
  /// Replaces the table; null makes the next read of rooms() create a fresh one.
  void setRooms(std::shared_ptr<KQVisitorRoomTable> rooms);

  /// Connects every room of the table.
  void joinAllRoom();
  /// Closes every room of the table. Closing a room empties its site's table, so the walk goes
  /// over the rooms the table held when it began.
  void closeAllRooms();
  // (These two are defined beside the rooms they act on: a record reaches nothing above it.)

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> siteId_;          // guarded by mutex_
  std::optional<std::string> siteName_;        // guarded by mutex_
  std::optional<std::string> siteDesc_;        // guarded by mutex_
  std::int64_t indexInArray_ = 0;              // guarded by mutex_
  std::shared_ptr<KQVisitorRoomTable> rooms_;  // guarded by mutex_
};

}  // namespace kq
