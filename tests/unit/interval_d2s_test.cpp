// IntervalD2S over the whole 64-bit range: the canonical text reads back,
// the extracted fields add up to the value, canon is stable, and counts
// from numbers stop exactly at the range. The text syntaxes are covered by
// the XML suites under tests/suites/interval.
#include "support/interval_d2s.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "support/tuple.h"

namespace vx {
namespace {

std::vector<int64_t> SampleValues() {
  std::vector<int64_t> values = {0,           1,           -1,        999999,    -1000000,
                                 86399999999, 86400000000, INT64_MAX, INT64_MIN, INT64_MIN + 1};
  std::mt19937_64 random(86400);
  for (int i = 0; i < 20000; ++i) values.push_back(static_cast<int64_t>(random()) >> (i % 63));
  return values;
}

TEST(IntervalD2S, CanonicalTextReadsBackAndFieldsAddUp) {
  for (int64_t v : SampleValues()) {
    IntervalD2S interval(v);
    interval.canon();
    ASSERT_TRUE(interval.IsValid()) << v;
    ASSERT_EQ(interval.GetValue(), v);
    const std::string text = interval.ToString();

    // The text in the general syntax and in the DAY TO SECOND form, and the
    // value text of an interval field, all give the value back.
    IntervalD2S general{std::string_view(text)};
    general.canon();
    ASSERT_TRUE(general.IsValid()) << text;
    EXPECT_EQ(general.GetValue(), v) << text;
    IntervalD2S qualified;
    ASSERT_TRUE(qualified.intd2s_parser_day2second(text)) << text;
    qualified.canon();
    EXPECT_EQ(qualified.GetValue(), v) << text;
    int64_t field_value = 0;
    ASSERT_TRUE(CpxTupleField_IntervalD2S::FromString(field_value, text));
    EXPECT_EQ(field_value, v);
    EXPECT_EQ(CpxTupleField_IntervalD2S::ToString(v), text);

    // Canonical parts: in range, signed like the value, adding up to it.
    int64_t day = 0, hour = 0, minute = 0, second = 0, micro = 0;
    ASSERT_TRUE(interval.Extract("day", day));
    ASSERT_TRUE(interval.Extract("Hour", hour));
    ASSERT_TRUE(interval.Extract("MINUTE", minute));
    ASSERT_TRUE(interval.Extract("second", second));
    ASSERT_TRUE(interval.Extract("MicroSecond", micro));
    EXPECT_LT(std::abs(hour), 24);
    EXPECT_LT(std::abs(minute), 60);
    EXPECT_LT(std::abs(second), 60);
    EXPECT_LT(std::abs(micro), 1000000);
    for (int64_t f : {day, hour, minute, second, micro}) EXPECT_TRUE(f == 0 || (f < 0) == (v < 0));
    const __int128 sum =
        ((((__int128)day * 24 + hour) * 60 + minute) * 60 + second) * 1000000 + micro;
    EXPECT_EQ(sum, (__int128)v) << text;

    // canon is stable.
    interval.canon();
    EXPECT_EQ(interval.GetValue(), v);
    EXPECT_EQ(interval.ToString(), text);
    char buffer[32];
    EXPECT_EQ(interval.ToChars(buffer, sizeof buffer), static_cast<int>(text.size()));
    EXPECT_EQ(std::string(buffer), text);
  }
  int64_t unused = 0;
  EXPECT_FALSE(IntervalD2S(5).Extract("WEEK", unused));
  EXPECT_FALSE(IntervalD2S(5).Extract("DAYS", unused));
}

TEST(IntervalD2S, ValuesBeyondTheCountAreRefused) {
  // Parts that read but exceed the count make canon invalid.
  IntervalD2S iso{std::string_view("PT2562047789H")};  // above 2^63 microseconds
  iso.canon();
  EXPECT_FALSE(iso.IsValid());
  IntervalD2S just{std::string_view("PT2562047788H")};
  just.canon();
  EXPECT_TRUE(just.IsValid());
  EXPECT_EQ(just.GetValue(), INT64_C(2562047788) * 3600000000);

  IntervalD2S days;
  EXPECT_TRUE(days.intd2s_parser_day2second("106751991 04:00:54.775807"));
  days.canon();
  EXPECT_EQ(days.GetValue(), INT64_MAX);
  EXPECT_FALSE(days.intd2s_parser_day2second("106751991 04:00:54.775808"));
  EXPECT_FALSE(days.IsValid());
  EXPECT_TRUE(days.intd2s_parser_day2second("-106751991 04:00:54.775808"));
  days.canon();
  EXPECT_EQ(days.GetValue(), INT64_MIN);
  // Leading fields have at most nine digits.
  EXPECT_TRUE(days.intd2s_parser_second("999999999.999999"));
  EXPECT_FALSE(days.intd2s_parser_second("1000000000"));
}

TEST(IntervalD2S, NumbersOfUnitsRoundToTheMicrosecondWithinTheRange) {
  struct Case {
    double number;
    const char* unit;
    bool ok;
    int64_t value;
  };
  const Case kCases[] = {
      {1.5, "DAY", true, 129600000000},
      {-1.5, "day", true, -129600000000},
      {0.1, "SECOND", true, 100000},
      {0.3, "second", true, 300000},  // 0.3 * 1e6 is 299999.99999999994
      {2.5e-6, "SECOND", true, 3},    // halves away from zero
      {-2.5e-6, "SECOND", true, -3},
      {-9223372036854.775808, "SECOND", true, INT64_MIN},  // -2^63 exactly
      {9223372036854.775807, "SECOND", false, 0},          // rounds to 2^63
      {1e300, "HOUR", false, 0},
      {0.0, "WEEK", false, 0},
      {1.0, "DAYS", false, 0},
      {1.0, "", false, 0},
      {1.0, "\tMinute ", true, 60000000},
  };
  for (const Case& c : kCases) {
    IntervalD2S interval;
    EXPECT_EQ(interval.intd2s_parser_numtods_interval(c.number, c.unit), c.ok)
        << c.number << c.unit;
    EXPECT_EQ(interval.IsValid(), c.ok);
    if (!c.ok) continue;
    interval.canon();
    EXPECT_EQ(interval.GetValue(), c.value) << c.number << " " << c.unit;
  }
  IntervalD2S nan;
  EXPECT_FALSE(nan.intd2s_parser_numtods_interval(std::nan(""), "DAY"));
}

}  // namespace
}  // namespace vx
