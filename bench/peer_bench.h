// What the workload benchmarks (w*_bench.cpp) share: the deterministic rows,
// the engine driven through its public evaluator path, SQLite through its C
// API, an allocation hook, best-of-passes timing and the summary printed
// after the run.
//
// Rows. Row i of the stream (i = 0 ... kRows - 1, kRows = 1,000,000 unless
// VX_BENCH_ROWS says otherwise) has a group key k in 0 ... 999, an integer a
// in -50,000 ... 49,999, a float b in [0, 1) (53 random bits), a text s of 8
// to 16 ASCII letters and an increasing timestamp ts (microseconds, one
// millisecond apart), all drawn from a fixed-seed generator.
//
// Each implementation (our engine, SQLite, a plain C++ loop) first runs once
// with every output row compared against the plain loop's (floats to 1e-9
// relative), then runs timed passes in which each output row is read and
// folded into a digest (the same for all three: integers and floats summed,
// texts by length and end bytes); the digests of all three must agree too.
// A pass is timed in process CPU time, which leaves out the time this
// process waits for a core on a busy machine; the best pass counts.
//
// The allocation hook replaces malloc and its relatives in the benchmark
// program (delegating to the C library's own), so it sees every allocation
// of the process: the engine's accounted ones, the standard library's and
// those of C libraries. It counts only while switched on. This header is
// included by exactly one translation unit per program.
#pragma once

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cpx_expressions/cpx_expression_engine.h"
#include "tests/unit/test_util.h"

// ---- allocation hook ----

namespace vx::bench {
inline std::atomic<bool> g_count_allocations{false};
inline std::atomic<uint64_t> g_allocations{0};
inline void NoteAllocation() {
  if (g_count_allocations.load(std::memory_order_relaxed)) [[unlikely]]
    g_allocations.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace vx::bench

#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);

void* malloc(size_t size) noexcept {
  vx::bench::NoteAllocation();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  vx::bench::NoteAllocation();
  return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) noexcept {
  vx::bench::NoteAllocation();
  return __libc_realloc(p, size);
}
void* memalign(size_t alignment, size_t size) noexcept {
  vx::bench::NoteAllocation();
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) noexcept {
  vx::bench::NoteAllocation();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  vx::bench::NoteAllocation();
  void* p = __libc_memalign(alignment, size);
  if (!p) return ENOMEM;
  *out = p;
  return 0;
}
void free(void* p) noexcept { __libc_free(p); }
}
#endif

namespace vx::bench {

using vx::testing::Op;
using vx::testing::Ref;

// Counts the allocations made between construction and Stop().
class AllocationCount {
 public:
  AllocationCount() {
    m_start = g_allocations.load();
    g_count_allocations = true;
  }
  ~AllocationCount() { g_count_allocations = false; }
  uint64_t Stop() {
    g_count_allocations = false;
    return g_allocations.load() - m_start;
  }

