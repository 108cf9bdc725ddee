#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <chrono>
#include <compare>
#include <string>

namespace kq {

/// A moment in time with sub-second precision, independent of any time zone.
class KQ_EXPORT Date {
 public:
  using Clock = std::chrono::system_clock;
  using TimePoint = std::chrono::time_point<Clock, std::chrono::microseconds>;

  /// The Unix epoch (1970-01-01 00:00:00 UTC).
  Date() = default;
  explicit Date(TimePoint timePoint) : timePoint_(timePoint) {}

  /// The current moment, read from the system's wall clock.
  static Date now();
  static Date dateWithTimeIntervalSince1970(double seconds);

  [[nodiscard]] double timeIntervalSince1970() const;
  [[nodiscard]] Date dateByAddingTimeInterval(double seconds) const;
  [[nodiscard]] TimePoint timePoint() const { return timePoint_; }

  /// The platform's default text of a date: UTC with a numeric offset, whole seconds, as in
  /// "2026-11-15 00:05:52 +0000". This is how a date reads in logs and in query strings.
  [[nodiscard]] std::string description() const;

  friend auto operator<=>(const Date&, const Date&) = default;

 private:
  TimePoint timePoint_{};
};

/// "%@" of a date.
KQ_EXPORT std::string describe(const Date& date);

}  // namespace kq
