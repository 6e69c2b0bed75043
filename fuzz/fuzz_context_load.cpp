// Whole context documents: load and check every operator, run a row of
// defaults (positive, then negative), and require that a loaded context
// survives being written out and read back.
#include <cstdlib>

#include "fuzz/fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vx;
  fuzz::Setup();
  Ptr<CpxExpressionContext_Engine> ctx;
  try {
    ctx = CpxExpressionContext_Engine::LoadFromString(fuzz::Text(data, size), "fuzz.xml", nullptr);
  } catch (const ExceptionType&) {
    return 0;  // a refused document is a correct outcome
  }
  const std::string written = ctx->WriteToString();
  try {
    CpxExpressionContext_Engine::LoadFromString(written, "fuzz-written.xml", nullptr);
  } catch (const ExceptionType& e) {
    // A context the engine accepted must read back from its own writing.
    std::abort();
  }
  fuzz::RunDefaultRows(*ctx);
  return 0;
}
