// Resource bounds: each one stops exactly past its limit with its own error,
// and leaves the engine usable.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

#include "support/limits.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::QuietLog;
using testing::Ref;

// The id of the error `f` raises, or "" when it raises none.
std::string RaisedId(const std::function<void()>& f) {
  try {
    f();
  } catch (const ExceptionType& e) {
    return e.GetMessage().GetId();
  }
  return "";
}

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"a\" Type=\"integer\"/>"
    "<Field Name=\"s\" Type=\"string\"/></TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"n\" Type=\"integer\" Default=\"0\"/>"
    "<Field Name=\"t\" Type=\"string\"/></TupleDescriptor></OutputTuples>"
    "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"one\" Type=\"integer\" Default=\"1\"/>"
    "<Field Name=\"zero\" Type=\"integer\" Default=\"0\"/></TupleDescriptor></ConstantTuples>"
    "<TemporaryTuples><TupleDescriptor Name=\"T\"><Field Name=\"more\" Type=\"boolean\"/>"
    "</TupleDescriptor></TemporaryTuples>";

// 0: n = n + 1; 1: more = n < a; 2: if more goto 0. Runs three operators a
// times and jumps back a - 1 times.
std::string CountingLoop() {
  return std::string(kDescriptors) + "<Operators>" +
         Op("count", "AddInteger", Ref("Output", "Out", "n") + Ref("Constant", "K", "one"),
            Ref("Output", "Out", "n")) +
         Op("test", "LessInteger", Ref("Output", "Out", "n") + Ref("Input", "In", "a"),
            Ref("Temporary", "T", "more")) +
         Op("loop", "IfTrueGoto", Ref("Temporary", "T", "more") + Ref("Constant", "K", "zero"),
            "") +
         "</Operators>";
}

struct Runner {
  Ptr<CpxExpressionContext_Engine> ctx;
  Ptr<CpxExpressionEvaluator_Engine> ev;
  explicit Runner(const std::string& body) : ctx(Load(ContextXml(body))) {
    ctx->InitializeEvaluators();
  }
  // Runs one row; returns Out.n.
  int Run(int a, const std::string& s = "") {
    Ptr<CpxTuple> row = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
    CpxTupleField_Integer::SetValue(*row, 0, a);
    CpxTupleField_String::SetValue(*row, 1, s);
    CpxTuplesList_Vector inputs;
    inputs.Add(row);
    ev = ctx->GetEvaluator(*row);
    ev->Reset();
    ev->Execute(0, &inputs);
    return CpxTupleField_Integer::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0);
  }
};

TEST(Limits, StepLimitStopsLoopsAtTheBoundAndTheEvaluatorRunsOn) {
  QuietLog quiet;
  Runner r(CountingLoop());
  // Five iterations jump back four times, after 3 operators each: 12 steps.
  struct Case {
    uint64_t limit;
    int a;
    const char* error;  // "" when the row completes
  } cases[] = {
      {0, 100000, ""},  // no limit: a long loop runs to its end
      {12, 5, ""},
      {11, 5, "VX_SERVER_LIMIT_STEPS_EXCEEDED"},
      {1000, 1, ""},  // no backward jump at all
      {1000, 1000000, "VX_SERVER_LIMIT_STEPS_EXCEEDED"},
  };
  for (const Case& c : cases) {
    VxLimits limits;
    limits.max_steps_per_evaluation = c.limit;
    VxLimitsScope scope(limits);
    int n = 0;
    EXPECT_EQ(RaisedId([&] { n = r.Run(c.a); }), c.error) << "limit " << c.limit << " a " << c.a;
    if (!*c.error) {
      EXPECT_EQ(n, c.a);
    }
    // After a stop the same evaluator runs the next row from its start.
    EXPECT_EQ(r.Run(2), 2);
  }
}

