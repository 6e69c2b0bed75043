// W3, a sliding window with retraction: for each row, over the last 100
// rows of its group k (itself included), sum(a), avg(b), count(*), the
// population standard deviation of b, min(b) and max(b).
//
// Our engine runs a context grouped by k; when a group already holds 100
// rows, the row that leaves goes through first as a negative tuple, then the
// arriving row as a positive one, whose outputs are the row's result (the
// caller's ring of the last 100 rows of each group is part of the figure).
// SQLite runs the window query over a WITHOUT ROWID table clustered on
// (k, ts), with population standard deviation as a window function of our
// own (step, inverse, value over count, sum and sum of squares, as the
// engine computes it; SQLite has none). The plain C++ loop keeps, per group,
// the ring, the three sums and one std::multiset of b for min and max.
//
// BM_W3_EngineStore runs the engine with its state in the embedded store:
// every change of state goes into the store's batch as it happens and the
// batch of one arriving row (its negative and positive runs) is committed
// atomically, as a server commits a row. Prints rows per second and the
// bytes written to the store per row.
//
// A timed engine pass starts from no groups, as SQLite's query does. "Once
// warm" is a further pass continuing the stream with the same rows: every
// group exists and its window is full, so each row retracts one row and adds
// one, as for ever after.
#include <unistd.h>

#include <array>
#include <filesystem>

#include "bench/peer_bench.h"
#include "support/storage.h"

namespace {

using namespace vx;
using namespace vx::bench;

constexpr size_t kWindow = 100;

std::string Context() {
  const std::string a = Ref("Input", "In", "a"), b = Ref("Input", "In", "b");
  return "<ExpressionContext Name=\"w3\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
         InputTuplesXml() +
         "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"sa\" Type=\"integer\"/>"
         "<Field Name=\"ab\" Type=\"float\"/><Field Name=\"n\" Type=\"integer\"/>"
         "<Field Name=\"sd\" Type=\"float\"/><Field Name=\"mn\" Type=\"float\"/>"
         "<Field Name=\"mx\" Type=\"float\"/></TupleDescriptor></OutputTuples><Operators>" +
         Op("sa", "AccumulatorSumInteger", a, Ref("Output", "Out", "sa")) +
         Op("ab", "AccumulatorAvgFloat", b, Ref("Output", "Out", "ab")) +
         Op("n", "AccumulatorCountRows", b, Ref("Output", "Out", "n")) +
         Op("sd", "AccumulatorStandardDeviationFloat", b, Ref("Output", "Out", "sd")) +
         Op("mn", "AccumulatorMinFloat", b, Ref("Output", "Out", "mn")) +
         Op("mx", "AccumulatorMaxFloat", b, Ref("Output", "Out", "mx")) +
         "</Operators></ExpressionContext>";
}

const char* const kQuery =
    "SELECT ts, sum(a) OVER w, avg(b) OVER w, count(*) OVER w, stddev_pop(b) OVER w, "
    "min(b) OVER w, max(b) OVER w FROM w3 "
    "WINDOW w AS (PARTITION BY k ORDER BY ts ROWS BETWEEN 99 PRECEDING AND CURRENT ROW)";

struct Out {
  int64_t sum;
  double avg;
  int64_t n;
  double sd, mn, mx;
};

void Fold(Digest& d, const Out& o) {
  d.Int(o.sum);
  d.Float(o.avg);
  d.Int(o.n);
  d.Float(o.sd);
  d.Float(o.mn);
  d.Float(o.mx);
}

// The population standard deviation from count, sum and sum of squares, as
// the engine computes it.
double Deviation(double n, double sum, double squares) {
  const double d = n * squares - sum * sum;
  return d > 0 ? std::sqrt(d) / n : 0.0;
}

// The last kWindow rows of each group: which row leaves when one arrives.
class Windows {
 public:
  Windows() : m_rings(1000) {}
  // Notes row i of group k; returns the row that leaves, or -1.
  int64_t Arrive(int32_t k, uint32_t i) {
    Ring& r = m_rings[static_cast<size_t>(k)];
    int64_t leaving = -1;
    if (r.size == kWindow) {
      leaving = r.rows[r.head];
    } else {
      ++r.size;
    }
    r.rows[r.head] = i;
    r.head = (r.head + 1) % kWindow;
    return leaving;
  }

