#include <KQVisitorCore/Platform/NotificationCenter.h>

#include <algorithm>

namespace kq {

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;  // outlives static teardown, as posters may
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Handler handler,
                                                          const void* sender, const void* owner) {
  std::scoped_lock lock(mutex_);
  const Token token = nextToken_++;
  observers_.push_back(std::make_shared<Observer>(
      Observer{token, std::move(name), sender, owner, std::move(handler)}));
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  removeWhere([token](const Observer& observer) { return observer.token == token; });
}

void NotificationCenter::removeObserver(const void* owner) {
  if (owner != nullptr) {
    removeWhere([owner](const Observer& observer) { return observer.owner == owner; });
  }
}

void NotificationCenter::removeWhere(const std::function<bool(const Observer&)>& predicate) {
  std::vector<std::shared_ptr<Observer>> removed;
  {
    std::scoped_lock lock(mutex_);
    auto kept = std::stable_partition(observers_.begin(), observers_.end(),
                                      [&](const auto& observer) { return !predicate(*observer); });
    for (auto it = kept; it != observers_.end(); ++it) {
      (*it)->removed = true;
      removed.push_back(std::move(*it));
    }
    observers_.erase(kept, observers_.end());
  }
  // The handlers' captures are destroyed here, outside the lock.
}

bool NotificationCenter::isRemoved(const Observer& observer) const {
  std::scoped_lock lock(mutex_);
  return observer.removed;
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::shared_ptr<Observer>> matching;
  {
    std::scoped_lock lock(mutex_);
    for (const auto& observer : observers_) {
      if (observer->name == notification.name &&
          (observer->sender == nullptr || observer->sender == notification.sender)) {
        matching.push_back(observer);
      }
    }
  }
  for (const auto& observer : matching) {
    // An earlier handler of this post may have removed a later observer.
    if (!isRemoved(*observer)) {
      observer->handler(notification);
    }
  }
}

void NotificationCenter::post(std::string name, std::any object, nlohmann::ordered_json userInfo,
                              const void* sender) {
  post(Notification{std::move(name), std::move(object), std::move(userInfo), sender});
}

}  // namespace kq
