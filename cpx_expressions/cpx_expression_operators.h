// Generic scalar operators: executors that own reading the inputs, the NULL
// rule and writing the output, over field classes and a tiny operation
// struct. A concrete operator is one line naming the executor, the field
// classes and the operation (see VX_DEFINE_OPERATOR), plus its registration
// line.
//
// Executors, and the NULL policy each declares once:
//   Unary               one input                any NULL input gives NULL
//   Binary              two inputs               any NULL input gives NULL
//   List over a reducer inputs of one type, in order:
//     FoldReducer       x0 op x1 op ...          any NULL input gives NULL
//     ChainReducer      x0 < x1 < ...            any NULL input gives NULL
//     AverageReducer, DistanceReducer            any NULL input gives NULL
//     InListReducer     probe, list...           never NULL (NULL matches NULL)
//     LogicReducer      three-valued And, Or     NULL is a truth value
// An operation may also refuse a value (a zero divisor, a negative square
// root, text that does not parse) by returning an empty std::optional: the
// output is then NULL, silently.
//
// Every executor reads all of its inputs before it writes its output, so an
// output may also be one of the inputs (a loop counter: n = n + 1).
//
// The operations are templates over the value type, and the executors over
// the field classes, so any field class with a fixed-size value (the time
// and interval types included) gets an operator from a single line.
//
// Threads: operators are immutable after loading and run on any thread; the
// only shared run-time state is the Random generator word (see
// CpxNextRandomWord).
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

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

// ---- value helpers ----

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

// Text built in a fixed buffer, so that a text result costs no allocation
// per row; converts to the view a String output stores.
struct CpxFixedText {
  char data[64];
  int length = 0;  // what snprintf reported; the stored text is cut to fit
  operator std::string_view() const {
    const int n = length < 0 ? 0 : (length < int(sizeof data) ? length : int(sizeof data) - 1);
    return {data, static_cast<size_t>(n)};
  }
};

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
// The negation of the most negative integer is itself.
template <class T>
constexpr T WrapNegate(T a) {
  return WrapSubtract(T{}, a);
}

// The order of Min and Max: the ordinary one, with NaN above every other
// float (as in tuple and key ordering), so that the result does not depend
// on where a NaN stands among the inputs.
template <class T>
bool OrderLess(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    if (std::isnan(a)) return false;
    if (std::isnan(b)) return true;
  }
  return a < b;
}

// A float truncated toward zero into an integer type. The conversion makes
// no range test: a value beyond the type's range gives the nearest limit (C++
// leaves that case undefined, we pick the saturating reading). NaN has no
// integer value and gives NULL.
template <class T>
std::optional<T> TruncateToInteger(double v) {
  constexpr double kMin = static_cast<double>(std::numeric_limits<T>::min());  // -2^(bits-1), exact
  if (std::isnan(v)) return std::nullopt;
  if (v >= -kMin) return std::numeric_limits<T>::max();
  if (v <= kMin) return std::numeric_limits<T>::min();
  return static_cast<T>(v);
}

