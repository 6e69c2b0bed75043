// Accumulator kinds one by one: the formulas' corner cases, NULL inputs, the
// extra-negative reports with each kind's "method" text and the state they
// leave, the items each kind saves and deletes in the store, load-time
// parameter checks and Threshold's texts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_accumulators.h"
#include "support/storage.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

namespace fs = std::filesystem;
using testing::ContextXml;
using testing::Op;
using testing::Ref;

// One accumulator in an ungrouped context: In.v (type `in`) -> Out.r (type
// `out`), optionally writing to a persistent store. Rows are given as text
// (std::nullopt for NULL); each returns the output's text or "NULL".
class Acc {
 public:
  Acc(const std::string& type, const std::string& in, const std::string& out,
      CpxPersistentStorageManager* store = nullptr)
      : m_store(store) {
    m_ctx = testing::Load(ContextXml(
        "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"v\" Type=\"" + in +
        "\"/></TupleDescriptor></InputTuples><OutputTuples><TupleDescriptor Name=\"Out\">"
        "<Field Name=\"r\" Type=\"" +
        out + "\"/></TupleDescriptor></OutputTuples><Operators>" +
        Op("acc", type.c_str(), Ref("Input", "In", "v"), Ref("Output", "Out", "r")) +
        "</Operators>"));
    if (store) {
      CpxPersistentStorageKey key;
      key.AppendBlock(3, "acc");
      m_ctx->InitializeEvaluators(nullptr, &store->GetBatch(), key, &m_cache, store);
    } else {
      m_ctx->InitializeEvaluators();
    }
  }
  std::string Row(std::optional<std::string> value, int sign) {
    if (m_store) m_store->StartBatch();
    const std::string out = Run(std::move(value), sign);
    if (m_store) m_store->EndBatch();
    return out;
  }
  // Runs `rows` (value, sign) in one batch; returns the bytes committed, or
  // drops the batch unwritten when `commit` is false.
  size_t Batch(const std::vector<std::pair<std::string, int>>& rows, bool commit = true) {
    m_store->StartBatch();
    for (const auto& [value, sign] : rows) Run(value, sign);
    return commit ? m_store->EndBatch() : 0;
  }
  std::string Add(std::optional<std::string> v) { return Row(std::move(v), Message::kPositive); }
  std::string Remove(std::optional<std::string> v) { return Row(std::move(v), Message::kNegative); }
  // Adds each value in turn; returns the last output.
  std::string AddAll(std::initializer_list<const char*> values) {
    std::string last;
    for (const char* v : values) last = Add(v);
    return last;
  }

  // The report of a retraction that must fail: "method/elem" for the
  // extra-negative message, the literal text for the counters' message.
  std::string Fail(std::optional<std::string> v) {
    testing::QuietLog quiet;
    try {
      const std::string out = Remove(std::move(v));
      return "no failure, output " + out;
    } catch (const ExceptionType& e) {
      const LogMessage& m = e.GetMessage();
      if (const std::string* method = m.FindValue("method")) {
        EXPECT_STREQ(m.GetId(), "VX_SERVER_EXTRA_NEGATIVE_TUPLE_REMOVE_REQUEST");
        return *method + "/" + *m.FindValue("elem");
      }
      return std::string(m.GetSite()->GetText()) + " m_counter=" + *m.FindValue("m_counter");
    }
  }
  // Reads the state back from the store (a restart).
  void Restore() { m_ctx->RestoreMessages(); }

 private:
  std::string Run(std::optional<std::string> value, int sign) {
    Ptr<CpxTuple> in = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    if (value) {
      EXPECT_TRUE(SetFieldFromText(*in, 0, *value)) << *value;
    }
    in->SetTupleType(sign);
    return testing::OutputText(*testing::RunRow(*m_ctx, in));
  }

  Ptr<CpxExpressionContext_Engine> m_ctx;
  CpxPersistentStorageManager* m_store;
  CpxPersistentStorageMessageCache m_cache;
};

const std::nullopt_t kNull = std::nullopt;

// The formulas row by row are in the XML suites (tests/suites/accumulators);
// this file holds what they cannot show: the report texts, the state a failed
// retraction leaves in memory, and in-memory behaviour that a restart would
// hide.

// ---- extra retractions: "method" and "elem" ----

