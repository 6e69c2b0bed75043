// The evaluator's next-operator contract, Reset, and the grouped evaluator map.
#include <gtest/gtest.h>

#include "support/memory.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::Ref;

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"k\" Type=\"string\"/>"
    "<Field Name=\"a\" Type=\"integer\"/><Field Name=\"target\" Type=\"integer\"/>"
    "<Field Name=\"flag\" Type=\"boolean\"/></TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"n\" Type=\"integer\" Default=\"0\"/>"
    "</TupleDescriptor></OutputTuples>"
    "<ConstantTuples><TupleDescriptor Name=\"K\"><Field Name=\"one\" Type=\"integer\" Default=\"1\"/>"
    "</TupleDescriptor></ConstantTuples>";

// Out.n = Out.n + 1: counts how many times the operator ran in one row.
std::string Count(const char* name) {
  return Op(name, "AddInteger", Ref("Output", "Out", "n") + Ref("Constant", "K", "one"),
            Ref("Output", "Out", "n"));
}

Ptr<CpxTuple> Row(const CpxExpressionContext_Engine& ctx, const char* k, int a, int target,
                  bool flag, int sign = Message::kPositive) {
  Ptr<CpxTuple> t = ctx.GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
  CpxTupleField_String::SetValue(*t, 0, k);
  CpxTupleField_Integer::SetValue(*t, 1, a);
  CpxTupleField_Integer::SetValue(*t, 2, target);
  CpxTupleField_Boolean::SetValue(*t, 3, flag);
  t->SetTupleType(sign);
  return t;
}

int RunCount(CpxExpressionContext_Engine& ctx, const Ptr<CpxTuple>& row,
             Ptr<CpxExpressionEvaluator_Engine>* out_ev = nullptr) {
  CpxTuplesList_Vector inputs;
  inputs.Add(row);
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx.GetEvaluator(*row);
  ev->Reset();
  ev->Execute(0, &inputs);
  if (out_ev) *out_ev = ev;
  return CpxTupleField_Integer::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0);
}

class NextOperatorContract : public ::testing::TestWithParam<std::pair<int, int>> {};

// Operators: 0 Count, 1 Goto(target), 2 Count, 3 Count. The row's target
// decides where the jump at position 1 lands; the result is how many counts
// ran.
TEST_P(NextOperatorContract, JumpTargets) {
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(
      std::string(kDescriptors) + "<Operators>" + Count("c0") +
      Op("jump", "Goto", Ref("Input", "In", "target"), "") + Count("c2") + Count("c3") +
      "</Operators>"));
  ctx->InitializeEvaluators();
  auto [target, expected] = GetParam();
  EXPECT_EQ(RunCount(*ctx, Row(*ctx, "x", 0, target, true)), expected) << "target " << target;
}

INSTANTIATE_TEST_SUITE_P(Evaluator, NextOperatorContract,
                         ::testing::Values(std::pair{1, 3},    // own position: falls through
                                           std::pair{2, 3},    // next position
                                           std::pair{3, 2},    // skips one
                                           std::pair{4, 1},    // = count: ends the run
                                           std::pair{99, 1},   // beyond: ends the run
                                           std::pair{-1, 1})); // negative: ends the run

TEST(Evaluator, StopStoresCountPlusOneAndSecondExecuteRunsNothing) {
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(
      std::string(kDescriptors) + "<Operators>" + Count("c0") +
      Op("stop", "IfTrueStop", Ref("Input", "In", "flag"), "") + Count("c2") + "</Operators>"));
  ctx->InitializeEvaluators();
  Ptr<CpxTuple> row = Row(*ctx, "x", 0, 0, true);
  Ptr<CpxExpressionEvaluator_Engine> ev;
  EXPECT_EQ(RunCount(*ctx, row, &ev), 1);
  EXPECT_EQ(ev->GetNextOperator(), 4u);
  CpxTuplesList_Vector inputs;
  inputs.Add(row);
  ev->Execute(0, &inputs);  // no Reset: starts past the end
  EXPECT_EQ(CpxTupleField_Integer::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0), 1);
  EXPECT_EQ(RunCount(*ctx, Row(*ctx, "x", 0, 0, false)), 2);
}

