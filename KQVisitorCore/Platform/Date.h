#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <chrono>
#include <compare>
#include <string>

namespace kq {

/// A moment in time with sub-second precision, independent of any time zone.
class KQ_EXPORT Date {
 public:
  /// The wall clock that dates are read from.
  using Clock = std::chrono::system_clock;
  /// A moment of the wall clock, to the microsecond.
  using TimePoint = std::chrono::time_point<Clock, std::chrono::microseconds>;

  /// The Unix epoch (1970-01-01 00:00:00 UTC).
  Date() = default;
  /// The moment `timePoint`.
  explicit Date(TimePoint timePoint) : timePoint_(timePoint) {}

  /// The current moment, read from the system's wall clock.
  static Date now();
  /// The moment `seconds` after the Unix epoch (before it when negative), rounded to the
  /// nearest microsecond.
  static Date dateWithTimeIntervalSince1970(double seconds);

  /// Seconds since the Unix epoch, with the microseconds as a fraction.
  [[nodiscard]] double timeIntervalSince1970() const;
  /// The moment `seconds` later (earlier when negative), rounded to the nearest microsecond.
  [[nodiscard]] Date dateByAddingTimeInterval(double seconds) const;
  /// The moment as a time point of the wall clock.
  [[nodiscard]] TimePoint timePoint() const { return timePoint_; }

  /// The platform's default text of a date: UTC with a numeric offset, whole seconds, as in
  /// "2026-11-15 00:05:52 +0000". This is how a date reads in logs and in query strings.
  [[nodiscard]] std::string description() const;

  /// Dates compare by their moment: the earlier one is less.
  friend auto operator<=>(const Date&, const Date&) = default;

 private:
  TimePoint timePoint_{};
};

/// "%@" of a date.
KQ_EXPORT std::string describe(const Date& date);

}  // namespace kq
