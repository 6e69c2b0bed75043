// Time operators: the evaluation time, time texts under a format and a zone,
// timestamps from their components, calendar fields, and the generic
// arithmetic, comparison and conversions over time values.
//
// Formats and zones are those of the shared formatter (support/time_text.h).
// Without a zone a time is read and printed in the server's local zone (the
// process's TZ); a local time in the gap of a daylight-saving change reads
// with the offset in force before the change, and a repeated one is its
// first occurrence.
#include <absl/time/civil_time.h>
#include <prprf.h>

#include <boost/lexical_cast.hpp>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_string_operators.h"
#include "cpx_expressions/cpx_time_operators.h"
#include "support/time_text.h"

namespace vxi {

using namespace vx;

using Time = CpxTupleField_Time;
using Interval = CpxTupleField_IntervalD2S;
using Str = CpxTupleField_String;
using Int = CpxTupleField_Integer;

namespace {

// A zone input that may be absent: the empty name then.
std::string_view ZoneOf(const std::optional<std::string_view>& zone) {
  return zone ? *zone : std::string_view();
}

}  // namespace

// ---- Now ----

// The evaluator's evaluation time, never the clock: every Now of one
// evaluation gives the same value, and replayed input replays the times.
class CpxExpressionOperator_Time_Now_Engine final : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;
  static const XmlQName& GetOperatorType() {
    return CpxExpressionOperatorTypes::NowTimeOperatorType();
  }
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (!GetInputParameters().empty() || GetOutputParameters().size() != 1)
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_0_INPUT_1_OUTPUT);
    InsureOutputType(0, CpxFieldKind::Time);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    GetOutputSlot(ev).Set<Time>(ev->GetNow());
  }
};

// ---- ToString, FromString ----

// The time under the format, in the given zone or the local one. An unknown
// zone gives NULL.
struct TimeToStringOperation {
  static void Operation(CpxBytesOutput& out, int64_t time, std::string_view format,
                        const std::optional<std::string_view>& zone_input) {
    const std::string_view zone = ZoneOf(zone_input);
    const std::optional<std::string> text = TimeToString(
        time, format.data(), format.size(), PR_LocalTimeParameters, zone.data(), zone.size());
    if (!text) return out.SetNull();
    out.Set(*text);
  }
};

class CpxExpressionOperator_Time_ToString_Engine final
    : public CpxExpressionOperator_Params_Engine<Str, TimeToStringOperation, Time, Str,
                                                 CpxOptional<Str>> {
 public:
  using CpxExpressionOperator_Params_Engine::CpxExpressionOperator_Params_Engine;
  static const XmlQName& GetOperatorType() {
    return CpxExpressionOperatorTypes::ToStringTimeOperatorType();
  }
  void InsureValidParameters() const override {
    const size_t n = GetInputParameters().size();
    if (n < 2 || n > 3 || GetOutputParameters().size() != 1) {
      SetLastError(
          "Invalid number of parameters in Time_ToString operator. Expected \"time, string, "
          "string(optional timezone)\" as input with exactly one time output.");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS);
    }
    CpxExpressionOperator_Params_Engine::InsureValidParameters();
  }
};

