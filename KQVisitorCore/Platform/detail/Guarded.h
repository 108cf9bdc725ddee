#pragma once

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <utility>

namespace kq {

/// A value under one mutex: the value can only be reached through the members below, so no
/// access can forget the lock. Internal to the library.
template <class T>
class Guarded {
 public:
  /// Runs `function` on the value with the lock held and answers what it answers. It must not
  /// call back into whoever owns this Guarded, nor keep a reference to the value.
  template <class Function>
  decltype(auto) with(Function&& function) KQ_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return std::forward<Function>(function)(value_);
  }
  template <class Function>
  decltype(auto) with(Function&& function) const KQ_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return std::forward<Function>(function)(value_);
  }

  /// A copy of one field.
  template <class Field>
  Field get(Field T::*field) const KQ_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return value_.*field;
  }

  /// Replaces one field. The old value is destroyed after the lock is released, so that its
  /// destructor may call back in.
  template <class Field>
  void set(Field T::*field, Field value) KQ_EXCLUDES(mutex_) {
    {
      MutexLock lock(mutex_);
      std::swap(value_.*field, value);
    }
  }

 private:
  mutable Mutex mutex_;
  T value_ KQ_GUARDED_BY(mutex_){};
};

}  // namespace kq
