// The XML operators' exact fault texts (load and run time), the shredding
// mode, and values that reach an XML field without being read as text.
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <map>
#include <optional>

#include "tests/unit/test_util.h"

namespace vx {
namespace {

using testing::ContextXml;
using testing::Op;
using testing::Ref;

const char* kDescriptors =
    "<InputTuples><TupleDescriptor Name=\"In\"><Field Name=\"x\" Type=\"xml\"/>"
    "<Field Name=\"y\" Type=\"xml\"/><Field Name=\"s\" Type=\"string\"/>"
    "<Field Name=\"t\" Type=\"string\"/><Field Name=\"u\" Type=\"string\"/>"
    "<Field Name=\"b\" Type=\"boolean\"/></TupleDescriptor></InputTuples>"
    "<OutputTuples><TupleDescriptor Name=\"Out\"><Field Name=\"x\" Type=\"xml\"/>"
    "<Field Name=\"s\" Type=\"string\"/><Field Name=\"b\" Type=\"boolean\"/>"
    "</TupleDescriptor></OutputTuples>";

// One operator "op" of `type` over input fields `inputs` writing Out.`out`.
std::string OneOperator(const std::string& type, const std::vector<std::string>& inputs,
                        const char* out) {
  std::string refs;
  for (const std::string& f : inputs) refs += Ref("Input", "In", f.c_str());
  return ContextXml(std::string(kDescriptors) + "<Operators>" +
                    Op("op", type, refs, Ref("Output", "Out", out)) + "</Operators>");
}

// The message a failing load or run raised ("" when nothing failed).
template <class Fn>
std::string RaisedText(Fn&& fn) {
  testing::QuietLog quiet;
  try {
    fn();
  } catch (const ExceptionType& e) {
    return e.GetMessage().GetText();
  }
  return "";
}

// Runs one row through a loaded context; `fields` are text forms (nullopt:
// NULL). Raises what the operators raise.
class Runner {
 public:
  explicit Runner(const std::string& context) : m_ctx(testing::Load(context)) {
    m_ctx->InitializeEvaluators();
  }
  const CpxTupleDescriptor* InputDescriptor() const {
    return m_ctx->GetInputTupleDescriptors().GetObjectByPos(0);
  }
  const CpxTuple& Run(const std::map<std::string, std::optional<std::string>>& fields,
                      const CpxXmlShredderContext* shredder = nullptr) {
    const CpxTupleDescriptor* td = InputDescriptor();
    Ptr<CpxTuple> row = td->CreateDefaultTuple();
    for (const auto& [name, text] : fields) {
      unsigned pos = 0;
      EXPECT_TRUE(td->FindFieldPos(name, pos)) << name;
      if (text) {
        EXPECT_TRUE(SetFieldFromText(*row, pos, *text)) << name << "=" << *text;
      }
    }
    return RunRow(row, shredder);
  }
  const CpxTuple& RunRow(const Ptr<CpxTuple>& row, const CpxXmlShredderContext* shredder) {
    CpxTuplesList_Vector inputs;
    inputs.Add(row);
    m_ev = m_ctx->GetEvaluator(*row);
    m_ev->SetShredderContext(shredder);
    m_ev->Reset();
    m_ev->Execute(0, &inputs);
    return *m_ev->GetOutputTuples()->GetObjectByPos(0);
  }