// Text read under the format as a local time (a TZD in it names the zone);
// text that does not fit gives NULL.
struct TimeFromStringOperation {
  static std::optional<int64_t> Operation(std::string_view text, std::string_view format) {
    PRTime t = 0;
    if (!TimeFromString(text.data(), text.size(), format.data(), format.size(),
                        PR_LocalTimeParameters, t, nullptr, 0))
      return std::nullopt;
    return t;
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_Time_FromString_Engine, FromStringTime,
                   CpxExpressionOperator_Params_Engine<Time, TimeFromStringOperation, Str, Str>);

// ---- ToStringInterval, FromStringInterval ----

// A time field holding a duration, under a duration format.
struct TimeToStringIntervalOperation {
  static void Operation(CpxBytesOutput& out, int64_t duration, std::string_view format) {
    out.Set(IntervalToString(duration, format.data(), format.size(), PR_LocalTimeParameters));
  }
};
struct TimeFromStringIntervalOperation {
  static std::optional<int64_t> Operation(std::string_view text, std::string_view format) {
    PRTime t = 0;
    if (!IntervalFromString(text.data(), text.size(), format.data(), format.size(), t))
      return std::nullopt;
    return t;
  }
};
VX_DEFINE_OPERATOR(
    CpxExpressionOperator_Time_ToStringInterval_Engine, ToStringIntervalTime,
    CpxExpressionOperator_Params_Engine<Str, TimeToStringIntervalOperation, Time, Str>);
VX_DEFINE_OPERATOR(
    CpxExpressionOperator_Time_FromStringInterval_Engine, FromStringIntervalTime,
    CpxExpressionOperator_Params_Engine<Time, TimeFromStringIntervalOperation, Str, Str>);

// ---- MakeTimestamp ----

// The components are printed as text and read back, so that a timestamp is
// exactly what the same text would read as:
//   1. a month or day of 0 or less is raised by one (0 becomes 1, -1 becomes
//      0: deliberately one step only);
//   2. the fields are normalised by NSPR in UTC, so out-of-range components
//      carry over (second 60 is the next minute, hour 24 the next day, month
//      13 January of the next year, day 0 after the lift the last day of the
//      month before);
//   3. "YYYY/MM/DD HH24:MI:SS.ff" is printed and read as a local time, or
//      with " TZD" and the zone's text appended when a zone is given.
// The result is written in every case: text that does not read (an unknown
// zone) gives the epoch, not NULL. So does a date whose year leaves the range
// NSPR's exploded time holds (-32768 to 32767), which could not be printed.
struct MakeTimestampOperation {
  static int64_t Operation(int32_t year, int32_t month, int32_t day, int32_t hour, int32_t minute,
                           int32_t second, int32_t usec,
                           const std::optional<std::string_view>& zone_input) {
    if (month <= 0) ++month;
    if (day <= 0) ++day;
    // The normalised year, computed in 64 bits first: NSPR keeps it in 16.
    const int64_t carry = usec >= 0 ? usec / 1000000 : (usec - 999999) / 1000000;
    const absl::CivilSecond normalised(year, month, day, hour, minute, int64_t{second} + carry);
    if (normalised.year() < -32768 || normalised.year() > 32767) return 0;

    PRExplodedTime e{};
    e.tm_year = static_cast<PRInt16>(year);
    e.tm_month = month - 1;
    e.tm_mday = day;
    e.tm_hour = hour;
    e.tm_min = minute;
    e.tm_sec = second;
    e.tm_usec = usec;
    PR_NormalizeTime(&e, PR_GMTParameters);
    const int printed_month = e.tm_month + 1;

    const std::string_view zone = ZoneOf(zone_input);
    char text[128];
    static constexpr std::string_view kFormat = "YYYY/MM/DD HH24:MI:SS.ff";
    static constexpr std::string_view kZoneFormat = "YYYY/MM/DD HH24:MI:SS.ff TZD";
    std::string_view format = kFormat;
    if (zone.empty()) {
      PR_snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d.%06d", e.tm_year, printed_month,
                  e.tm_mday, e.tm_hour, e.tm_min, e.tm_sec, e.tm_usec);
    } else {
      PR_snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d.%06d %s", e.tm_year,
                  printed_month, e.tm_mday, e.tm_hour, e.tm_min, e.tm_sec, e.tm_usec,
                  std::string(zone).c_str());
      format = kZoneFormat;
    }
    PRTime result = 0;
    TimeFromString(text, std::strlen(text), format.data(), format.size(), PR_LocalTimeParameters,
                   result, nullptr, 0);
    return result;
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_Time_MakeTimestamp_Engine, MakeTimestampTime,
                   CpxExpressionOperator_Params_Engine<Time, MakeTimestampOperation, Int, Int, Int,
                                                       Int, Int, Int, Int, CpxOptional<Str>>);

// ---- TimeMinusTimeToIntervalD2S ----

// The first time minus the second, as an interval (wrapping, unchecked).
VX_DEFINE_OPERATOR(CpxExpressionOperator_Time_TimeMinusTimeToIntervalD2S_Engine,
                   TimeMinusTimeToIntervalD2S,
                   CpxExpressionOperator_Binary_Engine<Time, Time, Interval, SubtractOperation>);

// ---- calendar fields ----

