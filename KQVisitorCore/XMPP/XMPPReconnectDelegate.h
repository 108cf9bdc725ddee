#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>

#include <optional>

namespace kq::xmpp {

class XMPPReconnect;

/// What the reconnect module tells its delegates, on the queue each was added with.
class KQ_EXPORT XMPPReconnectDelegate {
 public:
  XMPPReconnectDelegate() = default;
  XMPPReconnectDelegate(const XMPPReconnectDelegate&) = delete;
  XMPPReconnectDelegate& operator=(const XMPPReconnectDelegate&) = delete;
  virtual ~XMPPReconnectDelegate();

  /// The stream was lost without being told to disconnect (`error` is the stream's reason);
  /// reconnection attempts follow.
  virtual void xmppReconnectDidDetectAccidentalDisconnect(XMPPReconnect& /*sender*/,
                                                          const std::optional<KQError>& /*error*/) {
  }
  /// Asked before each attempt; an attempt is made only when every delegate answers true.
  virtual bool xmppReconnectShouldAttemptAutoReconnect(XMPPReconnect& /*sender*/) { return true; }
};

}  // namespace kq::xmpp
