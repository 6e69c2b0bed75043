// Long operators.
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

// ---- arithmetic, comparison and list ----

VX_DEFINE_NUMERIC_BASICS(Long, CpxTupleField_Long);

// ---- conversions ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Long_ToFloat_Engine, ToFloatLong,
                   CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Float, CpxTupleField_Long>);
// Narrowing: a value outside the integer range is logged and gives NULL.
VX_DEFINE_OPERATOR(CpxExpressionOperator_Long_ToInteger_Engine, ToIntegerLong,
                   CpxExpressionOperator_ToOtherType_Engine<CpxTupleField_Integer, CpxTupleField_Long>);

// ---- text forms ----

struct LongTextFormat {
  static constexpr const char* kFormat = "%lld";
};

VX_DEFINE_OPERATOR(CpxExpressionOperator_Long_FromString_Engine, FromStringLong,
                   CpxExpressionOperator_FromString_Engine<CpxTupleField_Long>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Long_ToString_Engine, ToStringLong,
                   CpxExpressionOperator_ToString_Engine<CpxTupleField_Long, LongTextFormat>);

}  // namespace vxi

namespace vx {

void RegisterLongOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_BASICS_TABLE(Long, "long"),
      VX_OPERATOR(CpxExpressionOperator_Long_ToFloat_Engine, "1 long", "1 float",
                  "NULL input gives NULL", "The value as the nearest float."),
      VX_OPERATOR(CpxExpressionOperator_Long_ToInteger_Engine, "1 long", "1 integer",
                  "NULL or out-of-range input gives NULL (out of range is logged)",
                  "The value as an integer, range-tested."),
      VX_OPERATOR(CpxExpressionOperator_Long_FromString_Engine, "1 string", "1 long",
                  "NULL or unreadable text gives NULL", "Decimal text to long."),
      VX_OPERATOR(CpxExpressionOperator_Long_ToString_Engine, "1 long", "1 string",
                  "NULL input gives NULL", "Decimal text of the value (%lld)."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
