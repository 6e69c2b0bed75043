// The time formatter's zone offsets checked against the C library's own
// reading of the system time-zone database: for a sample of zones and years,
// glibc's localtime_r under TZ=<zone> gives the wall-clock time, weekday,
// day of the year and abbreviation of every sampled instant, and the
// formatter must print exactly the same, and read the printed local time
// back to the same instant. glibc parses the zone files with its own code,
// so an offset table or transition search of ours that goes wrong cannot
// agree with it. Instants are sampled every few hours and on both sides of
// every change of offset that glibc shows within the years.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "support/time_text.h"

namespace vx {
namespace {

// Sets TZ for the C library for the lifetime of the object.
class ScopedTz {
 public:
  explicit ScopedTz(const char* zone) {
    if (const char* old = std::getenv("TZ")) m_old = old;
    m_had = std::getenv("TZ") != nullptr;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTz() {
    if (m_had) {
      setenv("TZ", m_old.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::string m_old;
  bool m_had = false;
};

constexpr char kFormat[] = "YYYY-MM-DD HH24:MI:SS D DDD TZD";
constexpr char kReadFormat[] = "YYYY-MM-DD HH24:MI:SS";

// What glibc shows for `seconds` in the current TZ, in the form of kFormat.
std::string GlibcText(time_t seconds, long& offset) {
  struct tm tm {};
  EXPECT_NE(localtime_r(&seconds, &tm), nullptr);
  offset = tm.tm_gmtoff;
  char text[128];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S ", &tm);
  std::string out = text;
  out += std::to_string(tm.tm_wday + 1);
  strftime(text, sizeof text, " %j %Z", &tm);
  return out + text;
}

// UTC seconds of 1 January of `year`.
time_t YearStart(int year) {
  struct tm tm {};
  tm.tm_year = year - 1900;
  tm.tm_mday = 1;
  return timegm(&tm);
}

struct Sample {
  time_t seconds;
  bool near_change;
};

// Every `step` seconds through the year (give or take an hour), plus the last second before and the
// first second of every change of offset glibc shows in it.
std::vector<Sample> Samples(int year, time_t step) {
  std::vector<Sample> samples;
  const time_t begin = YearStart(year), end = YearStart(year + 1);
  long previous = 0;
  for (time_t t = begin; t < end; t += 3600) {
    struct tm tm {};
    localtime_r(&t, &tm);
    if (t != begin && tm.tm_gmtoff != previous) {
      // The change lies in (t - 3600, t]: find its first second.
      time_t lo = t - 3600, hi = t;
      while (hi - lo > 1) {
        const time_t mid = lo + (hi - lo) / 2;
        struct tm m {};
        localtime_r(&mid, &m);
        (m.tm_gmtoff == previous ? lo : hi) = mid;
      }
      samples.push_back({hi - 1, true});
      samples.push_back({hi, true});
    }
    previous = tm.tm_gmtoff;
    // At varying minutes and seconds past the hour.
    if ((t - begin) % step == 0) samples.push_back({t + (t - begin) / step % 59 * 61, false});
  }
  return samples;
}

TEST(TimeZoneDatabase, OffsetsAgreeWithTheCLibrary) {
  const char* const kZones[] = {
      "America/New_York",
      "America/Los_Angeles",
      "America/St_Johns",
      "America/Sao_Paulo",
      "America/Santiago",
      "Europe/Berlin",
      "Europe/London",
      "Europe/Moscow",
      "Africa/Casablanca",
      "Asia/Kolkata",
      "Asia/Kathmandu",
      "Asia/Tehran",
      "Australia/Sydney",
      "Australia/Lord_Howe",
      "Pacific/Chatham",
      "Pacific/Apia",
      "UTC",
  };
  const int kYears[] = {1918, 1950, 1971, 1985, 1996, 2007, 2011, 2014, 2024, 2037, 2040, 2100};
  size_t checked = 0, changes = 0;
  for (const char* zone : kZones) {
    ScopedTz tz(zone);
    const size_t zone_length = std::strlen(zone);
    for (int year : kYears) {
      for (const Sample& s : Samples(year, 6 * 3600)) {
        long offset = 0;
        const std::string expected = GlibcText(s.seconds, offset);
        const PRTime time = static_cast<PRTime>(s.seconds) * 1000000 + 250000;
        const std::optional<std::string> text =
            TimeToString(time, kFormat, sizeof kFormat - 1, PR_GMTParameters, zone, zone_length);
        ASSERT_TRUE(text) << zone << " " << s.seconds;
        ASSERT_EQ(*text, expected) << zone << " at " << s.seconds << " (offset " << offset << ")";
        ++checked;
        changes += s.near_change;

        // The printed local time reads back to the instant, unless it is
        // repeated (glibc shows the same wall clock an offset-change later
        // or earlier), when the first occurrence is the documented reading.
        const std::string wall = expected.substr(0, 19);
        PRTime back = 0;
        ASSERT_TRUE(TimeFromString(wall.data(), wall.size(), kReadFormat, sizeof kReadFormat - 1,
                                   PR_GMTParameters, back, zone, zone_length));
        const time_t back_seconds = static_cast<time_t>(back / 1000000);
        long back_offset = 0;
        const std::string again = GlibcText(back_seconds, back_offset);
        EXPECT_EQ(again.substr(0, 19), wall) << zone << " read back at " << back_seconds;
        if (back_seconds != s.seconds) {
          EXPECT_LT(back_seconds, s.seconds) << zone << ": a repeated time reads as the first";
        }
      }
    }
  }
  // The sample must have met real changes, or it proves little.
  EXPECT_GT(changes, 300u);
  EXPECT_GT(checked, 100000u);
}

// A local time in a gap, read by glibc's mktime with the offset before the
// change (tm_isdst from the hour before), lands where ours does.
TEST(TimeZoneDatabase, GapReadingMatchesMktimeWithTheEarlierOffset) {
  struct Case {
    const char* zone;
    int year, month, day, hour, minute;
  };
  const Case kCases[] = {
      {"America/New_York", 2024, 3, 10, 2, 30},
      {"Europe/Berlin", 2024, 3, 31, 2, 15},
      {"Australia/Lord_Howe", 2024, 10, 6, 2, 10},
      {"America/St_Johns", 2024, 3, 10, 2, 45},
  };
  for (const Case& c : kCases) {
    ScopedTz tz(c.zone);
    struct tm tm {};
    tm.tm_year = c.year - 1900;
    tm.tm_mon = c.month - 1;
    tm.tm_mday = c.day;
    tm.tm_hour = c.hour;
    tm.tm_min = c.minute;
    tm.tm_isdst = 0;  // standard time, the offset before a spring change
    const time_t expected = mktime(&tm);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:00", c.year, c.month, c.day, c.hour,
                  c.minute);
    PRTime parsed = 0;
    ASSERT_TRUE(TimeFromString(text, std::strlen(text), kReadFormat, sizeof kReadFormat - 1,
                               PR_GMTParameters, parsed, c.zone, std::strlen(c.zone)));
    EXPECT_EQ(parsed, static_cast<PRTime>(expected) * 1000000) << c.zone << " " << text;
  }
}

}  // namespace
}  // namespace vx
