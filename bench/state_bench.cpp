// Cost of persistent state: a grouped stateful context (row history over
// 1,000 groups) run through the public evaluator path with and without the
// persistent store, one committed batch per row. Prints rows per second and
// the bytes written to the store per row.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_expression_engine.h"
#include "support/storage.h"
#include "tests/unit/test_util.h"

namespace {

using namespace vx;
using vx::testing::Op;
using vx::testing::Ref;

std::string Context() {
  return std::string(
             "<ExpressionContext Name=\"state\" "
             "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
             "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"integer\"/>"
             "<Field Name=\"a\" Type=\"integer\"/><Field Name=\"b\" Type=\"float\"/>"
             "</TupleDescriptor></InputTuples><OutputTuples><TupleDescriptor Name=\"Out\">"
             "<Field Name=\"pa\" Type=\"integer\"/><Field Name=\"pb\" Type=\"float\"/>"
             "<Field Name=\"pt\" Type=\"time\"/></TupleDescriptor></OutputTuples>"
             "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"d\" Type=\"integer\" "
             "Default=\"10\"/></TupleDescriptor></ConstantTuples><Operators>") +
         Op("pa", "Prev", Ref("Input", "In", "a") + Ref("Constant", "K", "d"),
            Ref("Output", "Out", "pa")) +
         Op("pb", "Prev", Ref("Input", "In", "b") + Ref("Constant", "K", "d"),
            Ref("Output", "Out", "pb")) +
         Op("pt", "GetPrevTimestamp", Ref("Input", "In", "a") + Ref("Constant", "K", "d"),
            Ref("Output", "Out", "pt")) +
         "</Operators></ExpressionContext>";
}

void Run(benchmark::State& state, bool persistent) {
  testing::TestParent parent({"k"});
  Ptr<CpxExpressionContext_Engine> ctx =
      CpxExpressionContext_Engine::LoadFromString(Context(), "state.xml", &parent);
  const std::string folder = (std::filesystem::temp_directory_path() /
                              ("vx_state_bench_" + std::to_string(::getpid())))
                                 .string();
  CpxPersistentStorageManager::Destroy(folder);
  std::unique_ptr<CpxPersistentStorageManager> store;
  CpxPersistentStorageMessageCache cache;
  if (persistent) {
    store = CpxPersistentStorageManager::Open("BASIC", folder);
    CpxPersistentStorageKey key;
    key.AppendBlock(3, "ctx");
    ctx->InitializeEvaluators(nullptr, &store->GetBatch(), key, &cache, store.get());
  } else {
    ctx->InitializeEvaluators();
  }
  const CpxTupleDescriptor* td = ctx->GetInputTupleDescriptors().GetObjectByPos(0);
  Ptr<CpxTuple> row = td->CreateDefaultTuple();
  CpxTuplesList_Vector input;
  input.Add(row);
  int64_t n = 0;
  for (auto _ : state) {
    CpxTupleField_Integer::SetValue(*row, 0, static_cast<int32_t>(n % 1000));
    CpxTupleField_Integer::SetValue(*row, 1, static_cast<int32_t>(n * 7919 % 100000));
    CpxTupleField_Float::SetValue(*row, 2, static_cast<double>(n % 997) / 997.0);
    row->SetTimestamp(n * 1000);
    if (store) store->StartBatch();
    Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(n, &input);
    if (store) store->EndBatch();
    benchmark::DoNotOptimize(ev->GetOutputTuples()->GetObjectByPos(0));
    ++n;
  }
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
  state.counters["store bytes/row"] =
      store && n ? static_cast<double>(store->GetBytesWritten()) / static_cast<double>(n) : 0.0;
  ctx->ShutdownEvaluators();
  store.reset();
  CpxPersistentStorageManager::Destroy(folder);
}

void BM_GroupedHistory_InMemory(benchmark::State& state) { Run(state, false); }
void BM_GroupedHistory_PersistentStore(benchmark::State& state) { Run(state, true); }

BENCHMARK(BM_GroupedHistory_InMemory)->Iterations(200000);
BENCHMARK(BM_GroupedHistory_PersistentStore)->Iterations(200000);

}  // namespace

BENCHMARK_MAIN();
