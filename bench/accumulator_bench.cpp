// Cost of accumulators, through the public evaluator path.
//
// BM_SumAvgCount/G: a grouped context with Sum, Avg and Count over G groups
// (10, 10,000, 1,000,000). Every group is created before timing starts;
// the timed rows then cycle through the groups. Prints rows per second and
// the accounted memory per group (VxMemoryGetUsage: accumulator states, the
// evaluators' state vectors and the group map; evaluator objects and tuples
// are not allocated through the accounting).
//
// BM_SumAvgCountUngrouped: the same operators in an ungrouped context, so
// without the group lookup.
//
// BM_MedianSlide/L: an ungrouped Median over a sliding window of L live
// values (1,000, 100,000, 1,000,000). Each iteration retracts the oldest
// value and adds a new random one (two rows); prints the cost per row.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_expression_engine.h"
#include "support/memory.h"

namespace {

using namespace vx;

class Parent : public CpxExpressionContextParent_Engine {
 public:
  explicit Parent(bool grouped) : m_grouped(grouped) {}
  Ptr<CpxTupleKey_Engine> GetContextGroupByKey() const override {
    if (!m_grouped) return nullptr;
    Ptr<CpxTupleKey_Engine> key = MakePtr<CpxTupleKey_Engine>();
    key->SetDescriptorName("In");
    key->AddField("k", false);
    return key;
  }
  const CpxTupleDescriptor* FindTupleDescriptor(const std::string&) const override {
    return nullptr;
  }

 private:
  bool m_grouped;
};

std::string Op(const char* type, const char* in, const char* out) {
  return std::string("<Operator Name=\"") + out + "\" xsi:type=\"" + type +
         "\"><InputParameters><TupleFieldRef xsi:type=\"InputTupleFieldRefType\" TupleRef=\"In\" "
         "FieldRef=\"" +
         in +
         "\"/></InputParameters><OutputParameters><TupleFieldRef "
         "xsi:type=\"OutputTupleFieldRefType\" TupleRef=\"Out\" FieldRef=\"" +
         out + "\"/></OutputParameters></Operator>";
}

// In{k integer, v integer, f float}; the outputs are the operators' names.
Ptr<CpxExpressionContext_Engine> Load(Parent& parent, const std::string& outputs,
                                      const std::string& operators) {
  const std::string xml =
      "<ExpressionContext Name=\"acc\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"integer\"/>"
      "<Field Name=\"v\" Type=\"integer\"/><Field Name=\"f\" Type=\"float\"/></TupleDescriptor>"
      "</InputTuples><OutputTuples><TupleDescriptor Name=\"Out\">" +
      outputs + "</TupleDescriptor></OutputTuples><Operators>" + operators +
      "</Operators></ExpressionContext>";
  Ptr<CpxExpressionContext_Engine> ctx =
      CpxExpressionContext_Engine::LoadFromString(xml, "accumulator_bench.xml", &parent);
  ctx->InitializeEvaluators();
  return ctx;
}

// Runs one row through the context.
struct Runner {
  Ptr<CpxExpressionContext_Engine> ctx;
  Ptr<CpxTuple> row;
  CpxTuplesList_Vector input;

  explicit Runner(Ptr<CpxExpressionContext_Engine> c) : ctx(std::move(c)) {
    row = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    input.Add(row);
  }
  void Run(int32_t k, int32_t v, int sign) {
    CpxTupleField_Integer::SetValue(*row, 0, k);
    CpxTupleField_Integer::SetValue(*row, 1, v);
    CpxTupleField_Float::SetValue(*row, 2, v * 0.25);
    row->SetTupleType(sign);
    Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(0, &input);
    benchmark::DoNotOptimize(ev->GetOutputTuples()->GetObjectByPos(0));
  }
};

void BM_SumAvgCount(benchmark::State& state) {
  const int32_t groups = static_cast<int32_t>(state.range(0));
  Parent parent(true);
  const int64_t before = VxMemoryGetUsage().bytes_in_use;
  Runner runner(Load(parent,
                     "<Field Name=\"s\" Type=\"integer\"/><Field Name=\"a\" Type=\"float\"/>"
                     "<Field Name=\"c\" Type=\"integer\"/>",
                     Op("AccumulatorSumInteger", "v", "s") + Op("AccumulatorAvgFloat", "f", "a") +
                         Op("AccumulatorCount", "v", "c")));
  for (int32_t k = 0; k < groups; ++k) runner.Run(k, k % 100, Message::kPositive);
  const int64_t per_group = (VxMemoryGetUsage().bytes_in_use - before) / groups;
  int64_t n = 0;
  for (auto _ : state) {
    runner.Run(static_cast<int32_t>(n % groups), static_cast<int32_t>(n % 1000),
               Message::kPositive);
    ++n;
  }
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
  state.counters["bytes/group"] = static_cast<double>(per_group);
  runner.ctx->ShutdownEvaluators();
}

// The same three accumulators without a group lookup: their own cost.
void BM_SumAvgCountUngrouped(benchmark::State& state) {
  Parent parent(false);
  Runner runner(Load(parent,
                     "<Field Name=\"s\" Type=\"integer\"/><Field Name=\"a\" Type=\"float\"/>"
                     "<Field Name=\"c\" Type=\"integer\"/>",
                     Op("AccumulatorSumInteger", "v", "s") + Op("AccumulatorAvgFloat", "f", "a") +
                         Op("AccumulatorCount", "v", "c")));
  int64_t n = 0;
  for (auto _ : state) {
    runner.Run(0, static_cast<int32_t>(n % 1000), Message::kPositive);
    ++n;
  }
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}

void BM_MedianSlide(benchmark::State& state) {
  const size_t live = static_cast<size_t>(state.range(0));
  Parent parent(false);
  Runner runner(
      Load(parent, "<Field Name=\"m\" Type=\"float\"/>", Op("AccumulatorMedianInteger", "v", "m")));
  std::mt19937 rng(7);
  std::vector<int32_t> window(live);
  for (int32_t& v : window) {
    v = static_cast<int32_t>(rng() % 100000000);
    runner.Run(0, v, Message::kPositive);
  }
  size_t oldest = 0;
  int64_t rows = 0;
  for (auto _ : state) {
    runner.Run(0, window[oldest], Message::kNegative);
    window[oldest] = static_cast<int32_t>(rng() % 100000000);
    runner.Run(0, window[oldest], Message::kPositive);
    oldest = (oldest + 1) % live;
    rows += 2;
  }
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(rows), benchmark::Counter::kIsRate);
  state.counters["ns/row"] = benchmark::Counter(
      static_cast<double>(rows), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  runner.ctx->ShutdownEvaluators();
}

BENCHMARK(BM_SumAvgCount)
    ->Arg(10)
    ->Arg(10000)
    ->Arg(1000000)
    ->Iterations(2000000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SumAvgCountUngrouped)->Iterations(2000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MedianSlide)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(500000)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