// ---- operations ----

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
// Integer division truncates toward zero; the most negative value divided
// by -1 wraps to itself. A zero divisor gives NULL for every type: a Float
// divisor of 0.0 (or -0.0) is refused too rather than giving an infinity,
// so that one zero rule holds for all numeric types.
struct DivideOperation {
  template <class T>
  static std::optional<T> Operation(T a, T b) {
    if (b == T{}) return std::nullopt;
    if constexpr (std::is_integral_v<T>) {
      if (b == T{-1}) return WrapNegate(a);
    }
    return a / b;
  }
};
// The remainder of truncating division: its sign follows the dividend. A
// zero divisor gives NULL.
struct ModuloOperation {
  template <class T>
  static std::optional<T> Operation(T a, T b) {
    if (b == T{}) return std::nullopt;
    if constexpr (std::is_integral_v<T>) {
      if (b == T{-1}) return T{};  // min % -1 overflows in C++; the remainder is 0
      return a % b;
    } else {
      return std::fmod(a, b);
    }
  }
};
// A negative base gives NULL, also for whole exponents; otherwise the double
// power of the base converted to double (0 to a negative power is infinity).
struct PowerOperation {
  template <class T>
  static std::optional<double> Operation(T base, double exponent) {
    if (base < T{}) return std::nullopt;
    return std::pow(static_cast<double>(base), exponent);
  }
};
struct SqrtOperation {
  template <class T>
  static std::optional<double> Operation(T v) {
    if (v < T{}) return std::nullopt;
    return std::sqrt(static_cast<double>(v));
  }
};
// The most negative integer is its own absolute value (wrapping).
struct AbsOperation {
  template <class T>
  static T Operation(T v) {
    if constexpr (std::is_integral_v<T>) {
      return v < T{} ? WrapNegate(v) : v;
    } else {
      return std::fabs(v);
    }
  }
};
struct NegativeOperation {
  template <class T>
  static T Operation(T v) { return WrapNegate(v); }
};
// -1, 0 or 1 as an integer. NaN is neither negative, zero nor positive and
// gives NULL.
struct SignOperation {
  template <class T>
  static std::optional<int32_t> Operation(T v) {
    if constexpr (std::is_floating_point_v<T>) {
      if (std::isnan(v)) return std::nullopt;
    }
    return v < T{} ? -1 : (v > T{} ? 1 : 0);
  }
};
struct MinOperation {
  template <class T>
  static T Operation(T a, T b) { return OrderLess(b, a) ? b : a; }
};
struct MaxOperation {
  template <class T>
  static T Operation(T a, T b) { return OrderLess(a, b) ? b : a; }
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
struct XorOperation {
  static bool Operation(bool a, bool b) { return a != b; }
};
// A stored byte other than 1 reads as false, so Not gives true for it.
struct NotOperation {
  static bool Operation(bool v) { return !v; }
};

// ---- Random ----

// The generator word shared by every Random operator of the process. It
// starts at 12345 when the library is loaded and is never seeded from the
// clock, so identical input streams give identical pseudo-random outputs.
//
// Threads: evaluators of different contexts (or groups) may call Random on
// different threads at once. The word is an atomic advanced by a
// compare-and-swap loop, so concurrent calls never race (a plain word would
// be a data race) and each step of the sequence is handed out exactly once;
// which thread gets which step is then up to the scheduler. On one thread
// the sequence is exactly the documented one.
inline std::atomic<uint32_t> g_cpx_random_word{12345};

// word = word * 1103515245 + 12345 (32-bit wrapping); returns the new word.
inline uint32_t CpxNextRandomWord() {
  uint32_t word = g_cpx_random_word.load(std::memory_order_relaxed);
  uint32_t next;
  do {
    next = word * 1103515245u + 12345u;
  } while (!g_cpx_random_word.compare_exchange_weak(word, next, std::memory_order_relaxed));
  return next;
}

// x = r * 2^-31 * N, with r the new word without its top bit. Integer: x is
// truncated toward zero and a result equal to N becomes N - 1, so N > 0
// gives 0 ... N - 1 (and N = 0 gives -1, by the same replacement). Float: x
// itself, uniform in [0, N) for N > 0. A NULL N never reaches the
// operation, so it draws nothing.
struct RandomOperation {
  template <class T>
  static T Operation(T n) {
    const uint32_t r = CpxNextRandomWord() & 0x7fffffffu;
    const double x = static_cast<double>(r) * 0x1p-31 * static_cast<double>(n);
    if constexpr (std::is_integral_v<T>) {
      const T v = static_cast<T>(std::trunc(x));
      return v == n ? WrapSubtract(n, T{1}) : v;
    } else {
      return x;
    }
  }
};

// ---- conversions and text forms ----

// To the value type of `To` without a range test: integers widen exactly (or
// to the nearest double); floats truncate toward zero (see TruncateToInteger).
template <class To>
struct ConvertOperation {
  using T = typename To::ValueType;
  template <class F>
  static auto Operation(F v) {
    if constexpr (std::is_floating_point_v<F> && std::is_integral_v<T>) {
      return TruncateToInteger<T>(v);
    } else {
      return static_cast<T>(v);
    }
  }
};

// An integer narrowed to a smaller integer type with a range test. A value
// outside the target's range is logged as a conversion error and gives NULL;
// evaluation goes on.
template <class To, class From>
struct NarrowOperation {
  using T = typename To::ValueType;
  using F = typename From::ValueType;
  static_assert(std::is_integral_v<T> && std::is_integral_v<F>);
  static std::optional<T> Operation(F v) {
    if (std::in_range<T>(v)) return static_cast<T>(v);
    VX_LOG_TEXT(LogLevel::Error,
                "Conversion error! Attempting to convert \"{from_type}\" of value \"{from_value}\" "
                "to type \"{to_type}\". Result set to NULL.",
                "", {"from_type", From::GetTupleFieldType().local}, {"from_value", v},
                {"to_type", To::GetTupleFieldType().local});
    return std::nullopt;
  }
};

// Text parsed by the field class; text it does not accept gives NULL.
template <class Field>
struct FromStringOperation {
  static std::optional<typename Field::ValueType> Operation(std::string_view text) {
    typename Field::ValueType v;
    if (!Field::FromString(v, text)) return std::nullopt;
    return v;
  }
};

// The field class's own text form unless a printf format is given.
struct FieldTextFormat {
  static constexpr const char* kFormat = nullptr;
};
template <class Field, class Format = FieldTextFormat>
struct ToStringOperation {
  static CpxFixedText Operation(typename Field::ValueType v) {
    CpxFixedText text;
    text.length = Field::ToString(text.data, sizeof text.data, v, Format::kFormat);
    return text;
  }
};

// ---- executors ----

// Base of the executors: reading an input, writing the output, and the
// load-time shape check.
class CpxExpressionOperator_Scalar_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;

