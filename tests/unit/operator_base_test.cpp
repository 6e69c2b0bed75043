// Parameter checking of the operator base, the registry, and the context's
// XML round trip.
#include <gtest/gtest.h>

#include "cpx_expressions/cpx_operator_registry.h"
#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Load;
using testing::Op;
using testing::Ref;

// An operator whose checks the test drives by hand.
class ProbeOperator final : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  static const XmlQName& GetOperatorType() {
    static const XmlQName name("TestProbe");
    return name;
  }
  void InsureValidParameters() const override {}
  void Execute(CpxExpressionEvaluator_Engine*, unsigned) const override {}
  bool Check(const XmlQName& in, int min_in, int max_in, const XmlQName& out, int min_out,
             int max_out) const {
    return DoInsureValidParameters(in, min_in, max_in, out, min_out, max_out);
  }
};

const ProbeOperator& LoadProbe(Ptr<CpxExpressionContext_Engine>& holder, const std::string& inputs,
                               const std::string& outputs) {
  static bool registered = [] {
    static const CpxOperatorInfo info =
        VX_OPERATOR(ProbeOperator, "any", "any", "-", "Test probe.");
    CpxExpressionOperatorRegistry::Instance().Register(info);
    return true;
  }();
  (void)registered;
  holder = Load(ContextXml(
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"i\" Type=\"integer\"/>"
      "<Field Name=\"f\" Type=\"float\"/></TupleDescriptor></InputTuples>"
      "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"i\" Type=\"integer\"/>"
      "<Field Name=\"j\" Type=\"integer\"/><Field Name=\"f\" Type=\"float\"/></TupleDescriptor>"
      "</OutputTuples><Operators>" +
      Op("probe", "TestProbe", inputs, outputs) + "</Operators>"));
  return static_cast<const ProbeOperator&>(*holder->GetOperatorByPos(0));
}

TEST(OperatorBase, ParameterCheckTexts) {
  const XmlQName& integer = CpxTupleFieldTypes::IntegerFieldType();
  const XmlQName& flt = CpxTupleFieldTypes::FloatFieldType();
  Ptr<CpxExpressionContext_Engine> ctx;
  const std::string one_int = Ref("Input", "In", "i");
  const std::string three_out =
      Ref("Output", "Out", "i") + Ref("Output", "Out", "j") + Ref("Output", "Out", "i");

  const ProbeOperator& p1 = LoadProbe(ctx, one_int, three_out);
  EXPECT_FALSE(p1.Check(integer, 1, 1, integer, 1, 1));
  EXPECT_EQ(p1.GetLastInsureValidParameterErrorString(),
            "Type integer with 1 output parameters have more than the required maximun of  "
            "with 3 parameters.");
  EXPECT_TRUE(p1.Check(integer, -1, -1, integer, -1, -1));  // -1 disables every count check

  const ProbeOperator& p2 = LoadProbe(ctx, one_int + one_int + one_int, Ref("Output", "Out", "i"));
  EXPECT_FALSE(p2.Check(integer, 1, 2, integer, 1, 1));
  EXPECT_EQ(p2.GetLastInsureValidParameterErrorString(),
            "Type integer with 1 input parameters have more than the required maximum of  with 3 "
            "parameters.");

  // Mixed output types name the input type and the word "input".
  const ProbeOperator& p3 =
      LoadProbe(ctx, one_int, Ref("Output", "Out", "i") + Ref("Output", "Out", "f"));
  EXPECT_FALSE(p3.Check(flt, 0, 1, integer, 1, 2));
  EXPECT_EQ(p3.GetLastInsureValidParameterErrorString(),
            "float: All types for input are not all the same type.");

  const ProbeOperator& p4 = LoadProbe(ctx, "", Ref("Output", "Out", "i"));
  EXPECT_FALSE(p4.Check(integer, -1, -1, integer, 2, -1));
  EXPECT_EQ(p4.GetLastInsureValidParameterErrorString(),
            "Type integer with 2 output parameters have less than the required minimun of  with 1 "
            "parameters.");
  EXPECT_TRUE(p4.Check(flt, -1, -1, integer, 1, 1));  // an empty list passes any type

  testing::QuietLog quiet;
  try {
    p4.Check(integer, 1, -1, integer, 1, 1);
    FAIL() << "too few inputs must raise";
  } catch (const ExceptionType& e) {
    EXPECT_EQ(e.GetMessage().GetText(), "Input parameters have less than the required minimun");
    EXPECT_EQ(*e.GetMessage().FindValue("min_input"), "1");
    EXPECT_EQ(*e.GetMessage().FindValue("size_type"), "0");
  }
}

TEST(OperatorBase, DisplayNameDropsNamespaceAndPrefix) {
  Ptr<CpxExpressionContext_Engine> ctx;
  const ProbeOperator& p = LoadProbe(ctx, "", "");
  EXPECT_EQ(p.GetDisplayName(), "ProbeOperator");
  Ptr<CpxExpressionContext_Engine> noop =
      Load(ContextXml("<Operators>" + Op("n", "Noop", "", "") + "</Operators>"));
  EXPECT_EQ(noop->GetOperatorByPos(0)->GetDisplayName(), "Noop_Engine");
}

