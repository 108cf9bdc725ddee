#pragma once

#include <functional>
#include <string>
#include <thread>

namespace kq {

/// The one way the library starts, names and releases a thread of its own (a queue's, the HTTP
/// session's, the reachability watcher's).
///
/// The owner tells its thread to end (by whatever wakes it: a condition variable, a stopped
/// event loop, a wake-up call) and then calls release(), or lets the OwnedThread be destroyed:
///  - from another thread, release() waits for the thread to end;
///  - from the thread itself (the owner was released by its own task), the thread cannot wait
///    for itself: it is handed to a reaper that waits for it when the process exits, so no thread
///    of the library runs on unwaited through the process's clean-up. The body must then keep
///    what it uses alive by itself (capture a shared_ptr), since its owner is gone.
/// Internal to the library.
class OwnedThread {
 public:
  OwnedThread() = default;
  /// Starts `body` on a new thread named `name` (debuggers and crash reports show the first 15
  /// characters).
  OwnedThread(const std::string& name, std::function<void()> body);
  OwnedThread(OwnedThread&&) noexcept = default;
  OwnedThread& operator=(OwnedThread&& other) noexcept;
  OwnedThread(const OwnedThread&) = delete;
  OwnedThread& operator=(const OwnedThread&) = delete;
  /// release().
  ~OwnedThread();

  /// Runs `body` on a thread of its own that nobody waits for until the process exits (the
  /// reaper waits for it then), for one-off work that must not run inside its caller.
  static void runAlone(const std::string& name, std::function<void()> body);

  /// Waits for the thread to end, or hands it to the exit-time reaper when called on the thread
  /// itself. Idempotent.
  void release();

  /// True on this thread.
  [[nodiscard]] bool isCurrent() const { return thread_.get_id() == std::this_thread::get_id(); }
  /// True until released.
  [[nodiscard]] bool isRunning() const { return thread_.joinable(); }

 private:
  std::thread thread_;
};

}  // namespace kq
