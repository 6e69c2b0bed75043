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
    Ptr<CpxTuple> in = m_ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    if (value) {
      EXPECT_TRUE(SetFieldFromText(*in, 0, *value)) << *value;
    }
    in->SetTupleType(sign);
    CpxTuplesList_Vector inputs;
    inputs.Add(in);
    if (m_store) m_store->StartBatch();
    Ptr<CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(*in);
    ev->Reset();
    ev->Execute(0, &inputs);
    if (m_store) m_store->EndBatch();
    const CpxTuple& out = *ev->GetOutputTuples()->GetObjectByPos(0);
    return out.HasFieldValue(0) ? FieldToText(out, 0) : "NULL";
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

 private:
  Ptr<CpxExpressionContext_Engine> m_ctx;
  CpxPersistentStorageManager* m_store;
  CpxPersistentStorageMessageCache m_cache;
};

const std::nullopt_t kNull = std::nullopt;

// ---- Sum, SumDistinct ----

TEST(AccumulatorSum, NullBeforeTheFirstValueThenZeroOnceRetracted) {
  Acc sum("AccumulatorSumInteger", "integer", "integer");
  EXPECT_EQ(sum.Add(kNull), "NULL");
  EXPECT_EQ(sum.Add("5"), "5");
  EXPECT_EQ(sum.Add(kNull), "5");
  EXPECT_EQ(sum.Remove("5"), "0");  // not NULL: a value has been seen
  EXPECT_EQ(sum.Remove(kNull), "0");
  // A retraction of a value never added is not questioned unless it is 0.
  Acc fresh("AccumulatorSumLong", "long", "long");
  EXPECT_EQ(fresh.Remove("7"), "-7");
  EXPECT_EQ(fresh.Add("7"), "0");
}

TEST(AccumulatorSum, IntegersWrapFloatsDoNot) {
  Acc sum("AccumulatorSumInteger", "integer", "integer");
  EXPECT_EQ(sum.AddAll({"2147483647", "1"}), "-2147483648");
  EXPECT_EQ(sum.Remove("1"), "2147483647");
  Acc wide("AccumulatorSumLong", "long", "long");
  EXPECT_EQ(wide.AddAll({"9223372036854775807", "2"}), "-9223372036854775807");
  Acc real("AccumulatorSumFloat", "float", "float");
  EXPECT_EQ(real.AddAll({"1e308", "1e308"}), "inf");
}

TEST(AccumulatorSum, ExtraZeroRetractionReportsAndLeavesTheZeroCountChanged) {
  Acc sum("AccumulatorSumInteger", "integer", "integer");
  EXPECT_EQ(sum.Add(kNull), "NULL");
  EXPECT_EQ(sum.Fail("0"), "Accumulator_Sum/0");
  // The zero count stays at -1, so the state is no longer "nothing seen".
  EXPECT_EQ(sum.Add(kNull), "0");
  Acc distinct("AccumulatorSumDistinctInteger", "integer", "integer");
  EXPECT_EQ(distinct.Fail("0"), "Accumulator_SumDistinct/0");
  EXPECT_EQ(distinct.Add(kNull), "0");
}

TEST(AccumulatorSumDistinct, CountsEachValueOnce) {
  Acc sum("AccumulatorSumDistinctInteger", "integer", "integer");
  EXPECT_EQ(sum.Add(kNull), "NULL");
  EXPECT_EQ(sum.AddAll({"5", "5", "7"}), "12");
  EXPECT_EQ(sum.Remove("5"), "12");
  EXPECT_EQ(sum.Remove("5"), "7");
  EXPECT_EQ(sum.Fail("5"), "Accumulator_SumDistinct/5");
  EXPECT_EQ(sum.Remove("7"), "0");
  EXPECT_EQ(sum.Add("0"), "0");
}

// ---- Avg, AvgDistinct ----

TEST(AccumulatorAvg, MeansAndEmptyGroups) {
  Acc avg("AccumulatorAvgInteger", "integer", "float");
  EXPECT_EQ(avg.Add(kNull), "NULL");
  EXPECT_EQ(avg.Fail("3"), "AvgAccumulator/3");
  EXPECT_EQ(avg.Add(kNull), "NULL");  // the failed retraction changed nothing
  EXPECT_EQ(avg.AddAll({"1", "2"}), "1.5");
  EXPECT_EQ(avg.Remove("1"), "2");
  // Avg checks only its count: retracting a value it never saw is taken.
  EXPECT_EQ(avg.Remove("7"), "NULL");
  EXPECT_EQ(avg.Add("4"), "-1");  // (2 - 7 + 4) / 1

  Acc distinct("AccumulatorAvgDistinctLong", "long", "float");
  EXPECT_EQ(distinct.AddAll({"1", "1", "4"}), "2.5");
  EXPECT_EQ(distinct.Remove("1"), "2.5");
  EXPECT_EQ(distinct.Fail("2"), "AvgDistinct/2");
  EXPECT_EQ(distinct.Remove("1"), "4");
}

