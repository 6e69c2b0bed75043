// Accumulator operators and Threshold: the registered classes of every value
// type, over the generic templates of cpx_accumulators.h.
#include "cpx_expressions/cpx_accumulators.h"

#include <atomic>

#include "cpx_expressions/cpx_operator_registry.h"

namespace vx {

// ---- reports ----

void CpxRaiseExtraNegativeTuple(const char* method, const std::string& elem) {
  VX_RAISE(VX_SERVER_EXTRA_NEGATIVE_TUPLE_REMOVE_REQUEST, method, {"elem", elem},
           {"method", method});
}

// Process-wide, so that a table made after another was dropped never passes
// for it (see CpxSharedCountTable::WholeRecord).
uint64_t CpxNextSharedTableId() {
  static std::atomic<uint64_t> next{1};
  return next.fetch_add(1, std::memory_order_relaxed);
}

void CpxCounterState::DecrementCounter(Batch* batch) {
  if (m_counter < 1) {
    VX_RAISE_TEXT("Negative count should never happen!", "Count", {"m_counter", m_counter});
  }
  --m_counter;
  SaveItem(batch, 0, m_counter);
}

// The text names 1, 2 and 3 while the check accepts 0, 1 and 2: the text is
// the one users know from the query language's documentation.
void CpxLogInvalidThresholdCriteria(const std::string& operator_name, int32_t criteria) {
  VX_LOG_TEXT(LogLevel::Error,
              "Invalid value for Threshold criteria! Only UP, DOWN or ANY allowed (1,2,3). Found "
              "{criteria}.",
              operator_name, {"criteria", criteria});
}

void CpxLogInvalidThresholdRequest(bool has_previous, int32_t criteria) {
  if (has_previous) {
    VX_LOG_TEXT(LogLevel::Error,
                "\nInvalid Threshold request! Should be UP, DOWN or ANY as 0, 1, 2 but received "
                "{val}.",
                "Threshold", {"val", criteria});
  } else {
    VX_LOG_TEXT(LogLevel::Error,
                "\nInvalid Threshold request on initial value! Should be UP, DOWN or ANY as 0, 1, "
                "2 but received {val}.",
                "Threshold", {"val", criteria});
  }
}

}  // namespace vx

namespace vxi {

using namespace vx;

// The class CpxExpressionOperator_<Type>_Accumulator_<Kind>_Engine, type
// name Accumulator<Kind><Type>, over the kind's template instance.
#define VX_DEFINE_ACCUMULATOR(Type, Kind, ...)                                   \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Accumulator_##Kind##_Engine, \
                     Accumulator##Kind##Type,                                    \
                     CpxExpressionOperator_Accumulator_##Kind##_Engine<__VA_ARGS__>)

// Every accumulator of a numeric, time or interval type, and its Threshold.
// `Mean` is the output of Avg and Median, `Spread` that of the deviations.
#define VX_DEFINE_NUMERIC_ACCUMULATORS(Type, In, Mean, Spread)                         \
  VX_DEFINE_ACCUMULATOR(Type, Sum, In);                                                \
  VX_DEFINE_ACCUMULATOR(Type, SumDistinct, In);                                        \
  VX_DEFINE_ACCUMULATOR(Type, Avg, In, Mean);                                          \
  VX_DEFINE_ACCUMULATOR(Type, AvgDistinct, In, Mean);                                  \
  VX_DEFINE_ACCUMULATOR(Type, Median, In, Mean);                                       \
  VX_DEFINE_ACCUMULATOR(Type, MedianDistinct, In, Mean);                               \
  VX_DEFINE_ACCUMULATOR(Type, StandardDeviation, In, Spread);                          \
  VX_DEFINE_ACCUMULATOR(Type, StandardDeviationDistinct, In, Spread);                  \
  VX_DEFINE_ACCUMULATOR(Type, MeanDeviation, In, Spread);                              \
  VX_DEFINE_ACCUMULATOR(Type, MeanDeviationDistinct, In, Spread);                      \
  VX_DEFINE_ACCUMULATOR(Type, Min, In);                                                \
  VX_DEFINE_ACCUMULATOR(Type, MinDistinct, In);                                        \
  VX_DEFINE_ACCUMULATOR(Type, Max, In);                                                \
  VX_DEFINE_ACCUMULATOR(Type, MaxDistinct, In);                                        \
  VX_DEFINE_ACCUMULATOR(Type, Last, In);                                               \
  VX_DEFINE_ACCUMULATOR(Type, CountDistinct, In);                                      \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Threshold_Engine, Threshold##Type, \
                     CpxExpressionOperator_Threshold_Engine<In>)

