// Float operators.
#include <cmath>
#include <limits>
#include <optional>

#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

// ---- arithmetic, comparison and list ----

VX_DEFINE_NUMERIC_BASICS(Float, CpxTupleField_Float);

// ---- Random ----

// The Float form draws from the same generator as RandomInteger and returns
// r * 2^-31 * N itself: a value in [0, N) for N > 0.
VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_Random_Engine, RandomFloat,
                   CpxExpressionOperator_Random_Engine<CpxTupleField_Float>);

// ---- conversions ----

// Truncation toward zero without a range test (see TruncateToInteger).
VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_ToInteger_Engine, ToIntegerFloat,
                   CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Integer, CpxTupleField_Float>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_ToLong_Engine, ToLongFloat,
                   CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Long, CpxTupleField_Float>);

// ---- text forms ----

// Seventeen significant digits in exponent form: the text reads back to the
// same double.
struct FloatTextFormat {
  static constexpr const char* kFormat = "%17.16le";
};

VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_FromString_Engine, FromStringFloat,
                   CpxExpressionOperator_FromString_Engine<CpxTupleField_Float>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_ToString_Engine, ToStringFloat,
                   CpxExpressionOperator_ToString_Engine<CpxTupleField_Float, FloatTextFormat>);

// ---- mathematical functions ----

// A function's TrigFunction gives its result; an argument outside its domain
// gives kOutsideDomain without computing anything. A result that is not
// finite (outside the domain, an overflow to infinity, a NaN) gives a NULL
// output, silently: the row goes on.
constexpr double kOutsideDomain = std::numeric_limits<double>::quiet_NaN();

template <class Fn>
struct FloatFunctionOperation {
  template <class... Args>
  static std::optional<double> Operation(Args... args) {
    const double r = Fn::TrigFunction(args...);
    if (!std::isfinite(r)) return std::nullopt;
    return r;
  }
};

// One Float argument, one Float result.
template <class Fn>
using CpxExpressionOperator_Float_TrigBase_Engine =
    CpxExpressionOperator_Unary_Engine<CpxTupleField_Float, CpxTupleField_Float,
                                       FloatFunctionOperation<Fn>>;
// Two Float arguments, one Float result.
template <class Fn>
using CpxExpressionOperator_Float_Trig2Base_Engine =
    CpxExpressionOperator_Binary_Engine<CpxTupleField_Float, CpxTupleField_Float,
                                        CpxTupleField_Float, FloatFunctionOperation<Fn>>;

// Defines `<Name>Function` with TrigFunction(params) returning the rest of
// the arguments, and the operator class over `Base`.
#define VX_DEFINE_FLOAT_FUNCTION(Name, Base, params, ...)                                     \
  struct Name##Function {                                                                     \
    static double TrigFunction params { return __VA_ARGS__; }                                 \
  };                                                                                          \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_##Name##_Engine, Name##Float,                \
                     CpxExpressionOperator_Float_##Base##_Engine<Name##Function>)

// Degrees to radians, multiplied first and divided second.
inline double Radians(double degrees) { return degrees * 3.141592653589793 / 180.0; }
// Domain tests are written so that NaN fails them.
inline bool InUnitRange(double x) { return x >= -1.0 && x <= 1.0; }

// ---- ACos, ASin, ATan ----

VX_DEFINE_FLOAT_FUNCTION(ACos, TrigBase, (double x), InUnitRange(x) ? std::acos(x) : kOutsideDomain);
VX_DEFINE_FLOAT_FUNCTION(ASin, TrigBase, (double x), InUnitRange(x) ? std::asin(x) : kOutsideDomain);
VX_DEFINE_FLOAT_FUNCTION(ATan, TrigBase, (double x), std::atan(x));

// ---- Sin, Cos, Tan (radians) ----

VX_DEFINE_FLOAT_FUNCTION(Sin, TrigBase, (double x), std::sin(x));
VX_DEFINE_FLOAT_FUNCTION(Cos, TrigBase, (double x), std::cos(x));
VX_DEFINE_FLOAT_FUNCTION(Tan, TrigBase, (double x), std::tan(x));

// ---- SinD, CosD, TanD (degrees) ----

VX_DEFINE_FLOAT_FUNCTION(SinD, TrigBase, (double x), std::sin(Radians(x)));
VX_DEFINE_FLOAT_FUNCTION(CosD, TrigBase, (double x), std::cos(Radians(x)));
VX_DEFINE_FLOAT_FUNCTION(TanD, TrigBase, (double x), std::tan(Radians(x)));

// ---- Sinh, Cosh, Tanh ----

VX_DEFINE_FLOAT_FUNCTION(Sinh, TrigBase, (double x), std::sinh(x));
VX_DEFINE_FLOAT_FUNCTION(Cosh, TrigBase, (double x), std::cosh(x));
VX_DEFINE_FLOAT_FUNCTION(Tanh, TrigBase, (double x), std::tanh(x));

// ---- Exp, Ln, Log2, Log10 ----

