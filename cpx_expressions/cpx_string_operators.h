// Generic pieces of the string and blob operators, on top of the scalar
// executors of cpx_expression_operators.h:
//
//   CpxBytesOutput        how a text or byte result is written
//   Params executor       a fixed list of typed inputs, some optional, some
//                         handed to the operation even when NULL
//   Join executor         every non-NULL input, in order, joined into one
//   AllEqual executor     equality that stops at the first difference
//   Regex state           the compiled pattern of a regular-expression
//                         operator in one evaluator
//
// Texts are read as views of the stored bytes; a stored string is always
// followed by a zero byte, so a view's data may also be handed to the
// zero-terminated libxml2 and Boost.Regex calls.
//
// Threads: the operators are immutable after loading; per-row data lives in
// the evaluator's operator states and in one scratch buffer per thread.
#pragma once

#include <boost/regex.hpp>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "cpx_expressions/cpx_expression_operators.h"

namespace vx {

// ---- checked narrowing ----

// A byte count or offset narrowed to `To`; a value out of range raises.
template <class From>
[[noreturn, gnu::cold, gnu::noinline]] void CpxRaiseSizeCast(From v) {
  VX_RAISE_TEXT("size_type_cast conversion failed", "", {"value", v});
}
template <class To, class From>
VX_ALWAYS_INLINE To CpxSizeCast(From v) {
  if (!std::in_range<To>(v)) [[unlikely]] CpxRaiseSizeCast(v);
  return static_cast<To>(v);
}

// ---- writing a text or byte result ----

// Per-thread storage for a result that cannot be built in its own field.
inline thread_local std::string g_cpx_bytes_scratch;

// The output field of a string or blob result. An operation either hands
// over bytes it already has (Set), a character range (SetUTF8SubString), or
// fills storage of a known size (Allocate). When the output field is also
// one of the inputs (NoteInput, NoteInputField), Allocate hands out the per-thread
// scratch buffer and Finish stores it, so the operation can read its inputs
// while it writes.
class CpxBytesOutput {
 public:
  CpxBytesOutput(CpxTuple* tuple, unsigned pos) : m_tuple(tuple), m_pos(pos) {}

  // Records an input the result is built from.
  void NoteInput(std::string_view v) { m_aliased = m_aliased || Overlaps(v); }
  void NoteInput(const std::optional<std::string_view>& v) {
    if (v) NoteInput(*v);
  }
  template <class T>
  void NoteInput(const T&) {}
  // Records that the output field is itself one of the inputs (also when it
  // is NULL now: it stops being NULL once storage is allocated).
  void NoteInputField(const CpxTuple* tuple, unsigned pos) {
    m_aliased = m_aliased || (tuple == m_tuple && pos == m_pos);
  }

  void SetNull() {
    m_pending = false;
    m_tuple->ClearFieldValue(m_pos);
  }
  void Set(std::string_view v) {
    m_pending = false;
    uint32_t size = 0;
    const char* current = static_cast<const char*>(m_tuple->GetFieldValue(m_pos, size));
    if (current && current == v.data() && size == v.size()) return;  // already stored
    if (Overlaps(v, current, size)) {
      g_cpx_bytes_scratch.assign(v);
      v = g_cpx_bytes_scratch;
    }
    m_tuple->SetFieldValue(m_pos, CpxSizeCast<uint32_t>(v.size()), v.data());
  }
  // Characters [first, end) of the zero-terminated UTF-8 `text`; NULL when
  // the substring writer refuses them.
  void SetUTF8SubString(std::string_view text, int64_t first, int64_t end) {
    m_pending = false;
    if (!CpxTupleField_String::SetUTF8SubString(*m_tuple, m_pos, text, first, end)) SetNull();
  }
  // `size` bytes of storage for the result, filled by the caller.
  char* Allocate(uint32_t size) {
    if (!m_aliased) return static_cast<char*>(m_tuple->AllocateFieldValue(m_pos, size));
    m_pending = true;
    g_cpx_bytes_scratch.resize(size);
    return g_cpx_bytes_scratch.data();
  }
  // Stores a result built in the scratch buffer.
  void Finish() {
    if (!m_pending) return;
    m_pending = false;
    m_tuple->SetFieldValue(m_pos, static_cast<uint32_t>(g_cpx_bytes_scratch.size()),
                           g_cpx_bytes_scratch.data());
  }

