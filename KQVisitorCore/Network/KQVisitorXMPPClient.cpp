#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>

#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Reachability.h>

namespace kq {

KQVisitorXMPPClient& KQVisitorXMPPClient::instance() {
  // Never destroyed: the library's threads may reach the client until the process ends.
  static auto* client = [] {
    auto* created = new KQVisitorXMPPClient;
    created->initSingleton();
    return created;
  }();
  return *client;
}

void KQVisitorXMPPClient::initSingleton() {
  // The stream and its modules are set up here once they exist.
  addInternetListener();
}

std::shared_ptr<KQVisitorSitesManager> KQVisitorXMPPClient::sitesManager() {
  std::scoped_lock lock(mutex_);
  if (!sitesManager_) {
    sitesManager_ = std::make_shared<KQVisitorSitesManager>();
  }
  return sitesManager_;
}

void KQVisitorXMPPClient::setSitesManager(std::shared_ptr<KQVisitorSitesManager> sitesManager) {
  std::scoped_lock lock(mutex_);
  sitesManager_ = std::move(sitesManager);
}

// --- Connection ----------------------------------------------------------------------------

bool KQVisitorXMPPClient::connectUser(const std::shared_ptr<KQVisitorUser>& /*user*/) {
  return false;  // No XMPP stream yet.
}

void KQVisitorXMPPClient::signout() {}

// --- Network reachability ------------------------------------------------------------------

void KQVisitorXMPPClient::addInternetListener() {
  auto listener = Reachability::reachabilityForInternetConnection();
  listener->setReachableBlock([](Reachability& /*reachability*/) {});
  listener->setUnreachableBlock([](Reachability& /*reachability*/) { log("UNREACHABLE!"); });
  listener->startNotifier();
  setReachability(std::move(listener));
}

bool KQVisitorXMPPClient::isInternetAvaliable() const {
  // A fresh check each time, not the listener's last word.
  return Reachability::reachabilityForInternetConnection()->currentReachabilityStatus() !=
         NetworkStatus::NotReachable;
}

std::shared_ptr<Reachability> KQVisitorXMPPClient::reachability() const {
  std::scoped_lock lock(mutex_);
  return reachability_;
}

void KQVisitorXMPPClient::setReachability(std::shared_ptr<Reachability> reachability) {
  {
    std::scoped_lock lock(mutex_);
    reachability_.swap(reachability);
  }
  // The previous listener (now in `reachability`) stops outside the lock: stopping waits for
  // a handler in progress.
}

}  // namespace kq
