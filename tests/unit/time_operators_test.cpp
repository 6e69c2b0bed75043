// The time and interval operators' load-time parameter checks and their
// texts, and calendar fields computed by evaluators on several threads at
// once in different zones. Their value rules are covered by the XML suites
// under tests/suites/time and tests/suites/interval.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::Ref;

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"t\" Type=\"time\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"v\" Type=\"interval\"/><Field Name=\"f\" Type=\"float\"/>"
    "</TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"t\" Type=\"time\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"i\" Type=\"integer\"/>"
    "<Field Name=\"l\" Type=\"long\"/><Field Name=\"v\" Type=\"interval\"/>"
    "</TupleDescriptor></OutputTuples>";

std::string In(const char* field) { return Ref("Input", "In", field); }
std::string Out(const char* field) { return Ref("Output", "Out", field); }
std::string Ins(const char* field, int n) {
  std::string all;
  for (int k = 0; k < n; ++k) all += In(field);
  return all;
}

// The message id and the full text of the load fault, or "" when it loads.
std::string LoadFault(const char* type, const std::string& inputs, const std::string& outputs,
                      std::string* text = nullptr) {
  testing::QuietLog quiet;
  try {
    Load(ContextXml(std::string(kDescriptors) + "<Operators>" + Op("op", type, inputs, outputs) +
                    "</Operators>"));
  } catch (const ExceptionType& e) {
    if (text) *text = e.what();
    const std::string id = e.GetMessage().GetId();
    return id.empty() ? e.GetMessage().GetText() : id;
  }
  return "";
}

