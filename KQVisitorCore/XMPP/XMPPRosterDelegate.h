#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>

namespace kq::xmpp {

class XMPPRoster;

/// What the roster tells its delegates, on the queue each was added with.
class KQ_EXPORT XMPPRosterDelegate {
 public:
  XMPPRosterDelegate() = default;
  XMPPRosterDelegate(const XMPPRosterDelegate&) = delete;
  XMPPRosterDelegate& operator=(const XMPPRosterDelegate&) = delete;
  virtual ~XMPPRosterDelegate();

  /// Someone asks to subscribe to our presence and the roster did not accept it on its own:
  /// answer with acceptPresenceSubscriptionRequestFrom or rejectPresenceSubscriptionRequestFrom,
  /// or leave it.
  virtual void xmppRosterDidReceiveBuddyRequest(XMPPRoster& /*sender*/,
                                                const XMPPPresence& /*presence*/) {}
  /// The roster has been fetched from the server and stored.
  virtual void xmppRosterDidEndPopulating(XMPPRoster& /*sender*/) {}
};

}  // namespace kq::xmpp
