// Per-row cost of the pattern operators LikeString and RegexSearchBoostString
// run through the public evaluator path, with the pattern the same on every
// row (compiled once, then only matched) and with a pattern that changes on
// every row (translated and compiled each time). Prints rows per second,
// patterns compiled per row and accounted allocations per row.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_string_operators.h"
#include "support/memory.h"
#include "tests/unit/test_util.h"

namespace {

using namespace vx;
using vx::testing::Ref;

// Out.m = <type>(In.s, In.p)
std::string PatternContext(const char* type) {
  return std::string(
             "<ExpressionContext Name=\"bench\" "
             "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
             "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"s\" Type=\"string\"/>"
             "<Field Name=\"p\" Type=\"string\"/></TupleDescriptor></InputTuples>"
             "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"m\" Type=\"boolean\"/>"
             "</TupleDescriptor></OutputTuples><Operators><Operator Name=\"op\" xsi:type=\"") +
         type + "\"><InputParameters>" + Ref("Input", "In", "s") + Ref("Input", "In", "p") +
         "</InputParameters><OutputParameters>" + Ref("Output", "Out", "m") +
         "</OutputParameters></Operator></Operators></ExpressionContext>";
}

// Row i: a 70-byte text holding key<i % 1000>; the pattern is either the
// same for every row or names row i's own key (so it differs from the
// previous row's).
std::string Text(int i) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "the quick brown fox jumps over the lazy dog #%05d key%04d tail",
                i, i % 1000);
  return buf;
}
std::string Pattern(bool like, bool per_row, int i) {
  char buf[32];
  if (like) {
    std::snprintf(buf, sizeof buf, per_row ? "%%key%04d%%" : "%%key0_2%%", i % 1000);
  } else {
    std::snprintf(buf, sizeof buf, per_row ? "key%04d" : "key0[0-9]2", i % 1000);
  }
  return buf;
}

void RunPattern(benchmark::State& state, const char* type, bool like, bool per_row) {
  Ptr<CpxExpressionContext_Engine> ctx =
      CpxExpressionContext_Engine::LoadFromString(PatternContext(type), "bench.xml", nullptr);
  ctx->InitializeEvaluators();
  const CpxTupleDescriptor* td = ctx->GetInputTupleDescriptors().GetObjectByPos(0);
  constexpr int kRows = 4096;
  std::vector<Ptr<CpxTuple>> rows;
  for (int i = 0; i < kRows; ++i) {
    Ptr<CpxTuple> t = td->CreateDefaultTuple();
    CpxTupleField_String::SetValue(*t, 0, Text(i));
    CpxTupleField_String::SetValue(*t, 1, Pattern(like, per_row, i));
    rows.push_back(t);
  }
  CpxTuplesList_Vector input;
  input.Add(rows[0]);
  Ptr<CpxExpressionEvaluator_Engine> ev;
  int64_t matches = 0;
  auto run = [&](int64_t i) {
    const Ptr<CpxTuple>& row = rows[i % kRows];
    input.Set(0, row);
    ev = ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(i, &input);
    matches += CpxTupleField_Boolean::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0);
  };
  for (int i = 0; i < kRows; ++i) run(i);  // warm up: buffers grown, first pattern compiled
  const auto& regex =
      dynamic_cast<const CpxExpressionOperatorState_Engine_Regex&>(*ev->GetOperatorState(0));
  const uint64_t compiles_before = regex.GetCompileCount();
  const uint64_t allocs_before = VxMemoryGetUsage().allocations;
  int64_t n = 0;
  for (auto _ : state) run(n++);
  const double rows_run = static_cast<double>(n ? n : 1);
  state.SetItemsProcessed(n);
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
  state.counters["compiles/row"] =
      static_cast<double>(regex.GetCompileCount() - compiles_before) / rows_run;
  state.counters["allocs/row"] =
      static_cast<double>(VxMemoryGetUsage().allocations - allocs_before) / rows_run;
  state.counters["match/row"] = static_cast<double>(matches) / static_cast<double>(n + kRows);
}

void BM_Like_ConstantPattern(benchmark::State& s) { RunPattern(s, "LikeString", true, false); }
void BM_Like_PatternPerRow(benchmark::State& s) { RunPattern(s, "LikeString", true, true); }
void BM_RegexSearch_ConstantPattern(benchmark::State& s) {
  RunPattern(s, "RegexSearchBoostString", false, false);
}
void BM_RegexSearch_PatternPerRow(benchmark::State& s) {
  RunPattern(s, "RegexSearchBoostString", false, true);
}

BENCHMARK(BM_Like_ConstantPattern);
BENCHMARK(BM_Like_PatternPerRow);
BENCHMARK(BM_RegexSearch_ConstantPattern);
BENCHMARK(BM_RegexSearch_PatternPerRow);

}  // namespace

BENCHMARK_MAIN();
