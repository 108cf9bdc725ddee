// Run under several time zones (TZ is set for the test process): west of UTC, east of UTC with
// a half-hour offset, and UTC itself. Expectations follow the zone in use.

#include <KQVisitorCore/Utilities/DatePlus.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace kq {
namespace {

constexpr double k2016March1 = 1456790400;  // 2016-03-01 00:00:00 UTC

// The local zone's offset from UTC at `date`, in seconds (east positive).
long localOffset(const Date& date) {
  const auto seconds = static_cast<std::time_t>(date.timeIntervalSince1970());
  std::tm local{};
  localtime_r(&seconds, &local);
  return local.tm_gmtoff;
}

class DatePlusTest : public ::testing::Test {
 protected:
  void TearDown() override { DatePlus::setDefaultFormat("yyyy-MM-dd"); }
};

// Guards against a zone name that the C library or ICU silently reads as UTC.
TEST_F(DatePlusTest, TheZoneUnderTestIsTheOneAskedFor) {
  const char* zone = std::getenv("TZ");
  ASSERT_NE(zone, nullptr) << "run these tests with TZ set, as CTest does";
  if (std::string(zone) != "UTC") {
    EXPECT_NE(localOffset(Date::dateWithTimeIntervalSince1970(k2016March1)), 0) << zone;
  }
}

// (The time of day written in local time, on a 24-hour clock, is the readings' test.)
TEST_F(DatePlusTest, ParsingReadsUtcAndFormattingWritesTheDevicesLocalDate) {
  const auto midnight = DatePlus::dateFromString("2016-03-01");
  ASSERT_TRUE(midnight);
  EXPECT_EQ(midnight->timeIntervalSince1970(), k2016March1);
  EXPECT_EQ(DatePlus::stringFromDate(*midnight),
            localOffset(*midnight) >= 0 ? "2016-03-01" : "2016-02-29");
}

// Instants close together across second boundaries on both sides of the epoch, written one
// after the other with and without fractions: each text is its own instant's, whatever was
// written just before (the pattern with milliseconds is the reference for the whole seconds).
TEST_F(DatePlusTest, ConsecutiveWritesEachShowTheirOwnSecond) {
  const double instants[] = {1456790400.1, 1456790400.9, 1456790401.0, 1456790400.999,
                             1456790461.5, -1.5,         -0.001,       0.0,
                             0.5,          -0.001,       1456790401.0};
  std::vector<std::string> wholes;
  for (const double seconds : instants) {
    wholes.push_back(DatePlus::stringFromDate(Date::dateWithTimeIntervalSince1970(seconds),
                                              "yyyy-MM-dd HH:mm:ss"));
  }
  for (std::size_t i = 0; i < std::size(instants); ++i) {
    SCOPED_TRACE(instants[i]);
    const Date date = Date::dateWithTimeIntervalSince1970(instants[i]);
    const std::string fraction = DatePlus::stringFromDate(date, "yyyy-MM-dd HH:mm:ss.SSS");
    EXPECT_EQ(wholes[i], fraction.substr(0, wholes[i].size()));
    EXPECT_EQ(DatePlus::stringFromDate(date, "yyyy-MM-dd HH:mm:ss"), wholes[i]);
    EXPECT_EQ(DatePlus::stringFromDate(date, "HH:mm:ss"), wholes[i].substr(11));
  }
}

// The UTC reading keeps the instant and drops the fraction; the local one reads the device's
// wall-clock time and writes back as the text it came from; a text that does not match gives
// nothing.
TEST_F(DatePlusTest, UtcAndLocalReadingsOfATimeStamp) {
  const auto utc =
      DatePlus::utctoLocalFromString("2016-03-01 22:20:30.789", "yyyy-MM-dd HH:mm:ss.SSS");
  ASSERT_TRUE(utc);
  const double wallClockAsUtc = k2016March1 + 22 * 3600 + 20 * 60 + 30;
  EXPECT_EQ(utc->timeIntervalSince1970(), wallClockAsUtc);
  const std::string format = "yyyy-MM-dd HH:mm:ss";
  const auto local = DatePlus::dateWithLocalTimeZone("2016-03-01 22:20:30", format);
  ASSERT_TRUE(local);
  EXPECT_EQ(local->timeIntervalSince1970(),
            wallClockAsUtc - static_cast<double>(localOffset(*local)));
  EXPECT_EQ(DatePlus::stringFromDate(*local, format), "2016-03-01 22:20:30");

  for (const char* text : {"", "garbage", "2016-03-01", "2016-03-01 10:20:30 trailing",
                           "2016-02-30 10:20:30", "2016-03-01 25:00:00", "01/03/2016 10:20:30"}) {
    EXPECT_FALSE(DatePlus::dateFromString(text, format)) << text;
    EXPECT_FALSE(DatePlus::utctoLocalFromString(text, format)) << text;
    EXPECT_FALSE(DatePlus::dateWithLocalTimeZone(text, format)) << text;
  }
}

TEST_F(DatePlusTest, TheDefaultFormatIsSharedAndCopied) {
  EXPECT_EQ(DatePlus::defaultFormat(), "yyyy-MM-dd");
  std::string format = "dd.MM.yyyy";
  DatePlus::setDefaultFormat(format);
  format = "changed by the caller";
  EXPECT_EQ(DatePlus::defaultFormat(), "dd.MM.yyyy");
  const auto date = DatePlus::dateFromString("01.03.2016");
  ASSERT_TRUE(date);
  EXPECT_EQ(date->timeIntervalSince1970(), k2016March1);
  EXPECT_FALSE(DatePlus::dateFromString("2016-03-01"));
}

// A chat packet's full time stamp is read by a shorter road than other patterns; quoting the
// dashes means the same pattern to ICU but takes the general road, so the two must agree on
// every text: each quarter hour of the days around both daylight-saving changes, and the
// calendar's edges.
TEST_F(DatePlusTest, FullTimeStampsReadAsThePatternWouldReadThem) {
  const std::string format = "yyyy-MM-dd HH:mm:ss";
  const std::string general = "yyyy'-'MM'-'dd HH:mm:ss";
  std::vector<std::string> texts = {
      "0000-01-01 00:00:00", "0001-01-01 00:00:00", "1582-10-10 12:00:00", "1970-01-01 00:00:00",
      "2016-02-29 23:59:59", "2015-02-29 00:00:00", "2016-13-01 00:00:00", "2016-00-10 00:00:00",
      "2016-03-01 24:00:00", "2016-03-01 23:60:00", "2016-03-01 23:59:60", "9999-12-31 23:59:59",
      "2016-03-01T10:20:30", "2016-3-01 10:20:30",  "+016-03-01 10:20:30", "2016-03-01 10:20:3x",
  };
  char text[32];
  for (const char* day : {"2016-03-12", "2016-03-13", "2016-03-14", "2016-11-05", "2016-11-06",
                          "2016-11-07", "2016-03-27", "2016-10-30"}) {
    for (int minutes = 0; minutes < 24 * 60; minutes += 15) {
      std::snprintf(text, sizeof text, "%s %02d:%02d:07", day, minutes / 60, minutes % 60);
      texts.emplace_back(text);
    }
  }
  for (const auto& stamp : texts) {
    const auto fast = DatePlus::dateWithLocalTimeZone(stamp, format);
    const auto slow = DatePlus::dateWithLocalTimeZone(stamp, general);
    ASSERT_EQ(fast.has_value(), slow.has_value()) << stamp;
    if (fast) {
      EXPECT_EQ(fast->timeIntervalSince1970(), slow->timeIntervalSince1970()) << stamp;
    }
  }
}

}  // namespace
}  // namespace kq