TEST(AccumulatorExtraNegative, EveryKindNamesItself) {
  struct Case {
    const char* type;
    const char* in;
    const char* out;
    std::vector<const char*> added;
    const char* removed;
    const char* report;
  };
  const Case cases[] = {
      {"AccumulatorSumInteger", "integer", "integer", {"5"}, "0", "Accumulator_Sum/0"},
      {"AccumulatorSumDistinctLong", "long", "long", {"5"}, "7", "Accumulator_SumDistinct/7"},
      {"AccumulatorAvgFloat", "float", "float", {}, "2.5", "AvgAccumulator/2.5"},
      {"AccumulatorAvgDistinctTime",
       "time",
       "time",
       {"@1"},
       "2024-01-02 10:00:00",
       "AvgDistinct/2024-01-02 10:00:00"},
      {"AccumulatorMedianInteger", "integer", "float", {"1", "2"}, "4", "Median/4"},
      {"AccumulatorMedianDistinctIntervalD2S",
       "interval",
       "interval",
       {},
       "0 00:00:01",
       "MedianDistinct/0 00:00:01.000000"},
      {"AccumulatorStandardDeviationLong",
       "long",
       "float",
       {},
       "1",
       "Accumulator_StandardDeviation/1"},
      {"AccumulatorStandardDeviationLong", "long", "float", {"1"}, "2", "StandardDeviation/2"},
      {"AccumulatorStandardDeviationDistinctFloat",
       "float",
       "float",
       {},
       "1",
       "Accumulator_StandardDeviation_Distinct/1"},
      {"AccumulatorStandardDeviationDistinctFloat",
       "float",
       "float",
       {"1"},
       "2",
       "Accumulator_StandardDeviation_Deviation/2"},
      {"AccumulatorMeanDeviationTime",
       "time",
       "interval",
       {},
       "@0",
       "MeanDeviation/1970-01-01 00:00:00"},
      {"AccumulatorMeanDeviationDistinctInteger",
       "integer",
       "float",
       {"1"},
       "2",
       "MeanDeviationDistinct/2"},
      {"AccumulatorMinInteger", "integer", "integer", {"3"}, "1", "Accumulator_Min/1"},
      {"AccumulatorMinDistinctIntervalD2S",
       "interval",
       "interval",
       {},
       "0 00:00:01",
       "Accumulator_MinDistinct/0 00:00:01.000000"},
      {"AccumulatorMaxFloat", "float", "float", {"1"}, "nan", "Accumulator_Max/nan"},
      {"AccumulatorMaxDistinctString", "string", "string", {"x"}, "X", "Accumulator_MaxDistinct/X"},
      {"AccumulatorCountDistinctBlob",
       "blob",
       "integer",
       {"00"},
       "0a",
       "Accumulator_CountDistinct/0A"},
      {"AccumulatorCountDistinctBoolean",
       "boolean",
       "integer",
       {"true"},
       "false",
       "Accumulator_CountDistinct/false"},
      {"AccumulatorCount",
       "string",
       "integer",
       {},
       "x",
       "Negative count should never happen! m_counter=0"},
      {"AccumulatorCountRows",
       "integer",
       "integer",
       {},
       "1",
       "Negative count should never happen! m_counter=0"},
  };
  for (const Case& c : cases) {
    Acc acc(c.type, c.in, c.out);
    for (const char* v : c.added) acc.Add(v);
    EXPECT_EQ(acc.Fail(c.removed), c.report) << c.type;
  }
  // CountRows counts NULL rows, so it questions a NULL retraction too.
  Acc rows("AccumulatorCountRows", "integer", "integer");
  EXPECT_EQ(rows.Fail(kNull), "Negative count should never happen! m_counter=0");
}

// ---- what a failed retraction leaves ----

TEST(AccumulatorExtraNegative, SumKeepsItsZeroCountChanged) {
  Acc sum("AccumulatorSumInteger", "integer", "integer");
  EXPECT_EQ(sum.Add(kNull), "NULL");
  EXPECT_EQ(sum.Fail("0"), "Accumulator_Sum/0");
  // The zero count stays at -1, so the state is no longer "nothing seen".
  EXPECT_EQ(sum.Add(kNull), "0");
  Acc distinct("AccumulatorSumDistinctInteger", "integer", "integer");
  EXPECT_EQ(distinct.Fail("0"), "Accumulator_SumDistinct/0");
  EXPECT_EQ(distinct.Add(kNull), "0");
}

TEST(AccumulatorExtraNegative, PlainDeviationsKeepTheirScalarsChanged) {
  Acc sd("AccumulatorStandardDeviationInteger", "integer", "float");
  EXPECT_EQ(sd.AddAll({"1", "2"}), "0.5");
  // count 1, sum -4, squares -44: d < 0, so the result is 0.
  EXPECT_EQ(sd.Fail("7"), "StandardDeviation/7");
  EXPECT_EQ(sd.Add(kNull), "0");
  Acc md("AccumulatorMeanDeviationInteger", "integer", "float");
  EXPECT_EQ(md.AddAll({"1", "2"}), "0.5");
  EXPECT_EQ(md.Fail("7"), "MeanDeviation/7");
  EXPECT_EQ(md.Add(kNull), "11");  // count 1, mean -4: |1 + 4| + |2 + 4|
  // The Distinct forms look the value up first and change nothing.
  Acc sdd("AccumulatorStandardDeviationDistinctInteger", "integer", "float");
  EXPECT_EQ(sdd.AddAll({"1", "2"}), "0.5");
  EXPECT_EQ(sdd.Fail("7"), "Accumulator_StandardDeviation_Deviation/7");
  EXPECT_EQ(sdd.Add(kNull), "0.5");
}

