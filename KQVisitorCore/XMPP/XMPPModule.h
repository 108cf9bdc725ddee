#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>

#include <memory>
#include <optional>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

class XMPPQueue;
class XMPPStream;
namespace detail {
struct XMPPQueues;
}  // namespace detail

/// A piece of protocol that works on a stream once activated on it (roster, rooms, reconnect,
/// ...).
///
/// An activated module is kept alive by its stream until it is deactivated; it refers to the
/// stream without owning it. The stream calls the module's hooks (the protected members below)
/// on the stream's own queue, in order of activation and before any delegate hears of the same
/// event.
class KQ_EXPORT XMPPModule : public std::enable_shared_from_this<XMPPModule> {
 public:
  /// `dispatchQueue` is where the module wants work that callers hand it to run; null for the
  /// stream's own queue.
  explicit XMPPModule(std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  XMPPModule(const XMPPModule&) = delete;
  XMPPModule& operator=(const XMPPModule&) = delete;
  virtual ~XMPPModule();

  /// Starts working on `stream`. False (and nothing changes) when the module is already active
  /// or `stream` is null. Thread-safe.
  bool activate(const std::shared_ptr<XMPPStream>& stream);
  /// Stops working on the stream; the stream lets the module go. Thread-safe; idempotent.
  void deactivate();

  /// The stream the module is active on; null when inactive.
  [[nodiscard]] std::shared_ptr<XMPPStream> xmppStream() const;

 protected:
  friend class XMPPStream;

  // Hooks, called on the stream's queue while the module is active. The defaults do nothing.

  /// The stream has taken the module in, after activate(); the first hook it calls.
  virtual void didActivate() {}
  /// The stream is letting the module go, after deactivate(); the last hook it calls.
  virtual void willDeactivate() {}
  /// The stream has connected and negotiated (did-connect), before authentication.
  virtual void streamDidConnect() {}
  /// The stream has authenticated and bound its resource (did-authenticate).
  virtual void streamDidAuthenticate() {}
  /// disconnect() was called on the stream: the next disconnect is not an accident.
  virtual void streamWasToldToDisconnect() {}
  /// The connection has ended (did-disconnect): with the error that ended it, or nullopt when
  /// it was closed by disconnect().
  virtual void streamDidDisconnect(const std::optional<KQError>& /*error*/) {}
  /// True when the module handled the IQ (and answered it where it needs an answer).
  virtual bool streamDidReceiveIQ(const XMPPIQ& /*iq*/) { return false; }
  /// A `<message/>` has arrived from the server.
  virtual void streamDidReceiveMessage(const XMPPMessage& /*message*/) {}
  /// A `<presence/>` has arrived from the server.
  virtual void streamDidReceivePresence(const XMPPPresence& /*presence*/) {}
  /// An element is about to be sent; the module may add to it (capabilities to a presence).
  virtual void streamWillSendElement(XMPPElement& /*element*/) {}
  /// An element's text has been handed to the socket (or queued behind earlier writes). The
  /// element is final and the stream's own: a module may keep it without copying.
  virtual void streamDidSendElement(const XMPPElement& /*element*/) {}

 private:
  friend struct detail::XMPPQueues;
  // The queue for the module's work: the dispatch queue given at construction, else the
  // stream's queue once activated (null before). Internal: reached through
  // detail::XMPPQueues.
  [[nodiscard]] std::shared_ptr<XMPPQueue> moduleQueue() const;

  // The stream and the module's queue, under the module's lock; defined in XMPPModule.cpp.
  struct State;

  const std::unique_ptr<Guarded<State>> state_;
  const std::shared_ptr<XMPPQueue> ownQueue_;  // from the dispatch queue given, or null
};

}  // namespace kq::xmpp