  // Every input is read before the output is written.
  bool ProhibitInputEqualOutputTuple() const override { return false; }

 protected:
  // Where the result goes.
  struct OutputSlot {
    CpxTuple* tuple;
    unsigned pos;
    void SetNull() const { tuple->ClearFieldValue(pos); }
    // A value, or NULL for an empty optional.
    template <class Field, class R>
    void Set(const R& r) const {
      if constexpr (IsOptional<R>::value) {
        if (!r) return SetNull();
        Field::SetValue(*tuple, pos, *r);
      } else {
        Field::SetValue(*tuple, pos, r);
      }
    }
  };

  VX_ALWAYS_INLINE OutputSlot GetOutputSlot(CpxExpressionEvaluator_Engine* ev) const {
    OutputSlot slot{nullptr, 0};
    slot.tuple = GetOutputTupleField(ev, 0, slot.pos);
    return slot;
  }
  // False when input i is NULL; otherwise stores its value in `v` (a view
  // for text and byte fields).
  template <class Field>
  VX_ALWAYS_INLINE bool ReadInput(CpxExpressionEvaluator_Engine* ev, unsigned i,
                 typename Field::ValueType& v) const {
    unsigned pos = 0;
    const CpxTuple* t = GetInputTupleField(ev, i, pos);
    if (!t->HasFieldValue(pos)) return false;
    if constexpr (std::is_same_v<typename Field::ValueType, std::string_view>) {
      v = Field::GetView(t, pos);
    } else {
      v = Field::GetValue(t, pos);
    }
    return true;
  }
  // Every input of type `in` (at least `min_in`, at most `max_in`; -1 for no
  // bound) and one output of type `out`; raises `Definition` otherwise.
  template <LogMessageDefinitionFunc Definition>
  void InsureShape(const XmlQName& in, int min_in, int max_in, const XmlQName& out) const {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (!DoInsureValidParameters(in, min_in, max_in, out, 1, 1))
      VX_RAISE_INVALID_PARAMETERS(*Definition, {"type_name", in.local});
  }
};

// One input of `In`, one output of `Out`: Out = Op(x).
template <class In, class Out, class Op>
class CpxExpressionOperator_Unary_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

  void InsureValidParameters() const override {
    InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT>(
        In::GetTupleFieldType(), 1, 1, Out::GetTupleFieldType());
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    typename In::ValueType x;
    if (!ReadInput<In>(ev, 0, x)) return out.SetNull();
    out.Set<Out>(Op::Operation(x));
  }
};

