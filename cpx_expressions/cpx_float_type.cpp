// Float operators.
#include <cmath>

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

// A function's TrigFunction gives its result, or nothing for an argument
// outside its domain; a result that is not finite (an overflow to infinity,
// a NaN) counts as a failure too. Every failure gives a NULL output,
// silently: the row goes on.
template <class Fn>
struct FloatFunctionOperation {
  template <class... Args>
  static std::optional<double> Operation(Args... args) {
    const std::optional<double> r = Fn::TrigFunction(args...);
    if (!r || !std::isfinite(*r)) return std::nullopt;
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

#define VX_DEFINE_FLOAT_FUNCTION(Name, Base)                                                 \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_Float_##Name##_Engine, Name##Float,               \
                     CpxExpressionOperator_Float_##Base##_Engine<Name##Function>)

// Degrees to radians, multiplied first and divided second.
inline double Radians(double degrees) { return degrees * 3.141592653589793 / 180.0; }
inline bool InUnitRange(double x) { return x >= -1.0 && x <= 1.0; }  // false for NaN

// ---- ACos, ASin, ATan ----

struct ACosFunction {
  static std::optional<double> TrigFunction(double x) {
    if (!InUnitRange(x)) return std::nullopt;
    return std::acos(x);
  }
};
struct ASinFunction {
  static std::optional<double> TrigFunction(double x) {
    if (!InUnitRange(x)) return std::nullopt;
    return std::asin(x);
  }
};
struct ATanFunction {
  static double TrigFunction(double x) { return std::atan(x); }
};
VX_DEFINE_FLOAT_FUNCTION(ACos, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(ASin, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(ATan, TrigBase);

// ---- Sin, Cos, Tan (radians) ----

struct SinFunction {
  static double TrigFunction(double x) { return std::sin(x); }
};
struct CosFunction {
  static double TrigFunction(double x) { return std::cos(x); }
};
struct TanFunction {
  static double TrigFunction(double x) { return std::tan(x); }
};
VX_DEFINE_FLOAT_FUNCTION(Sin, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Cos, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Tan, TrigBase);

// ---- SinD, CosD, TanD (degrees) ----

struct SinDFunction {
  static double TrigFunction(double x) { return std::sin(Radians(x)); }
};
struct CosDFunction {
  static double TrigFunction(double x) { return std::cos(Radians(x)); }
};
struct TanDFunction {
  static double TrigFunction(double x) { return std::tan(Radians(x)); }
};
VX_DEFINE_FLOAT_FUNCTION(SinD, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(CosD, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(TanD, TrigBase);

// ---- Sinh, Cosh, Tanh ----

struct SinhFunction {
  static double TrigFunction(double x) { return std::sinh(x); }
};
struct CoshFunction {
  static double TrigFunction(double x) { return std::cosh(x); }
};
struct TanhFunction {
  static double TrigFunction(double x) { return std::tanh(x); }
};
VX_DEFINE_FLOAT_FUNCTION(Sinh, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Cosh, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Tanh, TrigBase);

// ---- Exp, Ln, Log2, Log10 ----

struct ExpFunction {
  static double TrigFunction(double x) { return std::exp(x); }
};
// The logarithms refuse 0 and negative arguments (and NaN).
struct LnFunction {
  static std::optional<double> TrigFunction(double x) {
    if (!(x > 0)) return std::nullopt;
    return std::log(x);
  }
};
struct Log2Function {
  static std::optional<double> TrigFunction(double x) {
    if (!(x > 0)) return std::nullopt;
    return std::log2(x);
  }
};
struct Log10Function {
  static std::optional<double> TrigFunction(double x) {
    if (!(x > 0)) return std::nullopt;
    return std::log10(x);
  }
};
VX_DEFINE_FLOAT_FUNCTION(Exp, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Ln, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Log2, TrigBase);
VX_DEFINE_FLOAT_FUNCTION(Log10, TrigBase);

// ---- Log (base, value), ATan2 (y, x) ----

// ln x / ln b. Only bases above 1 are accepted (a base between 0 and 1 is
// refused on purpose). A value of 0 passes the range test and then fails as
// an infinite result.
struct LogFunction {
  static std::optional<double> TrigFunction(double base, double x) {
    if (!(base > 1.0) || !(x >= 0.0)) return std::nullopt;
    return std::log(x) / std::log(base);
  }
};
struct ATan2Function {
  static double TrigFunction(double y, double x) { return std::atan2(y, x); }
};
VX_DEFINE_FLOAT_FUNCTION(Log, Trig2Base);
VX_DEFINE_FLOAT_FUNCTION(ATan2, Trig2Base);

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