TEST(TimeOperatorChecks, ToStringAndCalendarFieldsSayWhatTheyExpect) {
  std::string text;
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s"), Out("s")), "");
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s") + In("s"), Out("s")), "");
  EXPECT_EQ(LoadFault("ToStringTime", In("t"), Out("s"), &text),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
  EXPECT_NE(text.find("Invalid number of parameters in Time_ToString operator. Expected \"time, "
                      "string, string(optional timezone)\" as input with exactly one time output."),
            std::string::npos)
      << text;
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s") + In("s") + In("s"), Out("s")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s"), Out("s") + Out("s")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
  EXPECT_EQ(LoadFault("ToStringTime", In("s") + In("s"), Out("s")),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s") + In("i"), Out("s")),
            "VX_SERVER_EXPRESSION_THIRD_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("ToStringTime", In("t") + In("s"), Out("t")),
            "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");

  const struct {
    const char* type;
    const char* display;
  } kFields[] = {{"YearTime", "Time_Year"},
                 {"MonthTime", "Time_Month"},
                 {"DayOfYearTime", "Time_DayOfYear"},
                 {"DayOfMonthTime", "Time_DayOfMonth"},
                 {"DayOfWeekTime", "Time_DayOfWeek"},
                 {"HourTime", "Time_Hour"},
                 {"MinuteTime", "Time_Minute"},
                 {"SecondTime", "Time_Second"},
                 {"MicrosecondTime", "Time_Microsecond"}};
  for (const auto& f : kFields) {
    EXPECT_EQ(LoadFault(f.type, In("t"), Out("i")), "") << f.type;
    EXPECT_EQ(LoadFault(f.type, In("t") + In("s"), Out("i")), "") << f.type;
    EXPECT_EQ(LoadFault(f.type, In("t") + In("s") + In("s"), Out("i"), &text),
              "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
    EXPECT_NE(text.find(std::string("Invalid number of parameters in ") + f.display +
                        " operator. Expected \"time, string(optional timezone)\" as input with "
                        "exactly one time output."),
              std::string::npos)
        << text;
    EXPECT_EQ(LoadFault(f.type, "", Out("i")), "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
    EXPECT_EQ(LoadFault(f.type, In("s"), Out("i")), "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
    EXPECT_EQ(LoadFault(f.type, In("t") + In("i"), Out("i")),
              "VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE");
    EXPECT_EQ(LoadFault(f.type, In("t"), Out("l")), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  }
}

TEST(TimeOperatorChecks, OtherShapes) {
  EXPECT_EQ(LoadFault("NowTime", "", Out("t")), "");
  EXPECT_EQ(LoadFault("NowTime", In("t"), Out("t")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_0_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("NowTime", "", Out("s")), "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("FromStringTime", In("s") + In("s"), Out("t")), "");
  EXPECT_EQ(LoadFault("FromStringTime", In("s"), Out("t")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("MakeTimestampTime", Ins("i", 7), Out("t")), "");
  EXPECT_EQ(LoadFault("MakeTimestampTime", Ins("i", 7) + In("s"), Out("t")), "");
  EXPECT_EQ(LoadFault("MakeTimestampTime", Ins("i", 6), Out("t")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS");
  EXPECT_EQ(LoadFault("MakeTimestampTime", Ins("i", 8), Out("t")),
            "VX_SERVER_EXPRESSION_NTH_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("TimeMinusTimeToIntervalD2S", In("t") + In("t"), Out("v")), "");
  // Two inputs of one type: one definition for every fault of the shape.
  EXPECT_EQ(LoadFault("TimeMinusTimeToIntervalD2S", In("t") + In("t"), Out("t")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("TimeMinusTimeToIntervalD2S", In("t") + In("v"), Out("v")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("ExtractFromIntervalD2S", In("s") + In("v"), Out("l")), "");
  EXPECT_EQ(LoadFault("ExtractFromIntervalD2S", In("s") + In("v"), Out("i")),
            "VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("ExtractFromIntervalD2S", In("v") + In("s"), Out("l")),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("NumToDSIntervalD2S", In("f") + In("s"), Out("v")), "");
  EXPECT_EQ(LoadFault("NumToDSIntervalD2S", In("i") + In("s"), Out("v")),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("NumToDSIntervalD2S", In("f"), Out("v")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_2_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("DayToDSIntervalD2S", In("s"), Out("v")), "");
  EXPECT_EQ(LoadFault("DayToDSIntervalD2S", In("v"), Out("v")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("TimePlusIntervalD2S", In("t") + In("v"), Out("t")), "");
  EXPECT_EQ(LoadFault("TimePlusIntervalD2S", In("v") + In("t"), Out("t")),
            "VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE");
  EXPECT_EQ(LoadFault("IntervalD2SPlusTime", In("v") + In("t"), Out("t")), "");
  EXPECT_EQ(LoadFault("AverageIntervalD2S", In("v") + In("v"), Out("v")), "");
  EXPECT_EQ(LoadFault("AverageTime", In("t") + In("t"), Out("l")),
            "VX_SERVER_EXPRESSION_INVALID_PARAMETERS_MANY_SAME_INPUT_1_OUTPUT");
  EXPECT_EQ(LoadFault("DivideTimeByInterval", In("t") + In("v"), Out("l")), "");
}

// Evaluators of one context on four threads, each row naming a zone: the
// hour each thread computes is the one a single thread computes.
TEST(TimeOperators, CalendarFieldsOnSeveralThreads) {
  const std::string xml = ContextXml(
      std::string(kDescriptors) +
      "<ConstantTuples><TupleDescriptor Name=\"C\"><Field Name=\"format\" Type=\"string\" "
      "Default=\"YYYY-MM-DD HH24:MI TZD\"/></TupleDescriptor></ConstantTuples><Operators>" +
      Op("h", "HourTime", In("t") + In("s"), Out("i")) +
      Op("l", "ToStringTime", In("t") + Ref("Constant", "C", "format") + In("s"), Out("s")) +
      "</Operators>");
  const char* const kZones[] = {"America/New_York", "Asia/Kolkata", "Europe/Berlin",
                                "Australia/Sydney", "Nowhere/Land", "-03:30"};
  auto run = [&](int seed, std::vector<std::string>& results) {
    Ptr<CpxExpressionContext_Engine> ctx = Load(xml);
    ctx->InitializeEvaluators();
    for (int k = 0; k < 2000; ++k) {
      const char* zone = kZones[(k + seed) % std::size(kZones)];
      const int64_t t = (int64_t{1700000000} + k * 3607) * 1000000;
      Ptr<CpxTuple> row = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
      CpxTupleField_Time::SetValue(*row, 0, t);
      CpxTupleField_String::SetValue(*row, 1, zone);
      CpxTuplesList_Vector inputs;
      inputs.Add(row);
      Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
      ev->Reset();
      ev->Execute(0, &inputs);
      const CpxTuple& out = *ev->GetOutputTuples()->GetObjectByPos(0);
      results.push_back(std::string(zone) + " " + std::to_string(t) + " " +
                        (out.HasFieldValue(2)
                             ? std::to_string(CpxTupleField_Integer::GetValue(&out, 2))
                             : "NULL") +
                        " " + (out.HasFieldValue(1) ? FieldToText(out, 1) : "NULL"));
    }
  };
  std::vector<std::vector<std::string>> alone(4), together(4);
  for (int s = 0; s < 4; ++s) run(s, alone[s]);
  std::vector<std::thread> threads;
  for (int s = 0; s < 4; ++s) threads.emplace_back(run, s, std::ref(together[s]));
  for (std::thread& th : threads) th.join();
  for (int s = 0; s < 4; ++s) EXPECT_EQ(together[s], alone[s]);
  // Known values among them: an unknown zone gives NULL, Kolkata is +05:30.
  EXPECT_NE(std::find(alone[0].begin(), alone[0].end(), "Nowhere/Land 1700014428000000 NULL NULL"),
            alone[0].end());
}

}  // namespace
}  // namespace vx
