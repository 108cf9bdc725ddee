#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>

#include <KQVisitorCore/Platform/detail/OwnedThread.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>
#include <KQVisitorCore/Platform/detail/TimedTasks.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace kq::xmpp {

struct XMPPQueue::Impl : std::enable_shared_from_this<XMPPQueue::Impl> {
  explicit Impl(std::string name) : label(std::move(name)) {}

  // Arms the wake-up timer for the earliest deadline. On the queue's thread.
  void rearm() KQ_EXCLUDES(mutex);
  // Runs the timed tasks that are due, one at a time, so that a task may cancel a later one.
  void runDue() KQ_EXCLUDES(running, mutex);
  // Asks the queue's thread to rearm (from any thread).
  void postRearm();
  // Adds `task` to the tasks waiting to run, and has the queue's thread run them if it was not
  // asked to already (from any thread).
  void submit(Task task) KQ_EXCLUDES(mutex);
  // Runs the tasks waiting now, in order. On the queue's thread.
  void runSubmitted() KQ_EXCLUDES(running, mutex);
  // Waits for the wake-up descriptor to be written, then runs what was submitted. On the
  // queue's thread.
  void awaitWakeUp();

  const std::string label;
  // A queue of its own.
  std::unique_ptr<asio::io_context> context;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  std::optional<asio::steady_timer> wakeUp;  // on the queue's thread
  // Other threads wake the queue's thread through this descriptor, written after their task is
  // queued and outside every lock: posting to the event loop from another thread interrupts it
  // while holding the loop's own lock, and the woken thread would go straight back to sleep on
  // that lock (two wake-ups per task instead of one).
  std::optional<asio::posix::stream_descriptor> wakeUpDescriptor;
  OwnedThread thread;
  std::atomic<std::thread::id> threadId{};
  std::uint64_t timeObserver = 0;
  // A forwarding queue.
  std::shared_ptr<DispatchQueue> target;

  // Held by whichever thread runs the queue's work (see Turn); taken before `mutex`. It guards
  // no member: it keeps the queue's work to one thread at a time.
  mutable Mutex running KQ_ACQUIRED_BEFORE(mutex);
  Mutex mutex;
  TimedTasks timed KQ_GUARDED_BY(mutex);
  std::deque<Task> submitted KQ_GUARDED_BY(mutex);
  bool runScheduled KQ_GUARDED_BY(mutex) = false;  // runSubmitted() will run
  bool stopped KQ_GUARDED_BY(mutex) = false;
};

namespace {

// The queue whose turn the calling thread holds, when it is not the queue's own thread.
thread_local const XMPPQueue::Impl* heldQueue = nullptr;

}  // namespace

void XMPPQueue::Impl::postRearm() {
  submit([weak = weak_from_this()] {
    if (const auto impl = weak.lock()) {
      impl->rearm();
    }
  });
}

void XMPPQueue::Impl::submit(Task task) {
  {
    MutexLock lock(mutex);
    if (stopped) {
      return;
    }
    submitted.push_back(std::move(task));
    if (runScheduled) {
      return;
    }
    runScheduled = true;
  }
  if (threadId.load() == std::this_thread::get_id()) {
    asio::post(*context, [weak = weak_from_this()] {
      if (const auto impl = weak.lock()) {
        impl->runSubmitted();
      }
    });
  } else {
    eventfd_write(wakeUpDescriptor->native_handle(), 1);
  }
}

void XMPPQueue::Impl::runSubmitted() {
  const MutexLock turn(running);
  std::deque<Task> tasks;
  {
    MutexLock lock(mutex);
    tasks.swap(submitted);
    runScheduled = false;
  }
  for (auto& task : tasks) {
    {
      MutexLock lock(mutex);
      if (stopped) {
        return;  // a task released the queue: what is left is dropped, as it is on a stop
      }
    }
    task();
    task = nullptr;  // what it captured goes now, as it would after a task of its own
  }
}

void XMPPQueue::Impl::awaitWakeUp() {
  wakeUpDescriptor->async_wait(asio::posix::stream_descriptor::wait_read,
                               [weak = weak_from_this()](const asio::error_code& error) {
                                 const auto impl = weak.lock();
                                 if (error || !impl) {
                                   return;
                                 }
                                 // The work first: draining the descriptor and waiting on
                                 // it again are two system calls it need not wait for.
                                 impl->runSubmitted();
                                 eventfd_t count = 0;
                                 eventfd_read(impl->wakeUpDescriptor->native_handle(), &count);
                                 // A task submitted after the run wrote before the drain: the
                                 // descriptor no longer says so, so it runs now (with nothing
                                 // waiting, this is one look under the lock).
                                 impl->runSubmitted();
                                 impl->awaitWakeUp();
                               });
}

void XMPPQueue::Impl::rearm() {
  Clock::TimePoint earliest = Clock::TimePoint::max();
  {
    MutexLock lock(mutex);
    if (stopped) {
      return;
    }
    earliest = timed.nextDeadline();
  }
  if (earliest == Clock::TimePoint::max()) {
    wakeUp->cancel();
    return;
  }
  // The wait is measured on the shared clock; a clock that jumps (a manual clock in tests)
  // notifies the time observer, which rearms.
  const auto wait = std::max(earliest - Clock::shared()->now(), Clock::Duration::zero());
  wakeUp->expires_after(wait);
  wakeUp->async_wait([weak = weak_from_this()](const asio::error_code& error) {
    if (error) {
      return;  // rearmed or stopped
    }
    if (const auto impl = weak.lock()) {
      impl->runDue();
    }
  });
}