TEST(AccumulatorExtraNegative, OtherKindsChangeNothing) {
  Acc avg("AccumulatorAvgInteger", "integer", "float");
  EXPECT_EQ(avg.Fail("3"), "AvgAccumulator/3");
  EXPECT_EQ(avg.Add(kNull), "NULL");
  Acc median("AccumulatorMedianInteger", "integer", "float");
  EXPECT_EQ(median.AddAll({"1", "2", "4"}), "2");
  EXPECT_EQ(median.Fail("3"), "Median/3");
  EXPECT_EQ(median.Add(kNull), "2");
  Acc count("AccumulatorCountDistinctString", "string", "integer");
  EXPECT_EQ(count.AddAll({"a", "a"}), "1");
  EXPECT_EQ(count.Fail("b"), "Accumulator_CountDistinct/b");
  EXPECT_EQ(count.Remove("a"), "1");
  EXPECT_EQ(count.Remove("a"), "0");
}

// Avg questions only its count: a value it never saw is retracted as given.
TEST(AccumulatorAvg, RetractsWhatItIsGivenWhileItCounts) {
  Acc avg("AccumulatorAvgInteger", "integer", "float");
  EXPECT_EQ(avg.AddAll({"1", "2"}), "1.5");
  EXPECT_EQ(avg.Remove("7"), "-4");  // (1 + 2 - 7) / 1
  EXPECT_EQ(avg.Remove("1"), "NULL");
  EXPECT_EQ(avg.Add("4"), "-1");  // (1 + 2 - 7 - 1 + 4) / 1
}

// ---- NaN, zeros and rounding ----

TEST(AccumulatorFloat, NaNIsOneValueAboveInfinity) {
  Acc count("AccumulatorCountDistinctFloat", "float", "integer");
  EXPECT_EQ(count.AddAll({"nan", "-nan", "0", "-0", "1"}), "3");  // NaNs are one value, zeros one
  EXPECT_EQ(count.Remove("-nan"), "3");
  EXPECT_EQ(count.Remove("nan"), "2");
  Acc median("AccumulatorMedianFloat", "float", "float");
  EXPECT_EQ(median.AddAll({"1.5", "2.5", "nan", "inf"}), "inf");  // 1.5 2.5 inf nan
  EXPECT_EQ(median.Remove("nan"), "2.5");
  Acc sd("AccumulatorStandardDeviationFloat", "float", "float");
  EXPECT_EQ(sd.AddAll({"1", "nan"}), "0");  // d is NaN, not above 0
  EXPECT_EQ(sd.Remove("nan"), "0");         // found in the map: no report
  Acc md("AccumulatorMeanDeviationFloat", "float", "float");
  EXPECT_EQ(md.AddAll({"1", "nan", "nan"}), "nan");
  EXPECT_EQ(md.Remove("nan"), "nan");
  EXPECT_EQ(md.Remove("nan"), "nan");  // the running sum stays NaN
  EXPECT_EQ(md.Fail("nan"), "MeanDeviation/nan");
  Acc single("AccumulatorStandardDeviationFloat", "float", "float");
  EXPECT_EQ(single.Add("0.1"), "0");  // 0.1^2 - 0.1^2 rounds to 0 or below: exactly 0
  Acc mean("AccumulatorMeanDeviationInteger", "integer", "float");
  EXPECT_EQ(mean.AddAll({"1", "2", "3", "6"}), "1.5");
}

// ---- in memory only ----

// Last keeps nothing in the store, so the suites (which restart before
// every row under the store) cannot show what it remembers between rows.
TEST(AccumulatorLast, KeepsTheLastPositiveValue) {
  Acc last("AccumulatorLastInteger", "integer", "integer");
  EXPECT_EQ(last.Add(kNull), "NULL");
  EXPECT_EQ(last.Remove("4"), "NULL");  // never questioned, never undone
  EXPECT_EQ(last.Add("5"), "5");
  EXPECT_EQ(last.Remove("5"), "5");
  EXPECT_EQ(last.Add(kNull), "5");
  Acc text("AccumulatorLastString", "string", "string");
  EXPECT_EQ(text.AddAll({"first", "second"}), "second");
  EXPECT_EQ(text.Add(kNull), "second");  // kept as a copy, not a view of the row
}

// A tuple type other than positive or negative changes no state.
TEST(AccumulatorFramework, OtherSignsChangeNothing) {
  Acc sum("AccumulatorSumInteger", "integer", "integer");
  EXPECT_EQ(sum.Add("2"), "2");
  EXPECT_EQ(sum.Row("5", 2), "2");
  Acc count("AccumulatorCountRows", "integer", "integer");
  EXPECT_EQ(count.Row("5", 7), "0");
}

// ---- load-time shape ----

