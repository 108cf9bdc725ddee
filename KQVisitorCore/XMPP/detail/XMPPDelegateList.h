#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>
#include <KQVisitorCore/XMPP/detail/XMPPQueue.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace kq::xmpp {

/// The delegates of a stream or module, each with the queue it wants to be called on.
///
/// Delegates are held weakly: one that has gone away is skipped. Calls are posted to each
/// delegate's queue in the order the delegates were added; a delegate removed before its call
/// runs is not called. Thread-safe; nothing is called while the list's lock is held.
template <class Delegate>
class XMPPDelegateList {
 public:
  /// Adds `delegate`, to be called on `queue`. Null arguments are ignored.
  void add(const std::shared_ptr<Delegate>& delegate, std::shared_ptr<DispatchQueue> queue) {
    if (!delegate || !queue) {
      return;
    }
    MutexLock lock(mutex_);
    entries_.push_back(Entry{delegate, delegate.get(), std::move(queue),
                             std::make_shared<std::atomic<bool>>(true)});
  }

  /// Removes every registration of `delegate`.
  void remove(const Delegate* delegate) {
    MutexLock lock(mutex_);
    std::erase_if(entries_, [delegate](const Entry& entry) {
      if (entry.identity == delegate) {
        entry.registered->store(false);
        return true;
      }
      return false;
    });
  }

  void removeAll() {
    MutexLock lock(mutex_);
    for (const auto& entry : entries_) {
      entry.registered->store(false);
    }
    entries_.clear();
  }

  [[nodiscard]] std::size_t count() const {
    MutexLock lock(mutex_);
    return entries_.size();
  }

  /// Posts `call` for every delegate to its queue. The delegates share the one call, and what
  /// it holds, rather than each getting a copy.
  void invoke(std::function<void(Delegate&)> call) const {
    const auto shared = std::make_shared<const std::function<void(Delegate&)>>(std::move(call));
    for (const auto& entry : snapshot()) {
      entry.queue->async([entry, shared] {
        if (!entry.registered->load()) {
          return;
        }
        if (const auto delegate = entry.delegate.lock()) {
          (*shared)(*delegate);
        }
      });
    }
  }

  /// Asks every delegate `question` on its queue, one after the other, then runs `done` on
  /// `doneQueue` with the answers (one per delegate that was called, in order).
  void ask(const std::function<bool(Delegate&)>& question,
           const std::function<void(const std::vector<bool>&)>& done,
           const std::shared_ptr<XMPPQueue>& doneQueue) const {
    auto state = std::make_shared<AskState>();
    state->entries = snapshot();
    state->question = question;
    state->done = done;
    state->doneQueue = doneQueue;
    askNext(state, 0);
  }

 private:
  struct Entry {
    std::weak_ptr<Delegate> delegate;
    const Delegate* identity;
    std::shared_ptr<DispatchQueue> queue;
    std::shared_ptr<std::atomic<bool>> registered;
  };

  struct AskState {
    std::vector<Entry> entries;
    std::function<bool(Delegate&)> question;
    std::function<void(const std::vector<bool>&)> done;
    std::shared_ptr<XMPPQueue> doneQueue;
    std::vector<bool> answers;
  };

  static void askNext(const std::shared_ptr<AskState>& state, std::size_t index) {
    if (index == state->entries.size()) {
      state->doneQueue->async([state] { state->done(state->answers); });
      return;
    }
    const Entry& entry = state->entries[index];
    entry.queue->async([state, index] {
      const Entry& current = state->entries[index];
      if (current.registered->load()) {
        if (const auto delegate = current.delegate.lock()) {
          state->answers.push_back(state->question(*delegate));
        }
      }
      askNext(state, index + 1);
    });
  }

  std::vector<Entry> snapshot() const {
    MutexLock lock(mutex_);
    return entries_;
  }

  mutable Mutex mutex_;
  std::vector<Entry> entries_ KQ_GUARDED_BY(mutex_);
};

}  // namespace kq::xmpp
