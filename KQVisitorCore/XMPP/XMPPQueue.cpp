#include <KQVisitorCore/XMPP/XMPPQueue.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kq::xmpp {

struct XMPPQueue::Impl {
  explicit Impl(std::string name) : label(std::move(name)) {}

  const std::string label;
  // A queue of its own.
  std::unique_ptr<asio::io_context> context;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  std::thread thread;
  std::atomic<std::thread::id> threadId{};
  // A forwarding queue.
  std::shared_ptr<DispatchQueue> target;

  std::mutex mutex;
  std::shared_ptr<DispatchQueue> timers;  // guarded by mutex
};

namespace {

// Threads of queues released on their own thread: they end right after their current task and
// are joined when the process exits, so that none runs on through the process's clean-up
// (thread-local state of the libraries they used is freed as each one ends). Never destroyed;
// a thread orphaned after the exit-time join is left to end on its own.
class Orphans {
 public:
  static Orphans& shared() {
    static auto* instance = [] {
      auto* created = new Orphans;
      std::atexit([] { shared().joinAll(); });
      return created;
    }();
    return *instance;
  }

  void adopt(std::thread thread) {
    std::scoped_lock lock(mutex_);
    if (closed_) {
      thread.detach();
      return;
    }
    threads_.push_back(std::move(thread));
  }

 private:
  void joinAll() {
    std::vector<std::thread> threads;
    {
      std::scoped_lock lock(mutex_);
      closed_ = true;
      threads.swap(threads_);
    }
    for (auto& thread : threads) {
      thread.join();
    }
  }

  std::mutex mutex_;
  std::vector<std::thread> threads_;  // guarded by mutex_
  bool closed_ = false;               // guarded by mutex_
};

}  // namespace

XMPPQueue::XMPPQueue(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

XMPPQueue::~XMPPQueue() {
  if (!impl_->context) {
    return;
  }
  impl_->work.reset();
  impl_->context->stop();
  if (impl_->thread.joinable()) {
    if (impl_->thread.get_id() == std::this_thread::get_id()) {
      // The thread keeps Impl alive through its own reference and ends after this task.
      Orphans::shared().adopt(std::move(impl_->thread));
    } else {
      impl_->thread.join();
    }
  }
}

std::shared_ptr<XMPPQueue> XMPPQueue::create(std::string label) {
  auto impl = std::make_shared<Impl>(std::move(label));
  impl->context = std::make_unique<asio::io_context>(1);
  impl->work.emplace(asio::make_work_guard(*impl->context));
  impl->thread = std::thread([impl] {
    pthread_setname_np(pthread_self(), impl->label.substr(0, 15).c_str());
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
    asio::post(*impl_->context, std::move(task));
  }
}

bool XMPPQueue::isCurrent() const {
  if (impl_->target) {
    return impl_->target->isCurrent();
  }
  return impl_->threadId.load() == std::this_thread::get_id();
}

std::shared_ptr<DispatchQueue> XMPPQueue::timerQueue() {
  if (impl_->target) {
    return impl_->target;
  }
  std::scoped_lock lock(impl_->mutex);
  if (!impl_->timers) {
    impl_->timers = DispatchQueue::create(impl_->label + ".timers");
  }
  return impl_->timers;
}

asio::io_context* XMPPQueue::ioContext() const {
  return impl_->context.get();
}

}  // namespace kq::xmpp
