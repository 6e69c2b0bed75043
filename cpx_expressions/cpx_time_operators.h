// Operations over microsecond counts, shared by the time and the
// day-to-second interval operators: scaling by a number, dividing, ratios
// and the mean. They run on the generic executors of
// cpx_expression_operators.h like every numeric operation.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

#include "cpx_expressions/cpx_expression_operators.h"

namespace vx {

// A double rounded to the nearest microsecond (halves away from zero);
// NaN, infinities and values beyond the 64-bit count give NULL. A time or
// interval that wrapped or saturated would be a wrong instant, not a
// limit, so the result is refused rather than clamped.
inline std::optional<int64_t> RoundToCount(double v) {
  const double r = std::round(v);
  if (!(r >= -0x1p63 && r < 0x1p63)) return std::nullopt;  // both bounds exact
  return static_cast<int64_t>(r);
}

// count * k. Integer factors wrap like integer multiplication; a float
// factor rounds to the microsecond.
struct ScaleCountOperation {
  static int64_t Operation(int64_t v, int32_t k) { return WrapMultiply<int64_t>(v, k); }
  static int64_t Operation(int64_t v, int64_t k) { return WrapMultiply(v, k); }
  static std::optional<int64_t> Operation(int64_t v, double k) {
    return RoundToCount(static_cast<double>(v) * k);
  }
};
// k * count, for the forms that take the number first.
struct ScaleCountCommutedOperation {
  template <class K>
  static auto Operation(K k, int64_t v) {
    return ScaleCountOperation::Operation(v, k);
  }
};

// count / k. Integer divisors truncate toward zero (the most negative count
// divided by -1 wraps to itself); a float divisor rounds to the microsecond.
// A zero divisor gives NULL.
struct DivideCountOperation {
  static std::optional<int64_t> Operation(int64_t v, int32_t k) {
    return DivideOperation::Operation<int64_t>(v, k);
  }
  static std::optional<int64_t> Operation(int64_t v, int64_t k) {
    return DivideOperation::Operation(v, k);
  }
  static std::optional<int64_t> Operation(int64_t v, double k) {
    if (k == 0.0) return std::nullopt;
    return RoundToCount(static_cast<double>(v) / k);
  }
};

// a / b of two counts as a float; a zero divisor gives NULL.
struct CountRatioOperation {
  static std::optional<double> Operation(int64_t a, int64_t b) {
    if (b == 0) return std::nullopt;
    return static_cast<double>(a) / static_cast<double>(b);
  }
};

// The mean of counts, in the type of the counts: the exact sum divided by
// the number of inputs, truncated toward zero to the microsecond (the rule
// of the time and interval Avg accumulators).
template <class F>
struct MeanReducer
    : CpxReducerShape<F, F, 1, VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT,
                      false> {
  using State = __int128;
  static void Step(State& sum, int64_t x, unsigned) { sum += x; }
  static int64_t Finish(State sum, unsigned n) {
    return static_cast<int64_t>(sum / static_cast<State>(n));
  }
};
template <class Field>
using CpxExpressionOperator_Mean_Engine = CpxExpressionOperator_List_Engine<MeanReducer<Field>>;

// The generic operators a microsecond-count type shares with the numeric
// types, as classes `CpxExpressionOperator_<Type>_Add_Engine` ..., with
// VX_COUNT_BASICS_TABLE in the registration table: arithmetic, comparison,
// list, scaling by numbers and conversion to and from numbers (the number
// is the microsecond count).
#define VX_DEFINE_COUNT_BASICS(Type, Field)                                                       \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Add);                                                   \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Subtract);                                              \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Abs);                                                   \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Negative);                                              \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Sign);                                                  \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Min);                                                   \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Max);                                                   \
  VX_DEFINE_NUMERIC_COMPARISONS(Type, Field);                                                     \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Average_Engine, Average##Type,                \
                     CpxExpressionOperator_Mean_Engine<Field>);                                   \
  VX_DEFINE_COUNT_BINARY(Type, MultiplyByFloat, Multiply##Type##ByFloat, Field,                   \
                         CpxTupleField_Float, Field, ScaleCountOperation);                        \
  VX_DEFINE_COUNT_BINARY(Type, MultiplyByInteger, Multiply##Type##ByInteger, Field,               \
                         CpxTupleField_Integer, Field, ScaleCountOperation);                      \
  VX_DEFINE_COUNT_BINARY(Type, MultiplyByLong, Multiply##Type##ByLong, Field, CpxTupleField_Long, \
                         Field, ScaleCountOperation);                                             \
  VX_DEFINE_COUNT_BINARY(Type, DivideByFloat, Divide##Type##ByFloat, Field, CpxTupleField_Float,  \
                         Field, DivideCountOperation);                                            \
  VX_DEFINE_COUNT_BINARY(Type, DivideByInteger, Divide##Type##ByInteger, Field,                   \
                         CpxTupleField_Integer, Field, DivideCountOperation);                     \
  VX_DEFINE_COUNT_BINARY(Type, DivideByLong, Divide##Type##ByLong, Field, CpxTupleField_Long,     \
                         Field, DivideCountOperation);                                            \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_ToFloat_Engine, ToFloat##Type,                \
                     CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Float, Field>);     \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_ToLong_Engine, ToLong##Type,                  \
                     CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Long, Field>);      \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_FromFloat_Engine, FromFloat##Type,            \
                     CpxExpressionOperator_FromOtherType_Engine<Field, CpxTupleField_Float>);     \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_FromLong_Engine, FromLong##Type,              \
                     CpxExpressionOperator_FromOtherType_Engine<Field, CpxTupleField_Long>)

