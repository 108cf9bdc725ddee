#include <KQVisitorCore/Platform/DispatchQueue.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/Platform/detail/OwnedThread.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>
#include <KQVisitorCore/Platform/detail/TimedTasks.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace kq {

struct detail::DispatchQueueImpl {
  using Task = DispatchQueue::Task;
  using TimePoint = DispatchQueue::TimePoint;
  explicit DispatchQueueImpl(std::string name);
  ~DispatchQueueImpl();
  DispatchQueueImpl(const DispatchQueueImpl&) = delete;
  DispatchQueueImpl& operator=(const DispatchQueueImpl&) = delete;

  // Moves every timed task whose deadline has passed to the end of `ready`, earliest first.
  void promoteDue(TimePoint now) KQ_REQUIRES(mutex);
  // Adds `task` to the ready tasks and wakes the queue's thread.
  void submit(Task task) KQ_EXCLUDES(mutex);
  // Runs the tasks ready at the start of the pass, each with the lock released; returns how
  // many ran.
  std::size_t runPass() KQ_REQUIRES(mutex);
  // Waits on `wake` until the next deadline (or `realLimit`), as the shared clock measures it.
  void waitForWork(MutexLock& lock, TimePoint realLimit = TimePoint::max()) KQ_REQUIRES(mutex);
  void threadMain() KQ_EXCLUDES(mutex);
  [[nodiscard]] TimePoint nextDeadline() const KQ_REQUIRES(mutex);

  const std::string label;
  Mutex mutex;
  std::condition_variable wake;
  std::deque<Task> ready KQ_GUARDED_BY(mutex);
  TimedTasks timed KQ_GUARDED_BY(mutex);
  bool stopping KQ_GUARDED_BY(mutex) = false;       // the queue is being destroyed
  bool stopRequested KQ_GUARDED_BY(mutex) = false;  // main queue: run() should return
  int running KQ_GUARDED_BY(mutex) = 0;             // main queue: nesting depth of run()
  OwnedThread thread;
  std::atomic<std::thread::id> owner{};
};

namespace {

thread_local const detail::DispatchQueueImpl* currentQueue = nullptr;

// Marks the calling thread as running `queue` for the lifetime of the scope.
class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(const detail::DispatchQueueImpl* queue) : previous_(currentQueue) {
    currentQueue = queue;
  }
  ~CurrentQueueScope() { currentQueue = previous_; }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

 private:
  const detail::DispatchQueueImpl* previous_;
};

// The tasks a thread's open batch holds back, per queue in the order the queues were first
// given one.
struct HeldTasks {
  int depth = 0;
  std::vector<
      std::pair<std::shared_ptr<detail::DispatchQueueImpl>, std::vector<DispatchQueue::Task>>>
      queues;
};

thread_local HeldTasks heldTasks;

// Every queue, for wakeAll().
Guarded<std::vector<detail::DispatchQueueImpl*>>& registry() {
  // Never destroyed: queues may outlive static teardown.
  static auto* queues = new Guarded<std::vector<detail::DispatchQueueImpl*>>;
  return *queues;
}

}  // namespace

detail::DispatchQueueImpl::DispatchQueueImpl(std::string name) : label(std::move(name)) {
  registry().with([this](std::vector<DispatchQueueImpl*>& queues) { queues.push_back(this); });
}

detail::DispatchQueueImpl::~DispatchQueueImpl() {
  registry().with([this](std::vector<DispatchQueueImpl*>& queues) {
    queues.erase(std::remove(queues.begin(), queues.end(), this), queues.end());
  });
}

void detail::DispatchQueueImpl::submit(Task task) {
  {
    MutexLock lock(mutex);
    if (stopping) {
      return;
    }
    ready.push_back(std::move(task));
  }
  wake.notify_one();
}

void detail::DispatchQueueImpl::promoteDue(TimePoint now) {
  while (Task task = timed.takeDue(now)) {
    ready.push_back(std::move(task));
  }
}

DispatchQueue::TimePoint detail::DispatchQueueImpl::nextDeadline() const {
  return timed.nextDeadline();
}

std::size_t detail::DispatchQueueImpl::runPass() {
  promoteDue(Clock::shared()->now());
  std::size_t count = ready.size();
  std::size_t ran = 0;
  while (ran < count && !ready.empty() && !stopping && !stopRequested) {
    Task task = std::move(ready.front());
    ready.pop_front();
    {
      MutexUnlock unlocked(mutex);
      task();
      task = nullptr;  // Destroy what the task captured before taking the lock again.
    }
    ++ran;
  }
  return ran;
}

void detail::DispatchQueueImpl::waitForWork(MutexLock& lock, TimePoint realLimit) {
  const TimePoint deadline = nextDeadline();
  lock.withUniqueLock([&](std::unique_lock<std::mutex>& held) {
    Clock::shared()->waitUntil(wake, held, deadline, realLimit);
  });
}

void detail::DispatchQueueImpl::threadMain() {
  CurrentQueueScope scope(this);
  owner = std::this_thread::get_id();
  MutexLock lock(mutex);
  while (!stopping) {
    if (runPass() > 0) {
      continue;
    }
    if (stopping) {
      break;
    }
    promoteDue(Clock::shared()->now());
    if (ready.empty()) {
      waitForWork(lock);
    }
  }
}

