#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

/// Clang's thread-safety analysis (-Wthread-safety) checks at compile time that every member
/// marked KQ_GUARDED_BY(mutex) is only touched with that mutex held. The macros are empty for
/// other compilers. scripts/thread-safety runs the check over the library and the programs.
/// Internal to the library.
#if defined(__clang__)
#define KQ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KQ_THREAD_ANNOTATION(x)
#endif

#define KQ_CAPABILITY(name) KQ_THREAD_ANNOTATION(capability(name))
#define KQ_SCOPED_CAPABILITY KQ_THREAD_ANNOTATION(scoped_lockable)
#define KQ_GUARDED_BY(mutex) KQ_THREAD_ANNOTATION(guarded_by(mutex))
#define KQ_PT_GUARDED_BY(mutex) KQ_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define KQ_ACQUIRED_BEFORE(...) KQ_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define KQ_ACQUIRED_AFTER(...) KQ_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define KQ_REQUIRES(...) KQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KQ_ACQUIRE(...) KQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KQ_TRY_ACQUIRE(...) KQ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KQ_RELEASE(...) KQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KQ_EXCLUDES(...) KQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KQ_RETURN_CAPABILITY(x) KQ_THREAD_ANNOTATION(lock_returned(x))
#define KQ_NO_THREAD_SAFETY_ANALYSIS KQ_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kq {

/// A std::mutex the analysis knows as a capability: members marked KQ_GUARDED_BY one of these
/// are checked. Lock it with MutexLock.
class KQ_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() KQ_ACQUIRE() { mutex_.lock(); }
  void unlock() KQ_RELEASE() { mutex_.unlock(); }
  bool try_lock() KQ_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a Mutex for its scope, as std::unique_lock does: it may be released and taken again
/// within the scope, and waits on a std::condition_variable.
class KQ_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KQ_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() KQ_RELEASE() {
    if (held_) {
      mutex_.unlock();
    }
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() KQ_RELEASE() {
    mutex_.unlock();
    held_ = false;
  }
  void lock() KQ_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }

  /// Runs `function` with a std::unique_lock over the held mutex, for interfaces that wait on
  /// one (Clock::waitUntil). The function may release and retake that lock, as a condition
  /// variable does, but must return with it held.
  template <class Function>
  decltype(auto) withUniqueLock(Function&& function) {
    Adopted adopted{std::unique_lock<std::mutex>(mutex_.mutex_, std::adopt_lock)};
    return std::forward<Function>(function)(adopted.lock);
  }

  /// Waits on `condition` as std::condition_variable::wait does: the mutex is released while
  /// waiting and held again on return. Spurious returns are allowed; callers re-check.
  void wait(std::condition_variable& condition) {
    withUniqueLock([&](std::unique_lock<std::mutex>& lock) { condition.wait(lock); });
  }
  /// Waits as wait() does, until `deadline` at the latest.
  template <class Clock, class Duration>
  std::cv_status waitUntil(std::condition_variable& condition,
                           const std::chrono::time_point<Clock, Duration>& deadline) {
    return withUniqueLock(
        [&](std::unique_lock<std::mutex>& lock) { return condition.wait_until(lock, deadline); });
  }

 private:
  // Gives the mutex back to this MutexLock however the function returns.
  struct Adopted {
    std::unique_lock<std::mutex> lock;
    ~Adopted() { lock.release(); }
  };

  Mutex& mutex_;
  bool held_ = true;
};

/// Releases a held Mutex for its scope and takes it again at the end, however the scope is
/// left: for running someone else's code from inside a locked section.
class KQ_SCOPED_CAPABILITY MutexUnlock {
 public:
  explicit MutexUnlock(Mutex& mutex) KQ_RELEASE(mutex) : mutex_(mutex) { mutex_.unlock(); }
  ~MutexUnlock() KQ_RELEASE() { mutex_.lock(); }
  MutexUnlock(const MutexUnlock&) = delete;
  MutexUnlock& operator=(const MutexUnlock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace kq
