#include <KQVisitorCore/Platform/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace kq {
namespace {

// Observers are called by name and sender in order of registration with the user info, until
// removed by their token or by their owner.
TEST(NotificationCenterTest, DeliversByNameAndSenderInOrderUntilRemovedByTokenOrOwner) {
  NotificationCenter center;
  std::vector<std::string> calls;
  int room = 0;
  int otherRoom = 0;
  int owner = 0;
  const auto first = center.addObserver("LoginSuccess", [&](const Notification& n) {
    calls.push_back(std::string("first:") + (std::any_cast<bool>(n.object) ? "yes" : "no"));
  });
  center.addObserver(
      "LoginSuccess", [&](const Notification&) { calls.push_back("second"); }, nullptr, &owner);
  center.addObserver(
      "RoomStatusFirstMessage", [&](const Notification& n) { calls.push_back(n.userInfo.dump()); },
      &room);
  center.addObserver(
      "reloadData", [&](const Notification&) { calls.push_back("reload"); }, nullptr, &owner);
  center.post("LoginSuccess", true);
  center.post("RoomStatusFirstMessage", {}, {{"roomId", "1"}}, &otherRoom);
  center.post("RoomStatusFirstMessage", {}, {{"roomId", "42"}, {"siteId", "7"}}, &room);
  EXPECT_EQ(calls,
            (std::vector<std::string>{"first:yes", "second", R"({"roomId":"42","siteId":"7"})"}));
  calls.clear();
  center.removeObserver(first);
  center.post("LoginSuccess", false);
  EXPECT_EQ(calls, std::vector<std::string>{"second"});
  center.removeObserver(&owner);
  center.post("LoginSuccess", false);
  center.post("reloadData");
  EXPECT_EQ(calls, std::vector<std::string>{"second"});
}

// A removed observer is not called; one added during delivery waits for the next post.
TEST(NotificationCenterTest, ObserversMayChangeTheCentreDuringDelivery) {
  NotificationCenter center;
  std::vector<std::string> calls;
  NotificationCenter::Token second = 0;
  center.addObserver("n", [&](const Notification&) {
    calls.push_back("first");
    center.removeObserver(second);  // a later observer of the same post
    center.addObserver("n", [&](const Notification&) { calls.push_back("added"); });
    center.post("nested");
  });
  second = center.addObserver("n", [&](const Notification&) { calls.push_back("second"); });
  center.addObserver("nested", [&](const Notification&) { calls.push_back("nested"); });
  center.post("n");
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "nested"}));
}

TEST(NotificationCenterTest, PostingAndObservingFromManyThreads) {
  NotificationCenter center;
  std::atomic<int> delivered = 0;
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        const auto token =
            center.addObserver("t" + std::to_string(t), [&](const Notification&) { ++delivered; });
        center.post("t" + std::to_string(t));
        center.removeObserver(token);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(delivered.load(), 800);
}

}  // namespace
}  // namespace kq