TEST(Evaluator, BackwardJumpLoopsUntilConditionChanges) {
  // 0 Count; 1 t.more = n < a; 2 IfTrueGoto(t.more, 0): runs Count a times.
  const std::string body =
      std::string(kDescriptors) +
      "<TemporaryTuples><TupleDescriptor Name=\"T\"><Field Name=\"more\" Type=\"boolean\"/>"
      "<Field Name=\"zero\" Type=\"integer\" Default=\"0\"/></TupleDescriptor></TemporaryTuples>"
      "<Operators>" + Count("c0") +
      Op("test", "LessInteger", Ref("Output", "Out", "n") + Ref("Input", "In", "a"),
         Ref("Temporary", "T", "more")) +
      Op("loop", "IfTrueGoto", Ref("Temporary", "T", "more") + Ref("Input", "In", "target"), "") +
      "</Operators>";
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(body));
  ctx->InitializeEvaluators();
  EXPECT_EQ(RunCount(*ctx, Row(*ctx, "x", 5, 0, true)), 5);
  EXPECT_EQ(RunCount(*ctx, Row(*ctx, "x", 1, 0, true)), 1);
}

TEST(Evaluator, ResetLeavesCleanEvaluatorAndReplacesHeldOutput) {
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators>" + Count("c0") + "</Operators>"));
  ctx->InitializeEvaluators();
  Ptr<CpxTuple> row = Row(*ctx, "x", 0, 0, true);
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
  ev->SetNextOperator(7);
  ev->Reset();  // clean: untouched
  EXPECT_EQ(ev->GetNextOperator(), 7u);

  ev->SetNextOperator(0);
  CpxTuplesList_Vector inputs;
  inputs.Add(row);
  ev->Execute(0, &inputs);
  CpxTuple* reused = ev->GetOutputTuples()->GetObjectByPos(0);
  ev->Reset();
  EXPECT_EQ(ev->GetOutputTuples()->GetObjectByPos(0), reused);  // released: reused in place
  EXPECT_EQ(CpxTupleField_Integer::GetValue(reused, 0), 0);     // back to its default

  ev->Execute(0, &inputs);
  Ptr<CpxTuple> held = ev->GetOutputTuples()->GetPtrByPos(0);
  ev->Reset();
  EXPECT_NE(ev->GetOutputTuples()->GetObjectByPos(0), held.Get());
  EXPECT_EQ(CpxTupleField_Integer::GetValue(held, 0), 1);  // the caller's tuple is untouched
  EXPECT_EQ(CpxTupleField_Integer::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0), 0);
}

TEST(Evaluator, EmptyProgramKeepsDefaults) {
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(kDescriptors));
  ctx->InitializeEvaluators();
  EXPECT_EQ(RunCount(*ctx, Row(*ctx, "x", 0, 0, true)), 0);
}

TEST(Evaluator, GroupsAreCreatedCountedAndDropped) {
  testing::TestParent parent({"k"});
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators>" + Count("c0") + "</Operators>"),
           &parent);
  ctx->InitializeEvaluators();
  ASSERT_TRUE(ctx->GetGroupByKey());
  EXPECT_EQ(ctx->GetGroupBySize(), 1u);

  Ptr<CpxExpressionEvaluator_Engine> a1 = ctx->GetEvaluator(*Row(*ctx, "A", 0, 0, true));
  Ptr<CpxExpressionEvaluator_Engine> b1 = ctx->GetEvaluator(*Row(*ctx, "B", 0, 0, true));
  Ptr<CpxExpressionEvaluator_Engine> a2 = ctx->GetEvaluator(*Row(*ctx, "A", 9, 0, true));
  EXPECT_EQ(a1, a2);
  EXPECT_NE(a1, b1);
  EXPECT_EQ(a1->GetTuplesCount(), 2u);
  EXPECT_EQ(ctx->GetGroupCount(), 2u);

  ctx->GetEvaluator(*Row(*ctx, "A", 0, 0, true, Message::kNegative));
  Ptr<CpxExpressionEvaluator_Engine> last =
      ctx->GetEvaluator(*Row(*ctx, "A", 0, 0, true, Message::kNegative));
  EXPECT_EQ(last, a1);  // still returned for its last (negative) row
  EXPECT_TRUE(last->IsCleanupOnExit());
  EXPECT_EQ(ctx->GetGroupCount(), 1u);
  Ptr<CpxExpressionEvaluator_Engine> a3 = ctx->GetEvaluator(*Row(*ctx, "A", 0, 0, true));
  EXPECT_NE(a3, a1);  // a new group
  EXPECT_EQ(a3->GetTuplesCount(), 1u);

  // A new group whose first row is negative keeps the wrapped count.
  Ptr<CpxExpressionEvaluator_Engine> c =
      ctx->GetEvaluator(*Row(*ctx, "C", 0, 0, true, Message::kNegative));
  EXPECT_EQ(c->GetTuplesCount(), 4294967295u);
}