 private:
  Ptr<CpxExpressionContext_Engine> m_ctx;
  Ptr<CpxExpressionEvaluator_Engine> m_ev;
};

TEST(XmlOperators, ParameterCountTextsAtLoad) {
  const struct {
    const char* type;
    std::vector<std::string> inputs;
    const char* out;
    const char* text;
  } cases[] = {
      {"XmlExists", {"x", "s", "t"}, "b",
       "Expected 1 or 2 parameters XmlExist: xml, xpath_string or: xpath_string"},
      {"XmlExtract", {}, "x",
       "Expected 1 or 2 parameters XmlExtract: xml, xpath_string or: xpath_string"},
      {"XmlExtractValue", {"x", "s", "t"}, "s",
       "Expected 1 or 2 parameters XmlExtractValue: xml, xpath_string or: xpath_string"},
      {"XmlInsertXml", {"x", "y", "s"}, "x",
       "Expected exactly 4 parameters XmlInsertXml(): xml, xml, string"},
      {"XmlUpdateXml", {"x", "y"}, "x",
       "Expected exactly 2 parameters XmlUpdateXml(): xml, xml, string"},
      {"XmlDeleteXml", {"x"}, "x", "Expected exactly 2 parameters XmlDeleteXml: xml, string"},
      {"XmlTransform", {"x"}, "x", "Expected exactly 2 parameters XmlTransform: xml, xml"},
      {"ToStringXml", {}, "s", "Expected at least 1 parameter in ToStringXml: xml, bool(optional)"},
      {"XmlAddNodes", {"x", "b"}, "x",
       "Expected at least 3 parameters XmlAddNodes: xml, bool, xml [, xml(optional), ..."},
      {"XmlAddChildrenNodes", {"x", "b"}, "x",
       "Expected at least 3 parameters XmlAddChildrenNode: xml, bool, xml [, xml(optional), ..."},
      {"XmlAddElementNode", {"x"}, "x",
       "Expected at least 2 parameters for XmlAddElementNode: xml, string, string(optional), "
       "string(optional), string(optional"},
      {"XmlAddChildTextNode", {"x"}, "x",
       "Expected at least 2 parameters for XmlAddChildTextNode: xml, string, [string, ...]"},
      {"XmlAddChildCommentNode", {"x"}, "x",
       "Expected at least 2 parameters for XmlAddChildCommentNode: xml, string, [string, ...]"},
      {"XmlAddChildPINode", {"x"}, "x",
       "Expected at least 2 parameters XmlAddChildPINode: xml, string [, string(optional), ..."},
      {"XmlAddNamespaceNode", {"x", "s"}, "x",
       "Expected 3 parameters XmlAddNamespaceNode: xml, ns-uri(string), ns-prefix(string)"},
      {"XmlAggAccumulatorXml", {"x"}, "x",
       "Expected exactly 2 parameters XmlAggAccumulator: xml, bool, xml"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    EXPECT_EQ(RaisedText([&] { testing::Load(OneOperator(c.type, c.inputs, c.out)); }), c.text);
  }
}

TEST(XmlOperators, ParameterTypesAtLoad) {
  const struct {
    const char* type;
    std::vector<std::string> inputs;
    const char* out;
    const char* text_part;
  } cases[] = {
      {"XmlAddNamespaceNode", {"x", "b", "s"}, "x", "second input parameter must be of type na-uri string"},
      {"XmlAddNamespaceNode", {"x", "s", "b"}, "x", "third input parameter must be of type ns-prefix string"},
      {"XmlExists", {"s", "x"}, "b", "first input parameter must be of type xml"},
      {"XmlExists", {"x"}, "b", "first input parameter must be of type string"},
      {"XmlExtractValue", {"x", "s"}, "x", "output parameter must be of type string"},
      {"XmlAddNodes", {"x", "b", "x", "x", "s"}, "x", "input parameter 5 must be of type xml"},
      {"XmlAggAccumulatorXml", {"x", "s"}, "x", "second input parameter must be of type boolean"},
      {"XPathString", {"x", "s"}, "s", "expects two string input parameters"},
      {"ToXmlString", {"s"}, "s", "expects one string input"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + c.text_part);
    const std::string text = RaisedText([&] { testing::Load(OneOperator(c.type, c.inputs, c.out)); });
    EXPECT_NE(text.find(c.text_part), std::string::npos) << text;
  }
}

TEST(XmlOperators, RunTimeTexts) {
  const CpxXmlShredderContext no_root{nullptr, nullptr};
  xmlDocPtr doc = xmlReadMemory("<r/>", 4, nullptr, nullptr, 0);
  const CpxXmlShredderContext no_node{xmlDocGetRootElement(doc), nullptr};
  const struct {
    const char* type;
    std::vector<std::string> inputs;
    const char* out;
    std::map<std::string, std::optional<std::string>> row;
    const CpxXmlShredderContext* shredder;
    const char* text;
  } cases[] = {
      {"XmlExtractValue", {"s"}, "s", {{"s", "a"}}, nullptr,
       "XmlExtractValue() Shredder: Bad context information"},
      {"XmlExtractValue", {"s"}, "s", {{"s", "a"}}, &no_root,
       "XmlExtractValue() Shredder: No root_node found!"},
      {"XmlExtractValue", {"s"}, "s", {{"s", "a"}}, &no_node,
       "XmlExtractValue() Shredder: No xml_node found!"},
      {"XmlExtract", {"s"}, "x", {{"s", "a"}}, nullptr, "XmlExtract() Shredder: Bad context information"},
      {"XmlExtract", {"s"}, "x", {{"s", "a"}}, &no_root, "XmlExtract() Shredder: No root_node found!"},
      {"XmlExists", {"s"}, "b", {{"s", "a"}}, &no_node, "XmlExtract() Shredder: No xml_node found!"},
      {"XmlExists", {"x", "s"}, "b", {{"x", "<a/>"}, {"s", "//a["}}, nullptr, "Invalid XPath: //a["},
      {"XmlInsertXml", {"x", "y", "s", "t"}, "x",
       {{"x", "<a/>"}, {"y", "<b/>"}, {"s", "/a"}, {"t", "Inside"}}, nullptr,
       "Invalid location, \"Inside\" in XmlInsertXml()"},
      {"XmlAddAttributeNode", {"x", "s", "t"}, "x", {{"x", "<a/><b/>"}, {"s", "n"}, {"t", "v"}},
       nullptr, "XmlAddAttributeNode_Engine: Exactly one top level element node is expected for op"},
      {"XmlAddChildTextNode", {"x", "s"}, "x", {{"x", "<a/><b/>"}, {"s", "t"}}, nullptr,
       "XmlAddChildTextNode: Exactly one top level element node is expected for op"},
      {"XmlAddChildCommentNode", {"x", "s"}, "x", {{"x", ""}, {"s", "t"}}, nullptr,
       "XmlAddChildTextNode: Exactly one top level element node is expected for op"},
      {"XmlAddChildPINode", {"x", "s"}, "x", {{"x", "t"}, {"s", "p"}}, nullptr,
       "XmlAddChildPINode: Exactly one top level element node is expected for op"},
      {"XmlAddChildrenNodes", {"x", "b", "y"}, "x", {{"x", "<a/><b/>"}, {"b", "true"}, {"y", "<c/>"}},
       nullptr, "XmlAddChildrenNodes: Exactly one top level element node is expected for op"},
      {"XmlAddNamespaceNode", {"x", "s", "t"}, "x", {{"x", "<a/><b/>"}, {"s", "urn:p"}, {"t", "p"}},
       nullptr, "XmlAddNamespaceNode: Exactly one top level element node is expected for op"},
      {"XmlAddElementNode", {"x", "s", "t", "u"}, "x", {{"x", "<a/>"}, {"s", "b"}, {"t", ""}, {"u", "p"}},
       nullptr,
       "XmlAddElementNode: input namespace prefix \"p\" exists but input namespace URI does not! op"},
      {"XmlAddAttributeNode", {"x", "s", "t", "t", "u"}, "x",
       {{"x", "<a/>"}, {"s", "n"}, {"t", ""}, {"u", "p"}}, nullptr,
       "XmlAddElementNode: input namespace prefix \"p\" exists but input namespace URI does not! op"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Runner runner(OneOperator(c.type, c.inputs, c.out));
    EXPECT_EQ(RaisedText([&] { runner.Run(c.row, c.shredder); }), c.text);
  }
  xmlFreeDoc(doc);
}

// With one input, the XPath is evaluated from the node being shredded.
TEST(XmlOperators, ShreddingEvaluatesFromTheCurrentNode) {
  const std::string text =
      "<orders xmlns:p='urn:p'><order id='1'><p:item>pen</p:item></order>"
      "<order id='2'><p:item>ink</p:item><p:item>pad</p:item></order></orders>";
  xmlDocPtr doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0);
  ASSERT_NE(doc, nullptr);
  xmlNodePtr root = xmlDocGetRootElement(doc);
  const std::string ops =
      Op("id", "XmlExtractValue", Ref("Input", "In", "s"), Ref("Output", "Out", "s")) +
      Op("two", "XmlExists", Ref("Input", "In", "t"), Ref("Output", "Out", "b")) +
      Op("items", "XmlExtract", Ref("Input", "In", "u"), Ref("Output", "Out", "x"));
  Runner runner(ContextXml(std::string(kDescriptors) + "<Operators>" + ops + "</Operators>"));
  std::vector<std::string> rows;
  for (xmlNodePtr order = root->children; order; order = order->next) {
    const CpxXmlShredderContext shredder{root, order};
    const CpxTuple& out = runner.Run({{"s", "@id"}, {"t", "count(p:item) = 2"}, {"u", "p:item"}}, &shredder);
    rows.push_back(out.ToString());
  }
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_NE(rows[0].find("x=<p:item xmlns:p=\"urn:p\">pen</p:item>, s=1, b=false"), std::string::npos)
      << rows[0];
  EXPECT_NE(rows[1].find("x=<p:item xmlns:p=\"urn:p\">ink</p:item><p:item xmlns:p=\"urn:p\">pad"
                         "</p:item>, s=2, b=true"),
            std::string::npos)
      << rows[1];
  xmlFreeDoc(doc);
}

// Bytes stored in an xml field through the tuple interface, not read as
// text first, are read with every bound: a hostile value gives NULL and a
// warning that names the reason.
TEST(XmlOperators, UnreadableFieldGivesNullAndAWarning) {
  Runner runner(OneOperator("XmlExtractValue", {"x", "s"}, "s"));
  const CpxTupleDescriptor* td = runner.InputDescriptor();
  std::vector<std::string> warnings;
  LogManager::Sink previous = LogManager::Instance().SetSink([&](const LogMessage& m) {
    if (m.GetLevel() == LogLevel::Warning) warnings.push_back(m.GetText());
  });
  const std::string values[] = {
      "<!DOCTYPE r [<!ENTITY s SYSTEM 'file:///etc/passwd'>]><r>&s;</r>", "<a>",
      std::string(300, '<')};
  for (const std::string& bytes : values) {
    Ptr<CpxTuple> row = td->CreateDefaultTuple();
    CpxTupleField_Xml::SetValue(*row, 0, std::string_view(bytes));
    CpxTupleField_String::SetValue(*row, 2, std::string_view("string(/)"));
    EXPECT_FALSE(runner.RunRow(row, nullptr).HasFieldValue(1));
  }
  LogManager::Instance().SetSink(std::move(previous));
  ASSERT_EQ(warnings.size(), 3u);
  EXPECT_EQ(warnings[0],
            "op: an XML input cannot be read, the result is NULL: the value refers to the external "
            "or undeclared entity 's', which is not loaded");
  EXPECT_NE(warnings[1].find("op: an XML input cannot be read, the result is NULL: line 1:"),
            std::string::npos);
}

}  // namespace
}  // namespace vx
