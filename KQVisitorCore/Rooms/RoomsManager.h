#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace kq {

/// What RoomsManager asks of the objects a host files in it: their room id and, for the group
/// removals, three usage flags. An object that cannot tell a flag throws
/// RoomsManager::UndefinedKey from it. The library's KQVisitorRoom is one, telling no flag.
class KQ_EXPORT RegisteredRoom {
 public:
  virtual ~RegisteredRoom() = default;
  /// The id the object is filed under; nullopt when it has none (it then cannot be filed).
  [[nodiscard]] virtual std::optional<std::string> roomId() const = 0;
  /// Whether an operator uses the room. The default throws RoomsManager::UndefinedKey.
  [[nodiscard]] virtual bool isUsedByOperator() const;
  /// Whether a logged-in resource uses the room. The default throws RoomsManager::UndefinedKey.
  [[nodiscard]] virtual bool isUsedByLoggedInResources() const;
  /// Whether the room is used for training. The default throws RoomsManager::UndefinedKey.
  [[nodiscard]] virtual bool isUsedByTrainning() const;
};

/// A process-wide registry of the host application's room objects by room id. Nothing in the
/// library adds to it or reads it. Only sharedInstance() is thread-safe: call the rest from one
/// thread (the main thread).
///
/// Kept as the product has always behaved, on purpose:
///  - removeRoomByIdIfNotUsedById() and removeRoomByIdIfNotUsedByObject() remove
///    unconditionally, and isUsedByAny() answers false for every room;
///  - the two group removals evaluate their filter on every registered object (which throws
///    UndefinedKey for an object that cannot tell a flag) and then remove the entries whose key
///    is one of the matching objects; the keys are room ids, so nothing is removed.
class KQ_EXPORT RoomsManager {
 public:
  /// The filed objects by room id; the registry shares ownership of them.
  using RoomsDict = std::map<std::string, std::shared_ptr<RegisteredRoom>>;

  /// A registered object that cannot answer a flag of the group removals.
  class UndefinedKey : public std::logic_error {
   public:
    using std::logic_error::logic_error;
  };

  /// The one registry, created on first use.
  static RoomsManager& sharedInstance();

  RoomsManager() = default;
  RoomsManager(const RoomsManager&) = delete;
  RoomsManager& operator=(const RoomsManager&) = delete;

  /// The registry's own table, not a copy.
  [[nodiscard]] const RoomsDict& roomsDict() const { return roomsDict_; }
  /// Replaces the whole table with `roomsDict`.
  void setRoomsDict(RoomsDict roomsDict) { roomsDict_ = std::move(roomsDict); }

  /// Files `room` under its roomId, replacing what was there; null is ignored. A room without a
  /// room id cannot be filed: std::invalid_argument.
  void addRoom(const std::shared_ptr<RegisteredRoom>& room);
  /// The object filed under `roomId` itself, or null.
  [[nodiscard]] std::shared_ptr<RegisteredRoom> isRoomExists(const std::string& roomId) const;
  /// Removes the entry of `roomId`; nullopt is ignored.
  void removeRoomById(const std::optional<std::string>& roomId);
  /// The same as removeRoomById().
  void removeRoomByIdIfNotUsedById(const std::optional<std::string>& roomId);
  /// Removes the entry filed under the room's id.
  void removeRoomByIdIfNotUsedByObject(const std::shared_ptr<RegisteredRoom>& room);
  /// Always false.
  [[nodiscard]] bool isUsedByAny(const std::shared_ptr<RegisteredRoom>& room) const;
  /// Filter "(isUsedByOperator==NO) AND (isUsedByLoggedInResources==NO)", then removal by
  /// object.
  void removeAllQCRooms();
  /// Filter "(isUsedByTrainning == NO) AND (isUsedByLoggedInResources==NO)", then removal by
  /// object.
  void removeOperatorRooms();
  /// Removes every entry.
  void removeAllRooms();

 private:
  template <class Filter>
  void removeMatching(const Filter& filter);

  RoomsDict roomsDict_;
};

}  // namespace kq