std::string LoadError(const std::string& type, const std::string& inputs,
                      const std::string& outputs) {
  testing::QuietLog quiet;
  try {
    testing::Load(ContextXml(
        "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"i\" Type=\"integer\"/>"
        "<Field Name=\"f\" Type=\"float\"/></TupleDescriptor></InputTuples>"
        "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"i\" Type=\"integer\"/>"
        "<Field Name=\"f\" Type=\"float\"/><Field Name=\"b\" Type=\"boolean\"/>"
        "</TupleDescriptor></OutputTuples><Operators>" +
        Op("acc", type.c_str(), inputs, outputs) + "</Operators>"));
  } catch (const ExceptionType& e) {
    return e.GetMessage().GetId();
  }
  return "loaded";
}

TEST(AccumulatorFramework, ParameterShapeIsCheckedAtLoad) {
  const std::string i = Ref("Input", "In", "i"), f = Ref("Input", "In", "f");
  const std::string oi = Ref("Output", "Out", "i"), of = Ref("Output", "Out", "f"),
                    ob = Ref("Output", "Out", "b");
  EXPECT_EQ(LoadError("AccumulatorAvgInteger", i, of), "loaded");
  EXPECT_EQ(LoadError("AccumulatorAvgInteger", i + i, of),
            "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS");
  EXPECT_EQ(LoadError("AccumulatorSumInteger", "", oi),
            "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS");
  EXPECT_EQ(LoadError("AccumulatorSumInteger", i, oi + oi),
            "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS");
  EXPECT_EQ(LoadError("AccumulatorAvgInteger", i, oi), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("AccumulatorSumInteger", f, oi),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("AccumulatorCountDistinctFloat", f, of),
            "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("AccumulatorCount", f, oi), "loaded");  // untyped input
  EXPECT_EQ(LoadError("AccumulatorCountRows", f, of), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("ThresholdFloat", i + f + f, ob), "loaded");
  EXPECT_EQ(LoadError("ThresholdFloat", i + f, ob),
            "VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS");
  EXPECT_EQ(LoadError("ThresholdFloat", f + f + f, ob),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("ThresholdFloat", i + i + f, ob),
            "VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadError("ThresholdInteger", i + i + i, oi), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
}

// ---- Threshold ----

// Criteria, value and threshold from one row; output text or "NULL".
class ThresholdRows {
 public:
  ThresholdRows() {
    m_ctx = testing::Load(ContextXml(
        "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"c\" Type=\"integer\"/>"
        "<Field Name=\"v\" Type=\"long\"/><Field Name=\"t\" Type=\"long\"/></TupleDescriptor>"
        "</InputTuples><OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"r\" "
        "Type=\"boolean\"/></TupleDescriptor></OutputTuples><Operators>" +
        Op("th", "ThresholdLong",
           Ref("Input", "In", "c") + Ref("Input", "In", "v") + Ref("Input", "In", "t"),
           Ref("Output", "Out", "r")) +
        "</Operators>"));
    m_ctx->InitializeEvaluators();
  }
  std::string Row(std::optional<int> c, std::optional<int> v, std::optional<int> t,
                  int sign = Message::kPositive) {
    Ptr<CpxTuple> in = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    if (c) CpxTupleField_Integer::SetValue(*in, 0, *c);
    if (v) CpxTupleField_Long::SetValue(*in, 1, *v);
    if (t) CpxTupleField_Long::SetValue(*in, 2, *t);
    in->SetTupleType(sign);
    return testing::OutputText(*testing::RunRow(*m_ctx, in));
  }

 private:
  Ptr<CpxExpressionContext_Engine> m_ctx;
};

// The rows' results are in the Threshold suite; here, another sign and the
// logged texts.
TEST(Threshold, OtherSignsAndBadCriteria) {
  ThresholdRows th;
  EXPECT_EQ(th.Row(0, 15, 10), "true");
  EXPECT_EQ(th.Row(0, 5, 10, 2), "false");  // another sign: a result, nothing remembered
  EXPECT_EQ(th.Row(0, 20, 10), "false");    // previous is still 15

  std::vector<std::string> logged;
  LogManager::Sink previous =
      LogManager::Instance().SetSink([&](const LogMessage& m) { logged.push_back(m.GetText()); });
  EXPECT_EQ(th.Row(3, 5, 10), "NULL");
  EXPECT_EQ(th.Row(-1, 5, 10), "NULL");
  LogManager::Instance().SetSink(std::move(previous));
  ASSERT_EQ(logged.size(), 2u);
  EXPECT_EQ(logged[0],
            "Invalid value for Threshold criteria! Only UP, DOWN or ANY allowed (1,2,3). Found 3.");
  EXPECT_EQ(
      logged[1],
      "Invalid value for Threshold criteria! Only UP, DOWN or ANY allowed (1,2,3). Found -1.");
}

TEST(Threshold, GetResultReportsCriteriaOutOfRange) {
  std::vector<std::string> logged;
  LogManager::Sink previous =
      LogManager::Instance().SetSink([&](const LogMessage& m) { logged.push_back(m.GetText()); });
  CpxExpressionOperatorState_Engine_Threshold<CpxTupleField_Float> state;
  EXPECT_FALSE(state.GetResult(5, 1, 7));
  state.Remember(nullptr, 0.5);
  EXPECT_FALSE(state.GetResult(5, 1, -2));
  EXPECT_TRUE(state.GetResult(5, 1, 0));
  EXPECT_FALSE(state.GetResult(std::nan(""), 1, 2));
  LogManager::Instance().SetSink(std::move(previous));
  ASSERT_EQ(logged.size(), 2u);
  EXPECT_EQ(logged[0],
            "\nInvalid Threshold request on initial value! Should be UP, DOWN or ANY as 0, 1, 2 "
            "but received 7.");
  EXPECT_EQ(logged[1],
            "\nInvalid Threshold request! Should be UP, DOWN or ANY as 0, 1, 2 but received -2.");
}

// ---- shared count tables ----

// Accumulators that count the values of one input share a table, a
// table's four columns to a group; kinds that keep no hashed counts, or an
// input read by one accumulator only, keep their own.
TEST(AccumulatorSharedCounts, SameInputAccumulatorsAreGrouped) {
  auto acc = [](const char* name, const char* type, const char* field, const char* out) {
    return Op(name, type, Ref("Input", "In", field), Ref("Output", "Out", out));
  };
  Ptr<CpxExpressionContext_Engine> ctx = testing::Load(ContextXml(
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"v\" Type=\"float\"/>"
      "<Field Name=\"w\" Type=\"float\"/></TupleDescriptor></InputTuples>"
      "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"f\" Type=\"float\"/>"
      "<Field Name=\"i\" Type=\"integer\"/></TupleDescriptor></OutputTuples><Operators>" +
      acc("min", "AccumulatorMinFloat", "v", "f") + acc("max", "AccumulatorMaxFloat", "v", "f") +
      acc("sum", "AccumulatorSumFloat", "v", "f") + acc("median", "AccumulatorMedianFloat", "v", "f") +
      acc("dev", "AccumulatorStandardDeviationFloat", "v", "f") +
      acc("min_w", "AccumulatorMinFloat", "w", "f") +
      acc("distinct", "AccumulatorCountDistinctFloat", "v", "i") +
      acc("max_again", "AccumulatorMaxFloat", "v", "f") +
      acc("avg_distinct", "AccumulatorAvgDistinctFloat", "v", "f") + "</Operators>"));
  ctx->InitializeEvaluators();
  std::vector<std::string> shares;
  for (unsigned p = 0; p < ctx->GetOperatorCount(); ++p) {
    const auto share = ctx->GetCountsShare(p);
    shares.push_back(share.group < 0 ? "own"
                                     : std::to_string(share.group) + "." + std::to_string(share.column));
  }
  EXPECT_EQ(shares, (std::vector<std::string>{"0.0", "0.1", "own", "own", "0.2", "own", "0.3", "1.0",
                                              "1.1"}));
  EXPECT_EQ(ctx->GetCountsShareGroups(), 2u);
}

// ---- stored items ----

class AccumulatorStore : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = fs::temp_directory_path() /
            ("vx_acc_items_" + std::to_string(::getpid()) + "_" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_dir);
    m_store = CpxPersistentStorageManager::Open("BASIC", m_dir.string());
  }
  void TearDown() override {
    m_store.reset();
    fs::remove_all(m_dir);
  }
  // An empty store in place of the current one.
  void Fresh() {
    m_store.reset();
    CpxPersistentStorageManager::Destroy(m_dir.string());
    m_store = CpxPersistentStorageManager::Open("BASIC", m_dir.string());
  }

  // The stored records of the (ungrouped) test context, each as
  // "item:value" or "item[sub]:count" (a counted value's record, its key
  // block shown as text), in store order.
  std::vector<std::string> Records() const {
    struct Collect : MessageProcessor {
      std::vector<std::string> records;
      void Process(const CpxPersistentStorageMessage_Put& m) override {
        const CpxPersistentStorageKey& key = m.GetKey();
        // ctx key, grouped flag, operator number, item number, [sub], value
        uint32_t item = 0;
        key.GetTypedValue(3, item);
        std::string record = std::to_string(item);
        std::string_view sub;
        if (key.GetValuesNumber() == 6 && key.FindBlock(4, sub)) record += "[" + Hex(sub) + "]";
        records.push_back(record + ":" + Hex(key.GetRawValue()));
      }
    } collect;
    CpxPersistentStorageKey key;
    key.AppendBlock(3, "acc");
    m_store->GetMessages(key, collect);
    return collect.records;
  }
  // Bytes as hexadecimal, or as text when every byte is a letter.
  static std::string Hex(std::string_view bytes) {
    bool text = !bytes.empty();
    for (char c : bytes) text = text && std::isalpha(static_cast<unsigned char>(c));
    return text ? std::string(bytes) : CpxTupleField_Blob::ToHexString(bytes);
  }

  fs::path m_dir;
  std::unique_ptr<CpxPersistentStorageManager> m_store;
};