 private:
  uint64_t m_start;
};

// ---- rows ----

struct Row {
  int32_t k;
  int32_t a;
  double b;
  std::string s;
  int64_t ts;
};

constexpr int64_t kBaseTs = 1'700'000'000'000'000;  // 2023-11-14, in microseconds
constexpr int64_t kTsStep = 1000;

inline size_t RowCount() {
  static const size_t n = [] {
    const char* env = std::getenv("VX_BENCH_ROWS");
    const long v = env ? std::atol(env) : 0;
    return v > 0 ? static_cast<size_t>(v) : size_t{1'000'000};
  }();
  return n;
}

inline int PositiveFromEnv(const char* name, int otherwise) {
  const char* env = std::getenv(name);
  const int v = env ? std::atoi(env) : 0;
  return v > 0 ? v : otherwise;
}
// The benchmarks of a program run in rounds (VX_BENCH_ROUNDS, 3 by default),
// each round running every benchmark for its timed passes (VX_BENCH_PASSES,
// 1 by default); the best pass over all rounds counts. Taking turns keeps a
// slow spell of a shared machine from landing on one implementation only,
// which would skew the ratios.
inline int Passes() { return PositiveFromEnv("VX_BENCH_PASSES", 1); }
inline int Rounds() { return PositiveFromEnv("VX_BENCH_ROUNDS", 3); }
inline int TimedPasses() { return Passes() * Rounds(); }

inline uint64_t SplitMix64(uint64_t& x) {
  uint64_t z = (x += 0x9e3779b97f4a7c15u);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
  return z ^ (z >> 31);
}

inline const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = [] {
    static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    std::vector<Row> v(RowCount());
    uint64_t seed = 20240611;
    for (size_t i = 0; i < v.size(); ++i) {
      Row& r = v[i];
      const uint64_t x = SplitMix64(seed);
      r.k = static_cast<int32_t>(x % 1000);
      r.a = static_cast<int32_t>((x >> 16) % 100000) - 50000;
      r.b = static_cast<double>(SplitMix64(seed) >> 11) * 0x1p-53;
      uint64_t letters = SplitMix64(seed);
      const size_t length = 8 + letters % 9;
      for (size_t j = 0; j < length; ++j) {
        if (j % 8 == 0) letters = SplitMix64(seed);
        r.s.push_back(kLetters[(letters >> (6 * (j % 8))) % 52]);
      }
      r.ts = kBaseTs + static_cast<int64_t>(i) * kTsStep;
    }
    return v;
  }();
  return rows;
}

// Row number of a timestamp of the stream.
inline size_t RowOf(int64_t ts) { return static_cast<size_t>((ts - kBaseTs) / kTsStep); }

// ---- digests and comparison ----

// What a consumer reads from an output row, folded cheaply.
struct Digest {
  uint64_t ints = 0;
  double floats = 0;
  uint64_t texts = 0;
  uint64_t nulls = 0;