TEST(AccumulatorAvg, TimesTruncateTowardZero) {
  Acc avg("AccumulatorAvgTime", "time", "time");
  EXPECT_EQ(avg.AddAll({"@1", "@2"}), "1970-01-01 00:00:00.000001");
  Acc before("AccumulatorAvgTime", "time", "time");
  EXPECT_EQ(before.AddAll({"@-1", "@-2"}), "1969-12-31 23:59:59.999999");
  Acc interval("AccumulatorAvgIntervalD2S", "interval", "interval");
  EXPECT_EQ(interval.AddAll({"0 00:00:01.000000", "0 00:00:02.000001"}), "0 00:00:01.500000");
}

// ---- Median, MedianDistinct ----

TEST(AccumulatorMedian, MiddleOrMiddlePairInTheInputsArithmetic) {
  Acc median("AccumulatorMedianInteger", "integer", "float");
  EXPECT_EQ(median.Add(kNull), "NULL");
  EXPECT_EQ(median.AddAll({"3", "1", "4", "2"}), "2.5");
  EXPECT_EQ(median.Remove("4"), "2");
  EXPECT_EQ(median.Fail("4"), "Median/4");
  EXPECT_EQ(median.Add(kNull), "2");

  Acc wrap("AccumulatorMedianInteger", "integer", "float");
  EXPECT_EQ(wrap.AddAll({"2000000000", "2000000000"}), "-147483648");  // (4e9 - 2^32) / 2
  Acc wide("AccumulatorMedianLong", "long", "float");
  EXPECT_EQ(wide.AddAll({"2000000000", "2000000000"}), "2e+09");
  Acc time("AccumulatorMedianTime", "time", "time");
  EXPECT_EQ(time.AddAll({"@1", "@2"}), "1970-01-01 00:00:00.000001");
  Acc real("AccumulatorMedianFloat", "float", "float");
  EXPECT_EQ(real.AddAll({"1.5", "2.5", "nan", "inf"}), "inf");  // 1.5 2.5 inf nan
}

TEST(AccumulatorMedian, DistinctValuesCountOnce) {
  Acc median("AccumulatorMedianDistinctInteger", "integer", "float");
  EXPECT_EQ(median.AddAll({"1", "1", "1", "10"}), "5.5");
  EXPECT_EQ(median.Remove("1"), "5.5");
  EXPECT_EQ(median.Fail("2"), "MedianDistinct/2");
  EXPECT_EQ(median.Add("4"), "4");
}

// ---- StandardDeviation, MeanDeviation ----

TEST(AccumulatorDeviation, PopulationFormulas) {
  Acc sd("AccumulatorStandardDeviationInteger", "integer", "float");
  EXPECT_EQ(sd.Add(kNull), "NULL");
  EXPECT_EQ(sd.AddAll({"2", "4", "4", "4", "5", "5", "7", "9"}), "2");
  Acc single("AccumulatorStandardDeviationFloat", "float", "float");
  EXPECT_EQ(single.Add("0.1"), "0");  // d rounds to 0 or below: exactly 0
  Acc mean("AccumulatorMeanDeviationInteger", "integer", "float");
  EXPECT_EQ(mean.Add(kNull), "NULL");
  EXPECT_EQ(mean.AddAll({"1", "2", "3", "6"}), "1.5");
  Acc distinct("AccumulatorMeanDeviationDistinctInteger", "integer", "float");
  EXPECT_EQ(distinct.AddAll({"1", "1", "1", "3"}), "1");
  Acc sdd("AccumulatorStandardDeviationDistinctLong", "long", "float");
  EXPECT_EQ(sdd.AddAll({"1", "1", "1", "3"}), "1");
  Acc time("AccumulatorStandardDeviationTime", "time", "interval");
  EXPECT_EQ(time.AddAll({"@0", "@3"}), "0 00:00:00.000001");  // 1.5 us, truncated
}

TEST(AccumulatorDeviation, SquaresWrapInTheInputType) {
  // The exact deviation of {0, 70000} is 35000; in 32-bit arithmetic the
  // square of 70000 wraps to 605032704 and d becomes negative.
  Acc integer("AccumulatorStandardDeviationInteger", "integer", "float");
  EXPECT_EQ(integer.AddAll({"0", "70000"}), "0");
  Acc wide("AccumulatorStandardDeviationLong", "long", "float");
  EXPECT_EQ(wide.AddAll({"0", "70000"}), "35000");
}

