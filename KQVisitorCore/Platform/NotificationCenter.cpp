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

// Takes the observers that `predicate` selects out of `observers`, marked removed.
template <class Predicate>
std::vector<std::shared_ptr<Observer>> takeWhere(std::vector<std::shared_ptr<Observer>>& observers,
                                                 const Predicate& predicate) {
  std::vector<std::shared_ptr<Observer>> removed;
  auto kept = std::stable_partition(observers.begin(), observers.end(),
                                    [&](const auto& observer) { return !predicate(*observer); });
  for (auto it = kept; it != observers.end(); ++it) {
    (*it)->removed = true;
    removed.push_back(std::move(*it));
  }
  observers.erase(kept, observers.end());
  return removed;
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
  const auto removed = state_->with([token](State& centre) {
    return takeWhere(centre.observers,
                     [token](const Observer& observer) { return observer.token == token; });
  });
  // The handlers' captures are destroyed here, outside the lock.
}

void NotificationCenter::removeObserver(const void* owner) {
  if (owner != nullptr) {
    const auto removed = state_->with([owner](State& centre) {
      return takeWhere(centre.observers,
                       [owner](const Observer& observer) { return observer.owner == owner; });
    });
    // The handlers' captures are destroyed here, outside the lock.
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
