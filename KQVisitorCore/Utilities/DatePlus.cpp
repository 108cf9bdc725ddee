#include <KQVisitorCore/Utilities/DatePlus.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <unicode/calendar.h>
#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace kq {
namespace {

constexpr std::string_view kRoundTripFormat = "yyyy-MM-dd HH:mm:ss";

enum class Zone { Utc, Local };

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// The formatter for one pattern in one zone, strict and in the POSIX English locale. Building
// an ICU formatter loads locale data and costs tens of microseconds, several times the cost of
// using it, and a received chat line needs two; so each thread keeps the formatters it built.
// A formatter is only ever used by the thread that built it, and parsing or formatting leaves
// nothing behind in it, so a cached one behaves exactly like a new one.
class Formatter {
 public:
  Formatter(std::string_view format, Zone zone) : formatter_(cached(format, zone)) {}

  // The whole text must match the pattern.
  std::optional<Date> parse(std::string_view text) const {
    if (formatter_ == nullptr) {
      return std::nullopt;
    }
    const icu::UnicodeString input = unicode(text);
    icu::ParsePosition position(0);
    const UDate parsed = formatter_->parse(input, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) {
      return std::nullopt;
    }
    // ICU works in milliseconds since the epoch.
    return Date(Date::TimePoint(std::chrono::microseconds(std::llround(parsed * 1000.0))));
  }

  std::optional<std::string> format(const Date& date) const {
    if (formatter_ == nullptr) {
      return std::nullopt;
    }
    const auto micros = date.timePoint().time_since_epoch().count();
    // Round towards the past so that 12:00:00.9 never writes as 12:00:01.
    const UDate millis = std::floor(static_cast<double>(micros) / 1000.0);
    icu::UnicodeString output;
    formatter_->format(millis, output);
    std::string text;
    output.toUTF8String(text);
    return text;
  }

 private:
  static std::shared_ptr<icu::SimpleDateFormat> cached(std::string_view format, Zone zone) {
    using Key = std::pair<std::string, Zone>;
    thread_local std::map<Key, std::shared_ptr<icu::SimpleDateFormat>> formatters;
    auto found = formatters.find(Key(format, zone));
    if (found == formatters.end()) {
      if (formatters.size() >= kCachedFormatters) {
        formatters.clear();  // Callers use a handful of patterns; this bounds a misuse.
                             // Formatters in use stay alive through their holders.
      }
      UErrorCode status = U_ZERO_ERROR;
      auto made = std::make_shared<icu::SimpleDateFormat>(unicode(format),
                                                          icu::Locale("en_US_POSIX"), status);
      if (U_FAILURE(status)) {
        made.reset();
      } else {
        made->setLenient(false);
        // ICU reads the device's zone once per process, so a cached formatter's zone stays
        // the device's.
        made->adoptTimeZone(zone == Zone::Utc ? icu::TimeZone::createTimeZone("UTC")
                                              : icu::TimeZone::createDefault());
      }
      found = formatters.emplace(Key(format, zone), std::move(made)).first;
    }
    return found->second;
  }

