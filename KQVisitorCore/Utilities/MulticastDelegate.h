#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kq {

/// One object that stands in for a list of delegates: a message sent through forward() reaches,
/// unchanged, every delegate in the list that implements it.
///
/// `Root` is the polymorphic base of the delegates (the host's own, or a delegate protocol of
/// the library). A delegate "implements" a message when it derives from the class that declares
/// the member function (found with dynamic_cast), as an object responds to a selector.
///
///  - References are strong and the list is not de-duplicated: an object added twice is called
///    twice per message. The order of calling is the order of adding.
///  - forward() calls every implementing delegate, in order, with no early stop, and returns the
///    value of the last one called. A message that no delegate implements is an unrecognised
///    message: forward() throws std::invalid_argument.
///  - Changing the list while a forwarded call is in progress (say a delegate removing itself)
///    makes forward() throw std::logic_error once the delegate returns.
///
/// Not thread-safe: use one object from one thread.
template <class Root>
class MulticastDelegate {
  static_assert(std::is_polymorphic_v<Root>, "delegates are found by dynamic_cast");

 public:
  /// The delegates in the order they were added; the list shares ownership of each.
  using DelegateList = std::vector<std::shared_ptr<Root>>;

  /// Appends `delegate`. Throws std::invalid_argument for a null delegate.
  void addDelegate(std::shared_ptr<Root> delegate) {
    if (!delegate) {
      throw std::invalid_argument("MulticastDelegate::addDelegate: delegate must not be null");
    }
    delegates_.push_back(std::move(delegate));
    ++mutations_;
  }

  /// Removes every entry that is `delegate`; does nothing when it is not in the list.
  void removeDelegate(const Root* delegate) {
    const auto removed = std::erase_if(delegates_, [delegate](const std::shared_ptr<Root>& entry) {
      return entry.get() == delegate;
    });
    if (removed > 0) {
      ++mutations_;
    }
  }
  /// Removes every entry that is `delegate`, as removeDelegate(const Root*).
  void removeDelegate(const std::shared_ptr<Root>& delegate) { removeDelegate(delegate.get()); }

  /// Empties the list.
  void removeAllDelegates() {
    if (!delegates_.empty()) {
      delegates_.clear();
      ++mutations_;
    }
  }

  /// The live list itself, not a copy. Changing it through this reference during a forwarded
  /// call goes unnoticed by the guard; use the member functions for that.
  [[nodiscard]] const DelegateList& delegates() const { return delegates_; }

  /// True when the class itself offers the message, or at least one delegate implements it.
  template <class Protocol>
  [[nodiscard]] bool respondsToSelector() const {
    if constexpr (std::is_base_of_v<Protocol, MulticastDelegate>) {
      return true;
    } else {
      for (const auto& delegate : delegates_) {
        if (dynamic_cast<Protocol*>(delegate.get()) != nullptr) {
          return true;
        }
      }
      return false;
    }
  }

  /// Sends `method(args...)` to every delegate that implements it, in list order, and returns
  /// what the last one returned.
  template <class Method, class... Args>
  decltype(auto) forward(Method method, Args&&... args) {
    using Protocol = typename MemberOf<Method>::Class;
    if (!respondsToSelector<Protocol>()) {
      throw std::invalid_argument(
          "MulticastDelegate: unrecognized message sent to instance: no delegate implements it");
    }
    using Result = std::invoke_result_t<Method, Protocol*, Args...>;
    const std::uint64_t mutationsAtStart = mutations_;
    const auto checkUnchanged = [&] {
      if (mutations_ != mutationsAtStart) {
        throw std::logic_error(
            "MulticastDelegate: the delegate list was mutated while being enumerated");
      }
    };
    if constexpr (std::is_void_v<Result>) {
      for (std::size_t i = 0; i < delegates_.size(); ++i) {
        const std::shared_ptr<Root> delegate = delegates_[i];  // alive for the whole call
        if (auto* target = dynamic_cast<Protocol*>(delegate.get())) {
          std::invoke(method, target, args...);
          checkUnchanged();
        }
      }
    } else {
      Result result{};
      for (std::size_t i = 0; i < delegates_.size(); ++i) {
        const std::shared_ptr<Root> delegate = delegates_[i];
        if (auto* target = dynamic_cast<Protocol*>(delegate.get())) {
          result = std::invoke(method, target, args...);
          checkUnchanged();
        }
      }
      return result;
    }
  }

 private:
  template <class Method>
  struct MemberOf;
  template <class R, class C, class... P>
  struct MemberOf<R (C::*)(P...)> {
    using Class = C;
  };
  template <class R, class C, class... P>
  struct MemberOf<R (C::*)(P...) const> {
    using Class = C;
  };

  DelegateList delegates_;
  std::uint64_t mutations_ = 0;
};

}  // namespace kq