// `CpxExpressionOperator_<Type>_<Function>_Engine`, named `stem`: Out = Op(x0, x1).
#define VX_DEFINE_COUNT_BINARY(Type, Function, stem, In0, In1, Out, Op)        \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_##Function##_Engine, stem, \
                     CpxExpressionOperator_Binary_Engine<In0, In1, Out, Op>)

// `t` is the type word ("time"); `T` the type name used in the classes.
#define VX_COUNT_BASICS_TABLE(T, t)                                                             \
  VX_NUMERIC_ROW(T, Add, "1+ " t, "1 " t, "any NULL input gives NULL",                          \
                 "Sum of the microsecond counts, folded from the left; wraps."),                \
      VX_NUMERIC_ROW(T, Subtract, "1+ " t, "1 " t, "any NULL input gives NULL",                 \
                     "x0 - x1 - x2 ... of the microsecond counts; wraps."),                     \
      VX_NUMERIC_ROW(T, Abs, "1 " t, "1 " t, "NULL input gives NULL",                           \
                     "Absolute value of the count; the most negative count stays itself."),     \
      VX_NUMERIC_ROW(T, Negative, "1 " t, "1 " t, "NULL input gives NULL",                      \
                     "-x; the most negative count stays itself."),                              \
      VX_NUMERIC_ROW(T, Sign, "1 " t, "1 integer", "NULL input gives NULL", "-1, 0 or 1."),     \
      VX_NUMERIC_ROW(T, Min, "1+ " t, "1 " t, "any NULL input gives NULL", "Least input."),     \
      VX_NUMERIC_ROW(T, Max, "1+ " t, "1 " t, "any NULL input gives NULL", "Greatest input."),  \
      VX_NUMERIC_ROW(T, Average, "1+ " t, "1 " t, "any NULL input gives NULL",                  \
                     "Mean of the inputs, exact, truncated toward zero to the microsecond."),   \
      VX_NUMERIC_COMPARISONS_TABLE(T, t),                                                       \
      VX_NUMERIC_ROW(T, MultiplyByFloat, "1 " t ", 1 float", "1 " t,                            \
                     "any NULL input, NaN or a result beyond the range gives NULL",             \
                     "Count times the number, rounded to the microsecond."),                    \
      VX_NUMERIC_ROW(T, MultiplyByInteger, "1 " t ", 1 integer", "1 " t,                        \
                     "any NULL input gives NULL", "Count times the number; wraps."),            \
      VX_NUMERIC_ROW(T, MultiplyByLong, "1 " t ", 1 long", "1 " t, "any NULL input gives NULL", \
                     "Count times the number; wraps."),                                         \
      VX_NUMERIC_ROW(T, DivideByFloat, "1 " t ", 1 float", "1 " t,                              \
                     "any NULL input, zero divisor or a result beyond the range gives NULL",    \
                     "Count divided by the number, rounded to the microsecond."),               \
      VX_NUMERIC_ROW(T, DivideByInteger, "1 " t ", 1 integer", "1 " t,                          \
                     "any NULL input or zero divisor gives NULL",                               \
                     "Count divided by the number, truncated toward zero."),                    \
      VX_NUMERIC_ROW(T, DivideByLong, "1 " t ", 1 long", "1 " t,                                \
                     "any NULL input or zero divisor gives NULL",                               \
                     "Count divided by the number, truncated toward zero."),                    \
      VX_NUMERIC_ROW(T, ToFloat, "1 " t, "1 float", "NULL input gives NULL",                    \
                     "The microsecond count as a float."),                                      \
      VX_NUMERIC_ROW(T, ToLong, "1 " t, "1 long", "NULL input gives NULL",                      \
                     "The microsecond count."),                                                 \
      VX_NUMERIC_ROW(                                                                           \
          T, FromFloat, "1 float", "1 " t, "NULL or NaN input gives NULL",                      \
          "A microsecond count, truncated toward zero; beyond the range, the nearest limit."),  \
      VX_NUMERIC_ROW(T, FromLong, "1 long", "1 " t, "NULL input gives NULL",                    \
                     "A microsecond count.")

}  // namespace vx
