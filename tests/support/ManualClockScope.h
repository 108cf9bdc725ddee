#pragma once

#include <KQVisitorCore/Platform/detail/ManualClock.h>

#include <memory>

namespace kq::test {

/// Installs a ManualClock as the shared clock for the lifetime of the scope, then restores the
/// system clock.
class ManualClockScope {
 public:
  ManualClockScope() : clock_(std::make_shared<ManualClock>()) { Clock::setShared(clock_); }
  ~ManualClockScope() { Clock::setShared(nullptr); }
  ManualClockScope(const ManualClockScope&) = delete;
  ManualClockScope& operator=(const ManualClockScope&) = delete;

  ManualClock* operator->() const { return clock_.get(); }

 private:
  std::shared_ptr<ManualClock> clock_;
};

}  // namespace kq::test
