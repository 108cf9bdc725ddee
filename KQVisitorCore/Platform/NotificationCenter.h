#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/Notification.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kq {

template <class T>
class Guarded;

/// Delivers named notifications to the observers registered for them, synchronously, on the
/// posting thread, in order of registration. Thread-safe; observers are called with no lock
/// held, so they may post, add or remove observers themselves.
class KQ_EXPORT NotificationCenter {
 public:
  /// An observer's function, given each notification it registered for, on the posting thread.
  using Handler = std::function<void(const Notification&)>;
  /// Names one registration for removeObserver(Token).
  using Token = std::uint64_t;

  NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;
  ~NotificationCenter();

  /// The process-wide centre through which the library posts its notifications.
  static NotificationCenter& defaultCenter();

  /// Registers `handler` for notifications called `name`. With a `sender`, only notifications
  /// posted with that sender reach it. `owner` (optional) groups observers for removal by
  /// removeObserver(owner). Returns a token for removeObserver(token). `handler` runs on the
  /// thread that posts.
  Token addObserver(std::string name, Handler handler, const void* sender = nullptr,
                    const void* owner = nullptr);

  /// Removes one observer. Once this returns no new delivery to it starts; a delivery already
  /// running on another thread may still be finishing.
  void removeObserver(Token token);

  /// Removes every observer registered with `owner`.
  void removeObserver(const void* owner);

  /// Calls each observer of `notification`'s name (and of its sender, for those registered
  /// with one) on the calling thread, in order of registration, before returning. An observer
  /// removed by an earlier one during this post is skipped.
  void post(const Notification& notification);
  /// post() of a Notification made of `name`, `object`, `userInfo` and `sender`.
  void post(std::string name, std::any object = {}, nlohmann::ordered_json userInfo = nullptr,
            const void* sender = nullptr);

 private:
  // The observers, under the centre's lock; defined in NotificationCenter.cpp.
  struct State;

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
