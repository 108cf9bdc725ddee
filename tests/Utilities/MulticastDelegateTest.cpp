#include <KQVisitorCore/Utilities/MulticastDelegate.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kq {
namespace {

// The root of the test's delegates, and two "selectors" they may implement.
struct Listener {
  virtual ~Listener() = default;
};
struct Greets {
  virtual ~Greets() = default;
  virtual void greet(const std::string& name) = 0;
};
struct Counts {
  virtual ~Counts() = default;
  virtual int count() const = 0;
};

using Calls = std::vector<std::string>;

struct Greeter : Listener, Greets {
  Greeter(std::string name, Calls& log) : tag(std::move(name)), calls(log) {}
  void greet(const std::string& name) override { calls.push_back(tag + ":" + name); }
  std::string tag;
  Calls& calls;
};

struct Counter : Listener, Counts {
  Counter(int result, Calls& log) : value(result), calls(log) {}
  int count() const override {
    calls.push_back("count" + std::to_string(value));
    return value;
  }
  int value;
  Calls& calls;
};

struct Silent : Listener {};

// Only implementing delegates are called, in order, and the last result wins; a message no
// delegate implements raises, but the class's own are always understood.
TEST(MulticastDelegateTest, EveryImplementingDelegateIsCalledInOrderAndTheLastResultWins) {
  Calls calls;
  MulticastDelegate<Listener> multicast;
  EXPECT_FALSE(multicast.respondsToSelector<Greets>());
  EXPECT_TRUE(multicast.respondsToSelector<MulticastDelegate<Listener>>());
  EXPECT_THROW(multicast.forward(&Greets::greet, "Ann"), std::invalid_argument);
  multicast.addDelegate(std::make_shared<Counter>(1, calls));
  multicast.addDelegate(std::make_shared<Silent>());
  EXPECT_THROW(multicast.forward(&Greets::greet, "Al"), std::invalid_argument)
      << "delegates that do not implement it do not count";
  multicast.addDelegate(std::make_shared<Greeter>("g", calls));
  multicast.addDelegate(std::make_shared<Counter>(2, calls));
  EXPECT_TRUE(multicast.respondsToSelector<Greets>());
  EXPECT_EQ(multicast.forward(&Counts::count), 2);
  EXPECT_EQ(calls, (Calls{"count1", "count2"}));
  multicast.forward(&Greets::greet, "Bo");
  EXPECT_EQ(calls, (Calls{"count1", "count2", "g:Bo"}));
}

// A delegate added twice is called twice and removed at once; the list keeps its delegates
// alive and the reference it hands out shows later changes; null is refused.
TEST(MulticastDelegateTest, TheListHoldsStrongReferencesAndIsLive) {
  Calls calls;
  MulticastDelegate<Listener> multicast;
  const auto& live = multicast.delegates();
  auto greeter = std::make_shared<Greeter>("g", calls);
  std::weak_ptr<Silent> watch;
  {
    auto silent = std::make_shared<Silent>();
    watch = silent;
    multicast.addDelegate(silent);
  }
  multicast.addDelegate(greeter);
  multicast.addDelegate(std::make_shared<Greeter>("o", calls));
  multicast.addDelegate(greeter);
  EXPECT_FALSE(watch.expired()) << "the list keeps its delegates alive";
  EXPECT_EQ(live.size(), 4U) << "the list returned earlier shows later additions";
  multicast.forward(&Greets::greet, "x");
  EXPECT_EQ(calls, (Calls{"g:x", "o:x", "g:x"}));
  multicast.removeDelegate(greeter);
  multicast.removeDelegate(greeter);  // no longer there: nothing happens
  EXPECT_EQ(live.size(), 2U);
  calls.clear();
  multicast.forward(&Greets::greet, "y");
  EXPECT_EQ(calls, (Calls{"o:y"}));
  multicast.removeAllDelegates();
  EXPECT_TRUE(watch.expired());
  EXPECT_THROW(multicast.addDelegate(nullptr), std::invalid_argument);
}

struct SelfRemover : Listener, Greets {
  explicit SelfRemover(MulticastDelegate<Listener>& multicast) : owner(multicast) {}
  void greet(const std::string&) override { owner.removeDelegate(this); }
  MulticastDelegate<Listener>& owner;
};

TEST(MulticastDelegateTest, ChangingTheListDuringAForwardedCallRaises) {
  Calls calls;
  MulticastDelegate<Listener> multicast;
  multicast.addDelegate(std::make_shared<SelfRemover>(multicast));
  multicast.addDelegate(std::make_shared<Greeter>("after", calls));
  EXPECT_THROW(multicast.forward(&Greets::greet, "x"), std::logic_error);
  EXPECT_TRUE(calls.empty()) << "the walk stops at the mutation";
}

}  // namespace
}  // namespace kq
