// Boolean operators. A stored byte of 1 is true; every other byte is false.
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

using Bool = CpxTupleField_Boolean;

// ---- And, Or ----

// Three-valued: NULL is a truth value, so these do not follow the "any NULL
// gives NULL" rule: And(FALSE, NULL) is false and Or(TRUE, NULL) is true.
VX_DEFINE_OPERATOR(CpxExpressionOperator_And_Engine, AndBoolean,
                   CpxExpressionOperator_Logic_Engine<AndOperation>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Or_Engine, OrBoolean,
                   CpxExpressionOperator_Logic_Engine<OrOperation>);

// ---- Xor, Not ----

// Not three-valued: any NULL input gives NULL.
VX_DEFINE_OPERATOR(CpxExpressionOperator_Xor_Engine, XorBoolean,
                   CpxExpressionOperator_Fold_Engine<Bool, XorOperation>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Not_Engine, NotBoolean,
                   CpxExpressionOperator_Unary_Engine<Bool, Bool, NotOperation>);

// ---- Equal, NotEqual, InList ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Boolean_Equal_Engine, EqualBoolean,
                   CpxExpressionOperator_Equal_Engine<Bool>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Boolean_NotEqual_Engine, NotEqualBoolean,
                   CpxExpressionOperator_NotEqual_Engine<Bool>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Boolean_InList_Engine, InListBoolean,
                   CpxExpressionOperator_InList_Engine<Bool>);

// ---- text forms ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_Boolean_FromString_Engine, FromStringBoolean,
                   CpxExpressionOperator_FromString_Engine<Bool>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Boolean_ToString_Engine, ToStringBoolean,
                   CpxExpressionOperator_ToString_Engine<Bool>);

}  // namespace vxi

namespace vx {

void RegisterBooleanOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_And_Engine, "0+ boolean", "1 boolean",
                  "three-valued: FALSE wins, then NULL", "Conjunction; false without inputs."),
      VX_OPERATOR(CpxExpressionOperator_Or_Engine, "0+ boolean", "1 boolean",
                  "three-valued: TRUE wins, then NULL", "Disjunction; false without inputs."),
      VX_OPERATOR(CpxExpressionOperator_Xor_Engine, "1+ boolean", "1 boolean",
                  "any NULL input gives NULL", "True when an odd number of inputs are true."),
      VX_OPERATOR(CpxExpressionOperator_Not_Engine, "1 boolean", "1 boolean",
                  "NULL input gives NULL", "Negation."),
      VX_OPERATOR(CpxExpressionOperator_Boolean_Equal_Engine, "2+ boolean", "1 boolean",
                  "any NULL input gives NULL", "True when each input equals the next."),
      VX_OPERATOR(CpxExpressionOperator_Boolean_NotEqual_Engine, "2+ boolean", "1 boolean",
                  "any NULL input gives NULL", "True when each input differs from the next."),
      VX_OPERATOR(CpxExpressionOperator_Boolean_InList_Engine, "2+ boolean (probe, list...)", "1 boolean",
                  "never NULL", "True when the probe equals a list element; NULL matches only NULL."),
      VX_OPERATOR(CpxExpressionOperator_Boolean_FromString_Engine, "1 string", "1 boolean",
                  "NULL or unreadable text gives NULL", "true/false/1/0 to boolean."),
      VX_OPERATOR(CpxExpressionOperator_Boolean_ToString_Engine, "1 boolean", "1 string",
                  "NULL input gives NULL", "true or false."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
