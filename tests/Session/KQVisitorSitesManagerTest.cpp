#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Rooms/KQVisitorRoom.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include <gtest/gtest.h>

namespace kq {
namespace {

std::shared_ptr<KQVisitorRoom> roomWithId(const std::string& id) {
  auto room = std::make_shared<KQVisitorRoom>();
  room->setRoomId(id);
  return room;
}

TEST(KQVisitorSitesManagerTest, JoinedRoomsAreNewestFirstWithoutDuplicates) {
  KQVisitorSitesManager manager;
  EXPECT_FALSE(manager.toShowBranding());
  const auto a = roomWithId("1");
  const auto b = roomWithId("2");
  const auto newer = roomWithId("1");
  manager.joinRoom(a);
  manager.joinRoom(b);
  manager.joinRoom(a);
  EXPECT_EQ(manager.allRooms(), (KQVisitorSitesManager::Rooms{b, a})) << "order kept";
  manager.joinRoom(newer);
  EXPECT_EQ(manager.getRoomById("1"), newer) << "the one nearer the front";
  EXPECT_EQ(manager.getRoomById("3"), nullptr);
  manager.leaveRoom(a);
  EXPECT_EQ(manager.allRooms(), (KQVisitorSitesManager::Rooms{newer, b}));
}

TEST(KQVisitorSitesManagerTest, TheCurrentRoomIsTheWebsitesOnlyRoomAndClosingForgetsIt) {
  const auto manager = std::make_shared<KQVisitorSitesManager>();
  KQVisitorXMPPClient::instance().setSitesManager(manager);
  EXPECT_EQ(manager->getCurrentRoom(), nullptr) << "no website";
  manager->closeAllOperatorRooms();  // nothing to close: nothing happens
  manager->joinAllOperatorRooms();

  const auto website = std::make_shared<KQVisitorSite>();
  manager->setKqWebsite(website);
  EXPECT_EQ(manager->getCurrentRoom(), nullptr) << "no room";
  const auto room = roomWithId("5");
  room->setSite(website);
  website->rooms()->setObject(room, "currentRoom");
  manager->joinRoom(room);
  EXPECT_EQ(manager->getCurrentRoom(), room);

  // Site-wide: closing every room of a site walks what the table held when it began.
  const auto other = roomWithId("6");
  other->setSite(website);
  website->rooms()->setObject(other, "other");
  website->closeAllRooms();
  EXPECT_EQ(website->rooms()->count(), 0U);
  EXPECT_EQ(room->site(), nullptr);
  EXPECT_EQ(other->site(), nullptr);
  EXPECT_TRUE(manager->allRooms().empty()) << "a closed room leaves the joined rooms";
  KQVisitorXMPPClient::instance().setSitesManager(nullptr);
}

}  // namespace
}  // namespace kq