// Two inputs (`In0`, `In1`), one output of `Out`: Out = Op(x0, x1).
template <class In0, class In1, class Out, class Op>
class CpxExpressionOperator_Binary_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

  void InsureValidParameters() const override {
    if constexpr (std::is_same_v<In0, In1>) {
      InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT>(
          In0::GetTupleFieldType(), 2, 2, Out::GetTupleFieldType());
    } else {
      CpxExpressionOperator_Engine::InsureValidParameters();
      if (GetInputParameters().size() != 2 || GetOutputParameters().size() != 1)
        VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT);
      InsureInputType(0, In0::kKind);
      InsureInputType(1, In1::kKind);
      InsureOutputType(0, Out::kKind);
    }
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    typename In0::ValueType x0;
    typename In1::ValueType x1;
    if (!ReadInput<In0>(ev, 0, x0) || !ReadInput<In1>(ev, 1, x1)) return out.SetNull();
    out.Set<Out>(Op::Operation(x0, x1));
  }
};

// ---- the list executor and its reducers ----

// Runs a reducer over the inputs, all of one field class, in order, and
// writes what it finishes with. A reducer R declares (see CpxReducerShape)
// its input and output field classes, its least input count and the fault
// raised at load for a wrong shape, and its NULL policy:
//   kNullAware false: any NULL input gives NULL; the reducer sees values only.
//   kNullAware true:  NULL is one of the values; Step gets nullptr for it.
// and State, Step(state, x, i) for input i, Finish(state, n) returning the
// result (an empty optional: NULL). It may also restrict the input count at
// run time (AcceptsInputCount, ReportInputCount): a refused count is reported
// each time the step runs and gives NULL.
template <class R>
class CpxExpressionOperator_List_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;
  using Field = typename R::Field;

  void InsureValidParameters() const override {
    InsureShape<R::kShapeFault>(Field::GetTupleFieldType(), R::kMinInputs, -1,
                                R::Output::GetTupleFieldType());
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    const unsigned n = static_cast<unsigned>(GetInputParameters().size());
    if constexpr (requires { R::AcceptsInputCount(n); }) {
      if (!R::AcceptsInputCount(n)) {
        R::ReportInputCount(GetName(), Field::GetTupleFieldType().local, n);
        return out.SetNull();
      }
    }
    typename R::State state{};
    if constexpr (!R::kNullAware) {
      // Two inputs, the usual case (x op y), without the loop.
      if (n == 2) {
        typename Field::ValueType x0{}, x1{};
        if (!ReadInput<Field>(ev, 0, x0) || !ReadInput<Field>(ev, 1, x1)) return out.SetNull();
        R::Step(state, x0, 0);
        R::Step(state, x1, 1);
        return out.Set<typename R::Output>(R::Finish(state, 2));
      }
    }
    typename Field::ValueType x{};
    for (unsigned i = 0; i < n; ++i) {
      const bool present = ReadInput<Field>(ev, i, x);
      if constexpr (R::kNullAware) {
        R::Step(state, present ? &x : nullptr, i);
      } else {
        if (!present) return out.SetNull();
        R::Step(state, x, i);
      }
    }
    out.Set<typename R::Output>(R::Finish(state, n));
  }
};

template <class In, class Out, int MinInputs, LogMessageDefinitionFunc ShapeFault, bool NullAware>
struct CpxReducerShape {
  using Field = In;
  using Output = Out;
  using Value = typename In::ValueType;
  static constexpr int kMinInputs = MinInputs;
  static constexpr LogMessageDefinitionFunc kShapeFault = ShapeFault;
  static constexpr bool kNullAware = NullAware;
};

