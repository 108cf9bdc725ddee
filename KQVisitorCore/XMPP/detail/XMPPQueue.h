#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/TimerQueue.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace asio {
class io_context;
}  // namespace asio

namespace kq::xmpp {

/// A serial queue for the XMPP core: where a stream does its socket I/O, parsing, module work
/// and timers, or where a module wants its work done. Internal to the library.
///
/// Two kinds: a stream's own queue (create()), one thread running an event loop on which the
/// socket's completions, the posted tasks and the timers (kq::Timer, timed by Clock::shared())
/// run in order; and a queue that forwards to a DispatchQueue (onDispatchQueue(), such as the
/// main queue).
class XMPPQueue final : public TimerQueue {
 public:
  /// The queue's state; private to XMPPQueue.cpp.
  struct Impl;

  /// Stops the thread of a queue of its own; tasks that have not run are dropped. Safe on the
  /// queue's own thread (the thread ends after its current task).
  ~XMPPQueue() override;

  /// A queue with a thread of its own, named `label`.
  static std::shared_ptr<XMPPQueue> create(std::string label);
  /// A queue whose tasks run on `queue`.
  static std::shared_ptr<XMPPQueue> onDispatchQueue(std::shared_ptr<DispatchQueue> queue);

  [[nodiscard]] const std::string& label() const;

  /// Submits `task` to run after those already submitted; never runs it inside this call.
  /// Thread-safe.
  void async(Task task);

  /// True on the queue's thread, and on a thread while it holds a Turn of the queue.
  [[nodiscard]] bool isCurrent() const override;

  /// The queue held by one thread: while a Turn lives, nothing else runs on the queue and
  /// isCurrent() is true on the thread that took it. The queue's own thread takes one for each
  /// task, timer and socket event it runs.
  class Turn {
   public:
    Turn(Turn&& other) noexcept;
    Turn& operator=(Turn&&) = delete;
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn();

   private:
    friend class XMPPQueue;
    // Takes over `queue`'s running lock, which the caller holds; the destructor releases it.
    explicit Turn(const Impl* queue);
    const Impl* queue_;  // null once moved from
    const Impl* previous_;
  };

  /// Waits until the queue runs nothing and takes a turn: for the queue's own event handlers.
  /// Not on a thread that holds a turn of this queue already.
  [[nodiscard]] Turn turn();

  /// A turn for the calling thread when the queue is idle: running nothing, with nothing
  /// submitted. Work that would be submitted can then run at once on the caller's thread, and
  /// still in order. Empty when the queue is busy, when the caller is on the queue already, and
  /// for a forwarding queue. Never waits.
  [[nodiscard]] std::optional<Turn> tryTurn();
  TaskId scheduleAt(Clock::TimePoint deadline, Task task) override;
  Task cancel(TaskId id) override;

  /// The event loop of a queue of its own (null for a forwarding queue). For the library's
  /// sockets: a handler run on it takes a turn() first, so that it never runs beside a thread
  /// that holds the queue.
  [[nodiscard]] asio::io_context* ioContext() const;

 private:
  explicit XMPPQueue(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kq::xmpp
