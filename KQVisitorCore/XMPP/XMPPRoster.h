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
  explicit XMPPRoster(std::shared_ptr<XMPPRosterMemoryStorage> storage,
                      std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPRoster() override;

  [[nodiscard]] const std::shared_ptr<XMPPRosterMemoryStorage>& xmppRosterStorage() const {
    return storage_;
  }

  /// Fetch the roster after each authentication (false until set).
  [[nodiscard]] bool autoFetchRoster() const { return autoFetchRoster_.load(); }
  void setAutoFetchRoster(bool value) { autoFetchRoster_ = value; }
  /// Accept subscription requests from contacts in the roster whose presence we receive
  /// (false until set).
  [[nodiscard]] bool autoAcceptKnownPresenceSubscriptionRequests() const {
    return autoAccept_.load();
  }
  void setAutoAcceptKnownPresenceSubscriptionRequests(bool value) { autoAccept_ = value; }

  /// Asks the server for the roster.
  void fetchRoster();
  /// Lets `jid` see our presence.
  void acceptPresenceSubscriptionRequestFrom(const XMPPJID& jid);
  void rejectPresenceSubscriptionRequestFrom(const XMPPJID& jid);

  void addDelegate(const std::shared_ptr<XMPPRosterDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
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
