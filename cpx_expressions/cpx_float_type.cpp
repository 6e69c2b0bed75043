// Float operators.
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

// ---- arithmetic and comparison ----

VX_DEFINE_NUMERIC_BASICS(Float, CpxTupleField_Float);

}  // namespace vxi

namespace vx {

void RegisterFloatOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_BASICS_TABLE(Float, "float"),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
