// IntervalD2S: parsing, canonical form, text and fields (see interval_d2s.h).
#include "support/interval_d2s.h"

#include <absl/strings/match.h>

#include <cmath>
#include <cstdio>

namespace vx {
namespace {

constexpr uint64_t kMicrosPerSecond = 1000000;
constexpr uint64_t kFieldRange[] = {0, 24, 60, 60};  // below days: hours, minutes, seconds
constexpr int kLeadingDigits = 9;
constexpr int kIsoDigits = 18;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
// ASCII letters in any case (Abseil's string_view is its own type here).
bool EqualsNoCase(std::string_view a, std::string_view b) {
  return absl::EqualsIgnoreCase(absl::string_view(a.data(), a.size()),
                                absl::string_view(b.data(), b.size()));
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// A cursor over the text of an interval.
struct Cursor {
  std::string_view text;
  size_t pos = 0;

  bool AtEnd() const { return pos == text.size(); }
  bool Peek(char c) const { return pos < text.size() && text[pos] == c; }
  bool Take(char c) {
    if (!Peek(c)) return false;
    ++pos;
    return true;
  }
  // One to `max` digits; `count` is how many.
  bool Digits(int max, uint64_t& value, int* count = nullptr) {
    const size_t start = pos;
    value = 0;
    while (pos < text.size() && pos - start < static_cast<size_t>(max) && text[pos] >= '0' &&
           text[pos] <= '9')
      value = value * 10 + static_cast<uint64_t>(text[pos++] - '0');
    if (count) *count = static_cast<int>(pos - start);
    return pos > start;
  }
  // An optional sign; true for '-'.
  bool Sign() {
    if (Take('-')) return true;
    Take('+');
    return false;
  }
  bool Blanks() {
    const size_t start = pos;
    while (pos < text.size() && IsBlank(text[pos])) ++pos;
    return pos > start;
  }
  // A fraction of a second after '.' (or ',' when `comma`): one to six
  // digits, as microseconds.
  bool Fraction(uint64_t& micros, bool comma = false) {
    if (!Take('.') && !(comma && Take(','))) return false;
    int count = 0;
    if (!Digits(6, micros, &count)) return false;
    for (; count < 6; ++count) micros *= 10;
    return true;
  }
  // A word of letters, in any case.
  bool Word(std::string_view word) {
    if (!EqualsNoCase(text.substr(pos, word.size()), word)) return false;
    pos += word.size();
    return true;
  }
};

}  // namespace

IntervalD2S::IntervalD2S(int64_t micros) { SetCount(micros); }

IntervalD2S::IntervalD2S(std::string_view text) { m_valid = ParseGeneral(text); }

// ---- parts and count ----

void IntervalD2S::SetCount(int64_t micros) {
  m_value = micros;
  m_negative = micros < 0;
  const uint64_t m = m_negative ? 0 - static_cast<uint64_t>(micros) : static_cast<uint64_t>(micros);
  const uint64_t s = m / kMicrosPerSecond;
  m_micros = m % kMicrosPerSecond;
  m_seconds = s % 60;
  m_minutes = s / 60 % 60;
  m_hours = s / 3600 % 24;
  m_days = s / 86400;
}

bool IntervalD2S::Magnitude(uint64_t& magnitude) const {
  using U = unsigned __int128;
  const U total =
      (((U(m_days) * 24 + m_hours) * 60 + m_minutes) * 60 + m_seconds) * kMicrosPerSecond +
      m_micros;
  const U limit = U(INT64_MAX) + (m_negative ? 1 : 0);
  if (total > limit) return false;
  magnitude = static_cast<uint64_t>(total);
  return true;
}

void IntervalD2S::canon() {
  if (!m_valid) return;
  uint64_t m = 0;
  if (!Magnitude(m)) {
    m_valid = false;
    return;
  }
  SetCount(m_negative ? static_cast<int64_t>(0 - m) : static_cast<int64_t>(m));
}

// ---- qualified texts ----

bool IntervalD2S::ParseQualified(std::string_view text, Field first, Field last) {
  Cursor c{text};
  IntervalD2S parsed;
  parsed.m_negative = c.Sign();
  uint64_t* const fields[] = {&parsed.m_days, &parsed.m_hours, &parsed.m_minutes,
                              &parsed.m_seconds};
  bool ok = true;
  for (int f = first; ok && f <= last; ++f) {
    if (f == first) {
      ok = c.Digits(kLeadingDigits, *fields[f]);
    } else {
      ok = (f == kHour ? c.Blanks() : c.Take(':')) && c.Digits(2, *fields[f]) &&
           *fields[f] < kFieldRange[f];
    }
  }
  if (ok && last == kSecond && c.Peek('.')) ok = c.Fraction(parsed.m_micros);
  uint64_t magnitude = 0;
  if (!ok || !c.AtEnd() || !parsed.Magnitude(magnitude)) {
    m_valid = false;
    return false;
  }
  *this = parsed;
  return true;
}

bool IntervalD2S::intd2s_parser_day(std::string_view t) { return ParseQualified(t, kDay, kDay); }
bool IntervalD2S::intd2s_parser_day2hour(std::string_view t) {
  return ParseQualified(t, kDay, kHour);
}
bool IntervalD2S::intd2s_parser_day2minute(std::string_view t) {
  return ParseQualified(t, kDay, kMinute);
}
bool IntervalD2S::intd2s_parser_day2second(std::string_view t) {
  return ParseQualified(t, kDay, kSecond);
}
bool IntervalD2S::intd2s_parser_hour(std::string_view t) { return ParseQualified(t, kHour, kHour); }
bool IntervalD2S::intd2s_parser_hour2minute(std::string_view t) {
  return ParseQualified(t, kHour, kMinute);
}
bool IntervalD2S::intd2s_parser_hour2second(std::string_view t) {
  return ParseQualified(t, kHour, kSecond);
}
bool IntervalD2S::intd2s_parser_minute(std::string_view t) {
  return ParseQualified(t, kMinute, kMinute);
}
bool IntervalD2S::intd2s_parser_minute2second(std::string_view t) {
  return ParseQualified(t, kMinute, kSecond);
}
bool IntervalD2S::intd2s_parser_second(std::string_view t) {
  return ParseQualified(t, kSecond, kSecond);
}

// ---- a number of units ----

bool IntervalD2S::intd2s_parser_numtods_interval(double number, std::string_view unit) {
  static constexpr struct {
    std::string_view name;
    double micros;
  } kUnits[] = {{"DAY", 86400e6}, {"HOUR", 3600e6}, {"MINUTE", 60e6}, {"SECOND", 1e6}};
  unit = Trim(unit);
  for (const auto& u : kUnits) {
    if (!EqualsNoCase(unit, u.name)) continue;
    const double micros = std::round(number * u.micros);  // NaN stays NaN
    // [-2^63, 2^63): both bounds are exact doubles.
    if (!(micros >= -0x1p63 && micros < 0x1p63)) break;
    SetCount(static_cast<int64_t>(micros));
    m_valid = true;
    return true;
  }
  m_valid = false;
  return false;
}

// ---- general texts ----

bool IntervalD2S::ParseIso(std::string_view text) {
  Cursor c{text};
  IntervalD2S parsed;
  parsed.m_negative = c.Take('-');
  if (!c.Take('P') && !c.Take('p')) return false;
  bool any = false;
  uint64_t v = 0;
  // Days: a number before 'D'.
  {
    Cursor probe = c;
    if (probe.Digits(kIsoDigits, v) && (probe.Take('D') || probe.Take('d'))) {
      parsed.m_days = v;
      c = probe;
      any = true;
    }
  }
  if (c.Take('T') || c.Take('t')) {
    bool any_time = false;
    for (const auto& [unit, field] :
         {std::pair{'H', &parsed.m_hours}, std::pair{'M', &parsed.m_minutes}}) {
      Cursor probe = c;
      if (probe.Digits(kIsoDigits, v) &&
          (probe.Take(unit) || probe.Take(static_cast<char>(unit + 32)))) {
        *field = v;
        c = probe;
        any_time = true;
      }
    }
    Cursor probe = c;
    if (probe.Digits(kIsoDigits, v)) {
      uint64_t micros = 0;
      if ((probe.Peek('.') || probe.Peek(',')) && !probe.Fraction(micros, true)) return false;
      if (!probe.Take('S') && !probe.Take('s')) return false;
      parsed.m_seconds = v;
      parsed.m_micros = micros;
      c = probe;
      any_time = true;
    }
    if (!any_time) return false;
    any = true;
  }
  uint64_t magnitude = 0;
  if (!any || !c.AtEnd() || !parsed.Magnitude(magnitude)) return false;
  *this = parsed;
  return true;
}

bool IntervalD2S::ParseSqlLiteral(std::string_view text) {
  Cursor c{text};
  if (!c.Word("INTERVAL")) return false;
  c.Blanks();
  const bool negate = c.Sign();
  c.Blanks();
  if (!c.Take('\'')) return false;
  const size_t close = text.find('\'', c.pos);
  if (close == std::string_view::npos) return false;
  const std::string_view body = text.substr(c.pos, close - c.pos);
  c.pos = close + 1;
  static constexpr std::string_view kFields[] = {"DAY", "HOUR", "MINUTE", "SECOND"};
  auto field = [&](int from, int& out) {
    for (int f = from; f <= kSecond; ++f) {
      Cursor probe = c;
      // A whole word: "DAY" must not match the start of "DAYS".
      if (probe.Word(kFields[f]) && (probe.AtEnd() || IsBlank(probe.text[probe.pos]))) {
        c = probe;
        out = f;
        return true;
      }
    }
    return false;
  };
  int first = 0, last = 0;
  if (!c.Blanks() || !field(kDay, first)) return false;
  last = first;
  {
    Cursor save = c;
    if (c.Blanks() && c.Word("TO") && c.Blanks()) {
      if (!field(first + 1, last)) return false;
    } else {
      c = save;
    }
  }
  if (!c.AtEnd()) return false;
  if (!ParseQualified(body, static_cast<Field>(first), static_cast<Field>(last))) return false;
  if (negate) m_negative = !m_negative;
  return true;
}

bool IntervalD2S::ParseGeneral(std::string_view text) {
  text = Trim(text);
  if (ParseSqlLiteral(text) || ParseIso(text)) return true;
  return ParseQualified(text, kDay, kSecond) || ParseQualified(text, kHour, kSecond);
}

// ---- text and fields ----

int IntervalD2S::ToChars(char* buffer, size_t size) const {
  const bool minus = m_negative && (m_days | m_hours | m_minutes | m_seconds | m_micros) != 0;
  return std::snprintf(
      buffer, size, "%s%llu %02llu:%02llu:%02llu.%06llu", minus ? "-" : "",
      static_cast<unsigned long long>(m_days), static_cast<unsigned long long>(m_hours),
      static_cast<unsigned long long>(m_minutes), static_cast<unsigned long long>(m_seconds),
      static_cast<unsigned long long>(m_micros));
}

std::string IntervalD2S::ToString() const {
  char buffer[96];
  const int n = ToChars(buffer, sizeof buffer);
  return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
}

bool IntervalD2S::Extract(std::string_view field, int64_t& result) const {
  uint64_t v = 0;
  if (EqualsNoCase(field, "DAY")) {
    v = m_days;
  } else if (EqualsNoCase(field, "HOUR")) {
    v = m_hours;
  } else if (EqualsNoCase(field, "MINUTE")) {
    v = m_minutes;
  } else if (EqualsNoCase(field, "SECOND")) {
    v = m_seconds;
  } else if (EqualsNoCase(field, "MICROSECOND")) {
    v = m_micros;
  } else {
    return false;
  }
  // Canonical days are below 2^63 / 86400e6, so every field fits.
  result = m_negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
  return true;
}

}  // namespace vx
