// Time and duration texts under a format, and the map of time-zone names.
//
// Time values are NSPR times: signed 64-bit microseconds since 1970-01-01
// 00:00:00 UTC. Calendar work goes through NSPR's exploded form
// (`PRExplodedTime`), so a time can be formatted when its year lies within
// the exploded form's year range (-32768 to 32767); the formatter fails
// outside it.
//
// Zones. A zone is named by text or chosen by a zone-parameter function:
//   - a non-empty zone name wins: a name of the system time-zone database
//     ("America/New_York", "UTC"), read through Abseil's time-zone library,
//     or a fixed offset "+HH", "+HHMM", "+HH:MM", "+HH:MM:SS" (or "-..."),
//     or "Z" for UTC (see VxTimezoneMap);
//   - otherwise `PR_LocalTimeParameters` stands for the local zone of
//     VxTimezoneMap (the process's TZ) and `PR_GMTParameters` for UTC, both
//     resolved through the same database as named zones; any other function
//     is called through NSPR's own exploding and imploding.
//
// Time formats. Tokens, matched longest first at each position, and
// case-sensitive as written here:
//   YYYY  year, at least four digits (a '-' before years below 0)
//   YY    year of the century, two digits; read: 69-99 are 1969-1999,
//         00-68 are 2000-2068
//   MM    month 01-12        MON  JAN ... DEC     MONTH  JANUARY ...
//   DDD   day of the year 001-366
//   DD    day of the month 01-31
//   D     day of the week, 1 (Sunday) to 7 (Saturday)
//   DY    SUN ... SAT        DAY  SUNDAY ... SATURDAY
//   HH24  hour 00-23         HH12, HH  hour 01-12   AM, PM  the half of the day
//   MI    minute 00-59       SS   second 00-59
//   ff    microseconds, six digits
//   TZD   printed: the zone's abbreviation at that instant ("EST", "CEST",
//         "+0530"); read: see TimeFromString
// Text between double quotes is copied without the quotes and never read as
// tokens; every other character is copied as it is.
//
// Reading a time (TimeFromString): numbers take one digit up to the token's
// width (YYYY five digits when the next item is not a number); names are
// read in any case; a blank in the format matches one or more blanks or
// tabs; the whole text must be used. Fields the format does not name are
// those of 1970-01-01 00:00:00.000000. Values out of range (month 13,
// 31 April, minute 60) fail. A day of the year sets the date, and a month
// or day of the month read as well must agree with it; a day of the week
// must agree with the date. HH12 without AM/PM is a morning hour.
//
// Local times that do not exist or exist twice. At a daylight-saving change
// a local time may fall in the gap (02:30 on the day New York moves from
// 02:00 to 03:00) or in the overlap (01:30 on the day it moves from 02:00 back
// to 01:00). Both read with the offset in force before the change: a time in
// the gap lands as far after the change as it was written after its start
// (02:30 becomes 03:30 EDT), and a repeated time is its first occurrence
// (01:30 EDT). A TZD naming the zone's abbreviation picks the other reading
// ("01:30 EST" is the second occurrence).
//
// Duration formats (IntervalToString, IntervalFromString). A duration has no
// zone. Tokens: D, DD, DDD days (at least one, two or three digits), HH24 or
// HH hours, MI minutes, SS seconds, ff microseconds. The largest unit the
// format names carries everything above it ("HH24:MI" of 26 hours is
// "26:00"); the others stay within their range (hours 0-23, ...). ff after a
// larger unit is the six-digit fraction of a second; alone it is the whole
// count of microseconds. A negative duration is printed with a leading '-';
// a leading '-' or '+' is read. Every other token and character is literal.
//
// Threads: every function here is re-entrant and may be called from any
// thread; zone look-ups share Abseil's process-wide zone cache.
#pragma once

#include <absl/time/time.h>
#include <prtime.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vx {

// The time-zone names the formatter and parser accept.
class VxTimezoneMap {
 public:
  // The name of the server's local zone, fixed at first use: the process's
  // TZ (without a leading ':'; an empty TZ is "UTC") when set; otherwise the
  // database name that /etc/localtime links to; otherwise "localtime" (the
  // file /etc/localtime itself). The reference is to a process-wide name.
  static const std::string& GetLocalTimezone();
  // The local zone itself. When its name cannot be read as a zone (a POSIX
  // rule text such as "EST5EDT,M3.2.0,M11.1.0", a missing file) the local
  // zone is UTC, and a warning says so once.
  static const absl::TimeZone& GetLocalZone();
  // The zone named `name`: the local zone's name (whatever TZ holds), a
  // fixed offset, or a database name (never a path: names starting with '/'
  // or holding ".." are refused). False, with `zone` unchanged, for an
  // unknown name.
  static bool Find(std::string_view name, absl::TimeZone& zone);
  // A fixed offset text ("Z", "+05", "-0800", "+05:30", "+05:30:15") as
  // seconds east of UTC; hours up to 23, minutes and seconds up to 59.
  static bool ParseFixedOffset(std::string_view text, int& seconds);
};

// `time` formatted with `format` in the named `zone`, or when the name is
// empty in the zone of `params` (see the header comment). Nothing when the
// zone name is unknown or the time lies outside the exploded year range.
std::optional<std::string> TimeToString(PRTime time, const char* format, size_t format_length,
                                        PRTimeParamFn params, const char* zone, size_t zone_length);
// `text` read with `format` as a local time of the named `zone`, or when the
// name is empty of the zone of `params`; a TZD in the text overrides both.
// Returns false, with `result` unchanged, when the text does not fit the
// format, a value is out of range, or a zone name is unknown.
bool TimeFromString(const char* text, size_t text_length, const char* format, size_t format_length,
                    PRTimeParamFn params, PRTime& result, const char* zone, size_t zone_length);
// A duration (microseconds, as held in a time field) formatted with a
// duration format. A duration has no zone: `params` is not consulted.
std::string IntervalToString(PRTime value, const char* format, size_t format_length,
                             PRTimeParamFn params);
// A duration read with a duration format; false, with `result` unchanged,
// when the text does not fit or the count leaves the 64-bit range.
bool IntervalFromString(const char* text, size_t text_length, const char* format,
                        size_t format_length, PRTime& result);

}  // namespace vx
