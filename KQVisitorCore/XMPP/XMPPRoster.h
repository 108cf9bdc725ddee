#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <atomic>
#include <memory>

namespace kq::xmpp {

template <class Delegate>
class XMPPDelegateList;

class XMPPRosterDelegate;
class XMPPRosterMemoryStorage;

/// The contact list (RFC 6121): fetched after authentication, kept current by the server's
/// pushes, emptied when the stream disconnects. Subscription requests from contacts we already
/// subscribe to are accepted on their own (when enabled); the others reach the delegates.
class KQ_EXPORT XMPPRoster : public XMPPModule {
 public:
  /// A roster kept in `storage`, to activate() on a stream. `dispatchQueue` is handed to
  /// XMPPModule; the roster does its own work (fetches, pushes, requests) on the stream's queue.
  explicit XMPPRoster(std::shared_ptr<XMPPRosterMemoryStorage> storage,
                      std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPRoster() override;

  /// The storage given at construction, shared with whoever else holds it.
  [[nodiscard]] const std::shared_ptr<XMPPRosterMemoryStorage>& xmppRosterStorage() const {
    return storage_;
  }

  /// Fetch the roster after each authentication (false until set).
  [[nodiscard]] bool autoFetchRoster() const { return autoFetchRoster_.load(); }
  /// Sets autoFetchRoster(). Thread-safe.
  void setAutoFetchRoster(bool value) { autoFetchRoster_ = value; }
  /// Accept subscription requests from contacts in the roster whose presence we receive
  /// (false until set).
  [[nodiscard]] bool autoAcceptKnownPresenceSubscriptionRequests() const {
    return autoAccept_.load();
  }
  /// Sets autoAcceptKnownPresenceSubscriptionRequests(). Thread-safe.
  void setAutoAcceptKnownPresenceSubscriptionRequests(bool value) { autoAccept_ = value; }

  /// Asks the server for the roster. The answer is stored on the stream's queue, then the
  /// delegates hear did-end-populating; a refusal or no answer within 60 s changes nothing.
  /// Does nothing while the module is inactive.
  void fetchRoster();
  /// Lets `jid` (its bare address) see our presence. Does nothing while the module is inactive.
  void acceptPresenceSubscriptionRequestFrom(const XMPPJID& jid);
  /// Refuses `jid` (its bare address) our presence. Does nothing while the module is inactive.
  void rejectPresenceSubscriptionRequestFrom(const XMPPJID& jid);

  /// Adds `delegate`, held weakly and called on `queue`.
  void addDelegate(const std::shared_ptr<XMPPRosterDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
  /// Removes `delegate`; calls already posted for it are dropped.
  void removeDelegate(const XMPPRosterDelegate* delegate);

 protected:
  void streamDidAuthenticate() override;
  void streamDidDisconnect(const std::optional<KQError>& error) override;
  bool streamDidReceiveIQ(const XMPPIQ& iq) override;
  void streamDidReceivePresence(const XMPPPresence& presence) override;

 private:
  void applyItems(const XMPPElement& query);

  const std::shared_ptr<XMPPRosterMemoryStorage> storage_;
  std::atomic<bool> autoFetchRoster_{false};
  std::atomic<bool> autoAccept_{false};
  std::unique_ptr<XMPPDelegateList<XMPPRosterDelegate>> delegates_;
};

}  // namespace kq::xmpp
