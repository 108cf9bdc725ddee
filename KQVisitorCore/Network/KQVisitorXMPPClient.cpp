#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>

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

void KQVisitorXMPPClient::addInternetListener() {}

bool KQVisitorXMPPClient::isInternetAvaliable() const {
  return true;  // No reachability check yet.
}

std::shared_ptr<Reachability> KQVisitorXMPPClient::reachability() const {
  std::scoped_lock lock(mutex_);
  return reachability_;
}

void KQVisitorXMPPClient::setReachability(std::shared_ptr<Reachability> reachability) {
  std::scoped_lock lock(mutex_);
  reachability_ = std::move(reachability);
}

}  // namespace kq