// Each sharer of a count table keeps its own counts and its own first form
// of a value: a jump that keeps rows from one Min leaves its results those
// of a table of its own, -0 and 0 included, also when the store holds the
// tables (written whole, or as a reference to a column with the same
// counts) and the context is restarted before every row.
TEST_F(AccumulatorStore, SharedTablesKeepEachSharersOwnRows) {
  const std::string xml = ContextXml(
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"skip\" Type=\"boolean\"/>"
      "<Field Name=\"v\" Type=\"float\"/></TupleDescriptor></InputTuples>"
      "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"some\" Type=\"float\"/>"
      "<Field Name=\"all\" Type=\"float\"/><Field Name=\"n\" Type=\"integer\"/>"
      "</TupleDescriptor></OutputTuples>"
      "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"p2\" Type=\"integer\" "
      "Default=\"2\"/></TupleDescriptor></ConstantTuples><Operators>" +
      Op("jump", "IfTrueGoto", Ref("Input", "In", "skip") + Ref("Constant", "K", "p2"), "") +
      Op("some", "AccumulatorMinFloat", Ref("Input", "In", "v"), Ref("Output", "Out", "some")) +
      Op("all", "AccumulatorMinFloat", Ref("Input", "In", "v"), Ref("Output", "Out", "all")) +
      Op("n", "AccumulatorCountDistinctFloat", Ref("Input", "In", "v"), Ref("Output", "Out", "n")) +
      "</Operators>");
  {
    Ptr<CpxExpressionContext_Engine> ctx = testing::Load(xml);
    ctx->InitializeEvaluators();
    ASSERT_EQ(ctx->GetCountsShare(1).group, 0);
    ASSERT_EQ(ctx->GetCountsShare(3).group, 0);
  }
  struct Step {
    bool skip;
    const char* v;
    int sign;
    const char* out;  // some, all, n
  };
  const Step steps[] = {
      {true, "-0.0", Message::kPositive, "NULL -0 1"},  // "some" does not run: NULL
      {false, "5", Message::kPositive, "5 -0 2"},
      {false, "5", Message::kNegative, "NULL -0 1"},
      {false, "0.0", Message::kPositive, "0 -0 1"},  // the slot holds -0: "some" added 0
      {false, "-1", Message::kPositive, "-1 -1 2"},
      {false, "-1", Message::kNegative, "0 -0 1"},  // looked up again: still its own 0
      {true, "-0.0", Message::kNegative, "NULL -0 1"},
      {false, "0.0", Message::kNegative, "NULL NULL 0"},
  };
  for (bool restarts : {false, true}) {
    Fresh();
    Ptr<CpxExpressionContext_Engine> ctx;
    CpxPersistentStorageMessageCache cache;
    for (const Step& step : steps) {
      if (!ctx || restarts) {
        ctx = testing::Load(xml);
        cache = CpxPersistentStorageMessageCache();
        CpxPersistentStorageKey key;
        key.AppendBlock(3, "acc");
        ctx->InitializeEvaluators(nullptr, &m_store->GetBatch(), key, &cache, m_store.get());
        ctx->RestoreMessages();
      }
      Ptr<CpxTuple> in = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
      CpxTupleField_Boolean::SetValue(*in, 0, step.skip);
      ASSERT_TRUE(SetFieldFromText(*in, 1, step.v));
      in->SetTupleType(step.sign);
      m_store->StartBatch();
      Ptr<CpxExpressionEvaluator_Engine> ev = testing::RunRow(*ctx, in);
      m_store->EndBatch();
      const std::string got = testing::OutputText(*ev, 0) + " " + testing::OutputText(*ev, 1) +
                              " " + testing::OutputText(*ev, 2);
      EXPECT_EQ(got, step.out) << step.v << (step.skip ? " skipped" : "")
                               << (restarts ? ", restarted" : "");
    }
  }
}

