#pragma once

#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>

#include <optional>
#include <string>
#include <string_view>

namespace kq {

/// Turning text into dates and back with ICU date patterns ("yyyy-MM-dd HH:mm:ss").
///
/// Parsing and formatting are deliberately asymmetric: dateFromString() reads text as UTC,
/// stringFromDate() writes the device's local time (the TZ environment variable, else the
/// system's zone). Patterns are read with the POSIX English locale, so digits and month names do
/// not depend on the user's language, and parsing is strict: the whole text must match.
/// All functions are safe on any thread: formatters are never shared between threads (each
/// thread keeps the few it has built, since building one costs far more than using it).
class KQ_EXPORT DatePlus {
 public:
  /// The pattern used when none is given: "yyyy-MM-dd" until setDefaultFormat() changes it.
  static std::string defaultFormat();
  /// Replaces the default pattern for every caller in the process.
  static void setDefaultFormat(std::string format);

  /// The current moment.
  static Date now();

  /// dateFromString(text, defaultFormat()).
  static std::optional<Date> dateFromString(std::string_view text);
  /// Parses `text` with `format` in UTC; nullopt when the text does not match.
  static std::optional<Date> dateFromString(std::string_view text, std::string_view format);

  /// Parses `text` with `format` in UTC, writes it as "yyyy-MM-dd HH:mm:ss" in UTC and parses
  /// that back: the same instant, cut to whole seconds. (Despite the name, no local time is
  /// involved; format the result with stringFromDate() for local wall-clock text.)
  static std::optional<Date> utctoLocalFromString(std::string_view text, std::string_view format);

  /// The same round trip in the device's local time zone throughout: reads `text` as local
  /// time and returns that instant cut to whole seconds.
  static std::optional<Date> dateWithLocalTimeZone(std::string_view text, std::string_view format);

  /// stringFromDate(date, defaultFormat()).
  static std::string stringFromDate(const Date& date);
  /// Writes `date` with `format` in the device's local time zone.
  static std::string stringFromDate(const Date& date, std::string_view format);
};

}  // namespace kq