TEST(Evaluator, GroupKeyIsACopyOfTheFirstRow) {
  testing::TestParent parent({"k"});
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators/>"), &parent);
  ctx->InitializeEvaluators();
  Ptr<CpxTuple> row = Row(*ctx, "A", 0, 0, true);
  Ptr<CpxExpressionEvaluator_Engine> a = ctx->GetEvaluator(*row);
  CpxTupleField_String::SetValue(*row, 0, "B");  // the caller reuses its row object
  EXPECT_NE(ctx->GetEvaluator(*row), a);
  EXPECT_EQ(ctx->GetEvaluator(*Row(*ctx, "A", 0, 0, true)), a);
}

TEST(Evaluator, VariablesAreSharedByGroups) {
  testing::TestParent parent({"k"});
  // Variable descriptors come before the constant ones in a context.
  std::string descriptors = kDescriptors;
  descriptors.insert(descriptors.find("<ConstantTuples>"),
                     "<VariableTuples><TupleDescriptor Name=\"V\"><Field Name=\"rows\" "
                     "Type=\"integer\" Default=\"0\"/></TupleDescriptor></VariableTuples>");
  const std::string body =
      descriptors + "<Operators>" +
      Op("count", "AddInteger", Ref("Variable", "V", "rows") + Ref("Constant", "K", "one"),
         Ref("Variable", "V", "rows")) +
      "</Operators>";
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(body), &parent);
  ctx->InitializeEvaluators();
  RunCount(*ctx, Row(*ctx, "A", 0, 0, true));
  RunCount(*ctx, Row(*ctx, "B", 0, 0, true));
  RunCount(*ctx, Row(*ctx, "A", 0, 0, true));
  EXPECT_EQ(CpxTupleField_Integer::GetValue(ctx->GetVariableTuples()->GetObjectByPos(0), 0), 3);
}

TEST(Evaluator, WarmLoopDoesNotAllocate) {
  std::string ops;
  for (int i = 0; i < 10; ++i) ops += Count(("c" + std::to_string(i)).c_str());
  Ptr<CpxExpressionContext_Engine> ctx =
      Load(ContextXml(std::string(kDescriptors) + "<Operators>" + ops + "</Operators>"));
  ctx->InitializeEvaluators();
  Ptr<CpxTuple> row = Row(*ctx, "x", 0, 0, true);
  CpxTuplesList_Vector inputs;
  inputs.Add(row);
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx->GetEvaluator(*row);
  ev->Reset();
  ev->Execute(0, &inputs);
  const uint64_t before = VxMemoryGetUsage().allocations;
  for (int i = 0; i < 1000; ++i) {
    Ptr<CpxExpressionEvaluator_Engine> e = ctx->GetEvaluator(*row);
    e->Reset();
    e->Execute(i, &inputs);
  }
  EXPECT_EQ(VxMemoryGetUsage().allocations, before);
  EXPECT_EQ(CpxTupleField_Integer::GetValue(ev->GetOutputTuples()->GetObjectByPos(0), 0), 10);
}

}  // namespace
}  // namespace vx
