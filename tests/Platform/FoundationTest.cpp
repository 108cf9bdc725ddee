#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/KQError.h>

#include <gtest/gtest.h>

#include <limits>

namespace kq {
namespace {

// The leading number, as the platform reads it, saturating at the type's limits.
TEST(FoundationTest, IntegerValueReadsTheLeadingNumberAndSaturates) {
  EXPECT_EQ(integerValue("42"), 42);
  EXPECT_EQ(integerValue("  \t\n-0012abc"), -12);
  EXPECT_EQ(integerValue("+7"), 7);
  EXPECT_EQ(integerValue("abc"), 0);
  EXPECT_EQ(integerValue(""), 0);
  EXPECT_EQ(integerValue("- 5"), 0) << "the sign must touch the digits";
  EXPECT_EQ(integerValue("3.9"), 3);
  EXPECT_EQ(integerValue("-1"), -1) << "a negative manager id must stay negative";
  EXPECT_EQ(integerValue("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integerValue("9223372036854775808"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(integerValue("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(integerValue("-99999999999999999999999"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(intValue("2147483647"), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(intValue("2147483648"), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(intValue("-2147483649"), std::numeric_limits<std::int32_t>::min());
}

TEST(FoundationTest, ValuesDatesAndErrorsAreDescribedAsThePlatformDescribesThem) {
  EXPECT_EQ(describe(std::optional<std::string>()), "(null)");
  EXPECT_EQ(describe(std::optional<std::string>("")), "");
  EXPECT_EQ(describe(nlohmann::ordered_json()), "(null)");
  EXPECT_EQ(describe(nlohmann::ordered_json("text")), "text");
  EXPECT_EQ(describe(nlohmann::ordered_json{{"b", 1}, {"a", 2}}), R"({"b":1,"a":2})");
  EXPECT_EQ(describe(12L), "12");
  EXPECT_EQ(describe(true), "1");
  EXPECT_EQ(describe(0.5), "0.5");
  // Dates: UTC, whole seconds rounded down.
  EXPECT_EQ(Date::dateWithTimeIntervalSince1970(1794701152.999).description(),
            "2026-11-15 00:05:52 +0000");
  EXPECT_EQ(Date::dateWithTimeIntervalSince1970(-0.5).description(), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(Date().description(), "1970-01-01 00:00:00 +0000");
  const auto error = KQError::withStatus("WebSite Blocked", 400, 4);
  EXPECT_EQ(error.status(), 4);
  EXPECT_EQ(error.description(), R"(Error Domain=WebSite Blocked Code=400 UserInfo={"status":4})");
  EXPECT_FALSE((KQError{"CURLE", 7, {{"status", "x"}}}).status());
}

}  // namespace
}  // namespace kq