  void Int(int64_t v) { ints += static_cast<uint64_t>(v); }
  void Float(double v) { floats += v; }
  void Text(const char* p, size_t n) {
    texts += n;
    if (n) texts += static_cast<unsigned char>(p[0]) + (uint64_t{static_cast<unsigned char>(p[n - 1])} << 8);
  }
  void Null() { ++nulls; }
  bool Agrees(const Digest& o) const {
    return ints == o.ints && texts == o.texts && nulls == o.nulls &&
           std::fabs(floats - o.floats) <= 1e-9 * std::max(1.0, std::fabs(floats));
  }
  std::string ToString() const {
    char buf[160];
    std::snprintf(buf, sizeof buf, "ints %llu, floats %.12g, texts %llu, nulls %llu",
                  static_cast<unsigned long long>(ints), floats,
                  static_cast<unsigned long long>(texts), static_cast<unsigned long long>(nulls));
    return buf;
  }
};

inline bool SameFloat(double a, double b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  return std::fabs(a - b) <= 1e-9 * std::max(1.0, std::fabs(a));
}

[[noreturn]] inline void Fail(const std::string& what) {
  std::fprintf(stderr, "benchmark check failed: %s\n", what.c_str());
  std::exit(2);
}

// ---- timing ----

inline double ProcessCpuNs() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// The result of one implementation of one workload.
struct Figure {
  double best_ns = std::numeric_limits<double>::infinity();  // best timed pass
  double rows = 0;                                           // rows of a pass
  double allocations_per_row = -1;                           // engine: once warm
  double extra = -1;                                         // workload-specific
  Digest digest;
  bool ran() const { return std::isfinite(best_ns); }
  double RowsPerSecond() const { return rows / best_ns * 1e9; }
  double NsPerRow() const { return best_ns / rows; }
};

inline std::map<std::string, Figure>& Figures() {
  static std::map<std::string, Figure> figures;
  return figures;
}

// Runs `pass` once per benchmark iteration, keeping the best process CPU
// time in the figure named `name`; `pass` returns the digest of its rows.
inline Figure& TimePasses(benchmark::State& state, const std::string& name, double rows,
                          const std::function<Digest()>& pass) {
  Figure& f = Figures()[name];
  f.rows = rows;
  for (auto _ : state) {
    const double start = ProcessCpuNs();
    const Digest d = pass();
    const double took = ProcessCpuNs() - start;
    f.best_ns = std::min(f.best_ns, took);
    f.digest = d;
  }
  state.counters["rows/s"] = f.RowsPerSecond();
  state.counters["ns/row"] = f.NsPerRow();
  return f;
}

// The SQLite and plain C++ figures of a workload: `pass(check)` runs once
// checked against the plain loop, then timed without checks.
inline void TimeCheckedPasses(benchmark::State& state, const std::string& name,
                              const std::function<Digest(bool check)>& pass) {
  if (!Figures()[name].ran()) pass(true);  // checked in the first round only
  TimePasses(state, name, static_cast<double>(RowCount()), [&] { return pass(false); });
}

// The engine's figure of a workload: one checked pass, the timed passes
// (each starting with `restart`), `warmups` further passes, and then one
// more pass whose allocations per row are counted. The checked pass and the
// counted one belong to the first round only.
inline void TimeEnginePasses(benchmark::State& state, const std::function<void()>& restart,
                             const std::function<Digest(bool check)>& pass, int warmups = 0) {
  const bool first_round = !Figures()["engine"].ran();
  if (first_round) pass(true);
  Figure& f = TimePasses(state, "engine", static_cast<double>(RowCount()), [&] {
    restart();
    return pass(false);
  });
  if (!first_round) {
    state.counters["allocs/row"] = f.allocations_per_row;
    return;
  }
  for (int i = 0; i < warmups; ++i) pass(false);
  AllocationCount count;
  pass(false);
  f.allocations_per_row = static_cast<double>(count.Stop()) / static_cast<double>(RowCount());
  state.counters["allocs/row"] = f.allocations_per_row;
}

// ---- the engine ----

// Input descriptor of every workload context.
inline std::string InputTuplesXml() {
  return "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"integer\"/>"
         "<Field Name=\"a\" Type=\"integer\"/><Field Name=\"b\" Type=\"float\"/>"
         "<Field Name=\"s\" Type=\"string\"/><Field Name=\"ts\" Type=\"time\"/>"
         "</TupleDescriptor></InputTuples>";
}

// The caller's one-row input list: a view of the row being run.
class RowList final : public CpxTuplesList {
 public:
  unsigned GetSize() const override { return 1; }
  CpxTuple* GetObjectByPos(unsigned p) const override {
    if (p != 0) XmlObject::RaiseIndexOutOfRange(p, 1, "row list");
    return m_row;
  }
  CpxTuple* const* GetTupleArray() const override { return &m_row; }
  void Set(CpxTuple* row) { m_row = row; }

 private:
  CpxTuple* m_row = nullptr;
};

// A loaded context, the stream's rows as its input tuples (built once, as a
// server receives them), and the caller's cycle per row.
class Engine {
 public:
  Engine(const std::string& xml, std::vector<std::string> group_fields)
      : m_parent(std::move(group_fields)) {
    m_ctx = CpxExpressionContext_Engine::LoadFromString(xml, "workload.xml", &m_parent);
    m_ctx->InitializeEvaluators();
    const CpxTupleDescriptor* td = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0);
    for (const Row& r : Rows()) {
      Ptr<CpxTuple> t = td->CreateDefaultTuple();
      CpxTupleField_Integer::SetValue(*t, 0, r.k);
      CpxTupleField_Integer::SetValue(*t, 1, r.a);
      CpxTupleField_Float::SetValue(*t, 2, r.b);
      CpxTupleField_String::SetValue(*t, 3, r.s);
      CpxTupleField_Time::SetValue(*t, 4, r.ts);
      t->SetTimestamp(r.ts);
      m_rows.push_back(std::move(t));
    }
  }

