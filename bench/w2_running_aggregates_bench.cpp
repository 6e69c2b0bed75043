// W2, grouped running aggregates over inserts only: for each row, over the
// rows of its group k so far, sum(a), avg(b), count(*), min(b), max(b).
// Our engine runs a context grouped by k (one evaluator per group);
// SQLite runs the window query over a WITHOUT ROWID table clustered on
// (k, ts), so it reads each partition in order without sorting; the plain
// C++ loop keeps five running values per group. Prints rows per second of
// each, the ratios, and the engine's allocations per row once warm.
//
// A timed engine pass starts from no groups at all, as SQLite's query does.
// "Once warm" is the second of two further passes over the same rows into
// the groups and states the passes before them built: every group exists
// and every value is already held by the Min and Max maps. The first of
// them lets the states take their steady form (Min and Max enter the values
// they kept pending into their tables once they hold as many as the tables
// would), so the counted pass shows what the per-row path allocates by
// itself.
#include "bench/peer_bench.h"

namespace {

using namespace vx;
using namespace vx::bench;

std::string Context() {
  const std::string a = Ref("Input", "In", "a"), b = Ref("Input", "In", "b");
  return "<ExpressionContext Name=\"w2\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
         InputTuplesXml() +
         "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"sa\" Type=\"integer\"/>"
         "<Field Name=\"ab\" Type=\"float\"/><Field Name=\"n\" Type=\"integer\"/>"
         "<Field Name=\"mn\" Type=\"float\"/><Field Name=\"mx\" Type=\"float\"/>"
         "</TupleDescriptor></OutputTuples><Operators>" +
         Op("sa", "AccumulatorSumInteger", a, Ref("Output", "Out", "sa")) +
         Op("ab", "AccumulatorAvgFloat", b, Ref("Output", "Out", "ab")) +
         Op("n", "AccumulatorCountRows", b, Ref("Output", "Out", "n")) +
         Op("mn", "AccumulatorMinFloat", b, Ref("Output", "Out", "mn")) +
         Op("mx", "AccumulatorMaxFloat", b, Ref("Output", "Out", "mx")) +
         "</Operators></ExpressionContext>";
}

const char* const kQuery =
    "SELECT ts, sum(a) OVER w, avg(b) OVER w, count(*) OVER w, min(b) OVER w, max(b) OVER w "
    "FROM w2 WINDOW w AS (PARTITION BY k ORDER BY ts ROWS UNBOUNDED PRECEDING)";

struct Out {
  int64_t sum;
  double avg;
  int64_t n;
  double mn, mx;
};

void Fold(Digest& d, const Out& o) {
  d.Int(o.sum);
  d.Float(o.avg);
  d.Int(o.n);
  d.Float(o.mn);
  d.Float(o.mx);
}

// The plain loop: five running values per group.
struct Group {
  int64_t sum = 0;
  double sum_b = 0;
  int64_t n = 0;
  double mn = 0, mx = 0;
};

Digest PlainPass(std::vector<Out>* record) {
  std::vector<Group> groups(1000);
  Digest d;
  const std::vector<Row>& rows = Rows();
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& r = rows[i];
    Group& g = groups[static_cast<size_t>(r.k)];
    g.sum += r.a;
    g.sum_b += r.b;
    g.mn = g.n == 0 ? r.b : std::min(g.mn, r.b);
    g.mx = g.n == 0 ? r.b : std::max(g.mx, r.b);
    ++g.n;
    const Out o{g.sum, g.sum_b / static_cast<double>(g.n), g.n, g.mn, g.mx};
    Fold(d, o);
    if (record) (*record)[i] = o;
  }
  return d;
}

std::vector<Out>& Expected() {
  static std::vector<Out> expected = [] {
    std::vector<Out> v(RowCount());
    PlainPass(&v);
    return v;
  }();
  return expected;
}

void Check(const char* who, size_t i, const Out& o) {
  const Out& e = Expected()[i];
  if (o.sum != e.sum || o.n != e.n || !SameFloat(o.avg, e.avg) || o.mn != e.mn || o.mx != e.mx)
    Fail(std::string(who) + " differs from the plain loop at row " + std::to_string(i));
}

Engine& GetEngine() {
  static Engine engine(Context(), {"k"});
  return engine;
}

Digest EnginePass(bool check) {
  Engine& e = GetEngine();
  Digest d;
  const size_t n = RowCount();
  for (size_t i = 0; i < n; ++i) {
    const CpxTuple& t = e.Run(e.Tuple(i));
    const Out o{OutInt(t, 0), OutFloat(t, 1), OutInt(t, 2), OutFloat(t, 3), OutFloat(t, 4)};
    Fold(d, o);
    if (check) Check("engine", i, o);
  }
  return d;
}

void BM_W2_Engine(benchmark::State& state) {
  GetEngine();
  Expected();
  TimeEnginePasses(state, [] { GetEngine().Restart(); }, EnginePass, 1);
}

Sqlite& GetSqlite() { return PreparedSqlite("w2", "k, ts", kQuery); }

Digest SqlitePass(bool check) {
  Digest d;
  GetSqlite().Query(kQuery, [&](sqlite3_stmt* st) {
    const Out o{sqlite3_column_int64(st, 1), sqlite3_column_double(st, 2),
                sqlite3_column_int64(st, 3), sqlite3_column_double(st, 4),
                sqlite3_column_double(st, 5)};
    Fold(d, o);
    if (check) Check("sqlite", RowOf(sqlite3_column_int64(st, 0)), o);
  });
  return d;
}

void BM_W2_Sqlite(benchmark::State& state) { TimeCheckedPasses(state, "sqlite", SqlitePass); }

void BM_W2_PlainCpp(benchmark::State& state) {
  Expected();
  TimeCheckedPasses(state, "plain", [](bool) { return PlainPass(nullptr); });
}

VX_WORKLOAD(BM_W2_Engine);
VX_WORKLOAD(BM_W2_Sqlite);
VX_WORKLOAD(BM_W2_PlainCpp);

void Summary() {
  std::printf("W2 grouped running aggregates, %zu rows in 1000 groups, best of %d passes (process CPU time):\n",
              RowCount(), TimedPasses());
  PrintThreeFigures();
  PrintEngineRatios(3);
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, Summary); }