 private:
  struct Ring {
    std::array<uint32_t, kWindow> rows;
    size_t head = 0, size = 0;
  };
  std::vector<Ring> m_rings;
};

// ---- plain C++ ----

struct Group {
  int64_t sum = 0;
  double sum_b = 0, squares = 0;
  uint32_t n = 0;
  std::multiset<double> values;
};

Digest PlainPass(std::vector<Out>* record) {
  std::vector<Group> groups(1000);
  Windows windows;
  Digest d;
  const std::vector<Row>& rows = Rows();
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& r = rows[i];
    Group& g = groups[static_cast<size_t>(r.k)];
    const int64_t leaving = windows.Arrive(r.k, static_cast<uint32_t>(i));
    if (leaving >= 0) {
      const Row& l = rows[static_cast<size_t>(leaving)];
      g.sum -= l.a;
      g.sum_b += -1 * l.b;
      g.squares += -1 * (l.b * l.b);
      --g.n;
      g.values.erase(g.values.find(l.b));
    }
    g.sum += r.a;
    g.sum_b += r.b;
    g.squares += r.b * r.b;
    ++g.n;
    g.values.insert(r.b);
    const double n = static_cast<double>(g.n);
    const Out o{g.sum, g.sum_b / n, g.n, Deviation(n, g.sum_b, g.squares), *g.values.begin(),
                *g.values.rbegin()};
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
  if (o.sum != e.sum || o.n != e.n || !SameFloat(o.avg, e.avg) || !SameFloat(o.sd, e.sd) ||
      o.mn != e.mn || o.mx != e.mx)
    Fail(std::string(who) + " differs from the plain loop at row " + std::to_string(i));
}

// ---- the engine ----

Engine& GetEngine() {
  static Engine engine(Context(), {"k"});
  return engine;
}

// One pass over the first `n` rows; `windows` carries the stream on from an
// earlier pass. With `store`, the changes of every `commit_rows` arriving
// rows are committed together with the stream position reached (a resume
// point), so that a restart resumes exactly after the last committed row.
Digest EnginePass(Windows& windows, bool check, CpxPersistentStorageManager* store = nullptr,
                  size_t commit_rows = 1, size_t n = RowCount()) {
  Engine& e = GetEngine();
  Digest d;
  for (size_t i = 0; i < n; ++i) {
    CpxTuple& row = e.Tuple(i);
    const int64_t leaving = windows.Arrive(Rows()[i].k, static_cast<uint32_t>(i));
    if (store && i % commit_rows == 0) store->StartBatch();
    if (leaving >= 0) e.Run(e.Tuple(static_cast<size_t>(leaving)), Message::kNegative);
    const CpxTuple& t = e.Run(row, Message::kPositive);
    if (store && ((i + 1) % commit_rows == 0 || i + 1 == n)) {
      char position[24];
      std::snprintf(position, sizeof position, "%zu", i + 1);
      store->GetBatch().PutMeta("w3_rows", position);
      store->EndBatch();
    }
    const Out o{OutInt(t, 0), OutFloat(t, 1), OutInt(t, 2), OutFloat(t, 3), OutFloat(t, 4),
                OutFloat(t, 5)};
    Fold(d, o);
    if (check) Check("engine", i, o);
  }
  return d;
}

void BM_W3_Engine(benchmark::State& state) {
  GetEngine();
  Expected();
  Windows windows;
  TimeEnginePasses(
      state,
      [&] {
        GetEngine().Restart();
        windows = Windows();
      },
      [&](bool check) { return EnginePass(windows, check); });
}

// Runs the engine with its state in a fresh store, committing every
// `commit_rows` rows, over the first `rows` rows.
void RunWithStore(benchmark::State& state, const std::string& name, size_t commit_rows,
                  size_t rows) {
  GetEngine();
  Expected();
  const std::string folder = (std::filesystem::temp_directory_path() /
                              ("vx_w3_store_" + std::to_string(::getpid())))
                                 .string();
  std::unique_ptr<CpxPersistentStorageManager> store;
  CpxPersistentStorageMessageCache cache;
  double bytes = 0;
  Figure& f = TimePasses(state, name, static_cast<double>(rows), [&] {
    store.reset();
    CpxPersistentStorageManager::Destroy(folder);
    store = CpxPersistentStorageManager::Open("BASIC", folder);
    cache = CpxPersistentStorageMessageCache();
    CpxPersistentStorageKey key;
    key.AppendBlock(2, "w3");
    GetEngine().RestartWithStore(&store->GetBatch(), key, &cache, store.get());
    Windows windows;
    const Digest d = EnginePass(windows, false, store.get(), commit_rows, rows);
    bytes = static_cast<double>(store->GetBytesWritten());
    return d;
  });
  f.extra = bytes / static_cast<double>(rows);
  state.counters["store bytes/row"] = f.extra;
  GetEngine().Restart();
  store.reset();
  CpxPersistentStorageManager::Destroy(folder);
}

// The commit interval of the persistent figure: every 10,000 arriving rows
// (about ten rows of each group). A restart loses none of them: the stream
// position commits with the state, and the rows after it are read again.
constexpr size_t kCommitRows = 10000;

void BM_W3_EngineStore(benchmark::State& state) {
  RunWithStore(state, "engine store", kCommitRows, RowCount());
}

// For comparison: a commit after every arriving row, over the first 20,000
// rows only (it is two orders of magnitude slower).
void BM_W3_EngineStoreEveryRow(benchmark::State& state) {
  RunWithStore(state, "engine store every row", 1, std::min<size_t>(20000, RowCount()));
}

// ---- SQLite ----

struct DeviationSums {
  int64_t n;
  double sum, squares;
};

void DeviationStep(sqlite3_context* c, int, sqlite3_value** v) {
  auto* s = static_cast<DeviationSums*>(sqlite3_aggregate_context(c, sizeof(DeviationSums)));
  const double x = sqlite3_value_double(v[0]);
  s->sum += x;
  s->squares += x * x;
  ++s->n;
}
void DeviationInverse(sqlite3_context* c, int, sqlite3_value** v) {
  auto* s = static_cast<DeviationSums*>(sqlite3_aggregate_context(c, sizeof(DeviationSums)));
  const double x = sqlite3_value_double(v[0]);
  s->sum += -1 * x;
  s->squares += -1 * (x * x);
  --s->n;
}
void DeviationValue(sqlite3_context* c) {
  auto* s = static_cast<DeviationSums*>(sqlite3_aggregate_context(c, 0));
  if (!s || s->n == 0) return sqlite3_result_null(c);
  const double n = static_cast<double>(s->n);
  sqlite3_result_double(c, Deviation(n, s->sum, s->squares));
}

Sqlite& GetSqlite() {
  return PreparedSqlite("w3", "k, ts", kQuery, [](Sqlite& db) {
    if (sqlite3_create_window_function(db.Db(), "stddev_pop", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                       nullptr, DeviationStep, DeviationValue, DeviationValue,
                                       DeviationInverse, nullptr) != SQLITE_OK)
      Fail("stddev_pop");
  });
}

Digest SqlitePass(bool check) {
  Digest d;
  GetSqlite().Query(kQuery, [&](sqlite3_stmt* st) {
    const Out o{sqlite3_column_int64(st, 1), sqlite3_column_double(st, 2),
                sqlite3_column_int64(st, 3), sqlite3_column_double(st, 4),
                sqlite3_column_double(st, 5), sqlite3_column_double(st, 6)};
    Fold(d, o);
    if (check) Check("sqlite", RowOf(sqlite3_column_int64(st, 0)), o);
  });
  return d;
}

void BM_W3_Sqlite(benchmark::State& state) { TimeCheckedPasses(state, "sqlite", SqlitePass); }

void BM_W3_PlainCpp(benchmark::State& state) {
  Expected();
  TimeCheckedPasses(state, "plain", [](bool) { return PlainPass(nullptr); });
}

VX_WORKLOAD(BM_W3_Engine);
VX_WORKLOAD(BM_W3_Sqlite);
VX_WORKLOAD(BM_W3_PlainCpp);
VX_WORKLOAD(BM_W3_EngineStore);
VX_WORKLOAD(BM_W3_EngineStoreEveryRow, nullptr, false);

void Summary() {
  const Figure &e = Figures()["engine"], &st = Figures()["engine store"],
               &every = Figures()["engine store every row"];
  std::printf("W3 sliding window of 100 rows per group, %zu rows in 1000 groups, best of %d passes "
              "(process CPU time):\n",
              RowCount(), TimedPasses());
  PrintThreeFigures();
  PrintFigure("engine, store, commit/10000", st);
  if (st.ran()) std::printf("  store bytes written per row: %.1f\n", st.extra);
  PrintFigure("engine, store, commit/row", every);
  if (every.ran())
    std::printf("  (commit after every row: first %.0f rows only; %.1f store bytes per row)\n",
                every.rows, every.extra);
  CheckDigests({"plain", "engine store"});
  PrintEngineRatios(2);
  if (e.ran() && st.ran())
    PrintRequirement("store rows/s / in-memory rows/s", st.RowsPerSecond() / e.RowsPerSecond(), ">=",
                     1.0 / 3);
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, Summary); }
