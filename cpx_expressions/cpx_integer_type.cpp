// Integer operators.
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

// ---- arithmetic, comparison and list ----

VX_DEFINE_NUMERIC_BASICS(Integer, CpxTupleField_Integer);

// ---- Random ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Integer_Random_Engine, RandomInteger,
                   CpxExpressionOperator_Random_Engine<CpxTupleField_Integer>);

// ---- conversions ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Integer_ToFloat_Engine, ToFloatInteger,
                   CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Float, CpxTupleField_Integer>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Integer_ToLong_Engine, ToLongInteger,
                   CpxExpressionOperator_FromOtherType_Engine<CpxTupleField_Long, CpxTupleField_Integer>);

// ---- text forms ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Integer_FromString_Engine, FromStringInteger,
                   CpxExpressionOperator_FromString_Engine<CpxTupleField_Integer>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Integer_ToString_Engine, ToStringInteger,
                   CpxExpressionOperator_ToString_Engine<CpxTupleField_Integer>);

}  // namespace vxi

namespace vx {

void RegisterIntegerOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_BASICS_TABLE(Integer, "integer"),
      VX_OPERATOR(CpxExpressionOperator_Integer_Random_Engine, "1 integer (N)", "1 integer",
                  "NULL input gives NULL",
                  "Pseudo-random 0 ... N-1 from the process-wide generator (fixed start)."),
      VX_OPERATOR(CpxExpressionOperator_Integer_ToFloat_Engine, "1 integer", "1 float",
                  "NULL input gives NULL", "The value as a float."),
      VX_OPERATOR(CpxExpressionOperator_Integer_ToLong_Engine, "1 integer", "1 long",
                  "NULL input gives NULL", "The value as a long (sign-extended)."),
      VX_OPERATOR(CpxExpressionOperator_Integer_FromString_Engine, "1 string", "1 integer",
                  "NULL or unreadable text gives NULL", "Decimal text to integer."),
      VX_OPERATOR(CpxExpressionOperator_Integer_ToString_Engine, "1 integer", "1 string",
                  "NULL input gives NULL", "Decimal text of the value."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
