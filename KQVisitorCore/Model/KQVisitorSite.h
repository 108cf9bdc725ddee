#pragma once

#include <KQVisitorCore/Model/KQVisitorRoomTable.h>
#include <KQVisitorCore/Platform/Export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kq {

template <class T>
class Guarded;

/// One website of the chat service, with the chat rooms opened for it. Fields may be read and
/// written from any thread.
class KQ_EXPORT KQVisitorSite {
 public:
  KQVisitorSite();
  ~KQVisitorSite();
  KQVisitorSite(const KQVisitorSite&) = delete;
  KQVisitorSite& operator=(const KQVisitorSite&) = delete;

  /// The website id of the chat service.
  [[nodiscard]] std::optional<std::string> siteId() const;
  /// Sets siteId().
  void setSiteId(std::optional<std::string> siteId);
  /// The site's name for display; the library fills it from the chat record's "parD" field.
  [[nodiscard]] std::optional<std::string> siteName() const;
  /// Sets siteName().
  void setSiteName(std::optional<std::string> siteName);
  /// A description of the site; the library itself leaves it absent.
  [[nodiscard]] std::optional<std::string> siteDesc() const;
  /// Sets siteDesc().
  void setSiteDesc(std::optional<std::string> siteDesc);
  /// The site's position in its owner's list.
  [[nodiscard]] std::int64_t indexInArray() const;
  /// Sets indexInArray().
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
  // The fields, private to the .cpp file, under one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