TEST(AccumulatorDeviation, ExtraNegativesAndWhatTheyLeave) {
  Acc sd("AccumulatorStandardDeviationInteger", "integer", "float");
  EXPECT_EQ(sd.Fail("1"), "Accumulator_StandardDeviation/1");
  EXPECT_EQ(sd.AddAll({"1", "2"}), "0.5");
  // The scalars are already changed when the value is found missing:
  // count 1, sum -4, squares -44, so d < 0 and the result is 0.
  EXPECT_EQ(sd.Fail("7"), "StandardDeviation/7");
  EXPECT_EQ(sd.Add(kNull), "0");

  Acc sdd("AccumulatorStandardDeviationDistinctInteger", "integer", "float");
  EXPECT_EQ(sdd.Fail("1"), "Accumulator_StandardDeviation_Distinct/1");
  EXPECT_EQ(sdd.AddAll({"1", "2"}), "0.5");
  EXPECT_EQ(sdd.Fail("7"), "Accumulator_StandardDeviation_Deviation/7");
  EXPECT_EQ(sdd.Add(kNull), "0.5");  // the Distinct form changed nothing

  Acc md("AccumulatorMeanDeviationInteger", "integer", "float");
  EXPECT_EQ(md.Fail("1"), "MeanDeviation/1");
  EXPECT_EQ(md.AddAll({"1", "2"}), "0.5");
  EXPECT_EQ(md.Fail("7"), "MeanDeviation/7");
  EXPECT_EQ(md.Add(kNull), "11");  // count 1, mean -4: |1 + 4| + |2 + 4|

  Acc mdd("AccumulatorMeanDeviationDistinctInteger", "integer", "float");
  EXPECT_EQ(mdd.Fail("1"), "MeanDeviationDistinct/1");
  EXPECT_EQ(mdd.AddAll({"1", "2"}), "0.5");
  EXPECT_EQ(mdd.Fail("7"), "MeanDeviationDistinct/7");
  EXPECT_EQ(mdd.Add(kNull), "0.5");
}

TEST(AccumulatorDeviation, NaNIsOneValueOfTheMap) {
  Acc sd("AccumulatorStandardDeviationFloat", "float", "float");
  EXPECT_EQ(sd.AddAll({"1", "nan"}), "0");  // d is NaN, not above 0
  EXPECT_EQ(sd.Remove("nan"), "0");         // found in the map: no report
  Acc md("AccumulatorMeanDeviationFloat", "float", "float");
  EXPECT_EQ(md.AddAll({"1", "nan", "nan"}), "nan");
  EXPECT_EQ(md.Remove("nan"), "nan");
  EXPECT_EQ(md.Remove("nan"), "nan");  // the sum stays NaN (IEEE)
  EXPECT_EQ(md.Fail("nan"), "MeanDeviation/nan");
}

// ---- Min, Max ----

TEST(AccumulatorMinMax, FirstKeyOfTheMultiplicityMap) {
  Acc min("AccumulatorMinInteger", "integer", "integer");
  EXPECT_EQ(min.Add(kNull), "NULL");
  EXPECT_EQ(min.AddAll({"3", "1", "1"}), "1");
  EXPECT_EQ(min.Remove("1"), "1");
  EXPECT_EQ(min.Remove("1"), "3");
  EXPECT_EQ(min.Fail("1"), "Accumulator_Min/1");
  EXPECT_EQ(min.Remove("3"), "NULL");

  Acc max("AccumulatorMaxDistinctLong", "long", "long");
  EXPECT_EQ(max.AddAll({"-5", "9", "9"}), "9");
  EXPECT_EQ(max.Remove("9"), "9");
  EXPECT_EQ(max.Fail("4"), "Accumulator_MaxDistinct/4");
  EXPECT_EQ(max.Remove("9"), "-5");
  Acc mind("AccumulatorMinDistinctIntervalD2S", "interval", "interval");
  EXPECT_EQ(mind.Fail("0 00:00:01"), "Accumulator_MinDistinct/0 00:00:01.000000");
  Acc maxt("AccumulatorMaxTime", "time", "time");
  EXPECT_EQ(maxt.Fail("2024-01-02 10:00:00"), "Accumulator_Max/2024-01-02 10:00:00");
}

