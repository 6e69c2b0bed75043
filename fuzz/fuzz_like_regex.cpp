// LIKE translation and the regex operators. The input is a subject, a
// pattern and a replacement separated by NUL bytes; each runs through LIKE,
// match, search, first search and replace in one context, so that compiled
// patterns are also reused and replaced from one input to the next.
#include <algorithm>

#include "fuzz/fuzz_common.h"

namespace {

using namespace vx;

const char* kContext = R"(<ExpressionContext Name="re" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <InputTuples><TupleDescriptor Name="In"><Field Name="s" Type="string"/><Field Name="p" Type="string"/>
    <Field Name="r" Type="string"/></TupleDescriptor></InputTuples>
  <OutputTuples><TupleDescriptor Name="Out"><Field Name="like" Type="boolean"/><Field Name="match" Type="boolean"/>
    <Field Name="search" Type="boolean"/><Field Name="first" Type="string"/><Field Name="replaced" Type="string"/>
  </TupleDescriptor></OutputTuples>
  <Operators>
    <Operator Name="like" xsi:type="LikeString"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="s"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="p"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="like"/></OutputParameters></Operator>
    <Operator Name="match" xsi:type="RegexMatchBoostString"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="s"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="p"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="match"/></OutputParameters></Operator>
    <Operator Name="search" xsi:type="RegexSearchBoostString"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="s"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="p"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="search"/></OutputParameters></Operator>
    <Operator Name="first" xsi:type="RegexFirstSearchBoostString"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="s"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="p"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="first"/></OutputParameters></Operator>
    <Operator Name="replace" xsi:type="RegexReplaceBoostString"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="s"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="p"/>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="r"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="replaced"/></OutputParameters></Operator>
  </Operators>
</ExpressionContext>)";

// Runs the row once from each operator on, so that a pattern that does not
// compile for one operator still lets the ones after it run.
void RunEach(CpxExpressionContext_Engine& ctx, const Ptr<CpxTuple>& row) {
  CpxTuplesList_Vector rows;
  rows.Add(row);
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx.GetEvaluator(*row);
  const uint32_t count = ctx.GetOperators().GetSize();
  for (uint32_t op = 0; op < count; ++op) {
    try {
      ev->Reset();
      ev->SetNextOperator(op);
      ev->Execute(0, &rows);
    } catch (const ExceptionType&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Setup();
  static Ptr<CpxExpressionContext_Engine> ctx = [] {
    Ptr<CpxExpressionContext_Engine> c =
        CpxExpressionContext_Engine::LoadFromString(kContext, "re.xml", nullptr);
    c->InitializeEvaluators();
    return c;
  }();
  // Keep matches short: Boost bounds the work of one match, not its speed.
  size = std::min<size_t>(size, 512);
  std::string_view in(reinterpret_cast<const char*>(data), size);
  std::string_view parts[3];
  for (int i = 0; i < 3; ++i) {
    const size_t cut = i < 2 ? in.find('\0') : std::string_view::npos;
    parts[i] = in.substr(0, cut);
    in = cut == std::string_view::npos ? std::string_view() : in.substr(cut + 1);
  }
  Ptr<CpxTuple> row = ctx->GetInputTupleDescriptors().GetObjectByPos(0)->CreateDefaultTuple();
  for (unsigned i = 0; i < 3; ++i) CpxTupleField_String::SetValue(*row, i, parts[i]);
  RunEach(*ctx, row);
  return 0;
}
