// Generic scalar operators: executors that own reading the inputs, the NULL
// rule and writing the output, over a field class and a tiny operation
// struct. A concrete operator is one line naming the executor, the field
// class and the operation (see VX_DEFINE_OPERATOR), plus its registration
// line.
//
// NULL policy: these executors give a NULL output when any input is NULL.
// Operators with another policy use another executor and say why.
#pragma once

#include <type_traits>

#include "cpx_expressions/cpx_operators.h"

namespace vx {

// Defines the registered class `Class` for the executor instance given as
// the remaining arguments, with the type name `stem`.
#define VX_DEFINE_OPERATOR(Class, stem, ...)                                  \
  class Class final : public __VA_ARGS__ {                                    \
    using BaseType = __VA_ARGS__;                                             \
                                                                              \
   public:                                                                    \
    using BaseType::BaseType;                                                 \
    static const ::vx::XmlQName& GetOperatorType() {                         \
      return ::vx::CpxExpressionOperatorTypes::stem##OperatorType();         \
    }                                                                         \
  }

// ---- operations ----

// Integer arithmetic wraps on overflow (computed in the unsigned type);
// floats follow IEEE arithmetic.
template <class T>
constexpr T WrapAdd(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
  } else {
    return a + b;
  }
}
template <class T>
constexpr T WrapSubtract(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
  } else {
    return a - b;
  }
}
template <class T>
constexpr T WrapMultiply(T a, T b) {
  if constexpr (std::is_integral_v<T>) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
  } else {
    return a * b;
  }
}

struct AddOperation {
  template <class T>
  static T Operation(T a, T b) { return WrapAdd(a, b); }
};
struct SubtractOperation {
  template <class T>
  static T Operation(T a, T b) { return WrapSubtract(a, b); }
};
struct MultiplyOperation {
  template <class T>
  static T Operation(T a, T b) { return WrapMultiply(a, b); }
};
struct EqualOperation {
  template <class T>
  static bool Operation(T a, T b) { return a == b; }
};
struct NotEqualOperation {
  template <class T>
  static bool Operation(T a, T b) { return a != b; }
};
struct LessOperation {
  template <class T>
  static bool Operation(T a, T b) { return a < b; }
};
struct LessOrEqualOperation {
  template <class T>
  static bool Operation(T a, T b) { return a <= b; }
};
struct GreaterOperation {
  template <class T>
  static bool Operation(T a, T b) { return a > b; }
};
struct GreaterOrEqualOperation {
  template <class T>
  static bool Operation(T a, T b) { return a >= b; }
};

// ---- executors ----

// Folds one or more inputs of one type from the left (x0 op x1 op x2 ...);
// a single input passes through. Any NULL input gives NULL.
template <class Field, class Op>
class CpxExpressionOperator_Fold_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  using Value = typename Field::ValueType;

  // Every input is read before the output is written, so the output may be
  // one of the inputs (a loop counter: n = n + 1).
  bool ProhibitInputEqualOutputTuple() const override { return false; }

  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    const XmlQName& type = Field::GetTupleFieldType();
    if (!DoInsureValidParameters(type, 1, -1, type, 1, 1))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT,
                                  {"type_name", type.local});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned out_pos = 0, pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    const size_t n = GetInputParameters().size();
    CpxTuple* t = GetInputTupleField(ev, 0, pos);
    if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
    Value acc = Field::GetValue(t, pos);
    for (size_t i = 1; i < n; ++i) {
      t = GetInputTupleField(ev, static_cast<unsigned>(i), pos);
      if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
      acc = Op::Operation(acc, Field::GetValue(t, pos));
    }
    Field::SetValue(*out, out_pos, acc);
  }
};

// Compares two or more inputs of one type, chained over consecutive pairs
// (x0 < x1 < x2 ...): true only when every pair holds. Any NULL input gives
// NULL.
template <class Field, class Op>
class CpxExpressionOperator_Compare_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  using Value = typename Field::ValueType;

  // Every input is read before the output is written, so the output may be
  // one of the inputs (a loop counter: n = n + 1).
  bool ProhibitInputEqualOutputTuple() const override { return false; }

  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    const XmlQName& type = Field::GetTupleFieldType();
    if (!DoInsureValidParameters(type, 2, -1, CpxTupleFieldTypes::BooleanFieldType(), 1, 1))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT,
                                  {"type_name", type.local});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned out_pos = 0, pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    const size_t n = GetInputParameters().size();
    CpxTuple* t = GetInputTupleField(ev, 0, pos);
    if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
    Value prev = Field::GetValue(t, pos);
    bool result = true;
    for (size_t i = 1; i < n; ++i) {
      t = GetInputTupleField(ev, static_cast<unsigned>(i), pos);
      if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
      Value next = Field::GetValue(t, pos);
      result = result && Op::Operation(prev, next);
      prev = next;
    }
    CpxTupleField_Boolean::SetValue(*out, out_pos, result);
  }
};