TEST(AccumulatorMinMax, NaNSortsAboveInfinity) {
  Acc min("AccumulatorMinFloat", "float", "float");
  Acc max("AccumulatorMaxFloat", "float", "float");
  for (const char* v : {"nan", "inf", "-inf", "2"}) {
    min.Add(v);
    max.Add(v);
  }
  EXPECT_EQ(min.Add(kNull), "-inf");
  EXPECT_EQ(max.Add(kNull), "nan");
  EXPECT_EQ(max.Remove("nan"), "inf");
  EXPECT_EQ(max.Fail("nan"), "Accumulator_Max/nan");
}

TEST(AccumulatorMinMax, StringsInByteOrder) {
  Acc min("AccumulatorMinString", "string", "string");
  Acc max("AccumulatorMaxString", "string", "string");
  for (const char* v : {"b", "ab", "a", "\xc3\xa9", "z"}) {
    min.Add(v);
    max.Add(v);
  }
  EXPECT_EQ(min.Add(kNull), "a");
  EXPECT_EQ(max.Add(kNull), "\xc3\xa9");  // a lead byte above 'z'
  EXPECT_EQ(min.Add(""), "");             // the empty text is a value
  EXPECT_EQ(min.Remove(""), "a");
  EXPECT_EQ(min.Fail("q"), "Accumulator_Min/q");
  Acc mind("AccumulatorMinDistinctString", "string", "string");
  EXPECT_EQ(mind.AddAll({"x", "x", "y"}), "x");
  EXPECT_EQ(mind.Remove("x"), "x");
  Acc maxd("AccumulatorMaxDistinctString", "string", "string");
  EXPECT_EQ(maxd.Fail("x"), "Accumulator_MaxDistinct/x");
}

// ---- CountDistinct, Count, CountRows, Last ----

TEST(AccumulatorCountDistinct, EveryType) {
  Acc count("AccumulatorCountDistinctInteger", "integer", "integer");
  EXPECT_EQ(count.Add(kNull), "0");
  EXPECT_EQ(count.AddAll({"1", "1", "2"}), "2");
  EXPECT_EQ(count.Remove("1"), "2");
  EXPECT_EQ(count.Remove("1"), "1");
  EXPECT_EQ(count.Fail("1"), "Accumulator_CountDistinct/1");

  Acc real("AccumulatorCountDistinctFloat", "float", "integer");
  EXPECT_EQ(real.AddAll({"nan", "-nan", "0", "-0", "1"}), "3");  // NaNs are one value, zeros one
  Acc boolean("AccumulatorCountDistinctBoolean", "boolean", "integer");
  EXPECT_EQ(boolean.AddAll({"true", "false", "true"}), "2");
  EXPECT_EQ(boolean.Fail(kNull), "no failure, output 2");  // NULL is ignored
  Acc text("AccumulatorCountDistinctString", "string", "integer");
  EXPECT_EQ(text.AddAll({"a", "", "a"}), "2");
  EXPECT_EQ(text.Fail("b"), "Accumulator_CountDistinct/b");
  Acc blob("AccumulatorCountDistinctBlob", "blob", "integer");
  EXPECT_EQ(blob.AddAll({"00ff", "00FF", "00"}), "2");
  EXPECT_EQ(blob.Fail("0a"), "Accumulator_CountDistinct/0A");
}

TEST(AccumulatorCount, NonNullRowsAndAllRows) {
  Acc count("AccumulatorCount", "string", "integer");
  Acc rows("AccumulatorCountRows", "string", "integer");
  for (auto v : {std::optional<std::string>("1"), std::optional<std::string>(),
                 std::optional<std::string>("3")}) {
    count.Add(v);
    rows.Add(v);
  }
  EXPECT_EQ(count.Add(kNull), "2");
  EXPECT_EQ(rows.Add(kNull), "4");
  EXPECT_EQ(count.Remove(kNull), "2");  // a NULL input is not counted either way
  EXPECT_EQ(rows.Remove(kNull), "3");

  Acc empty("AccumulatorCount", "integer", "integer");
  EXPECT_EQ(empty.Add(kNull), "0");
  EXPECT_EQ(empty.Fail("1"), "Negative count should never happen! m_counter=0");
  EXPECT_EQ(empty.Add("1"), "1");
  Acc empty_rows("AccumulatorCountRows", "integer", "integer");
  EXPECT_EQ(empty_rows.Fail(kNull), "Negative count should never happen! m_counter=0");
  EXPECT_EQ(empty_rows.Add(kNull), "1");
}

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
  Acc boolean("AccumulatorLastBoolean", "boolean", "boolean");
  EXPECT_EQ(boolean.AddAll({"true", "false"}), "false");
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
    CpxTuplesList_Vector inputs;
    inputs.Add(in);
    Ptr<CpxExpressionEvaluator_Engine> ev = m_ctx->GetEvaluator(*in);
    ev->Reset();
    ev->Execute(0, &inputs);
    const CpxTuple& out = *ev->GetOutputTuples()->GetObjectByPos(0);
    return out.HasFieldValue(0) ? FieldToText(out, 0) : "NULL";
  }

 private:
  Ptr<CpxExpressionContext_Engine> m_ctx;
};

