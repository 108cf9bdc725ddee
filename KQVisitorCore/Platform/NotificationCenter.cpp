#include <KQVisitorCore/Platform/NotificationCenter.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace kq {
namespace {

struct Observer {
  NotificationCenter::Token token;
  std::string name;
  const void* sender;
  const void* owner;
  NotificationCenter::Handler handler;
  // Set when it is removed; a post that matched it earlier then skips it.
  std::atomic<bool> removed = false;
};

}  // namespace

struct NotificationCenter::State {
  std::vector<std::shared_ptr<Observer>> observers;
  Token nextToken = 1;
};

namespace {

// Removes the observers that `predicate` selects, marked removed so that a post under way
// skips them. Their handlers' captures are destroyed after the lock is released.
template <class Centre, class Predicate>
void removeWhere(Guarded<Centre>& state, const Predicate& predicate) {
  const auto removed = state.with([&predicate](Centre& centre) {
    std::vector<std::shared_ptr<Observer>> taken;
    auto& observers = centre.observers;
    auto kept = std::stable_partition(observers.begin(), observers.end(),
                                      [&](const auto& observer) { return !predicate(*observer); });
    for (auto it = kept; it != observers.end(); ++it) {
      (*it)->removed = true;
      taken.push_back(std::move(*it));
    }
    observers.erase(kept, observers.end());
    return taken;
  });
}

}  // namespace

NotificationCenter::NotificationCenter() : state_(std::make_unique<Guarded<State>>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;  // outlives static teardown, as posters may
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Handler handler,
                                                          const void* sender, const void* owner) {
  auto observer = std::make_shared<Observer>();
  observer->name = std::move(name);
  observer->sender = sender;
  observer->owner = owner;
  observer->handler = std::move(handler);
  return state_->with([&](State& centre) {
    observer->token = centre.nextToken++;
    centre.observers.push_back(std::move(observer));
    return centre.observers.back()->token;
  });
}

void NotificationCenter::removeObserver(Token token) {
  removeWhere(*state_, [token](const Observer& observer) { return observer.token == token; });
}

void NotificationCenter::removeObserver(const void* owner) {
  if (owner != nullptr) {
    removeWhere(*state_, [owner](const Observer& observer) { return observer.owner == owner; });
  }
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::shared_ptr<Observer>> matching;
  state_->with([&](const State& centre) {
    for (const auto& observer : centre.observers) {
      if (observer->name == notification.name &&
          (observer->sender == nullptr || observer->sender == notification.sender)) {
        matching.push_back(observer);
      }
    }
  });
  for (const auto& observer : matching) {
    // An earlier handler of this post may have removed a later observer.
    if (!observer->removed) {
      observer->handler(notification);
    }
  }
}

void NotificationCenter::post(std::string name, std::any object, nlohmann::ordered_json userInfo,
                              const void* sender) {
  post(Notification{std::move(name), std::move(object), std::move(userInfo), sender});
}

}  // namespace kq