void XMPPQueue::Impl::runDue() {
  const MutexLock turn(running);
  for (;;) {
    Task task;
    {
      MutexLock lock(mutex);
      if (!stopped) {
        task = timed.takeDue(Clock::shared()->now());
      }
    }
    if (!task) {
      break;
    }
    task();
  }
  rearm();
}

XMPPQueue::XMPPQueue(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

XMPPQueue::~XMPPQueue() {
  if (!impl_->context) {
    return;
  }
  Clock::removeTimeObserver(impl_->timeObserver);
  TimedTasks dropped;
  std::deque<Task> droppedSubmitted;
  {
    MutexLock lock(impl_->mutex);
    impl_->stopped = true;
    dropped = impl_->timed.takeAll();
    droppedSubmitted.swap(impl_->submitted);
  }
  impl_->work.reset();
  impl_->context->stop();
  // On the queue's own thread, the thread keeps Impl alive through its own reference.
  impl_->thread.release();
  // `dropped` and `droppedSubmitted` are destroyed here, outside the lock.
}

std::shared_ptr<XMPPQueue> XMPPQueue::create(std::string label) {
  auto impl = std::make_shared<Impl>(std::move(label));
  impl->context = std::make_unique<asio::io_context>(1);
  impl->work.emplace(asio::make_work_guard(*impl->context));
  impl->wakeUp.emplace(*impl->context);
  const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (descriptor < 0) {
    throw std::system_error(errno, std::generic_category(), "XMPPQueue: eventfd");
  }
  impl->wakeUpDescriptor.emplace(*impl->context, descriptor);
  impl->awaitWakeUp();
  impl->timeObserver = Clock::addTimeObserver([weak = std::weak_ptr<Impl>(impl)] {
    if (const auto alive = weak.lock()) {
      alive->postRearm();
    }
  });
  impl->thread = OwnedThread(impl->label, [impl] {
    impl->threadId = std::this_thread::get_id();
    impl->context->run();
  });
  return std::shared_ptr<XMPPQueue>(new XMPPQueue(std::move(impl)));
}

std::shared_ptr<XMPPQueue> XMPPQueue::onDispatchQueue(std::shared_ptr<DispatchQueue> queue) {
  auto impl = std::make_shared<Impl>(queue->label());
  impl->target = std::move(queue);
  return std::shared_ptr<XMPPQueue>(new XMPPQueue(std::move(impl)));
}

const std::string& XMPPQueue::label() const {
  return impl_->label;
}

void XMPPQueue::async(Task task) {
  if (impl_->target) {
    impl_->target->async(std::move(task));
  } else {
    impl_->submit(std::move(task));
  }
}

bool XMPPQueue::isCurrent() const {
  if (impl_->target) {
    return impl_->target->isCurrent();
  }
  return heldQueue == impl_.get() || impl_->threadId.load() == std::this_thread::get_id();
}

// A turn holds the running lock from turn() or tryTurn() until it is destroyed, across scopes
// the analysis cannot follow: these three are left out of it.
XMPPQueue::Turn::Turn(const Impl* queue) : queue_(queue), previous_(heldQueue) {
  heldQueue = queue_;
}

XMPPQueue::Turn::Turn(Turn&& other) noexcept : queue_(other.queue_), previous_(other.previous_) {
  other.queue_ = nullptr;
}

XMPPQueue::Turn::~Turn() KQ_NO_THREAD_SAFETY_ANALYSIS {
  if (queue_ != nullptr) {
    heldQueue = previous_;
    queue_->running.unlock();
  }
}

XMPPQueue::Turn XMPPQueue::turn() KQ_NO_THREAD_SAFETY_ANALYSIS {
  impl_->running.lock();
  return Turn(impl_.get());
}

std::optional<XMPPQueue::Turn> XMPPQueue::tryTurn() KQ_NO_THREAD_SAFETY_ANALYSIS {
  if (impl_->target || isCurrent()) {
    return std::nullopt;
  }
  if (!impl_->running.try_lock()) {
    return std::nullopt;
  }
  bool idle = false;
  {
    MutexLock state(impl_->mutex);
    idle = !impl_->stopped && impl_->submitted.empty();
  }
  if (!idle) {
    impl_->running.unlock();
    return std::nullopt;
  }
  return Turn(impl_.get());
}

TimerQueue::TaskId XMPPQueue::scheduleAt(Clock::TimePoint deadline, Task task) {
  if (impl_->target) {
    return impl_->target->scheduleAt(deadline, std::move(task));
  }
  bool earliest = false;
  TaskId id = 0;
  {
    MutexLock lock(impl_->mutex);
    if (impl_->stopped) {
      return 0;
    }
    id = impl_->timed.add(deadline, std::move(task));
    earliest = impl_->timed.isEarliest(id);
  }
  if (earliest) {
    impl_->postRearm();
  }
  return id;
}

TimerQueue::Task XMPPQueue::cancel(TaskId id) {
  if (impl_->target) {
    return impl_->target->cancel(id);
  }
  // A cancelled earliest task leaves the wake-up armed; it finds nothing due and rearms.
  MutexLock lock(impl_->mutex);
  return impl_->timed.take(id);
}

asio::io_context* XMPPQueue::ioContext() const {
  return impl_->context.get();
}

}  // namespace kq::xmpp