// One calendar field of a time in a zone: the time is formatted with the
// field's single token (in the given zone, or the local one when the zone is
// absent or empty) and the text is read as an integer. An unknown zone gives
// NULL.
class CpxExpressionOperator_Time_Base_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  CpxExpressionOperator_Time_Base_Engine(std::string name, CpxExpressionContext_Engine* context,
                                         XmlQName type, const char* display_name, const char* token)
      : CpxExpressionOperator_Scalar_Engine(std::move(name), context, std::move(type)),
        m_display_name(display_name),
        m_token(token) {}

  // "Time_Year", ...
  const char* GetFieldDisplayName() const { return m_display_name; }
  // "YYYY", ...
  const char* GetToken() const { return m_token; }

  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    const size_t n = GetInputParameters().size();
    if (n < 1 || n > 2 || GetOutputParameters().size() != 1) {
      SetLastError(std::string("Invalid number of parameters in ") + m_display_name +
                   " operator. Expected \"time, string(optional timezone)\" as input with "
                   "exactly one time output.");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS, {"op", m_display_name});
    }
    InsureInputType(0, CpxFieldKind::Time);
    if (n == 2) InsureInputType(1, CpxFieldKind::String);
    InsureOutputType(0, CpxFieldKind::Integer);
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    int64_t time = 0;
    std::string_view zone;
    if (!ReadInput<Time>(ev, 0, time)) return out.SetNull();
    if (GetInputParameters().size() == 2 && !ReadInput<Str>(ev, 1, zone)) return out.SetNull();
    if (zone.empty()) zone = VxTimezoneMap::GetLocalTimezone();
    const std::optional<std::string> text = TimeToString(
        time, m_token, std::strlen(m_token), PR_LocalTimeParameters, zone.data(), zone.size());
    if (!text) return out.SetNull();
    int32_t value = 0;
    try {
      value = boost::lexical_cast<int32_t>(*text);
    } catch (const boost::bad_lexical_cast&) {
      VX_RAISE_TEXT("bad lexical cast: source type value could not be interpreted as target",
                    GetName(), {"text", *text});
    }
    out.Set<Int>(value);
  }

 private:
  const char* m_display_name;
  const char* m_token;
};

#define VX_DEFINE_TIME_FIELD(Function, token)                                               \
  class CpxExpressionOperator_Time_##Function##_Engine final                                \
      : public CpxExpressionOperator_Time_Base_Engine {                                     \
   public:                                                                                  \
    CpxExpressionOperator_Time_##Function##_Engine(std::string name,                        \
                                                   CpxExpressionContext_Engine* context,    \
                                                   XmlQName type)                           \
        : CpxExpressionOperator_Time_Base_Engine(std::move(name), context, std::move(type), \
                                                 "Time_" #Function, token) {}               \
    static const XmlQName& GetOperatorType() {                                              \
      return CpxExpressionOperatorTypes::Function##TimeOperatorType();                      \
    }                                                                                       \
  }

VX_DEFINE_TIME_FIELD(Year, "YYYY");
VX_DEFINE_TIME_FIELD(Month, "MM");
VX_DEFINE_TIME_FIELD(DayOfYear, "DDD");
VX_DEFINE_TIME_FIELD(DayOfMonth, "DD");
VX_DEFINE_TIME_FIELD(DayOfWeek, "D");
VX_DEFINE_TIME_FIELD(Hour, "HH24");
VX_DEFINE_TIME_FIELD(Minute, "MI");
VX_DEFINE_TIME_FIELD(Second, "SS");
VX_DEFINE_TIME_FIELD(Microsecond, "ff");

// ---- arithmetic, comparison, list, scaling and conversions ----

VX_DEFINE_COUNT_BASICS(Time, Time);
VX_DEFINE_NUMERIC_OPERATOR(Time, Time, Multiply);

// ---- dividing by intervals and times ----

// The quotient of two counts is a number, not an instant: a long.
VX_DEFINE_COUNT_BINARY(Time, DivideByInterval, DivideTimeByInterval, Time, Interval,
                       CpxTupleField_Long, DivideOperation);
VX_DEFINE_COUNT_BINARY(Time, DivideByTime, DivideTimeByTime, Time, Time, CpxTupleField_Long,
                       DivideOperation);
VX_DEFINE_COUNT_BINARY(Time, DivideByTimeToFloat, DivideTimeByTimeToFloat, Time, Time,
                       CpxTupleField_Float, CountRatioOperation);

}  // namespace vxi

