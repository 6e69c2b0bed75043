// Cost of the per-row loop: a 10-operator context (arithmetic, comparisons,
// a conditional jump) run through the public evaluator path, ungrouped and
// grouped over 1,000 keys. Prints rows per second and accounted allocations
// per row; once the evaluator is warm the loop is expected to allocate
// nothing.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_expression_engine.h"
#include "support/memory.h"
#include "tests/unit/test_util.h"

namespace {

using namespace vx;
using vx::testing::Op;
using vx::testing::Ref;

// SELECT k, a*2+1 AS x, b*b AS y, CASE WHEN a > 500 THEN b ELSE -b END AS z,
//        a >= 100 AS big, b < 0.5 AS low
std::string TenOperatorContext() {
  return std::string(
             "<ExpressionContext Name=\"bench\" "
             "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
             "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"integer\"/>"
             "<Field Name=\"a\" Type=\"integer\"/><Field Name=\"b\" Type=\"float\"/>"
             "</TupleDescriptor></InputTuples>"
             "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"k\" Type=\"integer\"/>"
             "<Field Name=\"x\" Type=\"integer\"/><Field Name=\"y\" Type=\"float\"/>"
             "<Field Name=\"z\" Type=\"float\"/><Field Name=\"big\" Type=\"boolean\"/>"
             "<Field Name=\"low\" Type=\"boolean\"/></TupleDescriptor></OutputTuples>"
             "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"two\" Type=\"integer\" "
             "Default=\"2\"/><Field Name=\"one\" Type=\"integer\" Default=\"1\"/>"
             "<Field Name=\"c500\" Type=\"integer\" Default=\"500\"/><Field Name=\"c100\" "
             "Type=\"integer\" Default=\"100\"/><Field Name=\"half\" Type=\"float\" "
             "Default=\"0.5\"/><Field Name=\"zero\" Type=\"float\" Default=\"0\"/>"
             "</TupleDescriptor></ConstantTuples>"
             "<TemporaryTuples><TupleDescriptor Name=\"T\"><Field Name=\"hi\" Type=\"boolean\"/>"
             "</TupleDescriptor></TemporaryTuples><Operators>") +
         Op("k", "AddInteger", Ref("Input", "In", "k"), Ref("Output", "Out", "k")) +
         Op("x1", "MultiplyInteger", Ref("Input", "In", "a") + Ref("Constant", "K", "two"),
            Ref("Output", "Out", "x")) +
         Op("x2", "AddInteger", Ref("Output", "Out", "x") + Ref("Constant", "K", "one"),
            Ref("Output", "Out", "x")) +
         Op("y", "MultiplyFloat", Ref("Input", "In", "b") + Ref("Input", "In", "b"),
            Ref("Output", "Out", "y")) +
         Op("hi", "GreaterInteger", Ref("Input", "In", "a") + Ref("Constant", "K", "c500"),
            Ref("Temporary", "T", "hi")) +
         Op("when", "IfTrueGotoLabel", Ref("Temporary", "T", "hi"), "", "GotoLabel=\"then\"") +
         Op("else", "SubtractFloat", Ref("Constant", "K", "zero") + Ref("Input", "In", "b"),
            Ref("Output", "Out", "z")) +
         Op("then", "AddFloat", Ref("Input", "In", "b"), Ref("Output", "Out", "z")) +
         Op("big", "GreaterOrEqualInteger", Ref("Input", "In", "a") + Ref("Constant", "K", "c100"),
            Ref("Output", "Out", "big")) +
         Op("low", "LessFloat", Ref("Input", "In", "b") + Ref("Constant", "K", "half"),
            Ref("Output", "Out", "low")) +
         "</Operators><Labels><Label Name=\"then\">then</Label></Labels></ExpressionContext>";
}

void RunContext(benchmark::State& state, bool grouped) {
  testing::TestParent parent(grouped ? std::vector<std::string>{"k"} : std::vector<std::string>{});
  Ptr<CpxExpressionContext_Engine> ctx =
      CpxExpressionContext_Engine::LoadFromString(TenOperatorContext(), "bench.xml", &parent);
  ctx->InitializeEvaluators();
  const CpxTupleDescriptor* td = ctx->GetInputTupleDescriptors().GetObjectByPos(0);
  constexpr int kRows = 4096;
  std::vector<Ptr<CpxTuple>> rows;
  for (int i = 0; i < kRows; ++i) {
    Ptr<CpxTuple> t = td->CreateDefaultTuple();
    CpxTupleField_Integer::SetValue(*t, 0, i % 1000);
    CpxTupleField_Integer::SetValue(*t, 1, (i * 7919) % 1000);
    CpxTupleField_Float::SetValue(*t, 2, (i % 997) / 997.0);
    rows.push_back(t);
  }
  CpxTuplesList_Vector input;
  input.Add(rows[0]);
  // Warm up: every group exists and every output buffer has grown.
  for (int i = 0; i < kRows; ++i) {
    input.Set(0, rows[i]);
    Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*rows[i]);
    ev->Reset();
    ev->Execute(i, &input);
  }
  const uint64_t allocs_before = VxMemoryGetUsage().allocations;
  int64_t n = 0;
  for (auto _ : state) {
    const Ptr<CpxTuple>& row = rows[n % kRows];
    input.Set(0, row);
    Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(n, &input);
    benchmark::DoNotOptimize(ev->GetOutputTuples()->GetObjectByPos(0));
    ++n;
  }
  const uint64_t allocs = VxMemoryGetUsage().allocations - allocs_before;
  state.SetItemsProcessed(n);
  state.counters["rows/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
  state.counters["allocs/row"] = n ? static_cast<double>(allocs) / static_cast<double>(n) : 0.0;
}

void BM_TenOperators_Ungrouped(benchmark::State& state) { RunContext(state, false); }
void BM_TenOperators_Grouped1000(benchmark::State& state) { RunContext(state, true); }

BENCHMARK(BM_TenOperators_Ungrouped);
BENCHMARK(BM_TenOperators_Grouped1000);

}  // namespace

BENCHMARK_MAIN();
