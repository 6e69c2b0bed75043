// IntervalD2S: a day-to-second interval, read and printed in the manner of
// SQL day-to-second interval literals.
//
// The value is a signed 64-bit count of microseconds (the unit of time
// values, so that a time plus an interval is an integer addition). An object
// also holds the value's parts: a sign, days, hours, minutes, seconds and
// microseconds. A parser fills the parts; `canon` computes the count from
// them and brings them to canonical form (hours 0-23, minutes and seconds
// 0-59, microseconds 0-999999).
//
// Qualified texts (the ten qualifier parsers). An optional sign ('+' or
// '-') comes first; the leading field has one to nine digits and no upper
// bound; the fields after it have one or two digits and stay within their
// range (hours 0-23, minutes and seconds 0-59); a fraction of a second has
// one to six digits after a '.'. Days and hours are separated by one or
// more blanks, the other fields by ':'. Nothing else may surround the text.
//   DAY               D                 HOUR              H
//   DAY TO HOUR       D HH              HOUR TO MINUTE    H:MI
//   DAY TO MINUTE     D HH:MI           HOUR TO SECOND    H:MI:SS[.f]
//   DAY TO SECOND     D HH:MI:SS[.f]    MINUTE            M
//   SECOND            S[.f]             MINUTE TO SECOND  M:SS[.f]
//
// General texts (the text constructor), with blanks around the text allowed:
//   - the DAY TO SECOND form "D HH:MI:SS[.f]" (so the canonical text reads
//     back) and the HOUR TO SECOND form "H:MI:SS[.f]";
//   - an ISO 8601 duration of days and time, "P1DT2H3M4.5S", with an
//     optional leading '-' and any of the parts left out (but at least one,
//     and a 'T' before the time parts);
//   - an SQL literal: INTERVAL '<qualified text>' <qualifier>, the keywords
//     in any case ("INTERVAL '1:30' HOUR TO MINUTE"), a sign allowed before
//     the quote; the text is read by the qualifier's parser.
//
// Canonical text (ToString): "[-]D HH:MM:SS.ffffff", days unpadded
// ("0 00:00:01.500000", "-3 04:00:00.000000").
//
// A value must fit the 64-bit count: a text beyond it (more than about
// 106,751,991 days) is refused.
//
// Threads: an object is used by one thread at a time; operators build one
// per evaluation.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vx {

class IntervalD2S {
 public:
  // Zero, valid.
  IntervalD2S() = default;
  // A microsecond count; parts follow with `canon`.
  explicit IntervalD2S(int64_t micros);
  // Parses `text` in the general syntax; IsValid tells whether it read.
  explicit IntervalD2S(std::string_view text);

  // The qualifier parsers: each reads `text` into the parts and returns
  // whether it read (the object is then valid; otherwise invalid).
  bool intd2s_parser_day(std::string_view text);
  bool intd2s_parser_day2hour(std::string_view text);
  bool intd2s_parser_day2minute(std::string_view text);
  bool intd2s_parser_day2second(std::string_view text);
  bool intd2s_parser_hour(std::string_view text);
  bool intd2s_parser_hour2minute(std::string_view text);
  bool intd2s_parser_hour2second(std::string_view text);
  bool intd2s_parser_minute(std::string_view text);
  bool intd2s_parser_minute2second(std::string_view text);
  bool intd2s_parser_second(std::string_view text);
  // `number` of `unit` ("DAY", "HOUR", "MINUTE", "SECOND", any case, blanks
  // around it allowed), rounded to the nearest microsecond (halves away from
  // zero). False for another unit, NaN, an infinity or a value beyond the
  // 64-bit count.
  bool intd2s_parser_numtods_interval(double number, std::string_view unit);

  // Computes the count from the parts and makes the parts canonical. An
  // object whose parts exceed the count becomes invalid.
  void canon();

  bool IsValid() const { return m_valid; }
  // The microsecond count (meaningful after `canon`).
  int64_t GetValue() const { return m_value; }
  // The canonical text of the parts.
  std::string ToString() const;
  // The same into `buffer` (at least 32 bytes is always enough); returns the
  // length written, without the terminating zero.
  int ToChars(char* buffer, size_t size) const;
  // One field of the canonical parts, signed like the interval: "DAY",
  // "HOUR", "MINUTE", "SECOND" (whole seconds) or "MICROSECOND" (the
  // fraction of the second, 0 to 999999), in any case. False for another
  // name. The five fields add up to the value.
  bool Extract(std::string_view field, int64_t& result) const;

 private:
  enum Field : int { kDay, kHour, kMinute, kSecond };
  // Reads `text` as fields `first` to `last` (last == kSecond takes an
  // optional fraction).
  bool ParseQualified(std::string_view text, Field first, Field last);
  bool ParseGeneral(std::string_view text);
  bool ParseIso(std::string_view text);
  bool ParseSqlLiteral(std::string_view text);
  // Sets the parts from a count.
  void SetCount(int64_t micros);
  // The magnitude of the parts in microseconds, if it fits the count.
  bool Magnitude(uint64_t& magnitude) const;

  bool m_negative = false;
  uint64_t m_days = 0, m_hours = 0, m_minutes = 0, m_seconds = 0, m_micros = 0;
  int64_t m_value = 0;
  bool m_valid = true;
};

}  // namespace vx
