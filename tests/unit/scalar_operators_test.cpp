// The scalar operators' load-time parameter checks, the texts they log at
// run time, and the shared Random generator under concurrent use. Their
// value rules are covered by the XML suites under tests/suites.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "cpx_expressions/cpx_expression_operators.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::Ref;

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"j\" Type=\"integer\"/><Field Name=\"l\" Type=\"long\"/>"
    "<Field Name=\"f\" Type=\"float\"/><Field Name=\"b\" Type=\"boolean\"/>"
    "</TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"f\" Type=\"float\"/><Field Name=\"b\" Type=\"boolean\"/>"
    "</TupleDescriptor></OutputTuples>";

std::string In(const char* field) { return Ref("Input", "In", field); }
std::string Out(const char* field) { return Ref("Output", "Out", field); }

Ptr<CpxExpressionContext_Engine> LoadOne(const char* type, const std::string& inputs,
                                         const std::string& outputs) {
  return Load(ContextXml(std::string(kDescriptors) + "<Operators>" +
                         Op("op", type, inputs, outputs) + "</Operators>"));
}

// The message id the load raises, or "" when the context loads.
std::string LoadFault(const char* type, const std::string& inputs, const std::string& outputs) {
  testing::QuietLog quiet;
  try {
    LoadOne(type, inputs, outputs);
  } catch (const ExceptionType& e) {
    const std::string id = e.GetMessage().GetId();
    return id.empty() ? e.GetMessage().GetText() : id;
  }
  return "";
}

// ---- load-time checks, one per executor shape ----