template <class Field>
using CpxExpressionOperator_Add_Engine = CpxExpressionOperator_Fold_Engine<Field, AddOperation>;
template <class Field>
using CpxExpressionOperator_Subtract_Engine = CpxExpressionOperator_Fold_Engine<Field, SubtractOperation>;
template <class Field>
using CpxExpressionOperator_Multiply_Engine = CpxExpressionOperator_Fold_Engine<Field, MultiplyOperation>;
template <class Field>
using CpxExpressionOperator_Equal_Engine = CpxExpressionOperator_Compare_Engine<Field, EqualOperation>;
template <class Field>
using CpxExpressionOperator_NotEqual_Engine = CpxExpressionOperator_Compare_Engine<Field, NotEqualOperation>;
template <class Field>
using CpxExpressionOperator_Less_Engine = CpxExpressionOperator_Compare_Engine<Field, LessOperation>;
template <class Field>
using CpxExpressionOperator_LessOrEqual_Engine = CpxExpressionOperator_Compare_Engine<Field, LessOrEqualOperation>;
template <class Field>
using CpxExpressionOperator_Greater_Engine = CpxExpressionOperator_Compare_Engine<Field, GreaterOperation>;
template <class Field>
using CpxExpressionOperator_GreaterOrEqual_Engine = CpxExpressionOperator_Compare_Engine<Field, GreaterOrEqualOperation>;

// The arithmetic and comparison operators shared by the numeric types, as
// classes `CpxExpressionOperator_<Type>_Add_Engine` ... and one registration
// table. Used once per numeric type file.
#define VX_DEFINE_NUMERIC_BASICS(Type, Field)                                                       \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Add_Engine, Add##Type,                         \
                     CpxExpressionOperator_Add_Engine<Field>);                                      \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Subtract_Engine, Subtract##Type,               \
                     CpxExpressionOperator_Subtract_Engine<Field>);                                 \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Multiply_Engine, Multiply##Type,               \
                     CpxExpressionOperator_Multiply_Engine<Field>);                                 \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Equal_Engine, Equal##Type,                     \
                     CpxExpressionOperator_Equal_Engine<Field>);                                    \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_NotEqual_Engine, NotEqual##Type,               \
                     CpxExpressionOperator_NotEqual_Engine<Field>);                                 \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Less_Engine, Less##Type,                       \
                     CpxExpressionOperator_Less_Engine<Field>);                                     \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_LessOrEqual_Engine, LessOrEqual##Type,         \
                     CpxExpressionOperator_LessOrEqual_Engine<Field>);                              \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_Greater_Engine, Greater##Type,                 \
                     CpxExpressionOperator_Greater_Engine<Field>);                                  \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_GreaterOrEqual_Engine, GreaterOrEqual##Type,   \
                     CpxExpressionOperator_GreaterOrEqual_Engine<Field>)

#define VX_NUMERIC_BASICS_TABLE(Type, type_word)                                                    \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Add_Engine, "1+ " type_word, "1 " type_word,           \
              "any NULL input gives NULL", "Sum of the inputs, folded from the left; wraps."),      \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Subtract_Engine, "1+ " type_word, "1 " type_word,      \
              "any NULL input gives NULL", "x0 - x1 - x2 ..., folded from the left; wraps."),       \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Multiply_Engine, "1+ " type_word, "1 " type_word,      \
              "any NULL input gives NULL", "Product of the inputs, folded from the left; wraps."),  \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Equal_Engine, "2+ " type_word, "1 boolean",            \
              "any NULL input gives NULL", "True when each input equals the next."),                \
  VX_OPERATOR(CpxExpressionOperator_##Type##_NotEqual_Engine, "2+ " type_word, "1 boolean",         \
              "any NULL input gives NULL", "True when each input differs from the next."),          \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Less_Engine, "2+ " type_word, "1 boolean",             \
              "any NULL input gives NULL", "True when x0 < x1 < x2 ..."),                           \
  VX_OPERATOR(CpxExpressionOperator_##Type##_LessOrEqual_Engine, "2+ " type_word, "1 boolean",      \
              "any NULL input gives NULL", "True when x0 <= x1 <= x2 ..."),                         \
  VX_OPERATOR(CpxExpressionOperator_##Type##_Greater_Engine, "2+ " type_word, "1 boolean",          \
              "any NULL input gives NULL", "True when x0 > x1 > x2 ..."),                           \
  VX_OPERATOR(CpxExpressionOperator_##Type##_GreaterOrEqual_Engine, "2+ " type_word, "1 boolean",   \
              "any NULL input gives NULL", "True when x0 >= x1 >= x2 ...")

}  // namespace vx
