#include <KQVisitorCore/Platform/Date.h>

#include <cmath>
#include <ctime>

namespace kq {

Date Date::now() {
  return Date(std::chrono::time_point_cast<std::chrono::microseconds>(Clock::now()));
}

Date Date::dateWithTimeIntervalSince1970(double seconds) {
  return Date(TimePoint(std::chrono::microseconds(std::llround(seconds * 1e6))));
}

double Date::timeIntervalSince1970() const {
  return static_cast<double>(timePoint_.time_since_epoch().count()) / 1e6;
}

Date Date::dateByAddingTimeInterval(double seconds) const {
  return Date(timePoint_ + std::chrono::microseconds(std::llround(seconds * 1e6)));
}

std::string Date::description() const {
  // Whole seconds, rounded towards the past, as the platform prints them.
  const auto seconds =
      std::chrono::floor<std::chrono::seconds>(timePoint_).time_since_epoch().count();
  const auto time = static_cast<std::time_t>(seconds);
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return std::string(text, length);
}

std::string describe(const Date& date) {
  return date.description();
}

}  // namespace kq