TEST_F(AccumulatorStore, SumSavesSumZeroCountAndFlag) {
  Acc sum("AccumulatorSumInteger", "integer", "integer", m_store.get());
  sum.Add(kNull);
  EXPECT_TRUE(Records().empty());
  sum.Add("0");
  sum.Add("5");
  EXPECT_EQ(Records(), (std::vector<std::string>{"0:05000000", "1:01000000", "2:01"}));
  sum.Remove("0");
  EXPECT_EQ(Records(), (std::vector<std::string>{"0:05000000", "1:00000000", "2:01"}));
}

TEST_F(AccumulatorStore, DistinctEntriesAreSavedAndDeleted) {
  {
    Acc sum("AccumulatorSumDistinctInteger", "integer", "integer", m_store.get());
    sum.AddAll({"5", "5", "7", "9"});
    sum.Remove("7");
    // The small table is one record, item 0: one value held once (9), then
    // 5 with its count 2; 7 is gone.
    EXPECT_EQ(Records(), (std::vector<std::string>{"0:01000000090000000500000002000000",
                                                   "1:0E000000", "2:00000000", "3:01"}));
  }
  {
    // Read back, the table holds 5 twice and 9 once, as before the restart.
    Acc sum("AccumulatorSumDistinctInteger", "integer", "integer", m_store.get());
    sum.Restore();
    EXPECT_EQ(sum.Remove("5"), "14");
    EXPECT_EQ(sum.Remove("9"), "5");
    EXPECT_EQ(sum.Remove("5"), "0");
    EXPECT_ANY_THROW(sum.Remove("5"));
  }
  Fresh();
  Acc text("AccumulatorCountDistinctString", "string", "integer", m_store.get());
  text.AddAll({"b", "a", "b"});
  text.Remove("a");
  EXPECT_EQ(Records(), (std::vector<std::string>{"0:01000000", "1[b]:02000000"}));
  Fresh();
  Acc blob("AccumulatorCountDistinctBlob", "blob", "integer", m_store.get());
  blob.AddAll({"00FF", "00ff"});
  EXPECT_EQ(Records(), (std::vector<std::string>{"0:01000000", "1[00FF]:02000000"}));
}