// x0 op x1 op x2 ..., folded from the left; a single input passes through.
// An operation that refuses a step (a zero divisor) makes the result NULL.
template <class F, class Op>
struct FoldReducer
    : CpxReducerShape<F, F, 1, VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT, false> {
  using Value = typename F::ValueType;
  static constexpr bool kMayRefuse = IsOptional<decltype(Op::Operation(Value{}, Value{}))>::value;
  struct State {
    Value acc{};
    bool refused = false;
  };
  static void Step(State& s, Value x, unsigned i) {
    if (i == 0) {
      s.acc = x;
    } else if constexpr (kMayRefuse) {
      if (s.refused) return;
      const auto r = Op::Operation(s.acc, x);
      if (r) s.acc = *r; else s.refused = true;
    } else {
      s.acc = Op::Operation(s.acc, x);
    }
  }
  static auto Finish(const State& s, unsigned) {
    if constexpr (kMayRefuse) {
      return s.refused ? std::optional<Value>() : std::optional<Value>(s.acc);
    } else {
      return s.acc;
    }
  }
};

// x0 op x1 op x2 ... over consecutive pairs: true only when every pair holds.
// A NULL anywhere gives NULL, even when another pair already fails: with more
// than two inputs the two-input rule holds unchanged, so a NULL never turns
// into a definite answer.
template <class F, class Op>
struct ChainReducer
    : CpxReducerShape<F, CpxTupleField_Boolean, 2,
                      VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT, false> {
  using Value = typename F::ValueType;
  struct State {
    Value prev{};
    bool holds = true;
  };
  static void Step(State& s, Value x, unsigned i) {
    if (i > 0) s.holds = s.holds && Op::Operation(s.prev, x);
    s.prev = x;
  }
  static bool Finish(const State& s, unsigned) { return s.holds; }
};

// Input 0 is the probe, inputs 1 onward the list. NULL policy: the output is
// never NULL. It is true when a list element equals the probe; a NULL probe
// matches only a NULL element (so a NULL probe against a list without NULL
// is false), and a NULL element never matches a value.
template <class F, class Eq>
struct InListReducer
    : CpxReducerShape<F, CpxTupleField_Boolean, 2,
                      VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT, true> {
  using Value = typename F::ValueType;
  struct State {
    Value probe{};
    bool probe_null = false;
    bool found = false;
  };
  static void Step(State& s, const Value* x, unsigned i) {
    if (i == 0) {
      s.probe_null = !x;
      if (x) s.probe = *x;
    } else if (!s.found) {
      s.found = s.probe_null ? !x : x && Eq::Operation(s.probe, *x);
    }
  }
  static bool Finish(const State& s, unsigned) { return s.found; }
};

// The sum of the inputs as doubles, divided by their count.
template <class F>
struct AverageReducer
    : CpxReducerShape<F, CpxTupleField_Float, 1,
                      VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT, false> {
  using State = double;
  static void Step(State& sum, typename F::ValueType x, unsigned) { sum += static_cast<double>(x); }
  static double Finish(State sum, unsigned n) { return sum / static_cast<double>(n); }
};

// The Euclidean distance (or its square) between two points given as
// coordinate lists: (x1, y1, x2, y2) in the plane or (x1, y1, z1, x2, y2, z2)
// in space. Computed in double for every type, so that squares of large
// integers neither wrap nor lose the result type; the output is a Float.
// Any other number of inputs is a fault of the program that we report each
// time the step runs (the context still loads); the output is then NULL.
template <class F, bool Squared>
struct DistanceReducer
    : CpxReducerShape<F, CpxTupleField_Float, -1,
                      VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT, false> {
  struct State {
    double c[6];
  };
  static bool AcceptsInputCount(unsigned n) { return n == 4 || n == 6; }
  static void ReportInputCount(const std::string& operator_name, const std::string& type,
                               unsigned n) {
    VX_LOG_TEXT(LogLevel::Error,
                "Invalid number of input parameters, {cnt}, expected 4 or 6. Function:{fcn}, "
                "datatype:{type}",
                operator_name, {"cnt", n}, {"fcn", Squared ? "DistanceSquared" : "Distance"},
                {"type", type});
  }
  static void Step(State& s, typename F::ValueType x, unsigned i) {
    s.c[i] = static_cast<double>(x);
  }
  static double Finish(const State& s, unsigned n) {
    const unsigned half = n / 2;
    double sum = 0;
    for (unsigned k = 0; k < half; ++k) {
      const double d = s.c[k] - s.c[k + half];
      sum += d * d;
    }
    return Squared ? sum : std::sqrt(sum);
  }
};