 private:
  bool Overlaps(std::string_view v) const {
    uint32_t size = 0;
    return Overlaps(v, static_cast<const char*>(m_tuple->GetFieldValue(m_pos, size)), size);
  }
  // Whether `v` starts inside the output's current value [value, value + size].
  static bool Overlaps(std::string_view v, const char* value, uint32_t size) {
    const std::less_equal<const char*> le;
    return value && le(value, v.data()) && le(v.data(), value + size);
  }

  CpxTuple* m_tuple;
  unsigned m_pos;
  bool m_aliased = false;
  bool m_pending = false;
};

// ---- the Params executor ----

// Parameter markers:
//   Field               required; NULL gives a NULL output
//   CpxOptional<Field>  may be left out of the context (the operation then
//                       sees an empty std::optional); NULL gives NULL
//   CpxNullable<Field>  required; a NULL reaches the operation as an empty
//                       std::optional (the operation's own NULL rule)
// Optional parameters come last. Whether one is present is decided by the
// number of parameters in the context, never by a value.
template <class Field>
struct CpxOptional {};
template <class Field>
struct CpxNullable {};

template <class F, bool kOptionalParam, bool kNullableParam>
struct CpxParamTraitsOf {
  using Field = F;
  using Arg = std::conditional_t<kOptionalParam || kNullableParam,
                                 std::optional<typename F::ValueType>, typename F::ValueType>;
  static constexpr bool kOptional = kOptionalParam;
  static constexpr bool kNullable = kNullableParam;
};
template <class P>
struct CpxParamTraits : CpxParamTraitsOf<P, false, false> {};
template <class F>
struct CpxParamTraits<CpxOptional<F>> : CpxParamTraitsOf<F, true, false> {};
template <class F>
struct CpxParamTraits<CpxNullable<F>> : CpxParamTraitsOf<F, false, true> {};

template <class Field>
constexpr bool kIsBytesField = std::is_same_v<typename Field::ValueType, std::string_view>;

// Inputs `In...`, one output of `Out`. The operation is
//   Op::Operation([state,] CpxBytesOutput&, args...)   for string and blob
//                                                      outputs
//   Op::Operation([state,] args...) -> value           for the others (an
//                                                      empty optional is NULL)
// An Op with a `State` type gets that state, one per evaluator, created by
// CreateState with the operator's name.
template <class Out, class Op, class... In>
class CpxExpressionOperator_Params_Engine : public CpxExpressionOperator_Scalar_Engine {
  static constexpr size_t kMax = sizeof...(In);
  static constexpr size_t kMin = (size_t{0} + ... + (CpxParamTraits<In>::kOptional ? 0 : 1));
  static constexpr bool kHasState = requires { typename Op::State; };
  using Args = std::tuple<typename CpxParamTraits<In>::Arg...>;

 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override {
    if constexpr (kHasState) {
      return MakePtr<typename Op::State>(GetName());
    } else {
      return nullptr;
    }
  }
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    const size_t n = GetInputParameters().size();
    if (n < kMin || n > kMax || GetOutputParameters().size() != 1) RaiseCount();
    InsureTypes(n, std::index_sequence_for<In...>{});
    InsureOutputType(0, Out::kKind);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    const OutputSlot slot = GetOutputSlot(ev);
    const unsigned n = static_cast<unsigned>(GetInputParameters().size());
    Args args;
    if (!ReadParams(ev, n, args, std::index_sequence_for<In...>{})) return slot.SetNull();
    // The state (when the Op has one) and the output go before the inputs.
    auto call = [&](auto&... lead) {
      return std::apply([&](const auto&... a) { return Op::Operation(lead..., a...); }, args);
    };
    if constexpr (kIsBytesField<Out>) {
      CpxBytesOutput out(slot.tuple, slot.pos);
      std::apply([&](const auto&... a) { (out.NoteInput(a), ...); }, args);
      if constexpr (kHasState) {
        call(GetState(ev, position), out);
      } else {
        call(out);
      }
      out.Finish();
    } else if constexpr (kHasState) {
      slot.Set<Out>(call(GetState(ev, position)));
    } else {
      slot.Set<Out>(call());
    }
  }