  CpxExpressionContext_Engine& Context() { return *m_ctx; }
  CpxTuple& Tuple(size_t i) { return *m_rows[i]; }

  // Drops every group and state (a fresh start of the query).
  void Restart() {
    m_ctx->ShutdownEvaluators();
    m_ctx->InitializeEvaluators();
  }
  void RestartWithStore(CpxPersistentStorageBatch* batch, const CpxPersistentStorageKey& key,
                        CpxPersistentStorageMessageCache* cache,
                        CpxPersistentStorageManager* manager) {
    m_ctx->ShutdownEvaluators();
    m_ctx->InitializeEvaluators(nullptr, batch, key, cache, manager);
  }

  // Runs `row` with `sign`; returns the output tuple.
  const CpxTuple& Run(CpxTuple& row, int sign = Message::kPositive) {
    row.SetTupleType(sign);
    m_list.Set(&row);
    Ptr<CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(row);
    ev->Reset();
    ev->Execute(row.GetTimestamp(), &m_list);
    return *ev->GetOutputTuples()->GetObjectByPos(0);
  }

 private:
  vx::testing::TestParent m_parent;
  Ptr<CpxExpressionContext_Engine> m_ctx;
  std::vector<Ptr<CpxTuple>> m_rows;
  RowList m_list;
};

// Output field readers.
inline int64_t OutInt(const CpxTuple& t, unsigned p) { return CpxTupleField_Integer::GetValue(&t, p); }
inline double OutFloat(const CpxTuple& t, unsigned p) { return CpxTupleField_Float::GetValue(&t, p); }
inline std::string_view OutText(const CpxTuple& t, unsigned p) {
  return CpxTupleField_String::GetView(&t, p);
}

// ---- SQLite ----

class Sqlite {
 public:
  Sqlite() {
    if (sqlite3_open(":memory:", &m_db) != SQLITE_OK) Fail("sqlite3_open");
  }
  ~Sqlite() { sqlite3_close(m_db); }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  sqlite3* Db() { return m_db; }

  void Exec(const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK)
      Fail(sql + ": " + (error ? error : "?"));
  }

  // Creates table `name` (k, ts, a, b, s) WITHOUT ROWID with `primary_key`
  // and fills it with the stream's rows.
  void CreateTable(const std::string& name, const std::string& primary_key) {
    Exec("CREATE TABLE " + name +
         "(k INTEGER NOT NULL, ts INTEGER NOT NULL, a INTEGER NOT NULL, b REAL NOT NULL, "
         "s TEXT NOT NULL, PRIMARY KEY(" + primary_key + ")) WITHOUT ROWID");
    Insert(name, RowCount(), [](size_t n) { return std::pair<size_t, int64_t>(n, Rows()[n].ts); });
  }
  // Inserts `count` rows: for n = 0 ... count - 1, the values of stream row
  // row_and_ts(n).first with the timestamp row_and_ts(n).second.
  void Insert(const std::string& name, size_t count,
              const std::function<std::pair<size_t, int64_t>(size_t)>& row_and_ts) {
    Exec("BEGIN");
    sqlite3_stmt* insert = Prepare("INSERT INTO " + name + " VALUES (?, ?, ?, ?, ?)");
    const std::vector<Row>& rows = Rows();
    for (size_t n = 0; n < count; ++n) {
      const auto [i, ts] = row_and_ts(n);
      const Row& r = rows[i];
      sqlite3_bind_int(insert, 1, r.k);
      sqlite3_bind_int64(insert, 2, ts);
      sqlite3_bind_int(insert, 3, r.a);
      sqlite3_bind_double(insert, 4, r.b);
      sqlite3_bind_text(insert, 5, r.s.data(), static_cast<int>(r.s.size()), SQLITE_STATIC);
      if (sqlite3_step(insert) != SQLITE_DONE) Fail("insert");
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    Exec("COMMIT");
  }

  sqlite3_stmt* Prepare(const std::string& sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
      Fail(sql + ": " + sqlite3_errmsg(m_db));
    return stmt;
  }

  // Fails when SQLite would sort for `sql` (the table must already be in
  // the query's order).
  void CheckNoSort(const std::string& sql) {
    sqlite3_stmt* plan = Prepare("EXPLAIN QUERY PLAN " + sql);
    while (sqlite3_step(plan) == SQLITE_ROW) {
      const char* detail = reinterpret_cast<const char*>(sqlite3_column_text(plan, 3));
      if (detail && std::strstr(detail, "TEMP B-TREE")) Fail("SQLite sorts for: " + sql + " (" + detail + ")");
    }
    sqlite3_finalize(plan);
  }

  // Runs `sql` and hands every result row to `row`.
  void Query(const std::string& sql, const std::function<void(sqlite3_stmt*)>& row) {
    sqlite3_stmt* stmt = Prepare(sql);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) row(stmt);
    if (rc != SQLITE_DONE) Fail(sql + ": " + sqlite3_errmsg(m_db));
    sqlite3_finalize(stmt);
  }

 private:
  sqlite3* m_db = nullptr;
};

