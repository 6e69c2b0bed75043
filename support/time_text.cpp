// Time and duration texts, and the time-zone map (see time_text.h).
#include "support/time_text.h"

#include <absl/strings/match.h>
#include <absl/time/civil_time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "support/log.h"

namespace vx {
namespace {

// ---- format items ----

enum class Tok : uint8_t {
  kEnd,
  kLiteral,
  kYYYY,
  kYY,
  kMONTH,
  kMON,
  kMM,
  kDDD,
  kDAY,
  kDY,
  kDD,
  kD,
  kHH24,
  kHH12,
  kHH,
  kAM,
  kPM,
  kMI,
  kSS,
  kff,
  kTZD,
};

struct TokenName {
  std::string_view text;
  Tok tok;
};
// A name that begins another comes after it, so the first match is the
// longest.
constexpr TokenName kTokens[] = {
    {"MONTH", Tok::kMONTH}, {"YYYY", Tok::kYYYY}, {"HH24", Tok::kHH24}, {"HH12", Tok::kHH12},
    {"MON", Tok::kMON},     {"DDD", Tok::kDDD},   {"DAY", Tok::kDAY},   {"TZD", Tok::kTZD},
    {"YY", Tok::kYY},       {"MM", Tok::kMM},     {"DY", Tok::kDY},     {"DD", Tok::kDD},
    {"HH", Tok::kHH},       {"AM", Tok::kAM},     {"PM", Tok::kPM},     {"MI", Tok::kMI},
    {"SS", Tok::kSS},       {"ff", Tok::kff},     {"D", Tok::kD},
};

bool IsNumberToken(Tok t) {
  switch (t) {
    case Tok::kYYYY:
    case Tok::kYY:
    case Tok::kMM:
    case Tok::kDDD:
    case Tok::kDD:
    case Tok::kD:
    case Tok::kHH24:
    case Tok::kHH12:
    case Tok::kHH:
    case Tok::kMI:
    case Tok::kSS:
    case Tok::kff:
      return true;
    default:
      return false;
  }
}

struct FormatItem {
  Tok tok = Tok::kEnd;
  std::string_view text;  // the literal text, or the token as written
};

// Walks a format: tokens, quoted literals and single literal characters.
class FormatItems {
 public:
  explicit FormatItems(std::string_view format) : m_format(format) {}

  FormatItem Next() {
    FormatItem item;
    if (m_pos >= m_format.size()) return item;
    if (m_format[m_pos] == '"') {  // an unclosed quote runs to the end
      size_t end = m_format.find('"', m_pos + 1);
      if (end == std::string_view::npos) end = m_format.size();
      item = {Tok::kLiteral, m_format.substr(m_pos + 1, end - m_pos - 1)};
      m_pos = end < m_format.size() ? end + 1 : end;
      return item;
    }
    for (const TokenName& t : kTokens) {
      if (m_format.compare(m_pos, t.text.size(), t.text) == 0) {
        m_pos += t.text.size();
        return {t.tok, t.text};
      }
    }
    return {Tok::kLiteral, m_format.substr(m_pos++, 1)};
  }
  Tok PeekKind() const {
    FormatItems copy = *this;
    return copy.Next().tok;
  }

 private:
  std::string_view m_format;
  size_t m_pos = 0;
};

constexpr const char* kMonthNames[12] = {"JANUARY",   "FEBRUARY", "MARCH",    "APRIL",
                                         "MAY",       "JUNE",     "JULY",     "AUGUST",
                                         "SEPTEMBER", "OCTOBER",  "NOVEMBER", "DECEMBER"};
constexpr const char* kDayNames[7] = {"SUNDAY",   "MONDAY", "TUESDAY", "WEDNESDAY",
                                      "THURSDAY", "FRIDAY", "SATURDAY"};

// ASCII letters in any case (Abseil's string_view is its own type here).
bool EqualsNoCase(std::string_view a, std::string_view b) {
  return absl::EqualsIgnoreCase(absl::string_view(a.data(), a.size()),
                                absl::string_view(b.data(), b.size()));
}

// `v` in decimal, zero-padded to `width` digits, with a '-' when negative.
void AppendNumber(std::string& out, int64_t v, int width) {
  char digits[24];
  int n = 0;
  uint64_t m = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  do {
    digits[n++] = static_cast<char>('0' + m % 10);
    m /= 10;
  } while (m != 0);
  if (v < 0) out += '-';
  for (int i = n; i < width; ++i) out += '0';
  while (n > 0) out += digits[--n];
}

// ---- reading text ----

class TextCursor {
 public:
  explicit TextCursor(std::string_view text) : m_text(text) {}