// ---- three-valued logic ----

enum class CpxTruth : uint8_t { kFalse, kTrue, kNull };

// NULL policy: NULL is a third truth value; the inputs are combined from the
// left through Op::Combine (row: result so far, column: next input), every
// input being read. Op::kEmpty is the result without inputs.
template <class Op>
struct LogicReducer
    : CpxReducerShape<CpxTupleField_Boolean, CpxTupleField_Boolean, 0,
                      VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT, true> {
  struct State {
    CpxTruth result = Op::kEmpty;
  };
  static void Step(State& s, const bool* x, unsigned i) {
    const CpxTruth t = !x ? CpxTruth::kNull : (*x ? CpxTruth::kTrue : CpxTruth::kFalse);
    s.result = i == 0 ? t : Op::Combine(s.result, t);
  }
  static std::optional<bool> Finish(const State& s, unsigned) {
    if (s.result == CpxTruth::kNull) return std::nullopt;
    return s.result == CpxTruth::kTrue;
  }
};

// FALSE wins over NULL, NULL over TRUE. No inputs: false.
struct AndOperation {
  static constexpr CpxTruth kEmpty = CpxTruth::kFalse;
  static CpxTruth Combine(CpxTruth a, CpxTruth b) {
    if (a == CpxTruth::kFalse || b == CpxTruth::kFalse) return CpxTruth::kFalse;
    if (a == CpxTruth::kNull || b == CpxTruth::kNull) return CpxTruth::kNull;
    return CpxTruth::kTrue;
  }
};
// TRUE wins over NULL, NULL over FALSE. No inputs: false, the mirror of And
// and the value of an empty disjunction.
struct OrOperation {
  static constexpr CpxTruth kEmpty = CpxTruth::kFalse;
  static CpxTruth Combine(CpxTruth a, CpxTruth b) {
    if (a == CpxTruth::kTrue || b == CpxTruth::kTrue) return CpxTruth::kTrue;
    if (a == CpxTruth::kNull || b == CpxTruth::kNull) return CpxTruth::kNull;
    return CpxTruth::kFalse;
  }
};

// ---- named operator templates ----

template <class Field, class Op>
using CpxExpressionOperator_Fold_Engine = CpxExpressionOperator_List_Engine<FoldReducer<Field, Op>>;
template <class Field, class Op>
using CpxExpressionOperator_Compare_Engine = CpxExpressionOperator_List_Engine<ChainReducer<Field, Op>>;
template <class Field, class Eq = EqualOperation>
using CpxExpressionOperator_InList_Engine = CpxExpressionOperator_List_Engine<InListReducer<Field, Eq>>;
template <class Op>
using CpxExpressionOperator_Logic_Engine = CpxExpressionOperator_List_Engine<LogicReducer<Op>>;

template <class Field>
using CpxExpressionOperator_Add_Engine = CpxExpressionOperator_Fold_Engine<Field, AddOperation>;
template <class Field>
using CpxExpressionOperator_Subtract_Engine = CpxExpressionOperator_Fold_Engine<Field, SubtractOperation>;
template <class Field>
using CpxExpressionOperator_Multiply_Engine = CpxExpressionOperator_Fold_Engine<Field, MultiplyOperation>;
template <class Field>
using CpxExpressionOperator_Divide_Engine = CpxExpressionOperator_Fold_Engine<Field, DivideOperation>;
template <class Field>
using CpxExpressionOperator_Min_Engine = CpxExpressionOperator_Fold_Engine<Field, MinOperation>;
template <class Field>
using CpxExpressionOperator_Max_Engine = CpxExpressionOperator_Fold_Engine<Field, MaxOperation>;
template <class Field>
using CpxExpressionOperator_Modulo_Engine =
    CpxExpressionOperator_Binary_Engine<Field, Field, Field, ModuloOperation>;
template <class Field>
using CpxExpressionOperator_Power_Engine =
    CpxExpressionOperator_Binary_Engine<Field, CpxTupleField_Float, CpxTupleField_Float, PowerOperation>;