// ---- Integer, Long, Float, Time, IntervalD2S ----

VX_DEFINE_NUMERIC_ACCUMULATORS(Integer, CpxTupleField_Integer, CpxTupleField_Float,
                               CpxTupleField_Float);
VX_DEFINE_NUMERIC_ACCUMULATORS(Long, CpxTupleField_Long, CpxTupleField_Float, CpxTupleField_Float);
VX_DEFINE_NUMERIC_ACCUMULATORS(Float, CpxTupleField_Float, CpxTupleField_Float,
                               CpxTupleField_Float);
VX_DEFINE_NUMERIC_ACCUMULATORS(Time, CpxTupleField_Time, CpxTupleField_Time,
                               CpxTupleField_IntervalD2S);
VX_DEFINE_NUMERIC_ACCUMULATORS(IntervalD2S, CpxTupleField_IntervalD2S, CpxTupleField_IntervalD2S,
                               CpxTupleField_IntervalD2S);

// ---- Boolean ----

VX_DEFINE_ACCUMULATOR(Boolean, Last, CpxTupleField_Boolean);
VX_DEFINE_ACCUMULATOR(Boolean, CountDistinct, CpxTupleField_Boolean);

// ---- String ----

// Texts are ordered byte-wise (unsigned, a shorter prefix first), as the
// string comparison operators order them.
VX_DEFINE_ACCUMULATOR(String, Last, CpxTupleField_String);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Accumulator_CountDistinct_String_Engine,
                   AccumulatorCountDistinctString,
                   CpxExpressionOperator_Accumulator_CountDistinct_Engine<CpxTupleField_String>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Min_Accumulator_Engine, AccumulatorMinString,
                   CpxExpressionOperator_Accumulator_Min_Engine<CpxTupleField_String>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Max_Accumulator_Engine, AccumulatorMaxString,
                   CpxExpressionOperator_Accumulator_Max_Engine<CpxTupleField_String>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Min_DistinctAccumulator_Engine,
                   AccumulatorMinDistinctString,
                   CpxExpressionOperator_Accumulator_MinDistinct_Engine<CpxTupleField_String>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_String_Max_DistinctAccumulator_Engine,
                   AccumulatorMaxDistinctString,
                   CpxExpressionOperator_Accumulator_MaxDistinct_Engine<CpxTupleField_String>);
using CpxExpressionOperatorState_Engine_Min_Accumulator =
    CpxExpressionOperator_String_Min_Accumulator_Engine::State;
using CpxExpressionOperatorState_Engine_Max_Accumulator =
    CpxExpressionOperator_String_Max_Accumulator_Engine::State;
using CpxExpressionOperatorState_Engine_Min_DistinctAccumulator =
    CpxExpressionOperator_String_Min_DistinctAccumulator_Engine::State;
using CpxExpressionOperatorState_Engine_Max_DistinctAccumulator =
    CpxExpressionOperator_String_Max_DistinctAccumulator_Engine::State;

// ---- Blob ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Accumulator_CountDistinct_Blob_Engine,
                   AccumulatorCountDistinctBlob,
                   CpxExpressionOperator_Accumulator_CountDistinct_Engine<CpxTupleField_Blob>);