// The program's SQLite database with the workload table `table` clustered
// on `key`, once `setup` (window functions of our own) has run on it, and
// checked to answer `query` without a sort.
inline Sqlite& PreparedSqlite(const char* table, const char* key, const char* query,
                              const std::function<void(Sqlite&)>& setup = {}) {
  static Sqlite db;
  static bool ready = false;
  if (!ready) {
    if (setup) setup(db);
    db.CreateTable(table, key);
    db.CheckNoSort(query);
    ready = true;
  }
  return db;
}

// ---- a sorted multiset that knows its middle (plain C++ and SQLite's median) ----

// The lower middle element is tracked by an iterator; adding and removing
// a value move it by at most one place.
class MedianSet {
 public:
  void Add(double v) {
    const auto it = m_set.insert(v);  // after its equals
    const size_t n = m_set.size();
    if (n == 1) {
      m_mid = it;
    } else if (v < *m_mid) {
      if (n % 2 == 0) --m_mid;  // was odd: the middle index stays, an element came before it
    } else if (n % 2 == 1) {
      ++m_mid;
    }
  }
  void Remove(double v) {
    const size_t n = m_set.size();  // before the removal
    if (n == 1) {
      m_set.clear();
      return;
    }
    if (v < *m_mid) {
      m_set.erase(m_set.lower_bound(v));
      if (n % 2 == 0) ++m_mid;
    } else if (*m_mid < v) {
      m_set.erase(m_set.lower_bound(v));
      if (n % 2 == 1) --m_mid;
    } else {
      const auto gone = m_mid;
      m_mid = n % 2 == 1 ? std::prev(m_mid) : std::next(m_mid);
      m_set.erase(gone);
    }
  }
  bool Empty() const { return m_set.empty(); }
  double Median() const {
    if (m_set.size() % 2 == 1) return *m_mid;
    return (*m_mid + *std::next(m_mid)) * 0.5;
  }

 private:
  std::multiset<double> m_set;
  std::multiset<double>::iterator m_mid;
};

// ---- summary ----

inline void PrintFigure(const char* label, const Figure& f) {
  if (!f.ran()) return;
  std::printf("  %-24s %9.3f M rows/s  %8.1f ns/row", label, f.RowsPerSecond() / 1e6, f.NsPerRow());
  if (f.allocations_per_row >= 0) std::printf("  %.4f allocations/row once warm", f.allocations_per_row);
  std::printf("\n");
}