 private:
  static auto& GetState(CpxExpressionEvaluator_Engine* ev, unsigned position) {
    if constexpr (kHasState)
      return static_cast<typename Op::State&>(*ev->GetOperatorState(position));
  }
  // Reads parameter i into `arg`; false when its NULL makes the output NULL.
  template <class P, class A>
  bool ReadParam(CpxExpressionEvaluator_Engine* ev, unsigned i, unsigned n, A& arg) const {
    using Traits = CpxParamTraits<P>;
    if constexpr (Traits::kOptional || Traits::kNullable) {
      if (i >= n) return true;  // an optional parameter that is not there
      typename Traits::Field::ValueType v;
      if (!ReadInput<typename Traits::Field>(ev, i, v)) return Traits::kNullable;
      arg = v;
      return true;
    } else {
      return ReadInput<P>(ev, i, arg);
    }
  }
  template <size_t... I>
  bool ReadParams(CpxExpressionEvaluator_Engine* ev, unsigned n, Args& args,
                  std::index_sequence<I...>) const {
    return (ReadParam<In>(ev, static_cast<unsigned>(I), n, std::get<I>(args)) && ...);
  }
  template <size_t... I>
  void InsureTypes(size_t n, std::index_sequence<I...>) const {
    ((I < n ? InsureInputType(static_cast<unsigned>(I), CpxParamTraits<In>::Field::kKind) : void()),
     ...);
  }
  [[noreturn]] void RaiseCount() const {
    using First = typename CpxParamTraits<std::tuple_element_t<0, std::tuple<In...>>>::Field;
    if constexpr (kMin == 1 && kMax == 1) {
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT,
                                  {"type_name", First::GetTupleFieldType().local});
    } else if constexpr (kMin == 2 && kMax == 2) {
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT);
    } else {
      SetLastError("Expected " + std::to_string(kMin) + " to " + std::to_string(kMax) +
                   " input parameters and 1 output parameter.");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS);
    }
  }
};

// ---- the Join executor ----

// One or more inputs of `Field`, joined in parameter order. NULL policy:
// NULL inputs contribute nothing. With kEmptyIsNull an empty total (only
// NULL or empty inputs) gives NULL; otherwise the output is never NULL and
// all inputs NULL give the empty value. The result is sized once and then
// filled.
template <class Field, bool kEmptyIsNull>
class CpxExpressionOperator_Join_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

  void InsureValidParameters() const override {
    const XmlQName& type = Field::GetTupleFieldType();
    InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT>(type, 1, -1,
                                                                                  type);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot slot = GetOutputSlot(ev);
    const unsigned n = static_cast<unsigned>(GetInputParameters().size());
    CpxBytesOutput out(slot.tuple, slot.pos);
    if (n == 1) {  // a copy: no sizing pass
      std::string_view v;
      if (!ReadInput<Field>(ev, 0, v) || v.empty()) {
        if (kEmptyIsNull) return out.SetNull();
        v = {};
      }
      return out.Set(v);
    }
    uint64_t total = 0;
    for (unsigned i = 0; i < n; ++i) {
      unsigned pos = 0;
      const CpxTuple* t = GetInputTupleField(ev, i, pos);
      out.NoteInputField(t, pos);
      if (t->HasFieldValue(pos)) total += Field::GetView(t, pos).size();
    }
    if (kEmptyIsNull && total == 0) return out.SetNull();
    // The inputs are read again while the result is filled: when one of
    // them is the output field, the result goes to scratch storage first.
    char* dst = out.Allocate(CpxSizeCast<uint32_t>(total));
    std::string_view v;
    for (unsigned i = 0; i < n; ++i) {
      if (!ReadInput<Field>(ev, i, v) || v.empty()) continue;
      std::memcpy(dst, v.data(), v.size());
      dst += v.size();
    }
    out.Finish();
  }
};

// ---- the AllEqual executor ----

// True when every input equals the first. The inputs are read in order:
// a NULL met before any difference gives NULL, and the first difference
// gives false at once, so inputs after it are not looked at.
template <class Field>
class CpxExpressionOperator_AllEqual_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

  void InsureValidParameters() const override {
    InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT>(
        Field::GetTupleFieldType(), 2, -1, CpxTupleFieldTypes::BooleanFieldType());
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    const unsigned n = static_cast<unsigned>(GetInputParameters().size());
    typename Field::ValueType first, next;
    if (!ReadInput<Field>(ev, 0, first)) return out.SetNull();
    for (unsigned i = 1; i < n; ++i) {
      if (!ReadInput<Field>(ev, i, next)) return out.SetNull();
      if (!(next == first)) return out.Set<CpxTupleField_Boolean>(false);
    }
    out.Set<CpxTupleField_Boolean>(true);
  }
};

// ---- the byte-wise order family of String and Blob ----

