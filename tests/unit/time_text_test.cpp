// The shared time and duration formatter: printing and reading agree over
// random times in many zones, the edges of the exploded year range, a
// foreign zone-parameter function, fixed offsets, zone names and the local
// zone. The token vocabulary and the reading rules are covered by the XML
// suites under tests/suites/time.
#include "support/time_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/tuple.h"

namespace vx {
namespace {

std::optional<std::string> Print(PRTime t, std::string_view format, std::string_view zone,
                                 PRTimeParamFn params = PR_GMTParameters) {
  return TimeToString(t, format.data(), format.size(), params, zone.data(), zone.size());
}

std::optional<PRTime> Read(std::string_view text, std::string_view format, std::string_view zone,
                           PRTimeParamFn params = PR_GMTParameters) {
  PRTime t = 0;
  if (!TimeFromString(text.data(), text.size(), format.data(), format.size(), params, t,
                      zone.data(), zone.size()))
    return std::nullopt;
  return t;
}

constexpr PRTime kSecond = 1000000;
constexpr PRTime kDay = 86400 * kSecond;

// Whether the local time of `t` in `zone` shows twice; with `same_name`,
// twice under the same abbreviation, so that no text can say which one it
// is and the round trip gives the first.
bool IsRepeated(PRTime t, const char* zone, bool same_name) {
  absl::TimeZone tz;
  if (!VxTimezoneMap::Find(zone, tz)) return false;
  const absl::TimeZone::CivilInfo info = tz.At(absl::FromUnixMicros(t));
  const absl::TimeZone::TimeInfo ti = tz.At(info.cs);
  return ti.kind == absl::TimeZone::TimeInfo::REPEATED &&
         (!same_name || std::string(tz.At(ti.pre).zone_abbr) == tz.At(ti.post).zone_abbr);
}

TEST(TimeText, PrintedTimesReadBackInEveryZone) {
  const char* const kZones[] = {"America/New_York",
                                "Europe/Berlin",
                                "Australia/Lord_Howe",
                                "Asia/Kathmandu",
                                "Pacific/Apia",
                                "Europe/Moscow",
                                "UTC",
                                "+05:30",
                                "-09:30"};
  const char* const kFormats[] = {
      "YYYY-MM-DD HH24:MI:SS.ff TZD",
      "DAY DD MONTH YYYY HH12:MI:SS.ff PM TZD",
      "YYYY DDD HH24MISS ff TZD",
      "DY, DD MON YYYY \"at\" HH:MI:SS.ff AM (TZD)",
  };
  std::mt19937_64 random(20240310);
  // 1800 to 2200, with a bias toward the recent past where changes cluster.
  std::uniform_int_distribution<PRTime> any(-5364662400 * kSecond, 7258118400 * kSecond);
  std::uniform_int_distribution<PRTime> recent(0, 2145916800 * kSecond);
  int ambiguous = 0;
  for (int i = 0; i < 20000; ++i) {
    const PRTime t = i % 2 ? any(random) : recent(random);
    const char* zone = kZones[i % std::size(kZones)];
    const char* format = kFormats[i / std::size(kZones) % std::size(kFormats)];
    const std::optional<std::string> text = Print(t, format, zone);
    ASSERT_TRUE(text) << t << " " << zone;
    const std::optional<PRTime> back = Read(*text, format, zone);
    ASSERT_TRUE(back) << *text << " with " << format << " in " << zone;
    if (IsRepeated(t, zone, true)) {
      ++ambiguous;
      EXPECT_LE(*back, t) << *text;
    } else {
      EXPECT_EQ(*back, t) << *text << " with " << format << " in " << zone;
    }
  }
  EXPECT_LT(ambiguous, 20);
}

TEST(TimeText, TheExplodedYearRangeIsTheLimit) {
  const std::string_view format = "YYYY-MM-DD HH24:MI:SS.ff";
  // The last microsecond of 32767 and the first of -32768, in UTC.
  const PRTime last =
      absl::ToUnixMicros(absl::FromCivil(absl::CivilSecond(32768, 1, 1), absl::UTCTimeZone())) - 1;
  const PRTime first =
      absl::ToUnixMicros(absl::FromCivil(absl::CivilSecond(-32768, 1, 1), absl::UTCTimeZone()));
  EXPECT_EQ(Print(last, format, "UTC"), "32767-12-31 23:59:59.999999");
  EXPECT_EQ(Print(first, format, "UTC"), "-32768-01-01 00:00:00.000000");
  EXPECT_EQ(Read("32767-12-31 23:59:59.999999", format, "UTC"), last);
  EXPECT_EQ(Read("-32768-01-01 00:00:00.000000", format, "UTC"), first);
  EXPECT_FALSE(Print(last + 1, format, "UTC"));
  EXPECT_FALSE(Print(first - 1, format, "UTC"));
  EXPECT_FALSE(Print(INT64_MAX, format, "UTC"));
  EXPECT_FALSE(Print(INT64_MIN, format, "America/New_York"));
  EXPECT_FALSE(Read("32768-01-01 00:00:00.000000", format, "UTC"));
  // A zone can carry a time across the limit.
  EXPECT_FALSE(Print(last, format, "+01:00"));

  // The value text falls back to the microsecond count there, and reads it.
  for (PRTime t : {INT64_MIN, INT64_MAX, last + 1, first - 1, last, first, PRTime{0}, PRTime{-1}}) {
    const std::string text = CpxTupleField_Time::ToString(t);
    int64_t back = 0;
    ASSERT_TRUE(CpxTupleField_Time::FromString(back, text)) << text;
    EXPECT_EQ(back, t) << text;
  }
  EXPECT_EQ(CpxTupleField_Time::ToString(INT64_MAX), "@9223372036854775807");
  EXPECT_EQ(CpxTupleField_Time::ToString(-1), "1969-12-31 23:59:59.999999");
  EXPECT_EQ(CpxTupleField_Time::ToString(0), "1970-01-01 00:00:00");
}

// A parameter function other than the local and UTC ones is called through
// NSPR: it gives the offsets, and the abbreviation is the offset.
TEST(TimeText, AForeignParameterFunctionIsUsedThroughNspr) {
  const std::string_view format = "YYYY-MM-DD HH24:MI:SS.ff";
  std::mt19937_64 random(7);
  // 2008 onward, under the US rules that NSPR's Pacific function knows.
  std::uniform_int_distribution<PRTime> in_range(1199145600 * kSecond, 2145916800 * kSecond);
  for (int i = 0; i < 2000; ++i) {
    const PRTime t = in_range(random);
    PRExplodedTime e;
    PR_ExplodeTime(t, PR_USPacificTimeParameters, &e);
    const int offset = e.tm_params.tp_gmt_offset + e.tm_params.tp_dst_offset;
    const std::optional<std::string> text =
        Print(t, "YYYY-MM-DD HH24:MI:SS.ff TZD", "", PR_USPacificTimeParameters);
    ASSERT_TRUE(text);
    EXPECT_EQ(*text, *Print(t, format, "", PR_USPacificTimeParameters) +
                         (offset == -7 * 3600 ? " -0700" : " -0800"));
    // The same wall clock as the database's Los Angeles.
    EXPECT_EQ(Print(t, format, "", PR_USPacificTimeParameters),
              Print(t, format, "America/Los_Angeles"));
    // And it reads back, except in the repeated hour of November.
    if (!IsRepeated(t, "America/Los_Angeles", false)) {
      EXPECT_EQ(Read(text->substr(0, 26), format, "", PR_USPacificTimeParameters), t) << *text;
    }
  }
}

TEST(TimeText, FixedOffsets) {
  struct Case {
    const char* text;
    bool ok;
    int seconds;
  };
  const Case kCases[] = {
      {"Z", true, 0},           {"+00", true, 0},
      {"-00:00", true, 0},      {"+05", true, 18000},
      {"-0800", true, -28800},  {"+05:30", true, 19800},
      {"+0545", true, 20700},   {"-03:30:15", true, -12615},
      {"+235959", true, 86399}, {"+5", false, 0},
      {"+24", false, 0},        {"+05:60", false, 0},
      {"+0530:15", false, 0},   {"+05:3015", false, 0},
      {"+05:3", false, 0},      {"05:00", false, 0},
      {"+05:", false, 0},       {"UTC+1", false, 0},
      {"", false, 0},           {"+05:30:00:00", false, 0},
      {"z", false, 0},
  };
  for (const Case& c : kCases) {
    int seconds = 12345;
    EXPECT_EQ(VxTimezoneMap::ParseFixedOffset(c.text, seconds), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(seconds, c.seconds) << c.text;
    }
  }
}

TEST(TimeText, ZoneNamesStayInsideTheDatabase) {
  absl::TimeZone tz;
  EXPECT_TRUE(VxTimezoneMap::Find("Europe/Berlin", tz));
  EXPECT_EQ(tz.name(), "Europe/Berlin");
  EXPECT_FALSE(VxTimezoneMap::Find("/usr/share/zoneinfo/UTC", tz));
  EXPECT_FALSE(VxTimezoneMap::Find("../zoneinfo/UTC", tz));
  EXPECT_FALSE(VxTimezoneMap::Find("Europe/../UTC", tz));
  EXPECT_FALSE(VxTimezoneMap::Find("", tz));
  EXPECT_FALSE(VxTimezoneMap::Find("Not/A_Zone", tz));
  EXPECT_EQ(tz.name(), "Europe/Berlin") << "a failed look-up leaves the zone alone";
  // Names in turn, known and unknown, on several threads: each thread keeps
  // its last name, which must never answer for another name.
  auto check = [](int seed) {
    const char* const kNames[] = {"UTC",        "Bogus/Zone", "Asia/Tokyo",
                                  "Asia/Tokyo", "Nowhere",    "America/Chicago"};
    for (int i = 0; i < 3000; ++i) {
      const char* name = kNames[(i * 7 + seed) % std::size(kNames)];
      absl::TimeZone z;
      const bool found = VxTimezoneMap::Find(name, z);
      const bool known = std::strchr(name, '/') && std::strncmp(name, "Bogus", 5) != 0;
      if (found != (known || std::strcmp(name, "UTC") == 0) || (found && z.name() != name)) {
        ADD_FAILURE() << name;
        return;
      }
    }
  };
  std::vector<std::thread> threads;
  for (int s = 0; s < 4; ++s) threads.emplace_back(check, s);
  for (std::thread& t : threads) t.join();
}

TEST(TimeText, TheLocalZoneIsTheProcessZone) {
  const char* tz = std::getenv("TZ");
  if (tz) {
    std::string expected = tz[0] == ':' ? tz + 1 : tz;
    if (expected.empty()) expected = "UTC";
    EXPECT_EQ(VxTimezoneMap::GetLocalTimezone(), expected);
  }
  const std::string& local = VxTimezoneMap::GetLocalTimezone();
  EXPECT_FALSE(local.empty());
  // The local parameter function, an empty zone and the local zone's name
  // are one zone.
  const std::string_view format = "YYYY-MM-DD HH24:MI:SS TZD";
  for (PRTime t : {PRTime{0}, 1710054000 * kSecond, 1730611800 * kSecond, -2 * kDay}) {
    EXPECT_EQ(Print(t, format, "", PR_LocalTimeParameters), Print(t, format, local));
    EXPECT_EQ(Print(t, format, "", nullptr), Print(t, format, local));
  }
}

TEST(TimeText, ReadingDetails) {
  struct Case {
    const char* text;
    const char* format;
    const char* expected;  // UTC value text, or nullptr when it must not read
  };
  const Case kCases[] = {
      // YYYY takes five digits before a literal, four before a number.
      {"12345-06-07", "YYYY-MM-DD", "@327416947200000000"},
      {"20240607", "YYYYMMDD", "2024-06-07 00:00:00"},
      {"202406077", "YYYYMMDD", nullptr},
      // HH12 without AM or PM is a morning hour; 12 is midnight.
      {"12:05", "HH12:MI", "1970-01-01 00:05:00"},
      {"12:05 PM", "HH12:MI AM", "1970-01-01 12:05:00"},
      // A day of the year next to a month must agree with it.
      {"2024-02 060", "YYYY-MM DDD", "2024-02-29 00:00:00"},
      {"2024-03 060", "YYYY-MM DDD", nullptr},
      {"2024 060", "YYYY DDD", "2024-02-29 00:00:00"},
      // An unclosed quote runs to the end of the format.
      {"2024 at noon", "YYYY \"at noon", "2024-01-01 00:00:00"},
      // Blanks: one in the format takes several (and tabs); none is not one.
      {"2024 \t 01", "YYYY MM", "2024-01-01 00:00:00"},
      {"202401", "YYYY MM", nullptr},
      // Names: abbreviations must not take the full name's place.
      {"JUNE", "MON", nullptr},
      {"JUN", "MONTH", nullptr},
      {"-0044-03-15", "YYYY-MM-DD", "@-63549360000000000"},
  };
  for (const Case& c : kCases) {
    const std::optional<PRTime> t = Read(c.text, c.format, "UTC");
    if (!c.expected) {
      EXPECT_FALSE(t) << c.text << " / " << c.format;
      continue;
    }
    ASSERT_TRUE(t) << c.text << " / " << c.format;
    int64_t expected = 0;
    ASSERT_TRUE(CpxTupleField_Time::FromString(expected, c.expected)) << c.expected;
    EXPECT_EQ(*t, expected) << c.text << " / " << c.format;
  }
}

TEST(TimeText, DurationsReadBackOverTheWholeRange) {
  const char* const kFormats[] = {"D HH24:MI:SS.ff", "HH24:MI:SS.ff", "SS.ff", "ff",
                                  "DDD \"days\" HH \"h\" MI \"m\" SS.ff"};
  std::mt19937_64 random(42);
  std::vector<PRTime> values = {0, 1, -1, INT64_MAX, INT64_MIN, kDay, -kDay + 1};
  for (int i = 0; i < 5000; ++i) values.push_back(static_cast<PRTime>(random()) >> (i % 40));
  for (PRTime v : values) {
    for (const char* format : kFormats) {
      const std::string text = IntervalToString(v, format, std::strlen(format), nullptr);
      PRTime back = 0;
      ASSERT_TRUE(IntervalFromString(text.data(), text.size(), format, std::strlen(format), back))
          << text << " / " << format;
      EXPECT_EQ(back, v) << text << " / " << format;
    }
  }
}

}  // namespace
}  // namespace vx
