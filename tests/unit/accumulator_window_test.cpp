// Every accumulator kind over every numeric, time and interval type, fed
// random signed streams: each group keeps a window of its last W rows, and a
// row that leaves the window arrives again as a negative row. NULL inputs are
// mixed in, and now and then a group is drained to zero live rows (which
// drops the group). Every output of every row is checked against a
// recomputation over the group's live rows in this file, written from the
// definitions of the aggregates, not from the engine's code.
//
// The same streams are then run with the persistent store and a restart
// (context dropped, store reopened, state rebuilt from the records alone)
// every few rows, and must give the same outputs; only Last, which keeps
// nothing in the store, starts empty again after a restart.
//
// Two value mixes per type: "small" values, for which every double sum is
// exact whatever the order of additions and retractions, so that the running
// sums of the engine and the recomputation agree to the bit; and "wide"
// values (type limits, and for Float NaN, infinities and -0), checked on the
// kinds whose result does not depend on the order of arithmetic (wrapping
// integer sums, order statistics, counts), and on all kinds for Integer,
// whose double sums stay exact.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <deque>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/storage.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
using Rng = std::mt19937_64;

int64_t Uniform(Rng& rng, int64_t lo, int64_t hi) {
  return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
}
bool Chance(Rng& rng, int percent) { return Uniform(rng, 0, 99) < percent; }

// ---- value types ----

template <class V>
V Pick(Rng& rng, std::initializer_list<V> values) {
  return values.begin()[Uniform(rng, 0, static_cast<int64_t>(values.size()) - 1)];
}

struct IntegerCase {
  using T = int32_t;
  static constexpr const char* kName = "Integer";
  static constexpr const char* kWord = "integer";
  static constexpr bool kTimeLike = false;
  static constexpr bool kWideSumsExact = true;
  static T Small(Rng& rng) { return static_cast<T>(Uniform(rng, -20, 20)); }
  static T Wide(Rng& rng) {
    using L = std::numeric_limits<T>;
    if (Chance(rng, 60)) return Small(rng);
    if (Chance(rng, 50))
      return Pick<T>(rng, {L::min(), L::max(), L::min() + 1, L::max() - 1, 70000});
    return static_cast<T>(Uniform(rng, L::min(), L::max()));
  }
};
struct LongCase {
  using T = int64_t;
  static constexpr const char* kName = "Long";
  static constexpr const char* kWord = "long";
  static constexpr bool kTimeLike = false;
  static constexpr bool kWideSumsExact = false;
  static T Small(Rng& rng) { return Uniform(rng, -20, 20) * 1000003; }
  static T Wide(Rng& rng) {
    using L = std::numeric_limits<T>;
    if (Chance(rng, 60)) return Small(rng);
    if (Chance(rng, 50)) return Pick<T>(rng, {L::min(), L::max(), L::min() + 1, L::max() - 1});
    return Uniform(rng, L::min(), L::max());
  }
};
struct FloatCase {
  using T = double;
  static constexpr const char* kName = "Float";
  static constexpr const char* kWord = "float";
  static constexpr bool kTimeLike = false;
  static constexpr bool kWideSumsExact = false;
  static T Small(Rng& rng) { return static_cast<double>(Uniform(rng, -80, 80)) * 0.25; }
  static T Wide(Rng& rng) {
    using L = std::numeric_limits<T>;
    if (Chance(rng, 60)) return Small(rng);
    return Pick<T>(rng, {L::quiet_NaN(), -L::quiet_NaN(), L::infinity(), -L::infinity(), -0.0,
                         1e300, -1e300, L::denorm_min(), L::max(), L::lowest()});
  }
};
// Time and IntervalD2S: 64-bit microsecond counts; the "wide" mix holds
// present-day times (whose squares wrap) and the limits.
template <const char* Name, const char* Word>
struct MicrosCase {
  using T = int64_t;
  static constexpr const char* kName = Name;
  static constexpr const char* kWord = Word;
  static constexpr bool kTimeLike = true;
  static constexpr bool kWideSumsExact = false;
  static T Small(Rng& rng) { return Uniform(rng, -20, 20) * 250000 + Pick<T>(rng, {0, 0, 1, -1}); }
  static T Wide(Rng& rng) {
    using L = std::numeric_limits<T>;
    if (Chance(rng, 50)) return Small(rng);
    if (Chance(rng, 50)) return Pick<T>(rng, {L::min(), L::max(), L::min() + 1, L::max() - 1});
    return 1704189600000000LL + Uniform(rng, -5, 5) * 1000000;  // 2024-01-02 10:00 +- 5 s
  }
};
constexpr char kTimeName[] = "Time", kTimeWord[] = "time";
constexpr char kIntervalName[] = "IntervalD2S", kIntervalWord[] = "interval";
using TimeCase = MicrosCase<kTimeName, kTimeWord>;
using IntervalCase = MicrosCase<kIntervalName, kIntervalWord>;

