// Cost of one scalar operator: a chain of 100 arithmetic and comparison
// operators run over 1,000,000 deterministic rows (integer a, float b)
// through the public evaluator path (GetEvaluator, Reset, Execute), beside
// the same computation written as a plain C++ loop in this binary. Prints
// nanoseconds per operator execution for both and their ratio.
//
// The chain is 20 groups of five operators; group k (k = 0 ... 19) does
//   x = x * 3 (the first group: x = a)     MultiplyInteger (AddInteger)
//   x = x + a                              AddInteger
//   y = y * 0.5 (the first group: y = b)   MultiplyFloat (AddFloat)
//   y = y + b                              AddFloat
//   g = x < a (k even) or y > b (k odd)    LessInteger, GreaterFloat
// with x, y and g fields of the output tuple. Integer arithmetic wraps, as
// the operators do. Before timing, both forms are run over the first rows
// and must agree.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include "cpx_expressions/cpx_expression_engine.h"
#include "cpx_expressions/cpx_expression_operators.h"
#include "tests/unit/test_util.h"

namespace {

using namespace vx;
using vx::testing::Op;
using vx::testing::Ref;

constexpr int kRows = 1000000;
constexpr int kGroups = 20;
constexpr int kOperators = kGroups * 5;

// Row i of the input: a in -1000 ... 1000, b in [0, 1).
inline int32_t RowA(int i) { return static_cast<int32_t>(int64_t{i} * 7919 % 2001) - 1000; }
inline double RowB(int i) { return (i % 997) / 997.0; }

std::string ChainContext() {
  const std::string a = Ref("Input", "In", "a"), b = Ref("Input", "In", "b");
  const std::string x = Ref("Output", "Out", "x"), y = Ref("Output", "Out", "y"),
                    g = Ref("Output", "Out", "g");
  std::string ops;
  for (int k = 0; k < kGroups; ++k) {
    const std::string n = std::to_string(k);
    ops += k == 0 ? Op("x" + n, "AddInteger", a, x)
                  : Op("x" + n, "MultiplyInteger", x + Ref("Constant", "K", "three"), x);
    ops += Op("xa" + n, "AddInteger", x + a, x);
    ops += k == 0 ? Op("y" + n, "AddFloat", b, y)
                  : Op("y" + n, "MultiplyFloat", y + Ref("Constant", "K", "half"), y);
    ops += Op("yb" + n, "AddFloat", y + b, y);
    ops += k % 2 == 0 ? Op("g" + n, "LessInteger", x + a, g) : Op("g" + n, "GreaterFloat", y + b, g);
  }
  return "<ExpressionContext Name=\"chain\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
         "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"a\" Type=\"integer\"/>"
         "<Field Name=\"b\" Type=\"float\"/></TupleDescriptor></InputTuples>"
         "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"x\" Type=\"integer\"/>"
         "<Field Name=\"y\" Type=\"float\"/><Field Name=\"g\" Type=\"boolean\"/>"
         "</TupleDescriptor></OutputTuples>"
         "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"three\" Type=\"integer\" "
         "Default=\"3\"/><Field Name=\"half\" Type=\"float\" Default=\"0.5\"/>"
         "</TupleDescriptor></ConstantTuples><Operators>" +
         ops + "</Operators></ExpressionContext>";
}

struct Result {
  int32_t x;
  double y;
  bool g;
};

// The chain as plain C++.
inline Result PlainRow(int32_t a, double b) {
  int32_t x = 0;
  double y = 0;
  bool g = false;
  for (int k = 0; k < kGroups; ++k) {
    x = k == 0 ? a : WrapMultiply(x, int32_t{3});
    x = WrapAdd(x, a);
    y = k == 0 ? b : y * 0.5;
    y = y + b;
    g = k % 2 == 0 ? x < a : y > b;
  }
  return {x, y, g};
}

// The chain through the engine, one row at a time.
class EngineChain {
 public:
  EngineChain() {
    m_ctx = CpxExpressionContext_Engine::LoadFromString(ChainContext(), "chain.xml", &m_parent);
    m_ctx->InitializeEvaluators();
    m_row = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    m_input.Add(m_row);
  }
  // Runs row i; returns the output tuple.
  CpxTuple* Run(int i) {
    CpxTupleField_Integer::SetValue(*m_row, 0, RowA(i));
    CpxTupleField_Float::SetValue(*m_row, 1, RowB(i));
    Ptr<CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(*m_row);
    ev->Reset();
    ev->Execute(i, &m_input);
    return ev->GetOutputTuples()->GetObjectByPos(0);
  }

 private:
  testing::TestParent m_parent;
  Ptr<CpxExpressionContext_Engine> m_ctx;
  Ptr<CpxTuple> m_row;
  CpxTuplesList_Vector m_input;
};

// Best wall time of one pass over all rows, per form.
double g_engine_best_ns = std::numeric_limits<double>::infinity();
double g_plain_best_ns = std::numeric_limits<double>::infinity();

void CheckAgreement(EngineChain& engine) {
  for (int i = 0; i < 10000; ++i) {
    const CpxTuple* out = engine.Run(i);
    const Result r = PlainRow(RowA(i), RowB(i));
    if (CpxTupleField_Integer::GetValue(out, 0) != r.x ||
        CpxTupleField_Float::GetValue(out, 1) != r.y ||
        CpxTupleField_Boolean::GetValue(out, 2) != r.g) {
      std::fprintf(stderr, "engine and plain loop disagree at row %d\n", i);
      std::abort();
    }
  }
}

// Nanoseconds per operator execution of the best pass so far.
void SetCounters(benchmark::State& state, double best_pass_ns) {
  state.counters["rows"] = kRows;
  state.counters["ns/op"] = best_pass_ns / (static_cast<double>(kRows) * kOperators);
}

void BM_Chain100_Engine(benchmark::State& state) {
  EngineChain engine;
  CheckAgreement(engine);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRows; ++i) benchmark::DoNotOptimize(engine.Run(i));
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    g_engine_best_ns = std::min(g_engine_best_ns, took.count());
  }
  SetCounters(state, g_engine_best_ns);
}

void BM_Chain100_PlainLoop(benchmark::State& state) {
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRows; ++i) {
      Result r = PlainRow(RowA(i), RowB(i));
      benchmark::DoNotOptimize(r);
    }
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    g_plain_best_ns = std::min(g_plain_best_ns, took.count());
  }
  SetCounters(state, g_plain_best_ns);
}

BENCHMARK(BM_Chain100_Engine)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Chain100_PlainLoop)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  const double ops = static_cast<double>(kRows) * kOperators;
  if (g_engine_best_ns < std::numeric_limits<double>::infinity() &&
      g_plain_best_ns < std::numeric_limits<double>::infinity()) {
    const double engine = g_engine_best_ns / ops, plain = g_plain_best_ns / ops;
    std::printf(
        "%d rows x %d operators, best pass: engine %.2f ns/operator (%.1f ns/row), plain C++ "
        "%.3f ns/operator; engine / plain = %.1f\n",
        kRows, kOperators, engine, g_engine_best_ns / kRows, plain, engine / plain);
  }
  return 0;
}