  bool AtEnd() const { return m_pos == m_text.size(); }
  // One to `max` decimal digits; `count` is how many were read.
  bool Digits(int max, uint64_t& value, int& count) {
    const size_t start = m_pos;
    value = 0;
    while (m_pos < m_text.size() && m_pos - start < static_cast<size_t>(max) &&
           m_text[m_pos] >= '0' && m_text[m_pos] <= '9')
      value = value * 10 + static_cast<uint64_t>(m_text[m_pos++] - '0');
    count = static_cast<int>(m_pos - start);
    return count > 0;
  }
  bool Digits(int max, uint64_t& value) {
    int count = 0;
    return Digits(max, value, count);
  }
  // An optional '+' or '-'; true when it was '-'.
  bool Sign() {
    if (m_pos < m_text.size() && (m_text[m_pos] == '-' || m_text[m_pos] == '+'))
      return m_text[m_pos++] == '-';
    return false;
  }
  // Literal text; a blank matches one or more blanks or tabs.
  bool Literal(std::string_view literal) {
    for (char c : literal) {
      if (c == ' ') {
        const size_t start = m_pos;
        while (m_pos < m_text.size() && (m_text[m_pos] == ' ' || m_text[m_pos] == '\t')) ++m_pos;
        if (m_pos == start) return false;
      } else if (m_pos < m_text.size() && m_text[m_pos] == c) {
        ++m_pos;
      } else {
        return false;
      }
    }
    return true;
  }
  // One of `names` (or of their first three letters), in any case; its index.
  bool Name(const char* const* names, int count, bool abbreviated, int& index) {
    for (int i = 0; i < count; ++i) {
      std::string_view name(names[i]);
      if (abbreviated) name = name.substr(0, 3);
      if (EqualsNoCase(m_text.substr(m_pos, name.size()), name)) {
        m_pos += name.size();
        index = i;
        return true;
      }
    }
    return false;
  }
  // A zone text: letters, digits and / _ + - :
  std::string_view ZoneText() {
    const size_t start = m_pos;
    while (m_pos < m_text.size()) {
      const char c = m_text[m_pos];
      const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
      if (!alnum && c != '/' && c != '_' && c != '+' && c != '-' && c != ':') break;
      ++m_pos;
    }
    return m_text.substr(start, m_pos - start);
  }