// ---- expected values ----

// One output field's value: NULL, an integer (Integer, Long, Time, interval
// and Boolean outputs) or a double (Float outputs; NaN equals NaN).
struct Val {
  bool null = true;
  bool is_double = false;
  int64_t i = 0;
  double d = 0;
  bool operator==(const Val& o) const {
    if (null || o.null) return null == o.null;
    if (is_double != o.is_double) return false;
    if (is_double) return (std::isnan(d) && std::isnan(o.d)) || d == o.d;
    return i == o.i;
  }
};
Val Null() { return {}; }
Val I(int64_t v) { return {false, false, v, 0}; }
Val D(double v) { return {false, true, 0, v}; }
std::string Show(const Val& v) {
  if (v.null) return "NULL";
  if (!v.is_double) return std::to_string(v.i);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", v.d);
  return buf;
}

// The order the accumulators are defined over: the natural one, NaN after
// +infinity and equal to NaN.
template <class T>
bool RefLess(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    if (std::isnan(a)) return false;
    if (std::isnan(b)) return true;
  }
  return a < b;
}
template <class T>
bool RefSame(T a, T b) {
  return !RefLess(a, b) && !RefLess(b, a);
}

// Integer arithmetic of the input type, wrapping (conversions to a signed
// type are modular); doubles as they are.
template <class T>
T WrapPlus(T a, T b) {
  return static_cast<T>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
template <class T>
T WrapTimes(T a, T b) {
  return static_cast<T>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}
double WrapPlus(double a, double b) { return a + b; }
double WrapTimes(double a, double b) { return a * b; }
// Truncation toward zero into a 64-bit count, saturating at the limits.
int64_t Truncate(double v) {
  if (v >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (v <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

template <class C>
Val Value(typename C::T v) {
  if constexpr (std::is_floating_point_v<typename C::T>) {
    return D(v);
  } else {
    return I(v);
  }
}
// A Float result, or for Time and IntervalD2S inputs their 64-bit count.
template <class C>
Val Real(double v) {
  return C::kTimeLike ? I(Truncate(v)) : D(v);
}

template <class T>
std::vector<T> Sorted(std::vector<T> v) {
  std::stable_sort(v.begin(), v.end(), RefLess<T>);
  return v;
}
template <class T>
std::vector<T> Distinct(const std::vector<T>& values) {
  std::vector<T> out;
  for (T v : Sorted(values))
    if (out.empty() || !RefSame(out.back(), v)) out.push_back(v);
  return out;
}
// Distinct values (ascending) and how many live rows carry each.
template <class T>
std::vector<std::pair<T, int>> Counted(const std::vector<T>& values) {
  std::vector<std::pair<T, int>> out;
  for (T v : Sorted(values)) {
    if (!out.empty() && RefSame(out.back().first, v)) {
      ++out.back().second;
    } else {
      out.emplace_back(v, 1);
    }
  }
  return out;
}

template <class C>
Val ExpectSum(const std::vector<typename C::T>& values, bool seen) {
  typename C::T sum{};
  for (auto v : values) sum = WrapPlus(sum, v);
  return seen ? Value<C>(sum) : Null();
}
template <class C>
Val ExpectAvg(const std::vector<typename C::T>& values) {
  if (values.empty()) return Null();
  if constexpr (C::kTimeLike) {
    int64_t sum = 0;
    for (auto v : values) sum = WrapPlus(sum, v);
    return I(Truncate(static_cast<double>(sum) / static_cast<double>(values.size())));
  } else {
    double sum = 0;
    for (auto v : values) sum += static_cast<double>(v);
    return D(sum / static_cast<double>(values.size()));
  }
}
template <class C>
Val ExpectMedian(const std::vector<typename C::T>& values) {
  using T = typename C::T;
  const std::vector<T> s = Sorted(values);
  const size_t n = s.size();
  if (n == 0) return Null();
  if (n % 2 == 1)
    return C::kTimeLike ? I(static_cast<int64_t>(s[n / 2])) : D(static_cast<double>(s[n / 2]));
  const T a = s[n / 2 - 1], b = s[n / 2];
  if constexpr (std::is_floating_point_v<T>) {
    return D((a + b) / 2);
  } else if constexpr (C::kTimeLike) {
    return I(WrapPlus(a, b) / 2);
  } else {
    return D(static_cast<double>(WrapPlus(a, b)) * 0.5);
  }
}
template <class C>
Val ExpectStandardDeviation(const std::vector<typename C::T>& values) {
  if (values.empty()) return Null();
  const double n = static_cast<double>(values.size());
  double sum = 0, squares = 0;
  for (auto v : values) {
    sum += static_cast<double>(v);
    squares += static_cast<double>(WrapTimes(v, v));
  }
  const double d = n * squares - sum * sum;
  return Real<C>(d > 0 ? std::sqrt(d) / n : 0.0);
}
template <class C>
Val ExpectMeanDeviation(const std::vector<typename C::T>& values, bool distinct) {
  if (values.empty()) return Null();
  const auto counted = Counted(values);
  const double n = static_cast<double>(distinct ? counted.size() : values.size());
  double sum = 0;
  for (const auto& [v, k] : counted) sum += static_cast<double>(v) * (distinct ? 1 : k);
  const double mean = sum / n;
  double total = 0;
  for (const auto& [v, k] : counted)
    total += std::fabs(static_cast<double>(v) - mean) * (distinct ? 1 : k);
  return Real<C>(total / n);
}

// ---- the kinds ----

enum class Out { kSame, kMean, kSpread, kInteger, kBoolean };
// When a kind's result on "wide" values is independent of the order of the
// engine's additions and retractions: always; for integer sums (which wrap
// exactly); or only where every double sum is exact.
enum class Wide { kAlways, kIntegerSums, kExactSums };
struct Kind {
  const char* stem;
  Out out;
  Wide wide;
};
const Kind kKinds[] = {
    {"Sum", Out::kSame, Wide::kIntegerSums},
    {"SumDistinct", Out::kSame, Wide::kIntegerSums},
    {"Avg", Out::kMean, Wide::kExactSums},
    {"AvgDistinct", Out::kMean, Wide::kExactSums},
    {"Median", Out::kMean, Wide::kAlways},
    {"MedianDistinct", Out::kMean, Wide::kAlways},
    {"StandardDeviation", Out::kSpread, Wide::kExactSums},
    {"StandardDeviationDistinct", Out::kSpread, Wide::kExactSums},
    {"MeanDeviation", Out::kSpread, Wide::kExactSums},
    {"MeanDeviationDistinct", Out::kSpread, Wide::kExactSums},
    {"Min", Out::kSame, Wide::kAlways},
    {"MinDistinct", Out::kSame, Wide::kAlways},
    {"Max", Out::kSame, Wide::kAlways},
    {"MaxDistinct", Out::kSame, Wide::kAlways},
    {"Last", Out::kSame, Wide::kAlways},
    {"CountDistinct", Out::kInteger, Wide::kAlways},
    {"Count", Out::kInteger, Wide::kAlways},
    {"CountRows", Out::kInteger, Wide::kAlways},
    {"Threshold", Out::kBoolean, Wide::kAlways},
};
constexpr size_t kKindCount = std::size(kKinds);

// One input row: group, value, criteria and threshold, each possibly NULL.
template <class T>
struct Row {
  int32_t group = 0;
  std::optional<T> v;
  std::optional<int32_t> criteria;
  std::optional<T> threshold;
  bool negative = false;
};

// What the recomputation keeps per group: its live rows and the three
// memories that are not a function of them (Sum's "a value was seen", Last's
// value, Threshold's previous value).
template <class T>
struct Group {
  std::deque<Row<T>> live;
  bool seen = false;
  std::optional<T> last;
  std::optional<T> previous;
};

template <class C>
std::vector<Val> Expect(const Group<typename C::T>& g, const Row<typename C::T>& row) {
  using T = typename C::T;
  std::vector<T> values;
  for (const Row<T>& r : g.live)
    if (r.v) values.push_back(*r.v);
  const std::vector<T> distinct = Distinct(values);
  std::vector<Val> out;
  for (const Kind& k : kKinds) {
    const std::string stem = k.stem;
    if (stem == "Sum") {
      out.push_back(ExpectSum<C>(values, g.seen));
    } else if (stem == "SumDistinct") {
      out.push_back(ExpectSum<C>(distinct, g.seen));
    } else if (stem == "Avg") {
      out.push_back(ExpectAvg<C>(values));
    } else if (stem == "AvgDistinct") {
      out.push_back(ExpectAvg<C>(distinct));
    } else if (stem == "Median") {
      out.push_back(ExpectMedian<C>(values));
    } else if (stem == "MedianDistinct") {
      out.push_back(ExpectMedian<C>(distinct));
    } else if (stem == "StandardDeviation") {
      out.push_back(ExpectStandardDeviation<C>(values));
    } else if (stem == "StandardDeviationDistinct") {
      out.push_back(ExpectStandardDeviation<C>(distinct));
    } else if (stem == "MeanDeviation") {
      out.push_back(ExpectMeanDeviation<C>(values, false));
    } else if (stem == "MeanDeviationDistinct") {
      out.push_back(ExpectMeanDeviation<C>(values, true));
    } else if (stem == "Min" || stem == "MinDistinct") {
      out.push_back(distinct.empty() ? Null() : Value<C>(distinct.front()));
    } else if (stem == "Max" || stem == "MaxDistinct") {
      out.push_back(distinct.empty() ? Null() : Value<C>(distinct.back()));
    } else if (stem == "Last") {
      out.push_back(g.last ? Value<C>(*g.last) : Null());
    } else if (stem == "CountDistinct") {
      out.push_back(I(static_cast<int64_t>(distinct.size())));
    } else if (stem == "Count") {
      out.push_back(I(static_cast<int64_t>(values.size())));
    } else if (stem == "CountRows") {
      out.push_back(I(static_cast<int64_t>(g.live.size())));
    } else if (stem == "Threshold") {
      // Computed by Step (it needs the previous value before the row).
      out.push_back(Null());
    }
  }
  return out;
}

// Threshold's output for `row`, `previous` being the group's remembered value.
template <class T>
Val ExpectThreshold(const Row<T>& row, const std::optional<T>& previous) {
  if (!row.criteria || *row.criteria < 0 || *row.criteria > 2) return Null();
  if (!row.v || !row.threshold || row.negative) return Null();
  const T v = *row.v, t = *row.threshold;
  const bool up = v > t && (!previous || *previous <= t);
  const bool down = v < t && (!previous || *previous >= t);
  switch (*row.criteria) {
    case 0:
      return I(up);
    case 1:
      return I(down);
    default:
      return I(previous && (up || down));
  }
}

// The recomputation of a whole stream: the expected outputs of every row.
// `restarts` marks the rows before which the engine restarted (Last forgets).
template <class C>
std::vector<std::vector<Val>> ExpectStream(const std::vector<Row<typename C::T>>& rows,
                                           const std::vector<bool>& restarts, bool grouped) {
  using T = typename C::T;
  std::map<int32_t, Group<T>> groups;
  std::vector<std::vector<Val>> expected;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (restarts[i])
      for (auto& [id, g] : groups) g.last.reset();
    const Row<T>& row = rows[i];
    Group<T>& g = groups[grouped ? row.group : 0];
    const Val threshold = ExpectThreshold(row, g.previous);
    if (!row.negative) {
      g.live.push_back(row);
      if (row.v) {
        g.seen = true;
        g.last = row.v;
      }
      if (threshold.null == false) g.previous = row.v;
    } else {
      // The stream retracts the oldest row of the group's window.
      g.live.pop_front();
    }
    std::vector<Val> out = Expect<C>(g, row);
    out[kKindCount - 1] = threshold;
    expected.push_back(std::move(out));
    if (grouped && g.live.empty()) groups.erase(row.group);  // the group is dropped
  }
  return expected;
}

// A stream of `count` positive rows over `groups` groups with windows of
// `window` rows; a row leaving its window comes back as a negative row just
// before the row that pushes it out, and now and then a group is drained.
template <class C>
std::vector<Row<typename C::T>> MakeStream(uint64_t seed, int count, int groups, int window,
                                           bool wide) {
  using T = typename C::T;
  Rng rng(seed);
  auto value = [&]() -> std::optional<T> {
    if (Chance(rng, 15)) return std::nullopt;
    return wide ? C::Wide(rng) : C::Small(rng);
  };
  std::map<int32_t, std::deque<Row<T>>> windows;
  std::vector<Row<T>> rows;
  for (int i = 0; i < count; ++i) {
    const int32_t g = static_cast<int32_t>(Uniform(rng, 0, groups - 1));
    std::deque<Row<T>>& w = windows[g];
    const bool drain = Chance(rng, 2);
    while (!w.empty() && (drain || static_cast<int>(w.size()) >= window)) {
      Row<T> out = w.front();
      w.pop_front();
      out.negative = true;
      rows.push_back(out);
    }
    Row<T> row;
    row.group = g;
    row.v = value();
    if (!Chance(rng, 5))
      row.criteria = Chance(rng, 95) ? Uniform(rng, 0, 2) : Pick<int32_t>(rng, {-1, 3});
    row.threshold = value();
    rows.push_back(row);
    w.push_back(row);
  }
  return rows;
}

// ---- running the engine ----

template <class C>
std::string OutWord(Out out) {
  switch (out) {
    case Out::kSame:
      return C::kWord;
    case Out::kMean:
      return C::kTimeLike ? C::kWord : "float";
    case Out::kSpread:
      return C::kTimeLike ? "interval" : "float";
    case Out::kInteger:
      return "integer";
    default:
      return "boolean";
  }
}

// In{k, v, c, t} -> Out{one field a kind}; one operator a kind over In.v.
template <class C>
std::string StreamContext() {
  using testing::Op;
  using testing::Ref;
  std::string xml = std::string("<InputTuples><TupleDescriptor Name=\"In\">") +
                    "<Field Name=\"k\" Type=\"integer\"/><Field Name=\"v\" Type=\"" + C::kWord +
                    "\"/><Field Name=\"c\" Type=\"integer\"/><Field Name=\"t\" Type=\"" + C::kWord +
                    "\"/></TupleDescriptor></InputTuples>" +
                    "<OutputTuples><TupleDescriptor Name=\"Out\">";
  for (const Kind& k : kKinds)
    xml += std::string("<Field Name=\"") + k.stem + "\" Type=\"" + OutWord<C>(k.out) + "\"/>";
  xml += "</TupleDescriptor></OutputTuples><Operators>";
  for (const Kind& k : kKinds) {
    const std::string stem = k.stem;
    std::string type = "Accumulator" + stem + C::kName;
    std::string inputs = Ref("Input", "In", "v");
    if (stem == "Count" || stem == "CountRows") type = "Accumulator" + stem;
    if (stem == "Threshold") {
      type = stem + C::kName;
      inputs = Ref("Input", "In", "c") + Ref("Input", "In", "v") + Ref("Input", "In", "t");
    }
    xml += Op(k.stem, type.c_str(), inputs, Ref("Output", "Out", k.stem));
  }
  return testing::ContextXml(xml + "</Operators>");
}

template <class T>
void SetOptional(CpxTuple& t, unsigned pos, const std::optional<T>& v) {
  if (v) {
    t.SetFieldValue(pos, sizeof(T), &*v);
  } else {
    t.ClearFieldValue(pos);
  }
}

Val ReadOutput(const CpxTuple& t, unsigned pos) {
  if (!t.HasFieldValue(pos)) return Null();
  switch (t.GetFieldKind(pos)) {
    case CpxFieldKind::Float:
      return D(CpxTupleField_Float::GetValue(&t, pos));
    case CpxFieldKind::Integer:
      return I(CpxTupleField_Integer::GetValue(&t, pos));
    case CpxFieldKind::Boolean:
      return I(CpxTupleField_Boolean::GetValue(&t, pos));
    default:
      return I(CpxTupleField_Long::GetValue(&t, pos));
  }
}

class AccumulatorStream : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("vx_acc_" + std::to_string(::getpid()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_dir);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  // Runs `rows` through a fresh context; with `restarts`, through the
  // persistent store with a restart before every marked row, committing
  // after every third row and before each restart (so that a commit often
  // holds a row that leaves and one that arrives). Returns every row's
  // outputs.
  template <class C>
  std::vector<std::vector<Val>> Run(const std::vector<Row<typename C::T>>& rows, bool grouped,
                                    const std::vector<bool>* restarts) {
    testing::TestParent parent(grouped ? std::vector<std::string>{"k"}
                                       : std::vector<std::string>{});
    testing::QuietLog quiet;  // out-of-range criteria are logged
    const std::string xml = StreamContext<C>();
    std::unique_ptr<CpxPersistentStorageManager> store;
    CpxPersistentStorageMessageCache cache;
    CpxPersistentStorageKey key;
    key.AppendBlock(3, "acc");
    Ptr<CpxExpressionContext_Engine> ctx;
    if (restarts) CpxPersistentStorageManager::Destroy(m_dir.string());
    std::vector<std::vector<Val>> outputs;
    bool batch_open = false;
    for (size_t i = 0; i < rows.size(); ++i) {
      if (!ctx || (restarts && (*restarts)[i])) {
        ctx = nullptr;
        store.reset();
        ctx = testing::Load(xml, &parent);
        if (restarts) {
          store = CpxPersistentStorageManager::Open("BASIC", m_dir.string());
          cache = CpxPersistentStorageMessageCache();
          ctx->InitializeEvaluators(nullptr, &store->GetBatch(), key, &cache, store.get());
          ctx->RestoreMessages();
        } else {
          ctx->InitializeEvaluators();
        }
      }
      const Row<typename C::T>& r = rows[i];
      Ptr<CpxTuple> in = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
      CpxTupleField_Integer::SetValue(*in, 0, r.group);
      SetOptional(*in, 1, r.v);
      SetOptional(*in, 2, r.criteria);
      SetOptional(*in, 3, r.threshold);
      in->SetTupleType(r.negative ? Message::kNegative : Message::kPositive);
      if (store && !batch_open) {
        store->StartBatch();
        batch_open = true;
      }
      Ptr<CpxExpressionEvaluator_Engine> ev = testing::RunRow(*ctx, in);
      if (store && (i % 3 == 2 || i + 1 == rows.size() || (*restarts)[i + 1])) {
        store->EndBatch();
        batch_open = false;
      }
      const CpxTuple& out = *ev->GetOutputTuples()->GetObjectByPos(0);
      std::vector<Val> values;
      for (unsigned f = 0; f < kKindCount; ++f) values.push_back(ReadOutput(out, f));
      outputs.push_back(std::move(values));
    }
    return outputs;
  }

  // Runs the stream plainly and split by restarts, checking both against
  // the recomputation.
  template <class C>
  void Check(uint64_t seed, int count, int groups, int window, bool wide, bool grouped = true,
             int restart_every = 500) {
    const auto rows = MakeStream<C>(seed, count, groups, window, wide);
    Rng rng(seed ^ 0x5eed);
    std::vector<bool> none(rows.size(), false), restarts(rows.size(), false);
    for (size_t i = 0; i < rows.size(); i += static_cast<size_t>(Uniform(rng, 1, restart_every)))
      restarts[i] = true;
    auto checked = [&](const Kind& k) {
      switch (k.wide) {
        case Wide::kAlways:
          return true;
        case Wide::kIntegerSums:
          return !wide || std::is_integral_v<typename C::T>;
        default:
          return !wide || C::kWideSumsExact;
      }
    };
    for (bool split : {false, true}) {
      const auto expected = ExpectStream<C>(rows, split ? restarts : none, grouped);
      const auto actual = Run<C>(rows, grouped, split ? &restarts : nullptr);
      ASSERT_EQ(actual.size(), expected.size());
      int failures = 0;
      for (size_t i = 0; i < rows.size() && failures < 10; ++i) {
        for (size_t k = 0; k < kKindCount; ++k) {
          if (!checked(kKinds[k])) continue;
          if (actual[i][k] == expected[i][k]) continue;
          ++failures;
          ADD_FAILURE() << C::kName << (split ? " with restarts" : "") << ", row " << i
                        << " (group " << rows[i].group << (rows[i].negative ? ", negative" : "")
                        << "): " << kKinds[k].stem << " is " << Show(actual[i][k]) << ", expected "
                        << Show(expected[i][k]);
        }
      }
    }
  }

  fs::path m_dir;
};

// Windows of 5 rows over 6 groups, small values: every kind, every type.
TEST_F(AccumulatorStream, SmallValuesInGroupedWindows) {
  Check<IntegerCase>(11, 1500, 6, 5, false);
  Check<LongCase>(12, 1500, 6, 5, false);
  Check<FloatCase>(13, 1500, 6, 5, false);
  Check<TimeCase>(14, 1500, 6, 5, false);
  Check<IntervalCase>(15, 1500, 6, 5, false);
}

// Type limits (and NaN, infinities, -0 for Float): sums wrap, order
// statistics and counts hold their total order.
TEST_F(AccumulatorStream, WideValuesInGroupedWindows) {
  Check<IntegerCase>(21, 1500, 4, 6, true);
  Check<LongCase>(22, 1500, 4, 6, true);
  Check<FloatCase>(23, 1500, 4, 6, true);
  Check<TimeCase>(24, 1500, 4, 6, true);
  Check<IntervalCase>(25, 1500, 4, 6, true);
}

// One window over the whole stream of an ungrouped context, never dropped.
TEST_F(AccumulatorStream, UngroupedWindow) {
  Check<IntegerCase>(31, 800, 1, 9, true, false);
  Check<FloatCase>(32, 800, 1, 9, false, false);
  Check<TimeCase>(33, 800, 1, 9, false, false);
}

// Windows of one row: every retraction empties and drops its group, whose
// next row starts from a new state (Sum NULL again, no Last, no previous
// Threshold value).
TEST_F(AccumulatorStream, OneRowWindowsDropTheirGroups) {
  Check<LongCase>(41, 600, 3, 1, false);
  Check<IntervalCase>(42, 600, 3, 1, true);
}

// Large windows: many distinct values per group, and (window 700) a long
// run of arrivals before the first row leaves, so values that Min and Max
// keep waiting are entered in several batches first.
TEST_F(AccumulatorStream, LargeWindows) {
  Check<IntegerCase>(51, 3000, 2, 200, false, true, 2000);
  Check<FloatCase>(52, 3000, 2, 200, true, true, 2000);
  Check<FloatCase>(53, 2500, 1, 700, true, true, 2000);
}

// A restart before every row.
TEST_F(AccumulatorStream, RestartBeforeEveryRow) {
  Check<IntegerCase>(61, 50, 3, 4, true, true, 1);
}

}  // namespace
}  // namespace vx
