#include <KQVisitorCore/Utilities/DatePlus.h>

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <cmath>
#include <memory>
#include <mutex>

namespace kq {
namespace {

constexpr std::string_view kRoundTripFormat = "yyyy-MM-dd HH:mm:ss";

enum class Zone { Utc, Local };

icu::UnicodeString unicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// One formatter for one call. Null when ICU rejects the pattern.
class Formatter {
 public:
  Formatter(std::string_view format, Zone zone) {
    UErrorCode status = U_ZERO_ERROR;
    formatter_ = std::make_unique<icu::SimpleDateFormat>(unicode(format),
                                                         icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) {
      formatter_.reset();
      return;
    }
    formatter_->setLenient(false);
    formatter_->adoptTimeZone(zone == Zone::Utc ? icu::TimeZone::createTimeZone("UTC")
                                                : icu::TimeZone::createDefault());
  }

  void setFormat(std::string_view format) {
    if (formatter_) {
      formatter_->applyPattern(unicode(format));
    }
  }

  // The whole text must match the pattern.
  std::optional<Date> parse(std::string_view text) const {
    if (!formatter_) {
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
    if (!formatter_) {
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
  std::unique_ptr<icu::SimpleDateFormat> formatter_;
};

std::optional<Date> roundTrip(std::string_view text, std::string_view format, Zone zone) {
  Formatter formatter(format, zone);
  const auto parsed = formatter.parse(text);
  if (!parsed) {
    return std::nullopt;
  }
  formatter.setFormat(kRoundTripFormat);
  const auto written = formatter.format(*parsed);
  return written ? formatter.parse(*written) : std::nullopt;
}

std::mutex& defaultFormatMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& defaultFormatSlot() {
  static std::string format = "yyyy-MM-dd";
  return format;
}

}  // namespace

std::string DatePlus::defaultFormat() {
  std::scoped_lock lock(defaultFormatMutex());
  return defaultFormatSlot();
}

void DatePlus::setDefaultFormat(std::string format) {
  std::scoped_lock lock(defaultFormatMutex());
  defaultFormatSlot() = std::move(format);
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
  return Formatter(format, Zone::Local).format(date).value_or("");
}

}  // namespace kq
