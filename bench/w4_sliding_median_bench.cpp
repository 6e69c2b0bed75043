// W4, a sliding median: for each row, the median of b over the last N rows
// of the whole stream, for N = 1,000, 100,000 and 1,000,000.
//
// Every row is measured with exactly N live values: before the timed rows
// the window is filled with the N rows that precede the stream (the last N
// rows of the data, as if the stream had run once already). Our engine runs
// an ungrouped context with AccumulatorMedianFloat: the row that leaves the
// window goes through as a negative tuple, then the arriving row as a
// positive one. SQLite runs a median window function of our own (SQLite has
// none: step, inverse and value over a std::multiset that tracks its middle)
// over a WITHOUT ROWID table clustered on ts that holds the N preceding rows
// and the stream; its time covers the filling rows too, which only makes its
// figure look better. The plain C++ loop uses the same multiset.
//
// The engine's per-row cost at N = 1,000,000 over its cost at N = 1,000
// shows how the median state scales with the live values.
#include "bench/peer_bench.h"

namespace {

using namespace vx;
using namespace vx::bench;

const size_t kSizes[] = {1000, 100000, 1000000};

std::string Context() {
  return "<ExpressionContext Name=\"w4\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
         InputTuplesXml() +
         "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"m\" Type=\"float\"/>"
         "</TupleDescriptor></OutputTuples><Operators>" +
         Op("m", "AccumulatorMedianFloat", Ref("Input", "In", "b"), Ref("Output", "Out", "m")) +
         "</Operators></ExpressionContext>";
}

std::string Query(size_t n) {
  return "SELECT ts, median(b) OVER (ORDER BY ts ROWS BETWEEN " + std::to_string(n - 1) +
         " PRECEDING AND CURRENT ROW) FROM w4_" + std::to_string(n);
}

// Row j of the extended stream: the N filling rows (j < 0, the last N rows of
// the data, wrapping when N exceeds the rows) and then the rows themselves.
size_t DataRow(int64_t j) {
  const int64_t m = static_cast<int64_t>(RowCount());
  return static_cast<size_t>(((j % m) + m) % m);
}

// ---- plain C++ ----

Digest PlainPass(size_t n, std::vector<double>* record) {
  const std::vector<Row>& rows = Rows();
  MedianSet set;
  for (int64_t j = -static_cast<int64_t>(n); j < 0; ++j) set.Add(rows[DataRow(j)].b);
  Digest d;
  for (size_t i = 0; i < rows.size(); ++i) {
    set.Remove(rows[DataRow(static_cast<int64_t>(i) - static_cast<int64_t>(n))].b);
    set.Add(rows[i].b);
    const double m = set.Median();
    d.Float(m);
    if (record) (*record)[i] = m;
  }
  return d;
}

std::vector<double>& Expected(size_t n) {
  static std::map<size_t, std::vector<double>> expected;
  std::vector<double>& v = expected[n];
  if (v.empty()) {
    v.resize(RowCount());
    PlainPass(n, &v);
  }
  return v;
}

void Check(const char* who, size_t n, size_t i, double m) {
  if (m != Expected(n)[i])
    Fail(std::string(who) + " differs from the plain loop at row " + std::to_string(i) +
         " for N = " + std::to_string(n));
}

// ---- the engine ----

Engine& GetEngine() {
  static Engine engine(Context(), {});
  return engine;
}

// Fills the window (untimed), then runs the rows.
void EngineFill(size_t n) {
  Engine& e = GetEngine();
  e.Restart();
  for (int64_t j = -static_cast<int64_t>(n); j < 0; ++j) e.Run(e.Tuple(DataRow(j)));
}

Digest EngineRows(size_t n, bool check) {
  Engine& e = GetEngine();
  Digest d;
  const size_t rows = RowCount();
  for (size_t i = 0; i < rows; ++i) {
    e.Run(e.Tuple(DataRow(static_cast<int64_t>(i) - static_cast<int64_t>(n))), Message::kNegative);
    const double m = OutFloat(e.Run(e.Tuple(i)), 0);
    d.Float(m);
    if (check) Check("engine", n, i, m);
  }
  return d;
}

void BM_W4_Engine(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  GetEngine();
  Expected(n);
  EngineFill(n);
  EngineRows(n, true);
  Figure& f = Figures()["engine " + std::to_string(n)];
  f.rows = static_cast<double>(RowCount());
  for (auto _ : state) {
    EngineFill(n);
    const double start = ProcessCpuNs();
    f.digest = EngineRows(n, false);
    f.best_ns = std::min(f.best_ns, ProcessCpuNs() - start);
  }
  // Warm: the window stays full and slides on over the same rows.
  AllocationCount count;
  EngineRows(n, false);
  f.allocations_per_row = static_cast<double>(count.Stop()) / static_cast<double>(RowCount());
  state.counters["rows/s"] = f.RowsPerSecond();
  state.counters["ns/row"] = f.NsPerRow();
  state.counters["allocs/row"] = f.allocations_per_row;
}

// ---- SQLite ----

void MedianStep(sqlite3_context* c, int, sqlite3_value** v) {
  auto** set = static_cast<MedianSet**>(sqlite3_aggregate_context(c, sizeof(MedianSet*)));
  if (!*set) *set = new MedianSet();
  (*set)->Add(sqlite3_value_double(v[0]));
}
void MedianInverse(sqlite3_context* c, int, sqlite3_value** v) {
  auto** set = static_cast<MedianSet**>(sqlite3_aggregate_context(c, sizeof(MedianSet*)));
  (*set)->Remove(sqlite3_value_double(v[0]));
}
void MedianValue(sqlite3_context* c) {
  auto** set = static_cast<MedianSet**>(sqlite3_aggregate_context(c, 0));
  if (!set || !*set || (*set)->Empty()) return sqlite3_result_null(c);
  sqlite3_result_double(c, (*set)->Median());
}
void MedianFinal(sqlite3_context* c) {
  MedianValue(c);
  auto** set = static_cast<MedianSet**>(sqlite3_aggregate_context(c, 0));
  if (set) delete *set;
}

Sqlite& GetSqlite() {
  static Sqlite db;
  static const bool ready = [] {
    if (sqlite3_create_window_function(db.Db(), "median", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                       nullptr, MedianStep, MedianFinal, MedianValue,
                                       MedianInverse, nullptr) != SQLITE_OK)
      Fail("median");
    return true;
  }();
  (void)ready;
  return db;
}

// The table for window size n: the n filling rows before the stream.
void PrepareTable(size_t n) {
  static std::set<size_t> made;
  if (!made.insert(n).second) return;
  Sqlite& db = GetSqlite();
  const std::string name = "w4_" + std::to_string(n);
  db.CreateTable(name, "ts");
  // The filling rows, with timestamps before the stream's first.
  db.Insert(name, n, [n](size_t m) {
    const int64_t j = static_cast<int64_t>(m) - static_cast<int64_t>(n);
    return std::pair<size_t, int64_t>(DataRow(j), kBaseTs + j * kTsStep);
  });
  db.CheckNoSort(Query(n));
}

Digest SqlitePass(size_t n, bool check) {
  Digest d;
  GetSqlite().Query(Query(n), [&](sqlite3_stmt* st) {
    const int64_t ts = sqlite3_column_int64(st, 0);
    if (ts < kBaseTs) return;  // a filling row
    const double m = sqlite3_column_double(st, 1);
    d.Float(m);
    if (check) Check("sqlite", n, RowOf(ts), m);
  });
  return d;
}

void BM_W4_Sqlite(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Expected(n);
  PrepareTable(n);
  TimeCheckedPasses(state, "sqlite " + std::to_string(n),
                    [n](bool check) { return SqlitePass(n, check); });
}

void BM_W4_PlainCpp(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Expected(n);
  TimePasses(state, "plain " + std::to_string(n), static_cast<double>(RowCount()),
             [n] { return PlainPass(n, nullptr); });
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (size_t n : kSizes) b->Arg(static_cast<int64_t>(n));
}

VX_WORKLOAD(BM_W4_Engine, Sizes);
VX_WORKLOAD(BM_W4_Sqlite, Sizes);
VX_WORKLOAD(BM_W4_PlainCpp, Sizes);

void Summary() {
  std::printf("W4 sliding median over the last N rows, %zu rows, best of %d passes (process CPU time):\n",
              RowCount(), TimedPasses());
  for (size_t n : kSizes) {
    const std::string s = std::to_string(n);
    std::printf(" N = %zu\n", n);
    PrintFigure("engine", Figures()["engine " + s]);
    PrintFigure("SQLite", Figures()["sqlite " + s]);
    PrintFigure("plain C++", Figures()["plain " + s]);
    CheckDigests({"plain " + s, "engine " + s, "sqlite " + s});
  }
  const Figure &small = Figures()["engine 1000"], &large = Figures()["engine 1000000"];
  if (small.ran() && large.ran())
    PrintRequirement("engine ns/row at N = 1,000,000 / at N = 1,000", large.NsPerRow() / small.NsPerRow(),
                     "<=", 3);
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, Summary); }
