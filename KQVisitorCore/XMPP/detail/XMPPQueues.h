#pragma once

#include <KQVisitorCore/XMPP/XMPPModule.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>

#include <memory>

namespace kq::xmpp::detail {

/// The queues behind a stream and a module, for the library's own code and its tests: the
/// queue class is internal, so the public classes do not hand it out.
struct XMPPQueues {
  /// The stream's own queue: one thread with an event loop.
  static const std::shared_ptr<XMPPQueue>& of(const XMPPStream& stream) {
    return stream.streamQueue();
  }
  /// The module's queue: the dispatch queue given at its construction, else its stream's queue
  /// once activated (null before).
  static std::shared_ptr<XMPPQueue> of(const XMPPModule& module) { return module.moduleQueue(); }
};

}  // namespace kq::xmpp::detail