// NotEqual, Less, LessOrEqual, Greater and GreaterOrEqual over a byte field,
// as classes `CpxExpressionOperator_<Type>_<Function>_Engine` (the naming of
// the numeric family), chained over consecutive pairs with any NULL giving
// NULL; and their registration rows (`t` is the type word). Equal is left to
// each type: String's stops at the first difference.
#define VX_DEFINE_BYTES_ORDER_OPERATORS(Type, Field)    \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, NotEqual);    \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Less);        \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, LessOrEqual); \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, Greater);     \
  VX_DEFINE_NUMERIC_OPERATOR(Type, Field, GreaterOrEqual)

#define VX_BYTES_ORDER_ROW(Type, Function, t, description) \
  VX_NUMERIC_ROW(Type, Function, "2+ " t, "1 boolean", "any NULL input gives NULL", description)
// clang-format off
#define VX_BYTES_ORDER_TABLE(Type, t)                                                          \
  VX_BYTES_ORDER_ROW(Type, NotEqual, t, "True when each input differs from the next."),        \
  VX_BYTES_ORDER_ROW(Type, Less, t, "True when x0 < x1 < x2 ... (bytes, a prefix first)."),     \
  VX_BYTES_ORDER_ROW(Type, LessOrEqual, t,                                                     \
                     "True when x0 <= x1 <= x2 ... (bytes, a prefix first)."),                 \
  VX_BYTES_ORDER_ROW(Type, Greater, t, "True when x0 > x1 > x2 ... (bytes, a prefix first)."),  \
  VX_BYTES_ORDER_ROW(Type, GreaterOrEqual, t,                                                  \
                     "True when x0 >= x1 >= x2 ... (bytes, a prefix first).")
// clang-format on

// ---- compiled patterns ----

// The compiled regular expression of one regular-expression operator (LIKE
// included) in one evaluator. A pattern is compiled again only when its
// text (the key: the LIKE pattern, or the regular expression itself)
// differs from the key compiled last, so a pattern that stays the same from
// row to row compiles once. Patterns use Boost's Perl syntax over bytes.
class CpxExpressionOperatorState_Engine_Regex final : public CpxExpressionOperatorState_Engine {
 public:
  using Match = boost::match_results<const char*>;

  explicit CpxExpressionOperatorState_Engine_Regex(std::string operator_name)
      : m_operator_name(std::move(operator_name)) {}

  // True when `key` is the key of the expression compiled last.
  bool IsCurrent(std::string_view key) const { return m_valid && key == m_key; }
  // Compiles `expression` for `key`. False, with Boost's explanation in
  // `error`, when it does not compile; the state then holds no expression.
  bool Compile(std::string_view key, std::string_view expression, std::string& error) {
    m_valid = false;
    try {
      m_regex.assign(expression.data(), expression.data() + expression.size(), boost::regex::perl);
    } catch (const boost::regex_error& e) {
      error = e.what();
      return false;
    }
    m_key.assign(key);
    m_expression.assign(expression);
    m_valid = true;
    ++m_compile_count;
    return true;
  }

  const boost::regex& GetRegex() const { return m_regex; }
  const std::string& GetExpression() const { return m_expression; }
  const std::string& GetOperatorName() const { return m_operator_name; }
  Match& GetMatch() { return m_match; }
  // A text buffer reused from row to row (a LIKE translation, a replacement).
  std::string& GetBuffer() { return m_buffer; }
  // How many patterns this state has compiled.
  uint64_t GetCompileCount() const { return m_compile_count; }

  // Runs a Boost.Regex call on the compiled expression. A match that
  // exceeds Boost's complexity or memory limits throws inside the library
  // rather than running on; that is logged and gives an empty result (the
  // output is then NULL) and the row goes on.
  template <class Fn>
  auto Guarded(Fn&& fn) -> std::optional<decltype(fn())> {
    try {
      return fn();
    } catch (const std::runtime_error& e) {
      VX_LOG_TEXT(LogLevel::Error,
                  "Operator '{operation}': matching the regular expression '{pattern}' failed, "
                  "the result is NULL: {error}",
                  m_operator_name, {"operation", m_operator_name}, {"pattern", m_expression},
                  {"error", e.what()});
      return std::nullopt;
    }
  }

 private:
  std::string m_operator_name;
  std::string m_key;
  std::string m_expression;
  boost::regex m_regex;
  bool m_valid = false;
  Match m_match;
  std::string m_buffer;
  uint64_t m_compile_count = 0;
};

}  // namespace vx