namespace vx {

void RegisterTimeOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kField = "NULL time or zone, or an unknown zone, gives NULL";
  constexpr const char* kFieldIn = "1 time, 1 string (zone, optional)";
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_Time_Now_Engine, "none", "1 time", "never NULL",
                  "The evaluation time of the row (never the clock): equal within a row."),
      VX_OPERATOR(CpxExpressionOperator_Time_ToString_Engine,
                  "1 time, 1 string (format), 1 string (zone, optional)", "1 string",
                  "any NULL input or an unknown zone gives NULL",
                  "The time under the format (YYYY YY MM MON MONTH DDD DD D DY DAY HH24 HH12 HH "
                  "AM PM MI SS ff TZD, \"quoted\" text literal) in the zone: a database name, "
                  "+HH:MM, or the local zone when absent or empty."),
      VX_OPERATOR(CpxExpressionOperator_Time_FromString_Engine, "1 string, 1 string (format)",
                  "1 time", "any NULL input or text that does not fit gives NULL",
                  "The text read under the format as a local time, or in the zone its TZD names "
                  "(a name, an offset, or an abbreviation of the local zone). A local time in a "
                  "daylight-saving gap reads with the offset before the change (02:30 becomes "
                  "03:30 DST); a repeated one is its first occurrence unless TZD says otherwise."),
      VX_OPERATOR(CpxExpressionOperator_Time_ToStringInterval_Engine,
                  "1 time (a duration), 1 string (format)", "1 string", "any NULL input gives NULL",
                  "A duration under D DD DDD HH24 HH MI SS ff; the largest unit named carries the "
                  "rest, a negative duration leads with '-'."),
      VX_OPERATOR(CpxExpressionOperator_Time_FromStringInterval_Engine,
                  "1 string, 1 string (format)", "1 time (a duration)",
                  "any NULL input or text that does not fit gives NULL",
                  "A duration read under a duration format, with an optional leading sign."),
      VX_OPERATOR(CpxExpressionOperator_Time_MakeTimestamp_Engine,
                  "7 integer (year, month, day, hour, minute, second, microsecond), 1 string "
                  "(zone, optional)",
                  "1 time", "any NULL input gives NULL; an unknown zone gives the epoch",
                  "Components normalised (second 60, hour 24, month 13 carry over; month or day "
                  "<= 0 raised by one first), printed and read back as a local time or in the "
                  "zone; gaps and overlaps as FromStringTime."),
      VX_OPERATOR(CpxExpressionOperator_Time_TimeMinusTimeToIntervalD2S_Engine, "2 time",
                  "1 interval", "any NULL input gives NULL",
                  "The first time minus the second; wraps."),
      VX_OPERATOR(CpxExpressionOperator_Time_Year_Engine, kFieldIn, "1 integer", kField,
                  "Year in the zone (local when the zone is absent or empty)."),
      VX_OPERATOR(CpxExpressionOperator_Time_Month_Engine, kFieldIn, "1 integer", kField,
                  "Month 1-12 in the zone."),
      VX_OPERATOR(CpxExpressionOperator_Time_DayOfYear_Engine, kFieldIn, "1 integer", kField,
                  "Day of the year 1-366 in the zone."),
      VX_OPERATOR(CpxExpressionOperator_Time_DayOfMonth_Engine, kFieldIn, "1 integer", kField,
                  "Day of the month 1-31 in the zone."),
      VX_OPERATOR(CpxExpressionOperator_Time_DayOfWeek_Engine, kFieldIn, "1 integer", kField,
                  "Day of the week in the zone, 1 (Sunday) to 7 (Saturday)."),
      VX_OPERATOR(CpxExpressionOperator_Time_Hour_Engine, kFieldIn, "1 integer", kField,
                  "Hour 0-23 in the zone."),
      VX_OPERATOR(CpxExpressionOperator_Time_Minute_Engine, kFieldIn, "1 integer", kField,
                  "Minute 0-59 in the zone."),
      VX_OPERATOR(CpxExpressionOperator_Time_Second_Engine, kFieldIn, "1 integer", kField,
                  "Second 0-59."),
      VX_OPERATOR(CpxExpressionOperator_Time_Microsecond_Engine, kFieldIn, "1 integer", kField,
                  "Microsecond of the second, 0-999999."),
      VX_COUNT_BASICS_TABLE(Time, "time"),
      VX_NUMERIC_ROW(Time, Multiply, "1+ time", "1 time", "any NULL input gives NULL",
                     "Product of the microsecond counts, folded from the left; wraps."),
      VX_NUMERIC_ROW(Time, DivideByInterval, "1 time, 1 interval", "1 long",
                     "any NULL input or zero divisor gives NULL",
                     "Whole intervals in the count (truncated toward zero)."),
      VX_NUMERIC_ROW(Time, DivideByTime, "2 time", "1 long",
                     "any NULL input or zero divisor gives NULL",
                     "Quotient of the counts, truncated toward zero."),
      VX_NUMERIC_ROW(Time, DivideByTimeToFloat, "2 time", "1 float",
                     "any NULL input or zero divisor gives NULL", "Ratio of the counts."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