// ---- Count, CountRows ----

// Untyped: the input may be of any type. Count counts rows whose input holds
// a value; CountRows counts every row and reads only its sign.
VX_DEFINE_OPERATOR(CpxExpressionOperator_Accumulator_Count_Engine, AccumulatorCount,
                   CpxExpressionOperator_Accumulator_Engine<
                       CpxAccumulatorInput_AnyValue, CpxTupleField_Integer, CpxCounterState>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Accumulator_CountRows_Engine, AccumulatorCountRows,
                   CpxExpressionOperator_Accumulator_Engine<
                       CpxAccumulatorInput_AnyRow, CpxTupleField_Integer, CpxCounterState>);

}  // namespace vxi

// ---- registration ----

namespace vx {

namespace {

constexpr const char* kBeforeFirst = "NULL input ignored; NULL before the first value";
constexpr const char* kWhileEmpty = "NULL input ignored; NULL while no value is live";
constexpr const char* kNeverNull = "NULL input ignored; never NULL";

}  // namespace

#define VX_ACCUMULATOR_ROW(Type, Kind, inputs, outputs, null_rule, description)                 \
  VX_OPERATOR(vxi::CpxExpressionOperator_##Type##_Accumulator_##Kind##_Engine, inputs, outputs, \
              null_rule, description)

// `t` is the type word, `mean` and `spread` the output words of Avg and
// Median and of the deviations.
#define VX_NUMERIC_ACCUMULATORS_TABLE(Type, t, mean, spread)                                      \
  VX_ACCUMULATOR_ROW(Type, Sum, "1 " t, "1 " t, kBeforeFirst,                                     \
                     "Sum of the live values (integers wrap); 0 once all are retracted."),        \
      VX_ACCUMULATOR_ROW(Type, SumDistinct, "1 " t, "1 " t, kBeforeFirst,                         \
                         "Sum of the distinct live values; 0 once all are retracted."),           \
      VX_ACCUMULATOR_ROW(Type, Avg, "1 " t, "1 " mean, kWhileEmpty,                               \
                         "Mean of the live values (times and intervals truncated toward zero)."), \
      VX_ACCUMULATOR_ROW(Type, AvgDistinct, "1 " t, "1 " mean, kWhileEmpty,                       \
                         "Mean of the distinct live values."),                                    \
      VX_ACCUMULATOR_ROW(Type, Median, "1 " t, "1 " mean, kWhileEmpty,                            \
                         "Middle live value; for an even count the two middle values added in "   \
                         "the input's arithmetic (wrapping) and halved."),                        \
      VX_ACCUMULATOR_ROW(Type, MedianDistinct, "1 " t, "1 " mean, kWhileEmpty,                    \
                         "Median of the distinct live values."),                                  \
      VX_ACCUMULATOR_ROW(Type, StandardDeviation, "1 " t, "1 " spread, kWhileEmpty,               \
                         "Population standard deviation; squares in the input's arithmetic "      \
                         "(wrapping); 0 when rounding leaves no spread."),                        \
      VX_ACCUMULATOR_ROW(Type, StandardDeviationDistinct, "1 " t, "1 " spread, kWhileEmpty,       \
                         "Population standard deviation of the distinct live values."),           \
      VX_ACCUMULATOR_ROW(Type, MeanDeviation, "1 " t, "1 " spread, kWhileEmpty,                   \
                         "Mean absolute deviation around the mean of the live values."),          \
      VX_ACCUMULATOR_ROW(Type, MeanDeviationDistinct, "1 " t, "1 " spread, kWhileEmpty,           \
                         "Mean absolute deviation of the distinct live values."),                 \
      VX_ACCUMULATOR_ROW(Type, Min, "1 " t, "1 " t, kWhileEmpty,                                  \
                         "Least live value (NaN above all)."),                                    \
      VX_ACCUMULATOR_ROW(Type, MinDistinct, "1 " t, "1 " t, kWhileEmpty,                          \
                         "Least live value (the same result as Min)."),                           \
      VX_ACCUMULATOR_ROW(Type, Max, "1 " t, "1 " t, kWhileEmpty,                                  \
                         "Greatest live value (NaN above all)."),                                 \
      VX_ACCUMULATOR_ROW(Type, MaxDistinct, "1 " t, "1 " t, kWhileEmpty,                          \
                         "Greatest live value (the same result as Max)."),                        \
      VX_ACCUMULATOR_ROW(Type, Last, "1 " t, "1 " t, "NULL input ignored; NULL until a value",    \
                         "Value of the last positive row; kept in memory only."),                 \
      VX_ACCUMULATOR_ROW(Type, CountDistinct, "1 " t, "1 integer", kNeverNull,                    \
                         "Number of distinct live values."),                                      \
      VX_OPERATOR(vxi::CpxExpressionOperator_##Type##_Threshold_Engine,                           \
                  "1 integer (0 UP, 1 DOWN, 2 ANY), 2 " t " (value, threshold)", "1 boolean",     \
                  "NULL input, bad criteria or negative row gives NULL",                          \
                  "True when the value has just crossed the threshold in that direction.")

void RegisterAccumulatorOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_ACCUMULATORS_TABLE(Integer, "integer", "float", "float"),
      VX_NUMERIC_ACCUMULATORS_TABLE(Long, "long", "float", "float"),
      VX_NUMERIC_ACCUMULATORS_TABLE(Float, "float", "float", "float"),
      VX_NUMERIC_ACCUMULATORS_TABLE(Time, "time", "time", "interval"),
      VX_NUMERIC_ACCUMULATORS_TABLE(IntervalD2S, "interval", "interval", "interval"),
      VX_ACCUMULATOR_ROW(Boolean, Last, "1 boolean", "1 boolean",
                         "NULL input ignored; NULL until a value",
                         "Value of the last positive row; kept in memory only."),
      VX_ACCUMULATOR_ROW(Boolean, CountDistinct, "1 boolean", "1 integer", kNeverNull,
                         "Number of distinct live values."),
      VX_ACCUMULATOR_ROW(String, Last, "1 string", "1 string",
                         "NULL input ignored; NULL until a value",
                         "Value of the last positive row; kept in memory only."),
      VX_OPERATOR(CpxExpressionOperator_Accumulator_CountDistinct_String_Engine, "1 string",
                  "1 integer", kNeverNull, "Number of distinct live texts."),
      VX_OPERATOR(CpxExpressionOperator_String_Min_Accumulator_Engine, "1 string", "1 string",
                  kWhileEmpty, "Least live text (byte-wise order)."),
      VX_OPERATOR(CpxExpressionOperator_String_Max_Accumulator_Engine, "1 string", "1 string",
                  kWhileEmpty, "Greatest live text (byte-wise order)."),
      VX_OPERATOR(CpxExpressionOperator_String_Min_DistinctAccumulator_Engine, "1 string",
                  "1 string", kWhileEmpty, "Least live text (the same result as Min)."),
      VX_OPERATOR(CpxExpressionOperator_String_Max_DistinctAccumulator_Engine, "1 string",
                  "1 string", kWhileEmpty, "Greatest live text (the same result as Max)."),
      VX_OPERATOR(CpxExpressionOperator_Accumulator_CountDistinct_Blob_Engine, "1 blob",
                  "1 integer", kNeverNull, "Number of distinct live blobs."),
      VX_OPERATOR(CpxExpressionOperator_Accumulator_Count_Engine, "1 any", "1 integer",
                  "NULL input not counted; never NULL",
                  "Number of live rows whose input holds a value."),
      VX_OPERATOR(CpxExpressionOperator_Accumulator_CountRows_Engine, "1 any (its row)",
                  "1 integer", "never NULL", "Number of live rows, NULL inputs included."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
