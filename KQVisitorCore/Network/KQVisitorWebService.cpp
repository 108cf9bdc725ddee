#include <KQVisitorCore/Network/KQVisitorWebService.h>

namespace kq {

KQVisitorWebService& KQVisitorWebService::sharedInstance() {
  // Never destroyed: completions on the HTTP session's thread may still reach it at exit.
  static auto* instance = new KQVisitorWebService;
  return *instance;
}

std::shared_ptr<KQVisitorUser> KQVisitorWebService::currentUser() const {
  std::scoped_lock lock(mutex_);
  return currentUser_;
}

void KQVisitorWebService::setCurrentUser(std::shared_ptr<KQVisitorUser> currentUser) {
  std::scoped_lock lock(mutex_);
  currentUser_ = std::move(currentUser);
}

std::shared_ptr<Timer> KQVisitorWebService::timer() const {
  std::scoped_lock lock(mutex_);
  return timer_;
}

void KQVisitorWebService::setTimer(std::shared_ptr<Timer> timer) {
  std::scoped_lock lock(mutex_);
  timer_ = std::move(timer);
}

}  // namespace kq