DispatchQueue::DispatchQueue(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

DispatchQueue::~DispatchQueue() {
  std::deque<Task> droppedReady;
  TimedTasks droppedTimed;
  {
    MutexLock lock(impl_->mutex);
    impl_->stopping = true;
    droppedReady.swap(impl_->ready);
    droppedTimed = impl_->timed.takeAll();
  }
  impl_->wake.notify_all();
  // On the queue's own thread, threadMain keeps Impl alive through its own reference.
  impl_->thread.release();
  // droppedReady and droppedTimed are destroyed here, outside every lock.
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::main() {
  static auto* mainQueue =
      new std::shared_ptr<DispatchQueue>(new DispatchQueue(std::make_shared<Impl>("main")));
  return *mainQueue;
}

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label) {
  auto impl = std::make_shared<Impl>(std::move(label));
  impl->thread = OwnedThread(impl->label, [impl] { impl->threadMain(); });
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(impl)));
}

const std::string& DispatchQueue::label() const {
  return impl_->label;
}

void DispatchQueue::async(Task task) {
  if (heldTasks.depth > 0) {
    auto& queues = heldTasks.queues;
    auto held = std::find_if(queues.begin(), queues.end(),
                             [this](const auto& entry) { return entry.first == impl_; });
    if (held == queues.end()) {
      held = queues.emplace(queues.end(), impl_, std::vector<Task>());
    }
    held->second.push_back(std::move(task));
    return;
  }
  impl_->submit(std::move(task));
}

DispatchQueue::Batch::Batch() {
  ++heldTasks.depth;
}

DispatchQueue::Batch::~Batch() {
  if (--heldTasks.depth == 0) {
    flush();
  }
}

void DispatchQueue::Batch::flush() {
  // Taken out first: a queue that is going away drops its tasks, whose destruction may submit.
  auto queues = std::move(heldTasks.queues);
  heldTasks.queues.clear();
  for (auto& [impl, tasks] : queues) {
    {
      MutexLock lock(impl->mutex);
      if (impl->stopping) {
        continue;
      }
      std::move(tasks.begin(), tasks.end(), std::back_inserter(impl->ready));
    }
    impl->wake.notify_one();
  }
}

void DispatchQueue::asyncAfter(Duration delay, Task task) {
  scheduleAt(Clock::shared()->now() + std::max(delay, Duration::zero()), std::move(task));
}

DispatchQueue::TaskId DispatchQueue::scheduleAt(TimePoint deadline, Task task) {
  Batch::flush();
  TaskId id = 0;
  {
    MutexLock lock(impl_->mutex);
    if (impl_->stopping) {
      return 0;
    }
    id = impl_->timed.add(deadline, std::move(task));
  }
  impl_->wake.notify_one();
  return id;
}

TimerQueue::Task DispatchQueue::cancel(TaskId id) {
  MutexLock lock(impl_->mutex);
  return impl_->timed.take(id);
}

void DispatchQueue::sync(const Task& task) {
  if (isCurrent()) {
    task();
    return;
  }
  Batch::flush();
  std::promise<void> done;
  auto finished = done.get_future();
  impl_->submit([&task, &done] {
    try {
      task();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

bool DispatchQueue::isCurrent() const {
  return currentQueue == impl_.get() || impl_->owner.load() == std::this_thread::get_id();
}

void DispatchQueue::run() {
  if (impl_->thread.isRunning()) {
    throw std::logic_error("DispatchQueue::run: queue \"" + impl_->label +
                           "\" runs on its own thread");
  }
  impl_->owner = std::this_thread::get_id();
  CurrentQueueScope scope(impl_.get());
  MutexLock lock(impl_->mutex);
  ++impl_->running;
  while (!impl_->stopRequested) {
    if (impl_->runPass() > 0 || impl_->stopRequested) {
      continue;
    }
    impl_->promoteDue(Clock::shared()->now());
    if (impl_->ready.empty()) {
      impl_->waitForWork(lock);
    }
  }
  if (--impl_->running == 0) {
    impl_->stopRequested = false;
  }
}

void DispatchQueue::stop() {
  {
    MutexLock lock(impl_->mutex);
    if (impl_->running == 0) {
      return;
    }
    impl_->stopRequested = true;
  }
  impl_->wake.notify_all();
}

std::size_t DispatchQueue::pump(Duration maxWait) {
  if (impl_->thread.isRunning()) {
    throw std::logic_error("DispatchQueue::pump: queue \"" + impl_->label +
                           "\" runs on its own thread");
  }
  impl_->owner = std::this_thread::get_id();
  CurrentQueueScope scope(impl_.get());
  const TimePoint realLimit =
      std::chrono::steady_clock::now() + std::max(maxWait, Duration::zero());
  MutexLock lock(impl_->mutex);
  std::size_t ran = impl_->runPass();
  while (ran == 0 && std::chrono::steady_clock::now() < realLimit) {
    impl_->promoteDue(Clock::shared()->now());
    if (impl_->ready.empty()) {
      impl_->waitForWork(lock, realLimit);
    }
    ran = impl_->runPass();
  }
  return ran;
}

void DispatchQueue::wakeAll() {
  registry().with([](const std::vector<Impl*>& queues) {
    for (Impl* queue : queues) {
      // Taking the queue's lock orders this wake after any check-then-wait in progress.
      { MutexLock lock(queue->mutex); }
      queue->wake.notify_all();
    }
  });
}

}  // namespace kq