TEST(Registry, EveryTypeCreatesItsOwnOperator) {
  for (const CpxOperatorInfo& info : CpxExpressionOperatorRegistry::Instance().GetAll()) {
    Ptr<CpxExpressionOperator_Engine> op =
        CpxExpressionOperatorRegistry::Instance().Create(*info.type, "x", nullptr);
    ASSERT_TRUE(op) << info.type->local;
    EXPECT_EQ(op->GetOperatorTypeName(), *info.type);
  }
  EXPECT_FALSE(CpxExpressionOperatorRegistry::Instance().Create(XmlQName("NoSuchOp"), "x", nullptr));
}

TEST(Context, XmlRoundTripKeepsListsAndLabels) {
  const std::string body =
      "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"b\" Type=\"boolean\"/>"
      "<Field Name=\"s\" Type=\"string\" Default=\"x\"/></TupleDescriptor></InputTuples>"
      "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"d\" Type=\"boolean\"/>"
      "</TupleDescriptor></OutputTuples>"
      "<Operators>" +
      Op("first", "IfTrueGotoLabel", Ref("Input", "In", "b"), "", "GotoLabel=\"end\"") +
      Op("def", "IsDefined", Ref("Input", "In", "s"), Ref("Output", "Out", "d")) +
      Op("last", "Noop", "", "") + "</Operators><Labels><Label Name=\"end\">last</Label>"
      "<Label Name=\"a\">def</Label></Labels>";
  Ptr<CpxExpressionContext_Engine> ctx = Load(ContextXml(body));
  const std::string once = ctx->WriteToString();
  Ptr<CpxExpressionContext_Engine> again =
      CpxExpressionContext_Engine::LoadFromString(once, "again.xml", nullptr);
  EXPECT_EQ(again->WriteToString(), once);
  EXPECT_EQ(again->GetOperatorCount(), 3u);
  EXPECT_EQ(again->GetOperatorPosByLabel("end"), 2u);
  EXPECT_EQ(again->GetOperatorPosByLabel("a"), 1u);
  EXPECT_EQ(once.find("<Labels>") < once.find("<Label Name=\"a\">"), true);
  EXPECT_LT(once.find("Name=\"a\""), once.find("Name=\"end\""));  // labels in name order

  // No labels: the element is not written back; an empty document is an
  // empty program.
  Ptr<CpxExpressionContext_Engine> empty = Load(ContextXml("<Labels/>"));
  EXPECT_EQ(empty->GetOperatorCount(), 0u);
  EXPECT_EQ(empty->WriteToString().find("Labels"), std::string::npos);
}

TEST(TupleKey, HashAndOrder) {
  Ptr<CpxTupleDescriptor> td = MakePtr<CpxTupleDescriptor>("T");
  td->AddField(MakePtr<CpxTupleField>("s", CpxFieldKind::String));
  td->AddField(MakePtr<CpxTupleField>("i", CpxFieldKind::Integer));
  CpxTupleKey_Engine key;
  key.SetDescriptorName("T");
  key.AddField("s", false);
  key.AddField("i", true);
  key.Bind(td.Get());

  Ptr<CpxTuple> a = td->CreateDefaultTuple(), b = td->CreateDefaultTuple();
  EXPECT_EQ(CpxTupleKey_Engine::GetHash(*a, key), 0u);  // all NULL
  CpxTupleField_String::SetValue(*a, 0, "");
  EXPECT_EQ(CpxTupleKey_Engine::GetHash(*a, key), 0u);  // an empty string hashes like NULL
  CpxTupleField_String::SetValue(*a, 0, "ab");
  CpxTupleField_Integer::SetValue(*a, 1, 1);
  // h = h*5 + byte over 'a' 'b' then the integer's four stored bytes.
  uint32_t h = 0;
  for (unsigned char c : {'a', 'b'}) h = h * 5 + c;
  for (unsigned char c : {1, 0, 0, 0}) h = h * 5 + c;
  EXPECT_EQ(CpxTupleKey_Engine::GetHash(*a, key), h);

  CpxTupleField_String::SetValue(*b, 0, "ab");
  CpxTupleField_Integer::SetValue(*b, 1, 2);
  // The second field is descending: 1 sorts after 2.
  EXPECT_GT(CpxTupleKey_Engine::CompareByKey(*a, key, *b, key, CpxTuple::kNullsFirst), 0);
  CpxTupleKey_Engine prefix;
  prefix.SetDescriptorName("T");
  prefix.AddField("s", false);
  prefix.Bind(td.Get());
  EXPECT_EQ(CpxTupleKey_Engine::CompareByKey(*a, prefix, *b, key, CpxTuple::kNullsFirst), 0);

  prefix.CheckCompatible(key);  // a shorter key agreeing on its prefix is compatible
  CpxTupleKey_Engine reversed;
  reversed.SetDescriptorName("T");
  reversed.AddField("s", true);
  reversed.Bind(td.Get());
  testing::QuietLog quiet;
  try {
    reversed.CheckCompatible(key);
    FAIL() << "a different direction must be rejected";
  } catch (const ExceptionType& e) {
    EXPECT_EQ(e.GetMessage().GetText(), "tuple field sort orders do not match");
  }
}

}  // namespace
}  // namespace vx
