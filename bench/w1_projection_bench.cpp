// W1, projection and filter: per row
//   x = a * 2 + 1
//   c = CASE WHEN b > 0.5 THEN 'hi' ELSE 'lo' END
//   sub = substr(s, 2, 3)
//   up = upper(s)
//   flag = a % 3 = 0
// over the deterministic rows of peer_bench.h, by our engine (GetEvaluator,
// Reset, Execute per row), by SQLite (a WITHOUT ROWID table clustered on ts,
// read in that order) and by a plain C++ loop. Prints rows per second of
// each, the ratios, and the engine's allocations per row once warm.
#include "bench/peer_bench.h"

namespace {

using namespace vx;
using namespace vx::bench;

// The CASE is a conditional jump over two branches, as a query compiler
// emits it.
std::string Context() {
  const std::string a = Ref("Input", "In", "a"), b = Ref("Input", "In", "b"),
                    s = Ref("Input", "In", "s");
  return "<ExpressionContext Name=\"w1\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
         InputTuplesXml() +
         "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"x\" Type=\"integer\"/>"
         "<Field Name=\"c\" Type=\"string\"/><Field Name=\"sub\" Type=\"string\"/>"
         "<Field Name=\"up\" Type=\"string\"/><Field Name=\"flag\" Type=\"boolean\"/>"
         "</TupleDescriptor></OutputTuples>"
         "<ConstantTuples><TupleDescriptor Name=\"K\">"
         "<Field Name=\"two\" Type=\"integer\" Default=\"2\"/>"
         "<Field Name=\"one\" Type=\"integer\" Default=\"1\"/>"
         "<Field Name=\"three\" Type=\"integer\" Default=\"3\"/>"
         "<Field Name=\"zero\" Type=\"integer\" Default=\"0\"/>"
         "<Field Name=\"half\" Type=\"float\" Default=\"0.5\"/>"
         "<Field Name=\"hi\" Type=\"string\" Default=\"hi\"/>"
         "<Field Name=\"lo\" Type=\"string\" Default=\"lo\"/>"
         "<Field Name=\"from\" Type=\"integer\" Default=\"2\"/>"
         "<Field Name=\"len\" Type=\"integer\" Default=\"3\"/>"
         "</TupleDescriptor></ConstantTuples>"
         "<TemporaryTuples><TupleDescriptor Name=\"T\"><Field Name=\"gt\" Type=\"boolean\"/>"
         "<Field Name=\"m\" Type=\"integer\"/></TupleDescriptor></TemporaryTuples><Operators>" +
         Op("x2", "MultiplyInteger", a + Ref("Constant", "K", "two"), Ref("Output", "Out", "x")) +
         Op("x1", "AddInteger", Ref("Output", "Out", "x") + Ref("Constant", "K", "one"),
            Ref("Output", "Out", "x")) +
         Op("gt", "GreaterFloat", b + Ref("Constant", "K", "half"), Ref("Temporary", "T", "gt")) +
         Op("when", "IfTrueGotoLabel", Ref("Temporary", "T", "gt"), "", "GotoLabel=\"then\"") +
         Op("else", "ConcatenateString", Ref("Constant", "K", "lo"), Ref("Output", "Out", "c")) +
         Op("end", "GotoLabel", "", "", "GotoLabel=\"next\"") +
         Op("then", "ConcatenateString", Ref("Constant", "K", "hi"), Ref("Output", "Out", "c")) +
         Op("sub", "SubstrString",
            s + Ref("Constant", "K", "from") + Ref("Constant", "K", "len"),
            Ref("Output", "Out", "sub")) +
         Op("up", "UpperString", s, Ref("Output", "Out", "up")) +
         Op("m", "ModuloInteger", a + Ref("Constant", "K", "three"), Ref("Temporary", "T", "m")) +
         Op("flag", "EqualInteger", Ref("Temporary", "T", "m") + Ref("Constant", "K", "zero"),
            Ref("Output", "Out", "flag")) +
         "</Operators><Labels><Label Name=\"then\">then</Label><Label Name=\"next\">sub</Label>"
         "</Labels></ExpressionContext>";
}

const char* const kQuery =
    "SELECT ts, a * 2 + 1, CASE WHEN b > 0.5 THEN 'hi' ELSE 'lo' END, substr(s, 2, 3), "
    "upper(s), a % 3 = 0 FROM w1";

// One output row, reused from row to row as the engine reuses its output
// tuple.
struct Out {
  int32_t x = 0;
  std::string c, sub, up;
  bool flag = false;
};

void PlainRow(const Row& r, Out& o) {
  o.x = r.a * 2 + 1;
  o.c.assign(r.b > 0.5 ? "hi" : "lo");
  o.sub.assign(r.s, 1, 3);
  o.up.assign(r.s);
  for (char& ch : o.up)  // without a branch: the letters' case is random
    ch = static_cast<char>(ch ^ (static_cast<unsigned char>(ch - 'a') < 26) << 5);
  o.flag = r.a % 3 == 0;
}

void Fold(Digest& d, int64_t x, std::string_view c, std::string_view sub, std::string_view up,
          bool flag) {
  d.Int(x);
  d.Text(c.data(), c.size());
  d.Text(sub.data(), sub.size());
  d.Text(up.data(), up.size());
  d.Int(flag);
}

// The plain loop's outputs, against which the others are checked once.
std::vector<Out>& Expected() {
  static std::vector<Out> expected = [] {
    std::vector<Out> v(RowCount());
    for (size_t i = 0; i < v.size(); ++i) PlainRow(Rows()[i], v[i]);
    return v;
  }();
  return expected;
}

void Check(const char* who, size_t i, int64_t x, std::string_view c, std::string_view sub,
           std::string_view up, bool flag) {
  const Out& e = Expected()[i];
  if (x != e.x || c != e.c || sub != e.sub || up != e.up || flag != e.flag)
    Fail(std::string(who) + " differs from the plain loop at row " + std::to_string(i));
}

Engine& GetEngine() {
  static Engine engine(Context(), {});
  return engine;
}

Digest EnginePass(bool check) {
  Engine& e = GetEngine();
  Digest d;
  const size_t n = RowCount();
  for (size_t i = 0; i < n; ++i) {
    const CpxTuple& o = e.Run(e.Tuple(i));
    const int64_t x = OutInt(o, 0);
    const std::string_view c = OutText(o, 1), sub = OutText(o, 2), up = OutText(o, 3);
    const bool flag = CpxTupleField_Boolean::GetValue(&o, 4);
    Fold(d, x, c, sub, up, flag);
    if (check) Check("engine", i, x, c, sub, up, flag);
  }
  return d;
}

void BM_W1_Engine(benchmark::State& state) {
  GetEngine();
  Expected();
  TimeEnginePasses(state, [] {}, EnginePass);
}

Sqlite& GetSqlite() { return PreparedSqlite("w1", "ts", kQuery); }

Digest SqlitePass(bool check) {
  Digest d;
  GetSqlite().Query(kQuery, [&](sqlite3_stmt* st) {
    const int64_t x = sqlite3_column_int64(st, 1);
    const char* c = reinterpret_cast<const char*>(sqlite3_column_text(st, 2));
    const size_t nc = static_cast<size_t>(sqlite3_column_bytes(st, 2));
    const char* sub = reinterpret_cast<const char*>(sqlite3_column_text(st, 3));
    const size_t nsub = static_cast<size_t>(sqlite3_column_bytes(st, 3));
    const char* up = reinterpret_cast<const char*>(sqlite3_column_text(st, 4));
    const size_t nup = static_cast<size_t>(sqlite3_column_bytes(st, 4));
    const bool flag = sqlite3_column_int(st, 5) != 0;
    Fold(d, x, {c, nc}, {sub, nsub}, {up, nup}, flag);
    if (check) Check("sqlite", RowOf(sqlite3_column_int64(st, 0)), x, {c, nc}, {sub, nsub}, {up, nup}, flag);
  });
  return d;
}

void BM_W1_Sqlite(benchmark::State& state) { TimeCheckedPasses(state, "sqlite", SqlitePass); }

void BM_W1_PlainCpp(benchmark::State& state) {
  const std::vector<Row>& rows = Rows();
  Expected();
  TimePasses(state, "plain", static_cast<double>(rows.size()), [&] {
    Digest d;
    Out o;
    for (const Row& r : rows) {
      PlainRow(r, o);
      Fold(d, o.x, o.c, o.sub, o.up, o.flag);
    }
    return d;
  });
}

VX_WORKLOAD(BM_W1_Engine);
VX_WORKLOAD(BM_W1_Sqlite);
VX_WORKLOAD(BM_W1_PlainCpp);

void Summary() {
  std::printf("W1 projection and filter, %zu rows, best of %d passes (process CPU time):\n",
              RowCount(), TimedPasses());
  PrintThreeFigures();
  PrintEngineRatios(5, 4);
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, Summary); }
