#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <functional>
#include <memory>
#include <string>

namespace kq {

/// How a destination can be reached. The numbers are the platform's: 0 means not reachable.
/// Linux tells no cellular link apart, so a reachable destination reads ReachableViaWiFi.
enum class NetworkStatus : int {
  /// No route to the destination.
  NotReachable = 0,
  /// Reachable (over any link).
  ReachableViaWiFi = 2,
  /// Reachable over a cellular link; never reported on Linux.
  ReachableViaWWAN = 1,
};

namespace detail {
struct ReachabilityImpl;  // the reachability's state, private to Reachability.cpp
}  // namespace detail

/// Whether a destination can be reached, now and as the network changes.
///
/// A destination counts as reachable while the system has a route to it: the check connects a
/// UDP socket to it, which sends nothing. Changes are followed through the kernel's routing
/// notifications (links, addresses and routes coming and going), on a thread of the object's
/// own that sleeps until the kernel reports something: nothing is polled.
///
/// Thread-safe. Objects are shared (the watcher of a chat start is kept alive by the listener
/// that holds it); destroying one stops its notifier.
class KQ_EXPORT Reachability {
 public:
  /// Called with the object whose status changed, on the object's own notifier thread. It may
  /// call stopNotifier() and release the object.
  using NetworkReachable = std::function<void(Reachability& reachability)>;
  /// Called with the object whose status changed, like NetworkReachable.
  using NetworkUnreachable = std::function<void(Reachability& reachability)>;

  /// The general internet connection: the probe address KQVisitorConfig::shared()
  /// .reachabilityHost (read now). Its notifier reports changes only.
  static std::shared_ptr<Reachability> reachabilityForInternetConnection();

  /// A named host (or an address). Its notifier first reports the status found when it starts
  /// (once the name is resolved), then each change. A name that cannot be resolved reads as not
  /// reachable; it is looked up again at each network change.
  static std::shared_ptr<Reachability> reachabilityWithHostname(std::string hostname);

  /// An address or host name whose notifier reports changes only, like the internet connection.
  static std::shared_ptr<Reachability> reachabilityWithAddress(std::string address);

  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;
  ~Reachability();

  /// The destination being watched.
  [[nodiscard]] const std::string& host() const;

  /// Called when the destination becomes reachable. Replaces the previous handler; empty for
  /// none.
  void setReachableBlock(NetworkReachable block);
  /// Called when the destination becomes unreachable.
  void setUnreachableBlock(NetworkUnreachable block);

  /// Starts following changes on the notifier thread; the status at this moment is the
  /// starting point. False when it was already started or the kernel's notifications cannot be
  /// had (the reason is logged).
  bool startNotifier();

  /// Stops following changes: once this returns, no handler starts; from another thread it
  /// waits for a running handler (and a host-name lookup in progress) to end. From inside a
  /// handler it returns at once and that handler is the last. Idempotent.
  void stopNotifier();

  /// The destination's status now, checked afresh (a host name is resolved first, which may
  /// wait for the resolver; an address answers at once).
  [[nodiscard]] NetworkStatus currentReachabilityStatus() const;
  /// currentReachabilityStatus() is not NotReachable.
  [[nodiscard]] bool isReachable() const {
    return currentReachabilityStatus() != NetworkStatus::NotReachable;
  }

 private:
  using Impl = detail::ReachabilityImpl;
  explicit Reachability(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kq