  static constexpr size_t kCachedFormatters = 16;
  std::shared_ptr<icu::SimpleDateFormat> formatter_;  // shared with the cache
};

// The value of `count` decimal digits at `text`, or -1 when one is not a digit.
int digits(std::string_view text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return -1;
    }
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

// A local time stamp written out in full as "yyyy-MM-dd HH:mm:ss" (every chat packet's is),
// read without ICU's pattern parser: the fields go straight into a strict calendar of the
// device's zone, which is what the parser does with them. The parse-format-parse round trip
// gives such a text's first parse back (a wall time in a daylight-saving gap or overlap comes
// back as the same instant), so one reading is the whole answer. nullopt for any other shape,
// and for fields the calendar refuses: the general path decides those.
std::optional<Date> fullLocalTimeStamp(std::string_view text) {
  if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
      text[16] != ':') {
    return std::nullopt;
  }
  const int year = digits(text, 0, 4);
  const int month = digits(text, 5, 2);
  const int day = digits(text, 8, 2);
  const int hour = digits(text, 11, 2);
  const int minute = digits(text, 14, 2);
  const int second = digits(text, 17, 2);
  if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0) {
    return std::nullopt;
  }
  // Built once per thread, like the formatters, and left with nothing of a reading behind.
  thread_local const std::unique_ptr<icu::Calendar> calendar = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Calendar> made(icu::Calendar::createInstance(
        icu::TimeZone::createDefault(), icu::Locale("en_US_POSIX"), status));
    if (U_FAILURE(status)) {
      made.reset();
    } else {
      made->setLenient(false);
    }
    return made;
  }();
  if (calendar == nullptr) {
    return std::nullopt;
  }
  calendar->clear();
  calendar->set(year, month - 1, day, hour, minute, second);
  UErrorCode status = U_ZERO_ERROR;
  const UDate millis = calendar->getTime(status);
  if (U_FAILURE(status)) {
    return std::nullopt;
  }
  return Date(Date::TimePoint(std::chrono::microseconds(std::llround(millis * 1000.0))));
}

std::optional<Date> roundTrip(std::string_view text, std::string_view format, Zone zone) {
  if (zone == Zone::Local && format == kRoundTripFormat) {
    if (auto date = fullLocalTimeStamp(text)) {
      return date;
    }
  }
  const auto parsed = Formatter(format, zone).parse(text);
  if (!parsed) {
    return std::nullopt;
  }
  const Formatter wallClock(kRoundTripFormat, zone);
  const auto written = wallClock.format(*parsed);
  return written ? wallClock.parse(*written) : std::nullopt;
}

struct DefaultFormat {
  std::string format = "yyyy-MM-dd";
};

Guarded<DefaultFormat>& defaultFormatSlot() {
  static Guarded<DefaultFormat> slot;
  return slot;
}

}  // namespace

std::string DatePlus::defaultFormat() {
  return defaultFormatSlot().get(&DefaultFormat::format);
}

void DatePlus::setDefaultFormat(std::string format) {
  defaultFormatSlot().set(&DefaultFormat::format, std::move(format));
}

Date DatePlus::now() {
  return Date::now();
}

std::optional<Date> DatePlus::dateFromString(std::string_view text) {
  return dateFromString(text, defaultFormat());
}

std::optional<Date> DatePlus::dateFromString(std::string_view text, std::string_view format) {
  return Formatter(format, Zone::Utc).parse(text);
}

std::optional<Date> DatePlus::utctoLocalFromString(std::string_view text, std::string_view format) {
  return roundTrip(text, format, Zone::Utc);
}

std::optional<Date> DatePlus::dateWithLocalTimeZone(std::string_view text,
                                                    std::string_view format) {
  return roundTrip(text, format, Zone::Local);
}

std::string DatePlus::stringFromDate(const Date& date) {
  return stringFromDate(date, defaultFormat());
}

std::string DatePlus::stringFromDate(const Date& date, std::string_view format) {
  // Every chat packet sent carries the current time, mostly in the same second as the last one.
  // A pattern without fractions of a second ('S') or milliseconds in the day ('A') writes every
  // instant of one second alike, so each thread keeps the last text it wrote.
  if (format.find_first_of("SA") != std::string_view::npos) {
    return Formatter(format, Zone::Local).format(date).value_or("");
  }
  struct LastWritten {
    std::string format;
    std::int64_t second = 0;
    std::string text;
  };
  thread_local std::optional<LastWritten> last;
  const std::int64_t second =
      std::chrono::floor<std::chrono::seconds>(date.timePoint()).time_since_epoch().count();
  if (last && last->second == second && last->format == format) {
    return last->text;
  }
  std::optional<std::string> text = Formatter(format, Zone::Local).format(date);
  if (!text) {
    return "";
  }
  last = LastWritten{std::string(format), second, *text};
  return std::move(*text);
}

}  // namespace kq