TEST(Threshold, CrossingsUpDownAndAny) {
  const char* expected[3][4] = {{"false", "true", "false", "false"},
                                {"true", "false", "false", "true"},
                                {"false", "true", "false", "true"}};
  for (int criteria = 0; criteria < 3; ++criteria) {
    ThresholdRows th;
    int row = 0;
    for (int v : {5, 15, 20, 8})
      EXPECT_EQ(th.Row(criteria, v, 10), expected[criteria][row++]) << criteria;
  }
  for (int criteria = 0; criteria < 3; ++criteria) {
    ThresholdRows th;
    EXPECT_EQ(th.Row(criteria, 10, 10), "false");                           // equal never fires ...
    EXPECT_EQ(th.Row(criteria, 11, 10), criteria == 1 ? "false" : "true");  // ... but is remembered
  }
}

TEST(Threshold, NullsNegativeRowsAndBadCriteria) {
  ThresholdRows th;
  EXPECT_EQ(th.Row(std::nullopt, 5, 10), "NULL");
  EXPECT_EQ(th.Row(0, std::nullopt, 10), "NULL");
  EXPECT_EQ(th.Row(0, 5, std::nullopt), "NULL");
  EXPECT_EQ(th.Row(0, 15, 10, Message::kNegative), "NULL");  // no result, nothing remembered
  EXPECT_EQ(th.Row(0, 15, 10), "true");                      // still the first value
  EXPECT_EQ(th.Row(0, 5, 10, 2), "false");                   // another sign: result only
  EXPECT_EQ(th.Row(0, 20, 10), "false");                     // previous is still 15

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
    sum.AddAll({"5", "5", "7"});
    sum.Remove("7");
    // The entry of 5 (count 2) under item 0, keyed by its bits; 7's is gone.
    EXPECT_EQ(Records(), (std::vector<std::string>{"0[0500000000000000]:02000000", "1:05000000",
                                                   "2:00000000", "3:01"}));
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

TEST_F(AccumulatorStore, ItemsOfEachKind) {
  struct Case {
    const char* type;
    const char* in;
    const char* out;
    std::vector<std::string> items;  // item numbers stored after adding 3
  };
  const Case cases[] = {
      {"AccumulatorAvgLong", "long", "float", {"0", "1"}},
      {"AccumulatorAvgDistinctLong", "long", "float", {"0[", "1", "2"}},
      {"AccumulatorMedianLong", "long", "float", {"0["}},
      {"AccumulatorMedianDistinctLong", "long", "float", {"0["}},
      {"AccumulatorStandardDeviationLong", "long", "float", {"0", "1", "2[", "3"}},
      {"AccumulatorStandardDeviationDistinctLong", "long", "float", {"0", "1", "2[", "3"}},
      {"AccumulatorMeanDeviationLong", "long", "float", {"0", "1", "2["}},
      {"AccumulatorMeanDeviationDistinctLong", "long", "float", {"0", "1", "2["}},
      {"AccumulatorMinLong", "long", "long", {"0["}},
      {"AccumulatorMaxDistinctLong", "long", "long", {"0["}},
      {"AccumulatorCountDistinctLong", "long", "integer", {"0", "1["}},
      {"AccumulatorCount", "long", "integer", {"0"}},
      {"AccumulatorCountRows", "long", "integer", {"0"}},
      {"AccumulatorLastLong", "long", "long", {}},
  };
  for (const Case& c : cases) {
    Fresh();
    Acc acc(c.type, c.in, c.out, m_store.get());
    acc.Add("3");
    const std::vector<std::string> records = Records();
    ASSERT_EQ(records.size(), c.items.size()) << c.type;
    for (size_t i = 0; i < records.size(); ++i)
      EXPECT_EQ(records[i].substr(0, c.items[i].size()), c.items[i]) << c.type;
    // Retracting the value deletes every map entry; the scalars stay.
    acc.Remove("3");
    for (const std::string& r : Records())
      EXPECT_EQ(r.find('['), std::string::npos) << c.type << " " << r;
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
