#include <KQVisitorCore/Model/KQVisitorMessage.h>
#include <KQVisitorCore/Model/KQVisitorSite.h>
#include <KQVisitorCore/Network/KQVisitorWebService.h>

#include <gtest/gtest.h>

#include <thread>

namespace kq {
namespace {

class KQVisitorModelTest : public ::testing::Test {
 protected:
  void TearDown() override { KQVisitorWebService::sharedInstance().setCurrentUser(nullptr); }
};

TEST_F(KQVisitorModelTest, OnlyTheCurrentUserObjectItselfWritesOwnMessages) {
  auto visitor = std::make_shared<KQVisitorUser>();
  visitor->setUserId("12");
  visitor->setUsername("Ann");
  auto lookalike = std::make_shared<KQVisitorUser>();
  lookalike->setUserId("12");
  lookalike->setUsername("Ann");

  KQVisitorMessage message;
  message.setSender(visitor);
  EXPECT_FALSE(message.isMessageByCurrentUser()) << "nobody is logged in";

  KQVisitorWebService::sharedInstance().setCurrentUser(visitor);
  EXPECT_TRUE(message.isMessageByCurrentUser());
  message.setSender(lookalike);
  EXPECT_FALSE(message.isMessageByCurrentUser()) << "users compare by identity, not by fields";
  message.setSender(nullptr);
  EXPECT_FALSE(message.isMessageByCurrentUser());
}

// (That a walk over a table survives the rooms closing during it is the site's test of closing
// all its rooms.)
TEST_F(KQVisitorModelTest, ASiteMakesItsRoomTableOnceAndAfreshAfterItIsCleared) {
  KQVisitorSite site;
  const auto rooms = site.rooms();
  ASSERT_NE(rooms, nullptr);
  rooms->setObject(std::shared_ptr<KQVisitorRoom>(), "none");  // a null room files nothing
  EXPECT_EQ(rooms->count(), 0U);
  EXPECT_EQ(site.rooms(), rooms) << "the same table on every read";
  site.setRooms(nullptr);
  EXPECT_NE(site.rooms(), nullptr);
  EXPECT_NE(site.rooms(), rooms);
}

TEST_F(KQVisitorModelTest, RecordsMayBeSharedBetweenThreads) {
  auto user = std::make_shared<KQVisitorUser>();
  std::thread writer([&] {
    for (int i = 0; i < 1000; ++i) {
      user->setUsername("name" + std::to_string(i));
    }
  });
  size_t longest = 0;
  for (int i = 0; i < 1000; ++i) {
    longest = std::max(longest, user->username().value_or("").size());
  }
  writer.join();
  EXPECT_EQ(user->username(), "name999");
  EXPECT_LE(longest, 7U);
}

}  // namespace
}  // namespace kq
