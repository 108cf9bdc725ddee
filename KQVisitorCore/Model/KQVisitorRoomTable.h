#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kq {

template <class T>
class Guarded;

class KQVisitorRoom;

/// A dictionary of rooms by key, safe to use from several threads. Walks go over snapshot(), so
/// that a room may change the table (closing a room empties its site's table) during the walk.
class KQ_EXPORT KQVisitorRoomTable {
 public:
  /// A key and the room filed under it.
  using Entry = std::pair<std::string, std::shared_ptr<KQVisitorRoom>>;

  KQVisitorRoomTable();
  ~KQVisitorRoomTable();
  KQVisitorRoomTable(const KQVisitorRoomTable&) = delete;
  KQVisitorRoomTable& operator=(const KQVisitorRoomTable&) = delete;

  /// The room under `key`, or null.
  [[nodiscard]] std::shared_ptr<KQVisitorRoom> objectForKey(const std::string& key) const;
  /// Files `room` under `key`, replacing what was there; a null room removes the key. The table
  /// shares ownership of its rooms; a room replaced or removed is released after the table's
  /// lock.
  void setObject(std::shared_ptr<KQVisitorRoom> room, const std::string& key);
  /// Removes the room under `key`, if any.
  void removeObjectForKey(const std::string& key);
  /// Removes every room.
  void removeAllObjects();
  /// How many rooms are filed.
  [[nodiscard]] std::size_t count() const;
  /// The keys and rooms at this moment, ordered by key.
  [[nodiscard]] std::vector<Entry> snapshot() const;

 private:
  // The fields, private to the .cpp file, under one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