 private:
  std::string_view m_text;
  size_t m_pos = 0;
};

// ---- zones ----

constexpr int kMinYear = -32768;  // the year range of PRExplodedTime
constexpr int kMaxYear = 32767;

// Where a conversion takes its offsets from: a database zone (named, local
// or UTC), or a foreign parameter function called through NSPR.
struct Zone {
  absl::TimeZone tz;
  PRTimeParamFn fn = nullptr;
};

bool ChooseZone(std::string_view name, PRTimeParamFn params, Zone& zone) {
  if (!name.empty()) return VxTimezoneMap::Find(name, zone.tz);
  if (params == nullptr || params == PR_LocalTimeParameters) {
    zone.tz = VxTimezoneMap::GetLocalZone();
  } else if (params == PR_GMTParameters) {
    zone.tz = absl::UTCTimeZone();
  } else {
    zone.fn = params;
  }
  return true;
}

// "+HHMM" ("+HHMMSS" with seconds) for an offset in seconds east of UTC.
std::string OffsetText(int32_t offset) {
  std::string text(1, offset < 0 ? '-' : '+');
  const int32_t m = offset < 0 ? -offset : offset;
  AppendNumber(text, m / 3600, 2);
  AppendNumber(text, m / 60 % 60, 2);
  if (m % 60 != 0) AppendNumber(text, m % 60, 2);
  return text;
}

// 0 for Sunday ... 6 for Saturday.
int WeekdayNumber(absl::Weekday w) {
  switch (w) {
    case absl::Weekday::sunday:
      return 0;
    case absl::Weekday::monday:
      return 1;
    case absl::Weekday::tuesday:
      return 2;
    case absl::Weekday::wednesday:
      return 3;
    case absl::Weekday::thursday:
      return 4;
    case absl::Weekday::friday:
      return 5;
    case absl::Weekday::saturday:
      return 6;
  }
  return 0;
}

// `time` in `zone` as an exploded time and the zone's abbreviation then.
// A database zone puts its whole offset into tp_gmt_offset (so that
// PR_ImplodeTime gives the time back); a parameter function gives its own
// split. False when the year leaves the exploded range.
bool Explode(PRTime time, const Zone& zone, PRExplodedTime& e, std::string& abbreviation) {
  if (zone.fn) {
    // NSPR keeps the year in 16 bits: stay a year inside the range, so that
    // no offset can carry the year out of it.
    const absl::CivilSecond utc =
        absl::ToCivilSecond(absl::FromUnixMicros(time), absl::UTCTimeZone());
    if (utc.year() <= kMinYear || utc.year() >= kMaxYear) return false;
    PR_ExplodeTime(time, zone.fn, &e);
    abbreviation = OffsetText(e.tm_params.tp_gmt_offset + e.tm_params.tp_dst_offset);
    return true;
  }
  const absl::TimeZone::CivilInfo info = zone.tz.At(absl::FromUnixMicros(time));
  if (info.cs.year() < kMinYear || info.cs.year() > kMaxYear) return false;
  e.tm_usec = static_cast<PRInt32>(absl::ToInt64Microseconds(info.subsecond));
  e.tm_sec = info.cs.second();
  e.tm_min = info.cs.minute();
  e.tm_hour = info.cs.hour();
  e.tm_mday = info.cs.day();
  e.tm_month = info.cs.month() - 1;
  e.tm_year = static_cast<PRInt16>(info.cs.year());
  e.tm_wday = static_cast<PRInt8>(WeekdayNumber(absl::GetWeekday(info.cs)));
  e.tm_yday = static_cast<PRInt16>(absl::GetYearDay(info.cs) - 1);
  e.tm_params.tp_gmt_offset = info.offset;
  e.tm_params.tp_dst_offset = 0;
  abbreviation = info.zone_abbr;
  return true;
}

// ---- printing a time ----

std::string FormatExploded(const PRExplodedTime& e, std::string_view abbreviation,
                           std::string_view format) {
  std::string out;
  FormatItems items(format);
  const int hour12 = e.tm_hour % 12 == 0 ? 12 : e.tm_hour % 12;
  for (FormatItem item = items.Next(); item.tok != Tok::kEnd; item = items.Next()) {
    switch (item.tok) {
      case Tok::kEnd:
        break;
      case Tok::kLiteral:
        out += item.text;
        break;
      case Tok::kYYYY:
        AppendNumber(out, e.tm_year, 4);
        break;
      case Tok::kYY:
        AppendNumber(out, (e.tm_year % 100 + 100) % 100, 2);
        break;
      case Tok::kMONTH:
        out += kMonthNames[e.tm_month];
        break;
      case Tok::kMON:
        out.append(kMonthNames[e.tm_month], 3);
        break;
      case Tok::kMM:
        AppendNumber(out, e.tm_month + 1, 2);
        break;
      case Tok::kDDD:
        AppendNumber(out, e.tm_yday + 1, 3);
        break;
      case Tok::kDAY:
        out += kDayNames[e.tm_wday];
        break;
      case Tok::kDY:
        out.append(kDayNames[e.tm_wday], 3);
        break;
      case Tok::kDD:
        AppendNumber(out, e.tm_mday, 2);
        break;
      case Tok::kD:
        AppendNumber(out, e.tm_wday + 1, 1);
        break;
      case Tok::kHH24:
        AppendNumber(out, e.tm_hour, 2);
        break;
      case Tok::kHH12:
      case Tok::kHH:
        AppendNumber(out, hour12, 2);
        break;
      case Tok::kAM:
      case Tok::kPM:
        out += e.tm_hour < 12 ? "AM" : "PM";
        break;
      case Tok::kMI:
        AppendNumber(out, e.tm_min, 2);
        break;
      case Tok::kSS:
        AppendNumber(out, e.tm_sec, 2);
        break;
      case Tok::kff:
        AppendNumber(out, e.tm_usec, 6);
        break;
      case Tok::kTZD:
        out += abbreviation;
        break;
    }
  }
  return out;
}

// ---- reading a time ----

struct TimeFields {
  int64_t year = 1970;
  int month = 1, mday = 1, hour = 0, minute = 0, second = 0, usec = 0;
  int yday = 0;    // 1-366; 0 when not read
  int wday = 0;    // 1 (Sunday) to 7; 0 when not read
  int hour12 = 0;  // 1-12; 0 when not read
  int half = -1;   // 0 AM, 1 PM; -1 when not read
  bool has_month = false, has_mday = false;
  std::string_view zone;  // the TZD text; empty when not read
};

// A number of one to `width` digits within [min, max].
bool ReadNumber(TextCursor& text, int width, int min, int max, int& out) {
  uint64_t v = 0;
  if (!text.Digits(width, v) || v < static_cast<uint64_t>(min) || v > static_cast<uint64_t>(max))
    return false;
  out = static_cast<int>(v);
  return true;
}

bool ReadTimeFields(std::string_view text_view, std::string_view format, TimeFields& f) {
  TextCursor text(text_view);
  FormatItems items(format);
  for (FormatItem item = items.Next(); item.tok != Tok::kEnd; item = items.Next()) {
    bool ok = true;
    int index = 0;
    switch (item.tok) {
      case Tok::kEnd:
        break;
      case Tok::kLiteral:
        ok = text.Literal(item.text);
        break;
      case Tok::kYYYY: {
        const bool negative = text.Sign();
        uint64_t v = 0;
        ok = text.Digits(IsNumberToken(items.PeekKind()) ? 4 : 5, v) && v <= 32768;
        f.year = negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
        ok = ok && f.year >= kMinYear && f.year <= kMaxYear;
        break;
      }
      case Tok::kYY: {
        int yy = 0;
        ok = ReadNumber(text, 2, 0, 99, yy);
        f.year = yy < 69 ? 2000 + yy : 1900 + yy;
        break;
      }
      case Tok::kMONTH:
      case Tok::kMON:
        ok = text.Name(kMonthNames, 12, item.tok == Tok::kMON, index);
        f.month = index + 1;
        f.has_month = true;
        break;
      case Tok::kMM:
        ok = ReadNumber(text, 2, 1, 12, f.month);
        f.has_month = true;
        break;
      case Tok::kDDD:
        ok = ReadNumber(text, 3, 1, 366, f.yday);
        break;
      case Tok::kDAY:
      case Tok::kDY:
        ok = text.Name(kDayNames, 7, item.tok == Tok::kDY, index);
        f.wday = index + 1;
        break;
      case Tok::kDD:
        ok = ReadNumber(text, 2, 1, 31, f.mday);
        f.has_mday = true;
        break;
      case Tok::kD:
        ok = ReadNumber(text, 1, 1, 7, f.wday);
        break;
      case Tok::kHH24:
        ok = ReadNumber(text, 2, 0, 23, f.hour);
        break;
      case Tok::kHH12:
      case Tok::kHH:
        ok = ReadNumber(text, 2, 1, 12, f.hour12);
        break;
      case Tok::kAM:
      case Tok::kPM: {
        static constexpr const char* kHalves[2] = {"AM", "PM"};
        ok = text.Name(kHalves, 2, false, f.half);
        break;
      }
      case Tok::kMI:
        ok = ReadNumber(text, 2, 0, 59, f.minute);
        break;
      case Tok::kSS:
        ok = ReadNumber(text, 2, 0, 59, f.second);
        break;
      case Tok::kff: {  // a fraction: right-padded to six digits
        uint64_t v = 0;
        int digits = 0;
        ok = text.Digits(6, v, digits);
        for (; digits < 6; ++digits) v *= 10;
        f.usec = static_cast<int>(v);
        break;
      }
      case Tok::kTZD:
        f.zone = text.ZoneText();
        ok = !f.zone.empty();
        break;
    }
    if (!ok) return false;
  }
  if (!text.AtEnd()) return false;

  if (f.hour12 != 0) f.hour = f.hour12 % 12 + (f.half == 1 ? 12 : 0);
  const absl::CivilDay day(f.year, f.month, f.mday);
  if (f.yday != 0) {
    const absl::CivilDay from_yday = absl::CivilDay(f.year, 1, 1) + (f.yday - 1);
    if (from_yday.year() != f.year) return false;  // day 366 of a common year
    if ((f.has_month && from_yday.month() != f.month) || (f.has_mday && from_yday.day() != f.mday))
      return false;
    f.month = from_yday.month();
    f.mday = from_yday.day();
  } else if (day.month() != f.month || day.day() != f.mday) {
    return false;  // 31 April, 29 February of a common year
  }
  if (f.wday != 0 &&
      WeekdayNumber(absl::GetWeekday(absl::CivilDay(f.year, f.month, f.mday))) + 1 != f.wday)
    return false;
  return true;
}

// The local time `cs` in a database zone whose abbreviation at one of the
// readings of `cs` is `abbreviation`.
bool ResolveByAbbreviation(const absl::CivilSecond& cs, const absl::TimeZone& tz,
                           std::string_view abbreviation, absl::Time& t) {
  const absl::TimeZone::TimeInfo ti = tz.At(cs);
  if (ti.kind == absl::TimeZone::TimeInfo::UNIQUE) {
    if (!EqualsNoCase(tz.At(ti.pre).zone_abbr, abbreviation)) return false;
    t = ti.pre;
    return true;
  }
  // At a change, `pre` reads `cs` with the offset in force before it and
  // `post` with the offset from the change on.
  if (EqualsNoCase(tz.At(ti.trans - absl::Seconds(1)).zone_abbr, abbreviation)) {
    t = ti.pre;
    return true;
  }
  if (EqualsNoCase(tz.At(ti.trans).zone_abbr, abbreviation)) {
    t = ti.post;
    return true;
  }
  return false;
}

// The instant of the fields read. In a gap or an overlap a database zone
// takes the reading with the offset in force before the change.
bool ResolveTime(const TimeFields& f, const Zone& zone, PRTime& result) {
  const absl::CivilSecond cs(f.year, f.month, f.mday, f.hour, f.minute, f.second);
  absl::Time t;
  if (!f.zone.empty()) {
    int offset = 0;
    absl::TimeZone named;
    if (VxTimezoneMap::ParseFixedOffset(f.zone, offset)) {
      t = absl::FromCivil(cs, absl::UTCTimeZone()) - absl::Seconds(offset);
    } else if (!zone.fn && ResolveByAbbreviation(cs, zone.tz, f.zone, t)) {
    } else if (VxTimezoneMap::Find(f.zone, named)) {
      t = named.At(cs).pre;
    } else {
      return false;
    }
  } else if (zone.fn) {
    // The offsets of the fields read as UTC, then once more of the instant
    // that gives, so that a function that looks at the UTC time sees it.
    PRExplodedTime e{};
    e.tm_usec = f.usec;
    e.tm_sec = f.second;
    e.tm_min = f.minute;
    e.tm_hour = f.hour;
    e.tm_mday = f.mday;
    e.tm_month = f.month - 1;
    e.tm_year = static_cast<PRInt16>(f.year);
    PR_NormalizeTime(&e, PR_GMTParameters);
    e.tm_params = zone.fn(&e);
    PRExplodedTime gmt;
    PR_ExplodeTime(PR_ImplodeTime(&e), PR_GMTParameters, &gmt);
    e.tm_params = zone.fn(&gmt);
    result = PR_ImplodeTime(&e);
    return true;
  } else {
    t = zone.tz.At(cs).pre;
  }
  result = absl::ToUnixMicros(t) + f.usec;
  return true;
}

// ---- durations ----

// Days, hours, minutes, seconds, microseconds: the units of a duration
// format, largest first.
enum Unit : int { kDays, kHours, kMinutes, kSeconds, kMicros, kNoUnit };
constexpr uint64_t kUnitMicros[] = {86400000000ull, 3600000000ull, 60000000ull, 1000000ull, 1};
// The range of a unit below a larger one.
constexpr uint64_t kUnitRange[] = {0, 24, 60, 60, 1000000};

// The unit of a duration token and its printed width.
Unit UnitOf(Tok t, int& width) {
  switch (t) {
    case Tok::kD:
      width = 1;
      return kDays;
    case Tok::kDD:
      width = 2;
      return kDays;
    case Tok::kDDD:
      width = 3;
      return kDays;
    case Tok::kHH24:
    case Tok::kHH:
      width = 2;
      return kHours;
    case Tok::kMI:
      width = 2;
      return kMinutes;
    case Tok::kSS:
      width = 2;
      return kSeconds;
    case Tok::kff:
      width = 6;
      return kMicros;
    default:
      width = 0;
      return kNoUnit;
  }
}

Unit LargestUnit(std::string_view format) {
  Unit largest = kNoUnit;
  FormatItems items(format);
  int width = 0;
  for (FormatItem item = items.Next(); item.tok != Tok::kEnd; item = items.Next()) {
    const Unit u = UnitOf(item.tok, width);
    if (u < largest) largest = u;
  }
  return largest;
}

}  // namespace

// ---- VxTimezoneMap ----

const std::string& VxTimezoneMap::GetLocalTimezone() {
  static const std::string name = []() -> std::string {
    if (const char* tz = std::getenv("TZ")) {
      std::string_view v(tz);
      if (!v.empty() && v[0] == ':') v.remove_prefix(1);
      return v.empty() ? "UTC" : std::string(v);
    }
    char link[4096];
    const ssize_t n = ::readlink("/etc/localtime", link, sizeof link - 1);
    if (n > 0) {
      const std::string_view target(link, static_cast<size_t>(n));
      const size_t at = target.find("zoneinfo/");
      if (at != std::string_view::npos) return std::string(target.substr(at + 9));
    }
    return "localtime";
  }();
  return name;
}

const absl::TimeZone& VxTimezoneMap::GetLocalZone() {
  static const absl::TimeZone zone = [] {
    // The process's own TZ is trusted: unlike a zone name from a row, it
    // may name a zone file by its path (TZ=":/usr/share/zoneinfo/...").
    absl::TimeZone tz = absl::UTCTimeZone();
    int offset = 0;
    if (VxTimezoneMap::ParseFixedOffset(GetLocalTimezone(), offset)) {
      tz = absl::FixedTimeZone(offset);
    } else if (!absl::LoadTimeZone(GetLocalTimezone(), &tz)) {
      VX_LOG_TEXT(LogLevel::Warning,
                  "The local time zone '{zone}' is not in the time-zone database; local times "
                  "are UTC",
                  "VxTimezoneMap", {"zone", GetLocalTimezone()});
      tz = absl::UTCTimeZone();
    }
    return tz;
  }();
  return zone;
}

bool VxTimezoneMap::ParseFixedOffset(std::string_view text, int& seconds) {
  if (text == "Z") {
    seconds = 0;
    return true;
  }
  if (text.empty() || (text[0] != '+' && text[0] != '-')) return false;
  // Hours, then optionally minutes and seconds: two digits each, with ':'
  // between all groups or none.
  std::string_view rest = text.substr(1);
  int groups[3] = {0, 0, 0};
  int count = 0;
  bool colons = false;
  while (!rest.empty() && count < 3) {
    if (count > 0) {
      const bool colon = rest[0] == ':';
      if (count == 1) colons = colon;
      if (colon != colons) return false;
      if (colon) rest.remove_prefix(1);
    }
    if (rest.size() < 2 || rest[0] < '0' || rest[0] > '9' || rest[1] < '0' || rest[1] > '9')
      return false;
    groups[count++] = (rest[0] - '0') * 10 + (rest[1] - '0');
    rest.remove_prefix(2);
  }
  if (count == 0 || !rest.empty()) return false;
  if (groups[0] > 23 || groups[1] > 59 || groups[2] > 59) return false;
  const int magnitude = (groups[0] * 60 + groups[1]) * 60 + groups[2];
  seconds = text[0] == '-' ? -magnitude : magnitude;
  return true;
}

bool VxTimezoneMap::Find(std::string_view name, absl::TimeZone& zone) {
  if (name == GetLocalTimezone()) {
    zone = GetLocalZone();
    return true;
  }
  int offset = 0;
  if (ParseFixedOffset(name, offset)) {
    zone = absl::FixedTimeZone(offset);
    return true;
  }
  // Only names inside the database: no absolute paths, no way out of it.
  if (name.empty() || name[0] == '/' || name.find("..") != std::string_view::npos) return false;
  // Rows usually name the same zone again and again: keep the last one per
  // thread, so that a repeated name costs a comparison.
  thread_local std::string last_name;
  thread_local absl::TimeZone last_zone;
  thread_local bool last_found = false;
  if (last_name.empty() || name != last_name) {
    last_name.assign(name);
    last_found = absl::LoadTimeZone(last_name, &last_zone);
  }
  if (last_found) zone = last_zone;
  return last_found;
}

// ---- times ----

std::optional<std::string> TimeToString(PRTime time, const char* format, size_t format_length,
                                        PRTimeParamFn params, const char* zone,
                                        size_t zone_length) {
  Zone z;
  if (!ChooseZone(std::string_view(zone, zone ? zone_length : 0), params, z)) return std::nullopt;
  PRExplodedTime e{};
  std::string abbreviation;
  if (!Explode(time, z, e, abbreviation)) return std::nullopt;
  return FormatExploded(e, abbreviation, std::string_view(format, format ? format_length : 0));
}

bool TimeFromString(const char* text, size_t text_length, const char* format, size_t format_length,
                    PRTimeParamFn params, PRTime& result, const char* zone, size_t zone_length) {
  Zone z;
  if (!ChooseZone(std::string_view(zone, zone ? zone_length : 0), params, z)) return false;
  TimeFields f;
  if (!ReadTimeFields(std::string_view(text, text ? text_length : 0),
                      std::string_view(format, format ? format_length : 0), f))
    return false;
  return ResolveTime(f, z, result);
}

// ---- durations ----

std::string IntervalToString(PRTime value, const char* format, size_t format_length,
                             PRTimeParamFn) {
  const std::string_view fmt(format, format ? format_length : 0);
  const Unit largest = LargestUnit(fmt);
  const uint64_t m = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  std::string out;
  if (value < 0) out += '-';
  FormatItems items(fmt);
  int width = 0;
  for (FormatItem item = items.Next(); item.tok != Tok::kEnd; item = items.Next()) {
    const Unit u = UnitOf(item.tok, width);
    if (u == kNoUnit) {
      out += item.text;
      continue;
    }
    const uint64_t v = u == largest ? m / kUnitMicros[u] : m % kUnitMicros[u - 1] / kUnitMicros[u];
    // Magnitudes only: the sign leads the text.
    char digits[24];
    int n = 0;
    uint64_t rest = v;
    do {
      digits[n++] = static_cast<char>('0' + rest % 10);
      rest /= 10;
    } while (rest != 0);
    for (int i = n; i < width; ++i) out += '0';
    while (n > 0) out += digits[--n];
  }
  return out;
}

bool IntervalFromString(const char* text, size_t text_length, const char* format,
                        size_t format_length, PRTime& result) {
  const std::string_view fmt(format, format ? format_length : 0);
  const Unit largest = LargestUnit(fmt);
  TextCursor cursor(std::string_view(text, text ? text_length : 0));
  const bool negative = cursor.Sign();
  uint64_t parts[kNoUnit] = {};
  FormatItems items(fmt);
  int width = 0;
  for (FormatItem item = items.Next(); item.tok != Tok::kEnd; item = items.Next()) {
    const Unit u = UnitOf(item.tok, width);
    if (u == kNoUnit) {
      if (!cursor.Literal(item.text)) return false;
      continue;
    }
    uint64_t v = 0;
    if (u == largest) {
      if (!cursor.Digits(19, v)) return false;
    } else if (u == kMicros) {  // a fraction of a second, right-padded
      int digits = 0;
      if (!cursor.Digits(6, v, digits)) return false;
      for (; digits < 6; ++digits) v *= 10;
    } else if (!cursor.Digits(2, v) || v >= kUnitRange[u]) {
      return false;
    }
    parts[u] = v;
  }
  if (!cursor.AtEnd()) return false;
  unsigned __int128 total = 0;
  for (int u = kDays; u < kNoUnit; ++u)
    total += static_cast<unsigned __int128>(parts[u]) * kUnitMicros[u];
  const unsigned __int128 limit = static_cast<unsigned __int128>(INT64_MAX) + (negative ? 1 : 0);
  if (total > limit) return false;
  const uint64_t magnitude = static_cast<uint64_t>(total);
  result = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
  return true;
}

}  // namespace vx