// An item back at the value the store holds is not written again, also
// after a batch that was dropped unwritten; a restart reads what memory has.
TEST_F(AccumulatorStore, ItemsBackAtTheirStoredValueAreNotWrittenAgain) {
  const int kIn = Message::kPositive, kOut = Message::kNegative;
  {
    Acc count("AccumulatorCount", "long", "integer", m_store.get());
    count.Add("3");
    // One row leaves and one arrives: the counter is 1 again, as stored.
    EXPECT_EQ(count.Batch({{"3", kOut}, {"4", kIn}}), 0u);
    // Dropped: memory goes to 2, the store stays at 1 ...
    count.Batch({{"5", kIn}}, false);
    // ... so back at 1 there is nothing to write, and at 2 there is.
    EXPECT_EQ(count.Batch({{"5", kOut}}), 0u);
    EXPECT_GT(count.Batch({{"6", kIn}}), 0u);
    EXPECT_EQ(Records(), (std::vector<std::string>{"0:02000000"}));
  }
  Acc count("AccumulatorCount", "long", "integer", m_store.get());
  count.Restore();
  EXPECT_EQ(count.Add("7"), "3");
}

TEST_F(AccumulatorStore, ItemsOfEachKind) {
  struct Case {
    const char* type;
    const char* in;
    const char* out;
    std::vector<std::string> items;  // records after adding 3 ("item:" prefixes)
    const char* table;               // the value table's record, or null
  };
  const Case cases[] = {
      {"AccumulatorAvgLong", "long", "float", {"0:", "1:"}, nullptr},
      {"AccumulatorAvgDistinctLong", "long", "float", {"0:", "1:", "2:"}, "0:"},
      {"AccumulatorMedianLong", "long", "float", {"0:"}, "0:"},
      {"AccumulatorMedianDistinctLong", "long", "float", {"0:"}, "0:"},
      {"AccumulatorStandardDeviationLong", "long", "float", {"0:", "1:", "2:", "3:"}, "2:"},
      {"AccumulatorStandardDeviationDistinctLong", "long", "float", {"0:", "1:", "2:", "3:"}, "2:"},
      {"AccumulatorMeanDeviationLong", "long", "float", {"0:", "1:", "2:"}, "2:"},
      {"AccumulatorMeanDeviationDistinctLong", "long", "float", {"0:", "1:", "2:"}, "2:"},
      {"AccumulatorMinLong", "long", "long", {"0:"}, "0:"},
      {"AccumulatorMaxDistinctLong", "long", "long", {"0:"}, "0:"},
      {"AccumulatorCountDistinctLong", "long", "integer", {"0:", "1:"}, "1:"},
      {"AccumulatorCountDistinctString", "string", "integer", {"0:", "1[33]:"}, "1[33]:"},
      {"AccumulatorCount", "long", "integer", {"0:"}, nullptr},
      {"AccumulatorCountRows", "long", "integer", {"0:"}, nullptr},
      {"AccumulatorLastLong", "long", "long", {}, nullptr},
  };
  for (const Case& c : cases) {
    Fresh();
    Acc acc(c.type, c.in, c.out, m_store.get());
    acc.Add("3");
    const std::vector<std::string> records = Records();
    ASSERT_EQ(records.size(), c.items.size()) << c.type;
    for (size_t i = 0; i < records.size(); ++i)
      EXPECT_EQ(records[i].substr(0, c.items[i].size()), c.items[i]) << c.type;
    // Retracting the value empties the table, whose record goes; the
    // scalars stay.
    acc.Remove("3");
    std::vector<std::string> left;
    for (const std::string& r : Records()) left.push_back(r.substr(0, r.find(':') + 1));
    std::vector<std::string> expected = c.items;
    if (c.table) std::erase(expected, std::string(c.table));
    EXPECT_EQ(left, expected) << c.type;
  }
}

