#include <KQVisitorCore/Platform/detail/OwnedThread.h>

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <pthread.h>

#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <set>
#include <utility>

namespace kq {
namespace {

// Threads released on themselves: each ends right after the task that released its owner. Such
// a thread is detached and counted until its body has returned and let go of what it captured;
// when the process exits, the exit hook waits for the count to reach zero, so no thread of the
// library runs on unwaited through the process's clean-up. The hook is registered at the first
// hand-over, after the libraries such a thread used have registered theirs, so it runs before
// their clean-up. Never destroyed; a thread handed over after the hook ran is not waited for.
class Reaper {
 public:
  static Reaper& shared() {
    static auto* instance = new Reaper;
    return *instance;
  }

  // Called before `thread` can end: on the thread itself, or before runAlone lets it start.
  void adopt(std::thread thread) {
    static std::once_flag registered;
    std::call_once(registered, [] { std::atexit([] { shared().waitAll(); }); });
    MutexLock lock(mutex_);
    if (!closed_) {
      pending_.insert(thread.get_id());
    }
    thread.detach();
  }

  // The last act of every owned thread, once its body and captures are gone.
  void ended() {
    MutexLock lock(mutex_);
    if (pending_.erase(std::this_thread::get_id()) > 0) {
      changed_.notify_all();
    }
  }

 private:
  void waitAll() {
    MutexLock lock(mutex_);
    closed_ = true;
    while (!pending_.empty()) {
      lock.wait(changed_);
    }
  }

  Mutex mutex_;
  std::condition_variable changed_;
  std::set<std::thread::id> pending_ KQ_GUARDED_BY(mutex_);
  bool closed_ KQ_GUARDED_BY(mutex_) = false;
};

}  // namespace

OwnedThread::OwnedThread(const std::string& name, std::function<void()> body)
    : thread_([name = name.substr(0, 15), body = std::move(body)]() mutable {
        pthread_setname_np(pthread_self(), name.c_str());
        body();
        body = nullptr;  // what the body captured goes before the thread counts as ended
        Reaper::shared().ended();
      }) {}

void OwnedThread::runAlone(const std::string& name, std::function<void()> body) {
  // The body waits until the thread is adopted, so it cannot end before it is counted.
  std::promise<void> adopted;
  OwnedThread owned(name, [ready = adopted.get_future().share(), body = std::move(body)] {
    ready.wait();
    body();
  });
  Reaper::shared().adopt(std::move(owned.thread_));
  adopted.set_value();
}

OwnedThread& OwnedThread::operator=(OwnedThread&& other) noexcept {
  if (this != &other) {
    release();
    thread_ = std::move(other.thread_);
  }
  return *this;
}

OwnedThread::~OwnedThread() {
  release();
}

void OwnedThread::release() {
  if (!thread_.joinable()) {
    return;
  }
  if (isCurrent()) {
    Reaper::shared().adopt(std::move(thread_));
  } else {
    thread_.join();
  }
}

}  // namespace kq
