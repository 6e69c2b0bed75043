// The public embedding interface: loading, typed and text access, grouped
// streams, dropped rows, persistence across two streams, and errors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "vx_expressions/vx_expressions.h"

namespace {

const char* kContext = R"(<ExpressionContext Name="api" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance">
  <InputTuples><TupleDescriptor Name="In"><Field Name="k" Type="string"/><Field Name="a" Type="integer"/>
    <Field Name="keep" Type="boolean"/></TupleDescriptor></InputTuples>
  <OutputTuples><TupleDescriptor Name="Out"><Field Name="a" Type="integer"/><Field Name="prev" Type="integer"/>
    <Field Name="ts" Type="time"/></TupleDescriptor></OutputTuples>
  <ConstantTuples><TupleDescriptor Name="K"><Field Name="one" Type="integer" Default="1"/></TupleDescriptor></ConstantTuples>
  <Operators>
    <Operator Name="drop" xsi:type="IfFalseStop"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="keep"/></InputParameters></Operator>
    <Operator Name="a" xsi:type="AddInteger"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="a"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="a"/></OutputParameters></Operator>
    <Operator Name="prev" xsi:type="Prev"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="a"/>
      <TupleFieldRef xsi:type="ConstantTupleFieldRefType" TupleRef="K" FieldRef="one"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="prev"/></OutputParameters></Operator>
    <Operator Name="ts" xsi:type="GetTimestamp"><InputParameters>
      <TupleFieldRef xsi:type="InputTupleFieldRefType" TupleRef="In" FieldRef="k"/></InputParameters>
      <OutputParameters><TupleFieldRef xsi:type="OutputTupleFieldRefType" TupleRef="Out" FieldRef="ts"/></OutputParameters></Operator>
  </Operators>
</ExpressionContext>)";

using vx_expressions::Error;
using vx_expressions::Stream;
using vx_expressions::StreamOptions;
using vx_expressions::Tuple;

// Pushes (k, a, keep); returns "a/prev" of the output, or "dropped".
std::string Push(Stream& s, const char* k, int a, bool keep = true, bool negative = false) {
  Tuple& row = s.Row();
  row.SetText(row.FieldIndex("k"), k);
  row.SetInt64(row.FieldIndex("a"), a);
  row.SetBool(row.FieldIndex("keep"), keep);
  row.SetNegative(negative);
  row.SetTimestamp(1500000);
  if (!s.Push(0)) return "dropped";
  const Tuple& out = s.Output(0);
  return out.Text(0).value_or("NULL") + "/" + out.Text(1).value_or("NULL");
}

TEST(PublicApi, GroupedStreamWithTypedAccess) {
  StreamOptions options;
  options.group_by = {"k"};
  auto s = Stream::OpenString(kContext, "api.xml", options);
  EXPECT_EQ(Push(*s, "x", 1), "1/NULL");
  EXPECT_EQ(Push(*s, "y", 2), "2/NULL");
  EXPECT_EQ(Push(*s, "x", 3), "3/1");
  EXPECT_EQ(Push(*s, "x", 4, false), "dropped");
  EXPECT_EQ(Push(*s, "x", 5), "5/3");
  EXPECT_EQ(s->GroupCount(), 2u);
  const Tuple& out = s->Output(0);
  EXPECT_EQ(out.DescriptorName(), "Out");
  EXPECT_EQ(out.Int64(0), 5);
  EXPECT_STREQ(out.FieldType(2), "time");
  EXPECT_EQ(out.Int64(2), 1500000);
  EXPECT_EQ(*out.Text(2), "1970-01-01 00:00:01.500000");
  EXPECT_THROW(out.Double(0), Error);
  // The row is cleared after a push.
  EXPECT_TRUE(s->Row().IsNull(0));
  EXPECT_FALSE(s->Row().IsNegative());
}

TEST(PublicApi, ErrorsNameTheirCause) {
  auto s = Stream::OpenString(kContext, "api.xml");
  Tuple& row = s->Row();
  EXPECT_THROW(row.FieldIndex("nope"), Error);
  EXPECT_THROW(row.SetText(row.FieldIndex("a"), "x1"), Error);
  EXPECT_THROW(row.SetInt64(row.FieldIndex("a"), int64_t{1} << 40), Error);
  EXPECT_THROW(row.SetDouble(row.FieldIndex("a"), 1.0), Error);
  EXPECT_THROW(s->Output(0), Error);  // nothing pushed yet
  try {
    Stream::OpenString("<ExpressionContext>\n<Operators>\n<Oops/>", "bad.xml");
    FAIL() << "a malformed context must not load";
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("bad.xml"), std::string::npos) << e.what();
  }
  StreamOptions grouped;
  grouped.group_by = {"missing"};
  EXPECT_THROW(Stream::OpenString(kContext, "api.xml", grouped), Error);
}

TEST(PublicApi, LimitsMatchTheEngineAndAreEnforced) {
  const vx_expressions::Limits defaults;
  const vx_expressions::Limits in_force = vx_expressions::GetLimits();
  EXPECT_EQ(in_force.max_document_depth, defaults.max_document_depth);
  EXPECT_EQ(in_force.max_document_bytes, defaults.max_document_bytes);
  EXPECT_EQ(in_force.max_operators_per_context, defaults.max_operators_per_context);
  EXPECT_EQ(in_force.max_value_bytes, defaults.max_value_bytes);
  EXPECT_EQ(in_force.max_steps_per_evaluation, defaults.max_steps_per_evaluation);

  vx_expressions::Limits tight = defaults;
  tight.max_operators_per_context = 3;
  vx_expressions::SetLimits(tight);
  try {
    Stream::OpenString(kContext, "api.xml");
    ADD_FAILURE() << "a context over the operator bound loaded";
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("VX_SERVER_LIMIT_TOO_MANY_OPERATORS"), std::string::npos)
        << e.what();
  }
  tight.max_operators_per_context = 4;
  tight.max_value_bytes = 3;
  vx_expressions::SetLimits(tight);
  auto s = Stream::OpenString(kContext, "api.xml");
  EXPECT_EQ(Push(*s, "abc", 1), "1/NULL");
  EXPECT_THROW(Push(*s, "abcd", 1), Error);
  vx_expressions::SetLimits(defaults);
}

TEST(PublicApi, StateFolderCarriesGroupsToTheNextStream) {
  const std::string dir = (std::filesystem::temp_directory_path() /
                           ("vx_api_state_" + std::to_string(::getpid())))
                              .string();
  std::filesystem::remove_all(dir);
  StreamOptions options;
  options.group_by = {"k"};
  options.state_dir = dir;
  {
    auto s = Stream::OpenString(kContext, "api.xml", options);
    EXPECT_EQ(Push(*s, "x", 1), "1/NULL");
    EXPECT_EQ(Push(*s, "y", 2), "2/NULL");
  }
  {
    auto s = Stream::OpenString(kContext, "api.xml", options);
    EXPECT_EQ(s->GroupCount(), 2u);
    EXPECT_EQ(Push(*s, "x", 3), "3/1");
    EXPECT_EQ(Push(*s, "y", 0, true, true), "0/2");  // y's only row leaves: the group goes
    EXPECT_EQ(s->GroupCount(), 1u);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
