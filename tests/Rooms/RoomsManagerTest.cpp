#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Rooms/RoomsManager.h>

#include <gtest/gtest.h>

namespace kq {
namespace {

// A host's room object: an id and the three usage flags, all false.
class HostRoom : public RegisteredRoom {
 public:
  explicit HostRoom(std::string id) : id_(std::move(id)) {}
  [[nodiscard]] std::optional<std::string> roomId() const override { return id_; }
  [[nodiscard]] bool isUsedByOperator() const override { return false; }
  [[nodiscard]] bool isUsedByLoggedInResources() const override { return false; }
  [[nodiscard]] bool isUsedByTrainning() const override { return false; }

 private:
  std::string id_;
};

TEST(RoomsManagerTest, RoomsAreFiledByIdAndTheRemovalsTestNothingButTheirFilter) {
  RoomsManager manager;
  manager.removeAllQCRooms();  // empty: nothing is evaluated, nothing thrown
  manager.removeOperatorRooms();
  const auto first = std::make_shared<HostRoom>("1");
  const auto second = std::make_shared<HostRoom>("1");
  manager.addRoom(first);
  manager.addRoom(second);
  manager.addRoom(nullptr);
  EXPECT_EQ(manager.roomsDict().size(), 1U);
  EXPECT_EQ(manager.isRoomExists("1"), second) << "the later room replaces the earlier";
  EXPECT_EQ(manager.isRoomExists("2"), nullptr);
  EXPECT_FALSE(manager.isUsedByAny(second)) << "even a registered room";

  manager.removeRoomById(std::nullopt);
  EXPECT_EQ(manager.roomsDict().size(), 1U);
  manager.removeRoomByIdIfNotUsedById("1");
  EXPECT_TRUE(manager.roomsDict().empty()) << "removed although in use";
  manager.addRoom(first);
  manager.removeRoomByIdIfNotUsedByObject(first);
  EXPECT_TRUE(manager.roomsDict().empty());

  manager.addRoom(first);
  manager.addRoom(std::make_shared<HostRoom>("2"));
  manager.removeAllQCRooms();
  manager.removeOperatorRooms();
  EXPECT_EQ(manager.roomsDict().size(), 2U) << "matching objects are used as keys: none goes";

  // The library's own room is filed as it is, and cannot tell the flags.
  const auto chat = std::make_shared<KQVisitorRoom>();
  chat->setRoomId("3");
  manager.addRoom(chat);
  EXPECT_EQ(manager.isRoomExists("3"), chat);
  EXPECT_THROW(manager.removeAllQCRooms(), RoomsManager::UndefinedKey);
  EXPECT_THROW(manager.removeOperatorRooms(), RoomsManager::UndefinedKey);
  manager.removeAllRooms();
  EXPECT_TRUE(manager.roomsDict().empty());
}

}  // namespace
}  // namespace kq
