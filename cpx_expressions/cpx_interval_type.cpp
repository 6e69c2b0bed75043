// Day-to-second interval operators: intervals from texts and numbers, their
// canonical text and fields, time plus or minus an interval, and the generic
// arithmetic, comparison and conversions over interval values.
//
// The text forms are those of IntervalD2S (support/interval_d2s.h). Every
// evaluation builds and drops its own IntervalD2S; a text that does not read,
// an unknown unit or an unknown field name gives NULL, never an error.
#include <optional>
#include <string_view>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_time_operators.h"
#include "support/interval_d2s.h"

namespace vxi {

using namespace vx;

using Time = CpxTupleField_Time;
using Interval = CpxTupleField_IntervalD2S;
using Str = CpxTupleField_String;

namespace {

// The count of a parsed interval after `canon`, or nothing when it did not
// read or does not fit.
std::optional<int64_t> CanonicalCount(IntervalD2S& interval) {
  interval.canon();
  if (!interval.IsValid()) return std::nullopt;
  return interval.GetValue();
}

}  // namespace

// ---- FromString, ToDSInterval ----

// The general syntax: "D HH:MI:SS[.f]", "H:MI:SS[.f]", ISO 8601 "P1DT2H",
// or an SQL literal "INTERVAL '1:30' HOUR TO MINUTE".
struct IntervalFromTextOperation {
  static std::optional<int64_t> Operation(std::string_view text) {
    IntervalD2S interval(text);
    return CanonicalCount(interval);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_FromString_Engine, FromStringIntervalD2S,
                   CpxExpressionOperator_Unary_Engine<Str, Interval, IntervalFromTextOperation>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_ToDSInterval_Engine, ToDSIntervalIntervalD2S,
                   CpxExpressionOperator_Unary_Engine<Str, Interval, IntervalFromTextOperation>);

// ---- the qualified ToDSInterval family ----

// The text read by one qualifier's parser.
template <bool (IntervalD2S::*Parser)(std::string_view)>
struct QualifiedIntervalOperation {
  static std::optional<int64_t> Operation(std::string_view text) {
    IntervalD2S interval;
    if (!(interval.*Parser)(text)) return std::nullopt;
    return CanonicalCount(interval);
  }
};

#define VX_DEFINE_QUALIFIED_INTERVAL(Function, parser)                                      \
  VX_DEFINE_OPERATOR(                                                                       \
      CpxExpressionOperator_IntervalD2S_##Function##Interval_Engine, Function##IntervalD2S, \
      CpxExpressionOperator_Unary_Engine<                                                   \
          Str, Interval, QualifiedIntervalOperation<&IntervalD2S::intd2s_parser_##parser>>)

VX_DEFINE_QUALIFIED_INTERVAL(DayToDS, day);
VX_DEFINE_QUALIFIED_INTERVAL(HourToDS, hour);
VX_DEFINE_QUALIFIED_INTERVAL(MinuteToDS, minute);
VX_DEFINE_QUALIFIED_INTERVAL(SecondToDS, second);
VX_DEFINE_QUALIFIED_INTERVAL(DayToHourToDS, day2hour);
VX_DEFINE_QUALIFIED_INTERVAL(DayToMinuteToDS, day2minute);
VX_DEFINE_QUALIFIED_INTERVAL(DayToSecondToDS, day2second);
VX_DEFINE_QUALIFIED_INTERVAL(HourToMinuteToDS, hour2minute);
VX_DEFINE_QUALIFIED_INTERVAL(HourToSecondToDS, hour2second);
VX_DEFINE_QUALIFIED_INTERVAL(MinuteToSecondToDS, minute2second);

// ---- NumToDSInterval ----

struct NumToIntervalOperation {
  static std::optional<int64_t> Operation(double number, std::string_view unit) {
    IntervalD2S interval;
    if (!interval.intd2s_parser_numtods_interval(number, unit)) return std::nullopt;
    return CanonicalCount(interval);
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_NumToDSInterval_Engine, NumToDSIntervalD2S,
                   CpxExpressionOperator_Binary_Engine<CpxTupleField_Float, Str, Interval,
                                                       NumToIntervalOperation>);

// ---- ToString ----

// The canonical text "[-]D HH:MM:SS.ffffff", built without allocating.
struct IntervalToTextOperation {
  static CpxFixedText Operation(int64_t v) {
    IntervalD2S interval(v);
    interval.canon();
    CpxFixedText text;
    text.length = interval.ToChars(text.data, sizeof text.data);
    return text;
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_ToString_Engine, ToStringIntervalD2S,
                   CpxExpressionOperator_Unary_Engine<Interval, Str, IntervalToTextOperation>);

// ---- ExtractFromIntervalD2S ----

// DAY, HOUR, MINUTE, SECOND or MICROSECOND of the canonical parts, signed
// like the interval.
struct ExtractFromIntervalOperation {
  static std::optional<int64_t> Operation(std::string_view field, int64_t v) {
    IntervalD2S interval(v);
    interval.canon();
    int64_t result = 0;
    if (!interval.Extract(field, result)) return std::nullopt;
    return result;
  }
};
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_ExtractFromIntervalD2S_Engine,
                   ExtractFromIntervalD2S,
                   CpxExpressionOperator_Binary_Engine<Str, Interval, CpxTupleField_Long,
                                                       ExtractFromIntervalOperation>);

// ---- time and interval ----

// Plain 64-bit arithmetic on the counts: wrapping, no overflow check.
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_TimePlusIntervalD2S_Engine,
                   TimePlusIntervalD2S,
                   CpxExpressionOperator_Binary_Engine<Time, Interval, Time, AddOperation>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_TimeMinusIntervalD2S_Engine,
                   TimeMinusIntervalD2S,
                   CpxExpressionOperator_Binary_Engine<Time, Interval, Time, SubtractOperation>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_IntervalD2S_IntervalD2SPlusTime_Engine,
                   IntervalD2SPlusTime,
                   CpxExpressionOperator_Binary_Engine<Interval, Time, Time, AddOperation>);

// ---- arithmetic, comparison, list, scaling and conversions ----

VX_DEFINE_COUNT_BASICS(IntervalD2S, Interval);

// ---- the number first, and interval by interval ----

VX_DEFINE_COUNT_BINARY(IntervalD2S, MultiplyFloatBy, MultiplyFloatByIntervalD2S,
                       CpxTupleField_Float, Interval, Interval, ScaleCountCommutedOperation);
VX_DEFINE_COUNT_BINARY(IntervalD2S, MultiplyIntegerBy, MultiplyIntegerByIntervalD2S,
                       CpxTupleField_Integer, Interval, Interval, ScaleCountCommutedOperation);
VX_DEFINE_COUNT_BINARY(IntervalD2S, MultiplyLongBy, MultiplyLongByIntervalD2S, CpxTupleField_Long,
                       Interval, Interval, ScaleCountCommutedOperation);
VX_DEFINE_COUNT_BINARY(IntervalD2S, DivideByIntervalD2SToFloat,
                       DivideIntervalD2SByIntervalD2SToFloat, Interval, Interval,
                       CpxTupleField_Float, CountRatioOperation);
VX_DEFINE_COUNT_BINARY(IntervalD2S, IntervalModInterval, IntervalModIntervalToInterval, Interval,
                       Interval, Interval, ModuloOperation);

}  // namespace vxi

namespace vx {

void RegisterIntervalOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kText = "NULL or text that does not read gives NULL";
  constexpr const char* kScale = "any NULL input, NaN or a result beyond the range gives NULL";
#define VX_QUALIFIED_ROW(Function, form)                                                 \
  VX_OPERATOR(CpxExpressionOperator_IntervalD2S_##Function##Interval_Engine, "1 string", \
              "1 interval", kText,                                                       \
              "Text of the form " form "; the leading field has up to 9 digits.")
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_FromString_Engine, "1 string", "1 interval",
                  kText,
                  "\"[-]D HH:MI:SS[.f]\", \"[-]H:MI:SS[.f]\", ISO 8601 \"[-]P1DT2H3M4.5S\" or "
                  "\"INTERVAL '1:30' HOUR TO MINUTE\"; up to 6 fraction digits."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_ToDSInterval_Engine, "1 string", "1 interval",
                  kText, "The same as FromStringIntervalD2S."),
      VX_QUALIFIED_ROW(DayToDS, "[-]D"),
      VX_QUALIFIED_ROW(HourToDS, "[-]H"),
      VX_QUALIFIED_ROW(MinuteToDS, "[-]M"),
      VX_QUALIFIED_ROW(SecondToDS, "[-]S[.f]"),
      VX_QUALIFIED_ROW(DayToHourToDS, "[-]D HH"),
      VX_QUALIFIED_ROW(DayToMinuteToDS, "[-]D HH:MI"),
      VX_QUALIFIED_ROW(DayToSecondToDS, "[-]D HH:MI:SS[.f]"),
      VX_QUALIFIED_ROW(HourToMinuteToDS, "[-]H:MI"),
      VX_QUALIFIED_ROW(HourToSecondToDS, "[-]H:MI:SS[.f]"),
      VX_QUALIFIED_ROW(MinuteToSecondToDS, "[-]M:SS[.f]"),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_NumToDSInterval_Engine,
                  "1 float (number), 1 string (unit)", "1 interval",
                  "any NULL input, an unknown unit or a result beyond the range gives NULL",
                  "Number of DAY, HOUR, MINUTE or SECOND (any case), rounded to the microsecond."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_ToString_Engine, "1 interval", "1 string",
                  "NULL input gives NULL", "Canonical text [-]D HH:MM:SS.ffffff."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_ExtractFromIntervalD2S_Engine,
                  "1 string (field), 1 interval", "1 long",
                  "any NULL input or an unknown field gives NULL",
                  "DAY, HOUR, MINUTE, SECOND or MICROSECOND (fraction of the second) of the "
                  "canonical form, signed like the interval."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_TimePlusIntervalD2S_Engine,
                  "1 time, 1 interval", "1 time", "any NULL input gives NULL",
                  "Time plus interval; wraps."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_TimeMinusIntervalD2S_Engine,
                  "1 time, 1 interval", "1 time", "any NULL input gives NULL",
                  "Time minus interval; wraps."),
      VX_OPERATOR(CpxExpressionOperator_IntervalD2S_IntervalD2SPlusTime_Engine,
                  "1 interval, 1 time", "1 time", "any NULL input gives NULL",
                  "Interval plus time; wraps."),
      VX_COUNT_BASICS_TABLE(IntervalD2S, "interval"),
      VX_NUMERIC_ROW(IntervalD2S, MultiplyFloatBy, "1 float, 1 interval", "1 interval", kScale,
                     "Number times the interval, rounded to the microsecond."),
      VX_NUMERIC_ROW(IntervalD2S, MultiplyIntegerBy, "1 integer, 1 interval", "1 interval",
                     "any NULL input gives NULL", "Number times the interval; wraps."),
      VX_NUMERIC_ROW(IntervalD2S, MultiplyLongBy, "1 long, 1 interval", "1 interval",
                     "any NULL input gives NULL", "Number times the interval; wraps."),
      VX_NUMERIC_ROW(IntervalD2S, DivideByIntervalD2SToFloat, "2 interval", "1 float",
                     "any NULL input or zero divisor gives NULL", "Ratio of the intervals."),
      VX_NUMERIC_ROW(IntervalD2S, IntervalModInterval, "2 interval", "1 interval",
                     "any NULL input or zero divisor gives NULL",
                     "Remainder of truncating division; its sign follows the dividend."),
  };
#undef VX_QUALIFIED_ROW
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