TEST(Limits, ValuesLargerThanTheBoundAreRefusedWhereTheyAreWritten) {
  QuietLog quiet;
  // t = s || s, then t = t || t in a loop that never ends: the doubling value
  // reaches the bound long before memory runs out.
  const std::string body =
      std::string(kDescriptors) + "<Operators>" +
      Op("first", "ConcatenateString", Ref("Input", "In", "s") + Ref("Input", "In", "s"),
         Ref("Output", "Out", "t")) +
      Op("again", "ConcatenateString", Ref("Output", "Out", "t") + Ref("Output", "Out", "t"),
         Ref("Output", "Out", "t")) +
      Op("loop", "IfTrueGoto", Ref("Temporary", "T", "more") + Ref("Constant", "K", "one"), "") +
      "</Operators>";
  Runner r(body);
  VxLimits limits;
  limits.max_value_bytes = 1 << 20;
  VxLimitsScope scope(limits);
  // `more` is NULL: one pass, 4 then 8 bytes.
  EXPECT_EQ(RaisedId([&] { r.Run(0, "ab"); }), "");
  // A row value itself past the bound is refused when the row is built.
  EXPECT_EQ(RaisedId([&] { r.Run(0, std::string((1 << 20) + 1, 'x')); }),
            "VX_SERVER_LIMIT_VALUE_TOO_LARGE");
  // Exactly at the bound is allowed; twice that is not.
  EXPECT_EQ(RaisedId([&] { r.Run(0, std::string(1 << 19, 'x')); }),
            "VX_SERVER_LIMIT_VALUE_TOO_LARGE");
  EXPECT_EQ(RaisedId([&] { r.Run(0, std::string(1 << 18, 'x')); }), "");
  EXPECT_EQ(CpxTupleField_String::GetView(r.ev->GetOutputTuples()->GetObjectByPos(0), 1).size(),
            1u << 20);
}

TEST(Limits, LoadBoundsGiveTheirErrorsAtTheExactLimit) {
  QuietLog quiet;
  const std::string doc = ContextXml(CountingLoop());
  const std::string path = ::testing::TempDir() + "limits_context.xml";
  std::ofstream(path) << doc;
  const std::function<void()> load_memory = [&] { Load(doc); };
  const std::function<void()> load_file = [&] {
    CpxExpressionContext_Engine::LoadFromFile(path, nullptr);
  };
  // Deepest element: ExpressionContext > Operators > Operator >
  // InputParameters > TupleFieldRef, at depth 4.
  struct Case {
    void (*set)(VxLimits&, uint64_t);
    uint64_t ok, refused;
    const char* error;
  } cases[] = {
      {[](VxLimits& l, uint64_t v) { l.max_document_depth = static_cast<uint32_t>(v); }, 5, 4,
       "VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP"},
      {[](VxLimits& l, uint64_t v) { l.max_document_bytes = v; }, doc.size(), doc.size() - 1,
       "VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE"},
      {[](VxLimits& l, uint64_t v) { l.max_operators_per_context = static_cast<uint32_t>(v); }, 3,
       2, "VX_SERVER_LIMIT_TOO_MANY_OPERATORS"},
  };
  for (const Case& c : cases) {
    for (const std::function<void()>* load : {&load_memory, &load_file}) {
      VxLimits limits;
      c.set(limits, c.ok);
      {
        VxLimitsScope scope(limits);
        EXPECT_EQ(RaisedId(*load), "") << c.error;
      }
      c.set(limits, c.refused);
      VxLimitsScope scope(limits);
      EXPECT_EQ(RaisedId(*load), c.error);
    }
  }
  std::remove(path.c_str());
}

TEST(Limits, DeepDocumentErrorNamesFileAndLine) {
  QuietLog quiet;
  std::string doc = ContextXml(CountingLoop());
  // Put the first operator on line 3.
  doc.insert(doc.find("<Operators>") + 11, "\n\n");
  VxLimits limits;
  limits.max_document_depth = 4;
  VxLimitsScope scope(limits);
  try {
    Load(doc);
    FAIL() << "a document deeper than the bound loaded";
  } catch (const ExceptionType& e) {
    EXPECT_STREQ(e.GetMessage().GetId(), "VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP");
    const std::string text = e.what();
    EXPECT_NE(text.find("deeper than 4 levels at line 3 in file test.xml"), std::string::npos)
        << text;
  }
}

}  // namespace
}  // namespace vx