TEST(ScalarOperatorChecks, FoldWantsInputsAndOutputOfItsType) {
  EXPECT_EQ(LoadFault("DivideInteger", In("i") + In("j"), Out("i")), "");
  EXPECT_EQ(LoadFault("DivideInteger", In("i") + In("j"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("MinInteger", In("i") + In("l"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("XorBoolean", In("b") + In("b"), Out("b") + Out("b")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  // Too few inputs is raised at once by the base check, with its own text.
  EXPECT_EQ(LoadFault("AddInteger", "", Out("i")),
            "Input parameters have less than the required minimun");
}

TEST(ScalarOperatorChecks, UnaryWantsOneInputAndOneOutput) {
  EXPECT_EQ(LoadFault("SqrtInteger", In("i"), Out("f")), "");
  EXPECT_EQ(LoadFault("SqrtInteger", In("i") + In("j"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("SqrtInteger", In("i"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("ToIntegerLong", In("i"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("SignFloat", In("f"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("ACosFloat", In("i"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("NotBoolean", In("b"), ""),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
}

TEST(ScalarOperatorChecks, BinaryWantsTwoInputs) {
  EXPECT_EQ(LoadFault("ModuloInteger", In("i") + In("j"), Out("i")), "");
  EXPECT_EQ(LoadFault("ModuloInteger", In("i") + In("j") + In("i"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("LogFloat", In("f") + In("i"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT");
  // Power mixes a base of the type with a float exponent: each position is
  // checked on its own.
  EXPECT_EQ(LoadFault("PowerInteger", In("i") + In("f"), Out("f")), "");
  EXPECT_EQ(LoadFault("PowerInteger", In("i"), Out("f")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("PowerInteger", In("f") + In("f"), Out("f")),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("PowerInteger", In("i") + In("j"), Out("f")),
            "VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("PowerInteger", In("i") + In("f"), Out("i")),
            "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
}

TEST(ScalarOperatorChecks, CompareAndInListWantTwoInputsAndABooleanOutput) {
  EXPECT_EQ(LoadFault("LessInteger", In("i") + In("j") + In("i"), Out("b")), "");
  EXPECT_EQ(LoadFault("LessInteger", In("i") + In("j"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("LessInteger", In("i"), Out("b")),
            "Input parameters have less than the required minimun");
  EXPECT_EQ(LoadFault("InListLong", In("l") + In("l"), Out("b")), "");
  EXPECT_EQ(LoadFault("InListLong", In("l") + In("i"), Out("b")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_OR_MORE_INPUT_1_OUTPUT");
}

TEST(ScalarOperatorChecks, ReduceAndLogic) {
  EXPECT_EQ(LoadFault("AverageInteger", In("i"), Out("f")), "");
  EXPECT_EQ(LoadFault("AverageInteger", In("i") + In("j"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  // A wrong coordinate count is reported when the step runs, not at load.
  EXPECT_EQ(LoadFault("DistanceInteger", In("i") + In("j") + In("i"), Out("f")), "");
  EXPECT_EQ(LoadFault("DistanceInteger", In("i") + In("j") + In("i") + In("j"), Out("i")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("AndBoolean", "", Out("b")), "");
  EXPECT_EQ(LoadFault("OrBoolean", In("b") + In("i"), Out("b")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
}

TEST(ScalarOperatorChecks, OutputMayBeAnInput) {
  // n = n + 1 and x = -x read every input before writing.
  EXPECT_EQ(LoadFault("AddInteger", Out("i") + In("j"), Out("i")), "");
  EXPECT_EQ(LoadFault("NegativeFloat", Out("f"), Out("f")), "");
}

// ---- run-time messages ----

// Collects every message logged while it lives.
class LogCollector {
 public:
  LogCollector() {
    m_level = LogManager::Instance().GetMinLevel();
    LogManager::Instance().SetMinLevel(LogLevel::Trace);
    m_previous = LogManager::Instance().SetSink([this](const LogMessage& m) {
      m_lines.push_back(std::string(LogLevelName(m.GetLevel())) + " " + m.GetText());
    });
  }
  ~LogCollector() {
    LogManager::Instance().SetSink(std::move(m_previous));
    LogManager::Instance().SetMinLevel(m_level);
  }
  const std::vector<std::string>& Lines() const { return m_lines; }

 private:
  LogManager::Sink m_previous;
  LogLevel m_level;
  std::vector<std::string> m_lines;
};

// Runs one row (i, j, l, f) through `ctx`; returns the output tuple.
CpxTuple* RunRow(CpxExpressionContext_Engine& ctx, int32_t i, int32_t j, int64_t l, double f) {
  Ptr<CpxTuple> row = ctx.GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
  CpxTupleField_Integer::SetValue(*row, 0, i);
  CpxTupleField_Integer::SetValue(*row, 1, j);
  CpxTupleField_Long::SetValue(*row, 2, l);
  CpxTupleField_Float::SetValue(*row, 3, f);
  CpxTuplesList_Vector inputs;
  inputs.Add(row);
  ctx.InitializeEvaluators();
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx.GetEvaluator(*row);
  ev->Reset();
  ev->Execute(0, &inputs);
  return ev->GetOutputTuples()->GetObjectByPos(0);
}

TEST(ScalarOperatorMessages, DistanceReportsAWrongInputCountEachRun) {
  Ptr<CpxExpressionContext_Engine> ctx =
      LoadOne("DistanceInteger", In("i") + In("j") + In("i") + In("j") + In("i"), Out("f"));
  LogCollector log;
  CpxTuple* out = RunRow(*ctx, 1, 2, 0, 0);
  EXPECT_FALSE(out->HasFieldValue(1));
  out = RunRow(*ctx, 3, 4, 0, 0);
  EXPECT_FALSE(out->HasFieldValue(1));
  const std::string expected =
      "ERROR Invalid number of input parameters, 5, expected 4 or 6. Function:Distance, "
      "datatype:integer";
  EXPECT_EQ(log.Lines(), std::vector<std::string>({expected, expected}));
}

TEST(ScalarOperatorMessages, DistanceSquaredNamesItselfAndItsType) {
  Ptr<CpxExpressionContext_Engine> ctx = LoadOne("DistanceSquaredFloat", In("f") + In("f"), Out("f"));
  LogCollector log;
  RunRow(*ctx, 0, 0, 0, 1.5);
  EXPECT_EQ(log.Lines(), std::vector<std::string>({"ERROR Invalid number of input parameters, 2, "
                                                   "expected 4 or 6. Function:DistanceSquared, "
                                                   "datatype:float"}));
}

TEST(ScalarOperatorMessages, NarrowingOutOfRangeIsLoggedAndGivesNull) {
  Ptr<CpxExpressionContext_Engine> ctx = LoadOne("ToIntegerLong", In("l"), Out("i"));
  LogCollector log;
  CpxTuple* out = RunRow(*ctx, 0, 0, 2147483648LL, 0);
  EXPECT_FALSE(out->HasFieldValue(0));
  out = RunRow(*ctx, 0, 0, -2147483649LL, 0);
  EXPECT_FALSE(out->HasFieldValue(0));
  out = RunRow(*ctx, 0, 0, -2147483648LL, 0);
  ASSERT_TRUE(out->HasFieldValue(0));
  EXPECT_EQ(CpxTupleField_Integer::GetValue(out, 0), INT32_MIN);
  EXPECT_EQ(log.Lines(),
            std::vector<std::string>(
                {"ERROR Conversion error! Attempting to convert \"long\" of value \"2147483648\" "
                 "to type \"integer\". Result set to NULL.",
                 "ERROR Conversion error! Attempting to convert \"long\" of value \"-2147483649\" "
                 "to type \"integer\". Result set to NULL."}));
}

TEST(ScalarOperatorMessages, ArithmeticFailuresAreSilentNulls) {
  // One row: i = -8, j = 0, f = -1. Every case refuses it.
  const struct {
    const char* type;
    std::string inputs;
    std::string output;
    unsigned out_pos;
  } cases[] = {
      {"DivideInteger", In("i") + In("j"), Out("i"), 0},  // zero divisor
      {"ModuloInteger", In("i") + In("j"), Out("i"), 0},  // zero divisor
      {"SqrtFloat", In("f"), Out("f"), 1},                // negative
      {"PowerInteger", In("i") + In("f"), Out("f"), 1},   // negative base
      {"LnFloat", In("f"), Out("f"), 1},                  // outside the domain
      {"LogFloat", In("f") + In("f"), Out("f"), 1},       // base not above 1
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Ptr<CpxExpressionContext_Engine> ctx = LoadOne(c.type, c.inputs, c.output);
    LogCollector log;
    CpxTuple* out = RunRow(*ctx, -8, 0, 0, -1.0);
    EXPECT_FALSE(out->HasFieldValue(c.out_pos));
    EXPECT_TRUE(log.Lines().empty());
  }
}

// ---- the shared generator ----

TEST(RandomGenerator, ConcurrentCallsHandOutEachStepOnce) {
  // Wherever the word stands now, the next steps follow from it.
  uint32_t word = g_cpx_random_word.load();
  constexpr int kPerThread = 20000;
  std::vector<uint32_t> expected;
  for (int k = 0; k < 2 * kPerThread; ++k) {
    word = word * 1103515245u + 12345u;
    expected.push_back(word);
  }
  std::vector<uint32_t> got[2];
  std::thread threads[2];
  for (int t = 0; t < 2; ++t) {
    threads[t] = std::thread([&got, t] {
      for (int k = 0; k < kPerThread; ++k) got[t].push_back(CpxNextRandomWord());
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<uint32_t> all = got[0];
  all.insert(all.end(), got[1].begin(), got[1].end());
  std::sort(all.begin(), all.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(all, expected);
}

}  // namespace
}  // namespace vx