template <class Field>
using CpxExpressionOperator_Sqrt_Engine =
    CpxExpressionOperator_Unary_Engine<Field, CpxTupleField_Float, SqrtOperation>;
template <class Field>
using CpxExpressionOperator_Abs_Engine = CpxExpressionOperator_Unary_Engine<Field, Field, AbsOperation>;
template <class Field>
using CpxExpressionOperator_Negative_Engine =
    CpxExpressionOperator_Unary_Engine<Field, Field, NegativeOperation>;
template <class Field>
using CpxExpressionOperator_Sign_Engine =
    CpxExpressionOperator_Unary_Engine<Field, CpxTupleField_Integer, SignOperation>;
template <class Field>
using CpxExpressionOperator_Average_Engine = CpxExpressionOperator_List_Engine<AverageReducer<Field>>;
template <class Field>
using CpxExpressionOperator_Distance_Engine = CpxExpressionOperator_List_Engine<DistanceReducer<Field, false>>;
template <class Field>
using CpxExpressionOperator_DistanceSquared_Engine =
    CpxExpressionOperator_List_Engine<DistanceReducer<Field, true>>;
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
template <class Field>
using CpxExpressionOperator_Random_Engine = CpxExpressionOperator_Unary_Engine<Field, Field, RandomOperation>;

// Conversions between value types: FromOtherType makes no range test,
// ToOtherType narrows with one (and logs a value out of range).
template <class To, class From>
using CpxExpressionOperator_FromOtherType_Engine =
    CpxExpressionOperator_Unary_Engine<From, To, ConvertOperation<To>>;
template <class To, class From>
using CpxExpressionOperator_ToOtherType_Engine =
    CpxExpressionOperator_Unary_Engine<From, To, NarrowOperation<To, From>>;
template <class Field>
using CpxExpressionOperator_FromString_Engine =
    CpxExpressionOperator_Unary_Engine<CpxTupleField_String, Field, FromStringOperation<Field>>;
template <class Field, class Format = FieldTextFormat>
using CpxExpressionOperator_ToString_Engine =
    CpxExpressionOperator_Unary_Engine<Field, CpxTupleField_String, ToStringOperation<Field, Format>>;

// ---- the numeric family shared by Integer, Long and Float ----

// The operators every numeric type has, as classes
// `CpxExpressionOperator_<Type>_Add_Engine` ... Used once per numeric type
// file, with VX_NUMERIC_BASICS_TABLE in its registration table.
#define VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Function) \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_##Function##_Engine, Function##Type, \
                     CpxExpressionOperator_##Function##_Engine<Field>)

#define VX_DEFINE_NUMERIC_BASICS(Type, Field)                 \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Add);               \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Subtract);          \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Multiply);          \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Divide);            \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Modulo);            \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Power);             \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Sqrt);              \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Abs);               \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Negative);          \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Sign);              \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Min);               \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Max);               \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Average);           \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Distance);          \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, DistanceSquared);   \
  VX_DEFINE_NUMERIC_COMPARISONS(Type, Field)

// The comparisons and InList, shared with every type ordered like numbers.
#define VX_DEFINE_NUMERIC_COMPARISONS(Type, Field)            \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Equal);             \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, NotEqual);          \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Less);              \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, LessOrEqual);       \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Greater);           \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, GreaterOrEqual);    \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, InList)

#define VX_NUMERIC_ROW(Type, Function, inputs, outputs, null_rule, description) \
  VX_OPERATOR(CpxExpressionOperator_##Type##_##Function##_Engine, inputs, outputs, null_rule, \
              description)

