// Long operators.
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

// ---- arithmetic and comparison ----

VX_DEFINE_NUMERIC_BASICS(Long, CpxTupleField_Long);

}  // namespace vxi

namespace vx {

void RegisterLongOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_NUMERIC_BASICS_TABLE(Long, "long"),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