// Prints "name = value (must be <op> limit: ok / NOT MET)".
inline void PrintRequirement(const char* what, double value, const char* op, double limit) {
  const bool ok = std::strcmp(op, ">=") == 0 ? value >= limit : value <= limit;
  std::printf("  %-44s %7.2f  (must be %s %.2f: %s)\n", what, value, op, limit,
              ok ? "ok" : "NOT MET");
}

// Checks that every figure that ran has the digest of `reference`.
inline void CheckDigests(const std::vector<std::string>& names) {
  const Figure* first = nullptr;
  std::string first_name;
  for (const std::string& n : names) {
    auto it = Figures().find(n);
    if (it == Figures().end() || !it->second.ran()) continue;
    if (!first) {
      first = &it->second;
      first_name = n;
      continue;
    }
    if (!first->digest.Agrees(it->second.digest))
      Fail("digests differ: " + first_name + " {" + first->digest.ToString() + "} vs " + n + " {" +
           it->second.digest.ToString() + "}");
  }
  if (first) std::printf("  digests agree: %s\n", first->digest.ToString().c_str());
}

// The figures "engine", "sqlite" and "plain", and the check that their
// digests agree.
inline void PrintThreeFigures() {
  PrintFigure("engine", Figures()["engine"]);
  PrintFigure("SQLite", Figures()["sqlite"]);
  PrintFigure("plain C++", Figures()["plain"]);
  CheckDigests({"plain", "engine", "sqlite"});
}

// The lines every workload ends with, from the figures "engine", "sqlite"
// and "plain": the engine's rows per second over SQLite's (held to
// `sqlite_at_least`), its nanoseconds per row over the plain loop's (held to
// `plain_at_most` when it is positive, else only printed) and its
// allocations per row once warm (held to 0).
inline void PrintEngineRatios(double sqlite_at_least, double plain_at_most = 0) {
  const Figure &e = Figures()["engine"], &s = Figures()["sqlite"], &p = Figures()["plain"];
  if (e.ran() && s.ran())
    PrintRequirement("engine rows/s / SQLite rows/s", e.RowsPerSecond() / s.RowsPerSecond(), ">=",
                     sqlite_at_least);
  if (e.ran() && p.ran()) {
    if (plain_at_most > 0) {
      PrintRequirement("engine ns/row / plain C++ ns/row", e.NsPerRow() / p.NsPerRow(), "<=",
                       plain_at_most);
    } else {
      std::printf("  %-44s %7.2f\n", "engine ns/row / plain C++ ns/row", e.NsPerRow() / p.NsPerRow());
    }
  }
  if (e.ran()) PrintRequirement("engine allocations/row once warm", e.allocations_per_row, "<=", 0);
}

// A benchmark of a workload program, registered by Main once per round so
// that the implementations take turns (see Rounds).
struct Workload {
  const char* name;
  void (*run)(benchmark::State&);
  void (*args)(benchmark::internal::Benchmark*);  // arguments, or null
  bool every_round;                               // else in the first round only
};
inline std::vector<Workload>& Workloads() {
  static std::vector<Workload> workloads;
  return workloads;
}
inline int AddWorkload(const char* name, void (*run)(benchmark::State&),
                       void (*args)(benchmark::internal::Benchmark*) = nullptr,
                       bool every_round = true) {
  Workloads().push_back({name, run, args, every_round});
  return 0;
}
#define VX_WORKLOAD(run, ...) \
  [[maybe_unused]] const int run##_added = ::vx::bench::AddWorkload(#run, run, ##__VA_ARGS__)

inline int Main(int argc, char** argv, const std::function<void()>& summary) {
  for (int round = 1; round <= Rounds(); ++round) {
    for (const Workload& w : Workloads()) {
      if (round > 1 && !w.every_round) continue;
      const std::string name = std::string(w.name) + "/round:" + std::to_string(round);
      benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(name.c_str(), w.run);
      if (w.args) w.args(b);
      b->Iterations(w.every_round ? Passes() : 1)->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("\n");
  summary();
  return 0;
}

}  // namespace vx::bench
