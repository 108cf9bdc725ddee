#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Export.h>

#include <functional>
#include <memory>
#include <string>

namespace asio {
class io_context;
}  // namespace asio

namespace kq::xmpp {

/// A serial queue for the XMPP core: where a stream does its socket I/O, parsing and module
/// work, or where a module wants its work done.
///
/// Two kinds: a stream's own queue (create()), one thread running an event loop on which the
/// socket's completions and the posted tasks run in order; and a queue that forwards to a
/// DispatchQueue (onDispatchQueue(), such as the main queue).
class KQ_EXPORT XMPPQueue {
 public:
  using Task = std::function<void()>;

  XMPPQueue(const XMPPQueue&) = delete;
  XMPPQueue& operator=(const XMPPQueue&) = delete;
  /// Stops the thread of a queue of its own; tasks that have not run are dropped. Safe on the
  /// queue's own thread (the thread ends after its current task).
  ~XMPPQueue();

  /// A queue with a thread of its own, named `label`.
  static std::shared_ptr<XMPPQueue> create(std::string label);
  /// A queue whose tasks run on `queue`.
  static std::shared_ptr<XMPPQueue> onDispatchQueue(std::shared_ptr<DispatchQueue> queue);

  [[nodiscard]] const std::string& label() const;

  /// Submits `task` to run after those already submitted; never runs it inside this call.
  /// Thread-safe.
  void async(Task task);

  /// True on the thread that runs this queue's tasks.
  [[nodiscard]] bool isCurrent() const;

  /// The queue on which timers for this queue are kept (their ticks are forwarded here): the
  /// wrapped DispatchQueue, or a helper queue created on first use. Timers are kq::Timer, so a
  /// ManualClock drives them.
  std::shared_ptr<DispatchQueue> timerQueue();

  /// The event loop of a queue of its own (null for a forwarding queue). For the library's
  /// sockets.
  [[nodiscard]] asio::io_context* ioContext() const;

  /// The queue's state; private to XMPPQueue.cpp.
  struct Impl;

 private:
  explicit XMPPQueue(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kq::xmpp
