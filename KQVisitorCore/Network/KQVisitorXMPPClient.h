#pragma once

#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Session/KQVisitorSitesManager.h>

#include <memory>
#include <mutex>

namespace kq {

class Reachability;

/// The process-wide owner of the XMPP connection, of the one sites manager and of the network
/// listener. Reached only through instance().
class KQ_EXPORT KQVisitorXMPPClient {
 public:
  KQVisitorXMPPClient(const KQVisitorXMPPClient&) = delete;
  KQVisitorXMPPClient& operator=(const KQVisitorXMPPClient&) = delete;

  /// The client, built on first use (thread-safe): nothing connects then. It lives until the
  /// process ends.
  static KQVisitorXMPPClient& instance();

  /// The one sites manager, created on first read.
  [[nodiscard]] std::shared_ptr<KQVisitorSitesManager> sitesManager();
  /// Replaces the manager; null makes the next read create a new, empty one.
  void setSitesManager(std::shared_ptr<KQVisitorSitesManager> sitesManager);

  // --- Connection -------------------------------------------------------------------------

  /// Connects `user` to the XMPP server. Answers true when a connection is under way or up.
  bool connectUser(const std::shared_ptr<KQVisitorUser>& user);
  /// Closes the visitor's rooms, says goodbye and disconnects.
  void signout();

  // --- Network reachability ---------------------------------------------------------------

  /// Starts the listener of the general internet connection; it logs "UNREACHABLE!" on each
  /// change to unreachable and does nothing else.
  void addInternetListener();
  /// Whether the general internet connection is reachable now (asked afresh on each call).
  [[nodiscard]] bool isInternetAvaliable() const;
  [[nodiscard]] std::shared_ptr<Reachability> reachability() const;
  void setReachability(std::shared_ptr<Reachability> reachability);

 private:
  KQVisitorXMPPClient() = default;
  void initSingleton();

  mutable std::mutex mutex_;
  std::shared_ptr<KQVisitorSitesManager> sitesManager_;  // guarded by mutex_
  std::shared_ptr<Reachability> reachability_;           // guarded by mutex_
};

}  // namespace kq
