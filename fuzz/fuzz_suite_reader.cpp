// Whole test-suite documents: read the suite with its context, tuples and
// expected results, and run it when it asks for no persistent store.
#include "cpx_expressions/cpx_expression_test_suite.h"
#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vx;
  fuzz::Setup();
  try {
    Ptr<CpxExpressionContext_TestSuite> suite =
        CpxExpressionContext_TestSuite::LoadFromString(fuzz::Text(data, size), "fuzz.xml");
    if (suite->GetPersistentStorage().empty())
      suite->Execute(CpxExpressionContext_TestSuite::PostExecute::kCompare, false, false);
  } catch (const ExceptionType&) {
  }
  return 0;
}