// A table of more than 1,024 values keeps one record per entry, and goes
// back to one record once it is down to fewer than 512; a restart reads
// either form back.
TEST_F(AccumulatorStore, LargeTablesKeepARecordPerEntry) {
  auto entry_records = [&] {
    size_t n = 0;
    for (const std::string& r : Records()) n += r.find('[') != std::string::npos;
    return n;
  };
  const std::pair<const char*, const char*> kinds[] = {{"AccumulatorMinLong", "long"},
                                                       {"AccumulatorMedianLong", "float"}};
  for (const auto& [type, out] : kinds) {
    Fresh();
    Acc twin(type, "long", out, nullptr);  // the same rows, never restarted
    {
      Acc acc(type, "long", out, m_store.get());
      for (int i = 0; i < 1100; ++i) EXPECT_EQ(acc.Add(std::to_string(i)), twin.Add(std::to_string(i)));
    }
    EXPECT_EQ(entry_records(), 1100u) << type;
    EXPECT_EQ(Records().size(), 1100u) << type;
    {
      Acc acc(type, "long", out, m_store.get());
      acc.Restore();
      for (int i = 0; i < 700; ++i)
        EXPECT_EQ(acc.Remove(std::to_string(i)), twin.Remove(std::to_string(i))) << type << " " << i;
    }
    EXPECT_EQ(entry_records(), 0u) << type;
    EXPECT_EQ(Records().size(), 1u) << type;
    Acc acc(type, "long", out, m_store.get());
    acc.Restore();
    EXPECT_EQ(acc.Add("5000"), twin.Add("5000")) << type;
    EXPECT_EQ(acc.Remove("700"), twin.Remove("700")) << type;
  }
}

TEST(AccumulatorRestore, UnknownItemsAreRejected) {
  testing::QuietLog quiet;
  Ptr<CpxExpressionContext_Engine> ctx = testing::Load(ContextXml(
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"v\" Type=\"integer\"/>"
      "</TupleDescriptor></InputTuples><OutputTuples><TupleDescriptor Name=\"Out\">"
      "<Field Name=\"r\" Type=\"integer\"/></TupleDescriptor></OutputTuples><Operators>" +
      Op("acc", "AccumulatorSumDistinctInteger", Ref("Input", "In", "v"),
         Ref("Output", "Out", "r")) +
      "</Operators>"));
  CpxPersistentStorageKey record;
  record.AppendBlock(3, "acc");
  record.AppendTypedValue<uint8_t>(0);
  record.AppendTypedValue<uint32_t>(0);
  auto restore = [&](uint32_t item, std::string_view value) -> std::string {
    CpxPersistentStorageKey key = record;
    key.AppendTypedValue(item);
    key.AppendRawValue(value.data(), static_cast<uint32_t>(value.size()));
    try {
      ctx->RestoreFromPersistentStorage(CpxPersistentStorageMessage_Put(key));
    } catch (const ExceptionType& e) {
      return e.GetMessage().GetText();
    }
    return "restored";
  };
  CpxPersistentStorageBatch batch;
  CpxPersistentStorageMessageCache cache;
  CpxPersistentStorageKey context_key;
  context_key.AppendBlock(3, "acc");
  ctx->InitializeEvaluators(nullptr, &batch, context_key, &cache, nullptr);
  EXPECT_EQ(restore(1, std::string_view("\5\0\0\0", 4)), "restored");
  EXPECT_EQ(restore(9, std::string_view("\5\0\0\0", 4)),
            "Operator 0 cannot restore a persistent value of type SumDistinct");
  EXPECT_EQ(restore(3, std::string_view("\1\0", 2)),  // the flag is one byte
            "Operator 0 cannot restore a persistent value of type SumDistinct");
}

// ---- memory accounting ----

TEST(AccumulatorFramework, StatesAreCountedByTheMemoryAccounting) {
  const int64_t before = VxMemoryGetUsage().bytes_in_use;
  {
    Acc median("AccumulatorMedianInteger", "integer", "float");
    median.AddAll({"1", "2", "3"});
    EXPECT_GE(VxMemoryGetUsage().bytes_in_use - before,
              static_cast<int64_t>(sizeof(CpxExpressionOperatorState_Engine_Accumulator_Median<
                                          CpxTupleField_Integer, CpxTupleField_Float>) +
                                   4 * 32));  // the state and its four tree nodes (one empty)
  }
  EXPECT_EQ(VxMemoryGetUsage().bytes_in_use, before);
}

}  // namespace
}  // namespace vx