// `t` is the type word ("integer"); `T` the type name used in the classes.
#define VX_NUMERIC_BASICS_TABLE(T, t)                                                              \
  VX_NUMERIC_ROW(T, Add, "1+ " t, "1 " t, "any NULL input gives NULL",                            \
                 "Sum of the inputs, folded from the left; integers wrap."),                       \
  VX_NUMERIC_ROW(T, Subtract, "1+ " t, "1 " t, "any NULL input gives NULL",                       \
                 "x0 - x1 - x2 ..., folded from the left; integers wrap."),                        \
  VX_NUMERIC_ROW(T, Multiply, "1+ " t, "1 " t, "any NULL input gives NULL",                       \
                 "Product of the inputs, folded from the left; integers wrap."),                   \
  VX_NUMERIC_ROW(T, Divide, "1+ " t, "1 " t, "any NULL input or zero divisor gives NULL",         \
                 "(x0 / x1) / x2 ...; integers truncate toward zero."),                            \
  VX_NUMERIC_ROW(T, Modulo, "2 " t, "1 " t, "any NULL input or zero divisor gives NULL",          \
                 "Remainder of truncating division; its sign follows the dividend."),              \
  VX_NUMERIC_ROW(T, Power, "1 " t ", 1 float", "1 float",                                         \
                 "any NULL input or negative base gives NULL", "Base to the power of exponent."),  \
  VX_NUMERIC_ROW(T, Sqrt, "1 " t, "1 float", "NULL or negative input gives NULL",                 \
                 "Square root."),                                                                  \
  VX_NUMERIC_ROW(T, Abs, "1 " t, "1 " t, "NULL input gives NULL",                                 \
                 "Absolute value; the most negative integer stays itself."),                      \
  VX_NUMERIC_ROW(T, Negative, "1 " t, "1 " t, "NULL input gives NULL",                            \
                 "-x; the most negative integer stays itself."),                                  \
  VX_NUMERIC_ROW(T, Sign, "1 " t, "1 integer", "NULL (or NaN) input gives NULL",                  \
                 "-1, 0 or 1."),                                                                   \
  VX_NUMERIC_ROW(T, Min, "1+ " t, "1 " t, "any NULL input gives NULL",                            \
                 "Least input (NaN above all)."),                                                 \
  VX_NUMERIC_ROW(T, Max, "1+ " t, "1 " t, "any NULL input gives NULL",                            \
                 "Greatest input (NaN above all)."),                                              \
  VX_NUMERIC_ROW(T, Average, "1+ " t, "1 float", "any NULL input gives NULL",                     \
                 "Sum of the inputs as doubles divided by their count."),                          \
  VX_NUMERIC_ROW(T, Distance, "4 or 6 " t, "1 float",                                            \
                 "any NULL input or other input count gives NULL",                                 \
                 "Euclidean distance between (x1, y1[, z1]) and (x2, y2[, z2])."),                 \
  VX_NUMERIC_ROW(T, DistanceSquared, "4 or 6 " t, "1 float",                                     \
                 "any NULL input or other input count gives NULL",                                 \
                 "Square of the Euclidean distance between two points."),                          \
  VX_NUMERIC_COMPARISONS_TABLE(T, t)

// The rows of VX_DEFINE_NUMERIC_COMPARISONS.
#define VX_NUMERIC_COMPARISONS_TABLE(T, t)                                                         \
  VX_NUMERIC_ROW(T, Equal, "2+ " t, "1 boolean", "any NULL input gives NULL",                     \
                 "True when each input equals the next."),                                         \
  VX_NUMERIC_ROW(T, NotEqual, "2+ " t, "1 boolean", "any NULL input gives NULL",                  \
                 "True when each input differs from the next."),                                   \
  VX_NUMERIC_ROW(T, Less, "2+ " t, "1 boolean", "any NULL input gives NULL",                      \
                 "True when x0 < x1 < x2 ..."),                                                    \
  VX_NUMERIC_ROW(T, LessOrEqual, "2+ " t, "1 boolean", "any NULL input gives NULL",               \
                 "True when x0 <= x1 <= x2 ..."),                                                  \
  VX_NUMERIC_ROW(T, Greater, "2+ " t, "1 boolean", "any NULL input gives NULL",                   \
                 "True when x0 > x1 > x2 ..."),                                                    \
  VX_NUMERIC_ROW(T, GreaterOrEqual, "2+ " t, "1 boolean", "any NULL input gives NULL",            \
                 "True when x0 >= x1 >= x2 ..."),                                                  \
  VX_NUMERIC_ROW(T, InList, "2+ " t " (probe, list...)", "1 boolean", "never NULL",               \
                 "True when the probe equals a list element; NULL matches only NULL.")

}  // namespace vx