// The logarithms refuse 0 and negative arguments.
VX_DEFINE_FLOAT_FUNCTION(Exp, TrigBase, (double x), std::exp(x));
VX_DEFINE_FLOAT_FUNCTION(Ln, TrigBase, (double x), x > 0 ? std::log(x) : kOutsideDomain);
VX_DEFINE_FLOAT_FUNCTION(Log2, TrigBase, (double x), x > 0 ? std::log2(x) : kOutsideDomain);
VX_DEFINE_FLOAT_FUNCTION(Log10, TrigBase, (double x), x > 0 ? std::log10(x) : kOutsideDomain);

// ---- Log (base, value), ATan2 (y, x) ----

// ln x / ln b. Only bases above 1 are accepted (a base between 0 and 1 is
// refused on purpose). A value of 0 passes the range test and then fails as
// an infinite result.
VX_DEFINE_FLOAT_FUNCTION(Log, Trig2Base, (double b, double x),
                         b > 1.0 && x >= 0.0 ? std::log(x) / std::log(b) : kOutsideDomain);
VX_DEFINE_FLOAT_FUNCTION(ATan2, Trig2Base, (double y, double x), std::atan2(y, x));

}  // namespace vxi

namespace vx {

void RegisterFloatOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kMath = "NULL input, argument outside the domain or non-finite result gives NULL";
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_BASICS_TABLE(Float, "float"),
      VX_OPERATOR(CpxExpressionOperator_Float_Random_Engine, "1 float (N)", "1 float",
                  "NULL input gives NULL",
                  "Pseudo-random value in [0, N) from the process-wide generator."),
      VX_OPERATOR(CpxExpressionOperator_Float_ToInteger_Engine, "1 float", "1 integer",
                  "NULL or NaN input gives NULL",
                  "Truncated toward zero; beyond the range, the nearest limit."),
      VX_OPERATOR(CpxExpressionOperator_Float_ToLong_Engine, "1 float", "1 long",
                  "NULL or NaN input gives NULL",
                  "Truncated toward zero; beyond the range, the nearest limit."),
      VX_OPERATOR(CpxExpressionOperator_Float_FromString_Engine, "1 string", "1 float",
                  "NULL or unreadable text gives NULL", "Decimal or exponent text, inf, nan."),
      VX_OPERATOR(CpxExpressionOperator_Float_ToString_Engine, "1 float", "1 string",
                  "NULL input gives NULL", "Text in the form %17.16le."),
      VX_OPERATOR(CpxExpressionOperator_Float_ACos_Engine, "1 float", "1 float", kMath,
                  "Arc cosine; -1 <= x <= 1."),
      VX_OPERATOR(CpxExpressionOperator_Float_ASin_Engine, "1 float", "1 float", kMath,
                  "Arc sine; -1 <= x <= 1."),
      VX_OPERATOR(CpxExpressionOperator_Float_ATan_Engine, "1 float", "1 float", kMath,
                  "Arc tangent."),
      VX_OPERATOR(CpxExpressionOperator_Float_Sin_Engine, "1 float", "1 float", kMath,
                  "Sine of radians."),
      VX_OPERATOR(CpxExpressionOperator_Float_Cos_Engine, "1 float", "1 float", kMath,
                  "Cosine of radians."),
      VX_OPERATOR(CpxExpressionOperator_Float_Tan_Engine, "1 float", "1 float", kMath,
                  "Tangent of radians."),
      VX_OPERATOR(CpxExpressionOperator_Float_SinD_Engine, "1 float", "1 float", kMath,
                  "Sine of degrees."),
      VX_OPERATOR(CpxExpressionOperator_Float_CosD_Engine, "1 float", "1 float", kMath,
                  "Cosine of degrees."),
      VX_OPERATOR(CpxExpressionOperator_Float_TanD_Engine, "1 float", "1 float", kMath,
                  "Tangent of degrees."),
      VX_OPERATOR(CpxExpressionOperator_Float_Sinh_Engine, "1 float", "1 float", kMath,
                  "Hyperbolic sine."),
      VX_OPERATOR(CpxExpressionOperator_Float_Cosh_Engine, "1 float", "1 float", kMath,
                  "Hyperbolic cosine."),
      VX_OPERATOR(CpxExpressionOperator_Float_Tanh_Engine, "1 float", "1 float", kMath,
                  "Hyperbolic tangent."),
      VX_OPERATOR(CpxExpressionOperator_Float_Exp_Engine, "1 float", "1 float", kMath,
                  "e to the x."),
      VX_OPERATOR(CpxExpressionOperator_Float_Ln_Engine, "1 float", "1 float", kMath,
                  "Natural logarithm; x > 0."),
      VX_OPERATOR(CpxExpressionOperator_Float_Log2_Engine, "1 float", "1 float", kMath,
                  "Base-2 logarithm; x > 0."),
      VX_OPERATOR(CpxExpressionOperator_Float_Log10_Engine, "1 float", "1 float", kMath,
                  "Base-10 logarithm; x > 0."),
      VX_OPERATOR(CpxExpressionOperator_Float_Log_Engine, "2 float (base, x)", "1 float", kMath,
                  "ln x / ln base; base > 1, x >= 0."),
      VX_OPERATOR(CpxExpressionOperator_Float_ATan2_Engine, "2 float (y, x)", "1 float", kMath,
                  "Arc tangent of y / x in the quadrant of (x, y)."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
