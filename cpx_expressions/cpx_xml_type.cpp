// XML functions: XPath queries, node builders, edits by XPath, XSLT and
// text conversions, over XmlDomForest (see cpx_xml_operators.h for how
// values are read and written and how faults are reported).
//
// NULL policy: any NULL input gives a NULL output.
//
// The parameter-count texts are the ones users know from the query
// language's documentation and are kept word for word, including where
// they disagree with the counts they check.
#include <locale>

#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_xml_operators.h"

namespace vx {

// ---- shared pieces ----

bool CpxReadXmlField(const std::string& operation, const CpxTuple& t, unsigned pos,
                     XmlDomForest& forest) {
  XmlDomLog log;
  if (CpxTupleField_Xml::GetValue(&t, pos, forest, log)) return true;
  VX_LOG_TEXT(LogLevel::Warning, "{operation}: an XML input cannot be read, the result is NULL: {error}",
              operation, {"operation", operation}, {"error", log.GetText()});
  return false;
}

bool CpxExpressionOperator_XmlBase_Engine::AnyInputNull(CpxExpressionEvaluator_Engine* ev) const {
  return !CheckAllFieldsAvailable(ev, GetInputParameters());
}

bool CpxExpressionOperator_XmlBase_Engine::ReadXml(CpxExpressionEvaluator_Engine* ev, unsigned i,
                                                   XmlDomForest& forest) const {
  unsigned pos = 0;
  const CpxTuple* t = GetInputTupleField(ev, i, pos);
  return CpxReadXmlField(GetName(), *t, pos, forest);
}

const char* CpxExpressionOperator_XmlBase_Engine::ReadText(CpxExpressionEvaluator_Engine* ev,
                                                           unsigned i) const {
  unsigned pos = 0;
  const CpxTuple* t = GetInputTupleField(ev, i, pos);
  return CpxTupleField_String::GetValue(t, pos);
}

bool CpxExpressionOperator_XmlBase_Engine::ReadBool(CpxExpressionEvaluator_Engine* ev,
                                                    unsigned i) const {
  unsigned pos = 0;
  const CpxTuple* t = GetInputTupleField(ev, i, pos);
  return CpxTupleField_Boolean::GetValue(t, pos);
}

void CpxExpressionOperator_XmlBase_Engine::Write(const OutputSlot& out,
                                                 XmlDomForest&& forest) const {
  XmlDomLog log;
  if (CpxTupleField_Xml::SetValue(*out.tuple, out.pos, std::move(forest), log)) return;
  VX_LOG_TEXT(LogLevel::Warning, "{operation}: the XML result cannot be written, the result is NULL: {error}",
              GetName(), {"operation", GetName()}, {"error", log.GetText()});
  out.SetNull();
}

void CpxExpressionOperator_XmlBase_Engine::Write(const OutputSlot& out, xmlChar* text) const {
  if (!text) return out.SetNull();
  CpxTupleField_String::SetValue(*out.tuple, out.pos, reinterpret_cast<const char*>(text));
  xmlFree(text);
}

void CpxExpressionOperator_XmlBase_Engine::Write(const OutputSlot& out, bool value) const {
  CpxTupleField_Boolean::SetValue(*out.tuple, out.pos, value);
}

void CpxExpressionOperator_XmlBase_Engine::RaiseFault(const XmlDomLog& log,
                                                      const char* xpath) const {
  switch (log.GetFault()) {
    case XmlDomLog::Fault::kInvalidXPath:
      VX_RAISE_TEXT("Invalid XPath: {xpath}", GetName(), {"xpath", xpath ? xpath : ""},
                    {"error", log.GetText()});
    case XmlDomLog::Fault::kLimit:
      VX_RAISE_TEXT("{operation}: the work stopped at a bound: {error}", GetName(),
                    {"operation", GetName()}, {"error", log.GetText()});
    case XmlDomLog::Fault::kRefused:
      VX_RAISE_TEXT("{operation}: refused: {error}", GetName(), {"operation", GetName()},
                    {"error", log.GetText()});
    default:
      VX_RAISE_TEXT("{operation}: {error}", GetName(), {"operation", GetName()},
                    {"error", log.GetText()});
  }
}

void CpxExpressionOperator_XmlBase_Engine::InsureKinds(std::initializer_list<CpxFieldKind> leading,
                                                       CpxFieldKind rest, CpxFieldKind out) const {
  CpxExpressionOperator_Engine::InsureValidParameters();
  unsigned i = 0;
  for (CpxFieldKind kind : leading)
    if (i < InputCount()) InsureInputType(i++, kind);
  for (; i < InputCount(); ++i) InsureInputType(i, rest);
  if (GetOutputParameters().size() != 1)
    VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS);
  InsureOutputType(0, out);
}

}  // namespace vx

namespace vxi {

using namespace vx;

namespace {

using Kind = CpxFieldKind;
using XmlBase = CpxExpressionOperator_XmlBase_Engine;

// Raises `kText` unless the operator has between `min` and `max` inputs.
template <const char* kText>
void InsureInputCount(const CpxExpressionOperator_Engine& op, unsigned min, unsigned max) {
  const size_t n = op.GetInputParameters().size();
  if (n < min || n > max) CpxRaiseXmlText<kText>("InsureValidParameters", op.GetName(), {});
}

constexpr unsigned kAny = ~0u;

// The element that the node builders add to: the forest's single top
// element (comments and processing instructions may stand beside it).
// Raises `kText` ("{engine}: Exactly one ..." or its "{engien}"
// form) naming `engine` otherwise.
template <const char* kText>
xmlNodePtr SingleTopElement(const XmlDomForest& forest, const char* placeholder,
                            const char* engine, const std::string& operation) {
  xmlNodePtr element = forest.GetSingleTopElement();
  if (!element)
    CpxRaiseXmlText<kText>("Execute", operation, {{placeholder, engine}, {"operation", operation}});
  return element;
}

constexpr char kExactlyOne[] = "{engine}: Exactly one top level element node is expected for {operation}";
constexpr char kExactlyOnePI[] =
    "{engien}: Exactly one top level element node is expected for {operation}";
constexpr char kPrefixWithoutUri[] =
    "XmlAddElementNode: input namespace prefix \"{prefix}\" exists but input namespace URI does "
    "not! {operation}";

// The prefix text is shared by XmlAddElementNode and XmlAddAttributeNode.
void InsurePrefixHasUri(const char* uri, const char* prefix, const std::string& operation) {
  if (prefix && *prefix && !(uri && *uri))
    CpxRaiseXmlText<kPrefixWithoutUri>("Execute", operation,
                                       {{"prefix", prefix}, {"operation", operation}});
}

}  // namespace

// ---- XmlExists, XmlExtract, XmlExtractValue ----

// Two inputs (xml, XPath): the XPath is evaluated against the value. One
// input (XPath): it is evaluated from the node the evaluator is shredding
// (CpxXmlShredderContext); without one the operator raises. The input
// count is checked at load and again on every run.
template <class Q>
class CpxExpressionOperator_XPathQuery_Engine : public XmlBase {
 public:
  using XmlBase::XmlBase;

  void InsureValidParameters() const override {
    InsureInputCount<Q::kLoadCount>(*this, 1, 2);
    if (InputCount() == 2) {
      InsureKinds({Kind::Xml, Kind::String}, Kind::String, Q::Out::kKind);
    } else {
      InsureKinds({Kind::String}, Kind::String, Q::Out::kKind);
    }
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    const unsigned n = InputCount();
    if (n != 1 && n != 2)
      CpxRaiseXmlText<Q::kRunCount>("Execute", GetName(), {{Q::kCountName, n}});
    XmlDomLog log;
    const char* xpath = nullptr;
    if (n == 2) {
      if (AnyInputNull(ev)) return out.SetNull();
      XmlDomForest forest;
      if (!ReadXml(ev, 0, forest)) return out.SetNull();
      xpath = ReadText(ev, 1);
      auto result = Q::OnForest(forest, xpath, log);
      if (log.Failed()) RaiseFault(log, xpath);
      return Write(out, std::move(result));
    }
    const CpxXmlShredderContext* shredder = ev->GetShredderContext();
    if (!shredder) CpxRaiseXmlText<Q::kBadContext>("Execute", GetName(), {});
    if (!shredder->root_node) CpxRaiseXmlText<Q::kNoRoot>("Execute", GetName(), {});
    if (!shredder->xml_node) CpxRaiseXmlText<Q::kNoNode>("Execute", GetName(), {});
    if (AnyInputNull(ev)) return out.SetNull();
    xpath = ReadText(ev, 0);
    auto result = Q::OnNode(shredder->root_node, shredder->xml_node, xpath, log);
    if (log.Failed()) RaiseFault(log, xpath);
    Write(out, std::move(result));
  }
};

namespace {

constexpr char kExtractBadContext[] = "XmlExtract() Shredder: Bad context information";
constexpr char kExtractNoRoot[] = "XmlExtract() Shredder: No root_node found!";
constexpr char kExtractNoNode[] = "XmlExtract() Shredder: No xml_node found!";

// XmlExists reports its shredding faults with XmlExtract's texts.
struct ExistsQuery {
  using Out = CpxTupleField_Boolean;
  static constexpr char kLoadCount[] =
      "Expected 1 or 2 parameters XmlExist: xml, xpath_string or: xpath_string";
  static constexpr char kRunCount[] =
      "Expected 1 or 2 parameters found {cnt} in XmlExist(): xml, xpath_string or: xpath_str";
  static constexpr const char* kCountName = "cnt";
  static constexpr const char* kBadContext = kExtractBadContext;
  static constexpr const char* kNoRoot = kExtractNoRoot;
  static constexpr const char* kNoNode = kExtractNoNode;
  static bool OnForest(XmlDomForest& f, const char* xpath, XmlDomLog& log) {
    return f.ExecuteXPathForOneMatch(xpath, log);
  }
  static bool OnNode(xmlNodePtr root, xmlNodePtr node, const char* xpath, XmlDomLog& log) {
    return XmlDomForest::ExecuteXPathForOneMatchWithStartNode(root, node, xpath, log);
  }
};

// Copies of the selected nodes become the result's top-level nodes (moved
// out of the input's own document in the two-input form).
struct ExtractQuery {
  using Out = CpxTupleField_Xml;
  static constexpr char kLoadCount[] =
      "Expected 1 or 2 parameters XmlExtract: xml, xpath_string or: xpath_string";
  static constexpr char kRunCount[] =
      "Expected 1 or 2 parameters found {cnt} in XmlExtract(): xml, xpath_string or: xpath_str";
  static constexpr const char* kCountName = "cnt";
  static constexpr const char* kBadContext = kExtractBadContext;
  static constexpr const char* kNoRoot = kExtractNoRoot;
  static constexpr const char* kNoNode = kExtractNoNode;
  static XmlDomForest OnForest(XmlDomForest& f, const char* xpath, XmlDomLog& log) {
    XmlDomForest result;
    result.AddAsTopElementsFromXPath(f, xpath, log, false);
    return result;
  }
  static XmlDomForest OnNode(xmlNodePtr root, xmlNodePtr node, const char* xpath, XmlDomLog& log) {
    XmlDomForest result;
    result.AddAsTopElementsFromXPathWithStartNode(root, node, xpath, log);
    return result;
  }
};

// The string value of the first selected node; NULL when nothing is
// selected.
struct ExtractValueQuery {
  using Out = CpxTupleField_String;
  static constexpr char kLoadCount[] =
      "Expected 1 or 2 parameters XmlExtractValue: xml, xpath_string or: xpath_string";
  static constexpr char kRunCount[] =
      "Expected 1 or 2 parameters. Found {param_cnt} XmlExtractValue: xml, xpath_string or: "
      "xpath_string";
  static constexpr const char* kCountName = "param_cnt";
  static constexpr char kBadContext[] =
      "XmlExtractValue() Shredder: Bad context information";
  static constexpr char kNoRoot[] =
      "XmlExtractValue() Shredder: No root_node found!";
  static constexpr char kNoNode[] =
      "XmlExtractValue() Shredder: No xml_node found!";
  static xmlChar* OnForest(XmlDomForest& f, const char* xpath, XmlDomLog& log) {
    return f.ExecuteXPathForFirstString(xpath, log);
  }
  static xmlChar* OnNode(xmlNodePtr root, xmlNodePtr node, const char* xpath, XmlDomLog& log) {
    return XmlDomForest::ExecuteXPathForFirstStringWithStartNode(root, node, xpath, log);
  }
};

}  // namespace

VX_DEFINE_OPERATOR(CpxExpressionOperator_XmlExists_Engine, XmlExists,
                   CpxExpressionOperator_XPathQuery_Engine<ExistsQuery>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_XmlExtract_Engine, XmlExtract,
                   CpxExpressionOperator_XPathQuery_Engine<ExtractQuery>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_XmlExtractValue_Engine, XmlExtractValue,
                   CpxExpressionOperator_XPathQuery_Engine<ExtractValueQuery>);

// ---- XPath ----

// The first input is XML text, read as a value; text that cannot be read
// gives NULL (logged).
class CpxExpressionOperator_XPath_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XPathString)

  void InsureValidParameters() const override {
    InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_1_OUTPUT>(
        CpxTupleFieldTypes::StringFieldType(), 2, 2, CpxTupleFieldTypes::StringFieldType());
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    if (AnyInputNull(ev)) return out.SetNull();
    unsigned pos = 0;
    const CpxTuple* t = GetInputTupleField(ev, 0, pos);
    XmlDomForest forest;
    XmlDomLog log;
    if (!CpxTupleField_Xml::FromString(forest, CpxTupleField_String::GetView(t, pos), log)) {
      VX_LOG_TEXT(LogLevel::Warning, "{operation}: the XML text cannot be read, the result is NULL: {error}",
                  GetName(), {"operation", GetName()}, {"error", log.GetText()});
      return out.SetNull();
    }
    const char* xpath = ReadText(ev, 1);
    xmlChar* value = forest.ExecuteXPathForFirstString(xpath, log);
    if (log.Failed()) RaiseFault(log, xpath);
    Write(out, value);
  }
};

// ---- XmlAddElementNode ----

// A new empty element after the value's top-level nodes: name, then the
// optional namespace URI, prefix (which needs a URI) and text content.
class CpxExpressionOperator_XmlAddElementNode_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlAddElementNode)
  static constexpr char kCount[] =
      "Expected at least 2 parameters for XmlAddElementNode: xml, string, string(optional), "
      "string(optional), string(optional";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 2, 5);
    InsureKinds({Kind::Xml}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      const unsigned n = InputCount();
      const char* uri = n > 2 ? ReadText(ev, 2) : nullptr;
      const char* prefix = n > 3 ? ReadText(ev, 3) : nullptr;
      InsurePrefixHasUri(uri, prefix, GetName());
      XmlDomLog log;
      xmlNodePtr element = forest.AddTopElement(ReadText(ev, 1), uri, prefix, &log);
      if (element && n > 4) forest.AddChildTextNode(element, ReadText(ev, 4), log);
      if (log.Failed()) RaiseFault(log, nullptr);
      return true;
    });
  }
};

// ---- XmlAddAttributeNode ----

class CpxExpressionOperator_XmlAddAttributeNode_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlAddAttributeNode)

  void InsureValidParameters() const override {
    if (InputCount() < 3 || InputCount() > 5)
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS);
    InsureKinds({Kind::Xml}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      xmlNodePtr element =
          SingleTopElement<kExactlyOne>(forest, "engine", "XmlAddAttributeNode_Engine", GetName());
      const unsigned n = InputCount();
      const char* uri = n > 3 ? ReadText(ev, 3) : nullptr;
      const char* prefix = n > 4 ? ReadText(ev, 4) : nullptr;
      InsurePrefixHasUri(uri, prefix, GetName());
      XmlDomLog log;
      if (!forest.AddAttributeNode(element, ReadText(ev, 1), ReadText(ev, 2), uri, prefix, log))
        RaiseFault(log, nullptr);
      return true;
    });
  }
};

// ---- XmlAddChildTextNode, XmlAddChildCommentNode, XmlAddChildPINode ----

// Each further string becomes a text child (adjacent texts join) or a
// comment child of the single top element.
template <bool kComment>
class CpxExpressionOperator_XmlAddChildStrings_Engine : public XmlBase {
 public:
  using XmlBase::XmlBase;
  static constexpr char kCount[] =
      "Expected at least 2 parameters for XmlAddChildTextNode: xml, string, [string, ...]";
  static constexpr char kCommentCount[] =
      "Expected at least 2 parameters for XmlAddChildCommentNode: xml, string, [string, ...]";

  void InsureValidParameters() const override {
    InsureInputCount<kComment ? kCommentCount : kCount>(*this, 2, kAny);
    InsureKinds({Kind::Xml}, Kind::String, Kind::Xml);
  }
  // The comment form reports a forest of other than one element with the
  // text form's engine name.
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      xmlNodePtr element =
          SingleTopElement<kExactlyOne>(forest, "engine", "XmlAddChildTextNode", GetName());
      XmlDomLog log;
      for (unsigned i = 1; i < InputCount(); ++i) {
        const char* text = ReadText(ev, i);
        const bool added = kComment ? forest.AddChildCommentNode(element, text, log)
                                    : forest.AddChildTextNode(element, text, log);
        if (!added) RaiseFault(log, nullptr);
      }
      return true;
    });
  }
};

using AddTextBase = CpxExpressionOperator_XmlAddChildStrings_Engine<false>;
class CpxExpressionOperator_XmlAddChildTextNode_Engine final
    : public CpxExpressionOperator_XmlAddChildStrings_Engine<false> {
  VX_OPERATOR_TYPE(AddTextBase, XmlAddChildTextNode)
};
using AddCommentBase = CpxExpressionOperator_XmlAddChildStrings_Engine<true>;
class CpxExpressionOperator_XmlAddChildCommentNode_Engine final
    : public CpxExpressionOperator_XmlAddChildStrings_Engine<true> {
  VX_OPERATOR_TYPE(AddCommentBase, XmlAddChildCommentNode)
};

// A processing instruction child: the target, then the content strings
// joined by single spaces.
class CpxExpressionOperator_XmlAddChildPINode_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlAddChildPINode)
  static constexpr char kCount[] =
      "Expected at least 2 parameters XmlAddChildPINode: xml, string [, string(optional), ...";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 2, kAny);
    InsureKinds({Kind::Xml}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      xmlNodePtr element =
          SingleTopElement<kExactlyOnePI>(forest, "engien", "XmlAddChildPINode", GetName());
      std::string content;
      for (unsigned i = 2; i < InputCount(); ++i) {
        if (i > 2) content += ' ';
        content += ReadText(ev, i);
      }
      XmlDomLog log;
      if (!forest.AddChildPINode(element, ReadText(ev, 1), content.c_str(), log))
        RaiseFault(log, nullptr);
      return true;
    });
  }
};

// ---- XmlAddChildrenNodes, XmlAddNodes ----

// The further XML inputs, in order, appended as children of the single top
// element or as top-level nodes. The boolean is the forest's copy flag:
// true copies the nodes, false moves them out of their input's document;
// the result is the same.
template <bool kChildren>
class CpxExpressionOperator_XmlAddForests_Engine : public XmlBase {
 public:
  using XmlBase::XmlBase;
  static constexpr char kChildrenCount[] =
      "Expected at least 3 parameters XmlAddChildrenNode: xml, bool, xml [, xml(optional), ...";
  static constexpr char kNodesCount[] =
      "Expected at least 3 parameters XmlAddNodes: xml, bool, xml [, xml(optional), ...";

  void InsureValidParameters() const override {
    InsureInputCount<kChildren ? kChildrenCount : kNodesCount>(*this, 3, kAny);
    InsureKinds({Kind::Xml, Kind::Boolean}, Kind::Xml, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      xmlNodePtr element = nullptr;
      if constexpr (kChildren)
        element = SingleTopElement<kExactlyOne>(forest, "engine", "XmlAddChildrenNodes", GetName());
      const bool copy = ReadBool(ev, 1);
      for (unsigned i = 2; i < InputCount(); ++i) {
        XmlDomForest added;
        if (!ReadXml(ev, i, added)) return false;
        if constexpr (kChildren) {
          forest.AddAsChildElements(element, added, copy);
        } else {
          forest.AddAsTopElements(added, copy);
        }
      }
      return true;
    });
  }
};

using AddChildrenBase = CpxExpressionOperator_XmlAddForests_Engine<true>;
class CpxExpressionOperator_XmlAddChildrenNodes_Engine final
    : public CpxExpressionOperator_XmlAddForests_Engine<true> {
  VX_OPERATOR_TYPE(AddChildrenBase, XmlAddChildrenNodes)
};
using AddNodesBase = CpxExpressionOperator_XmlAddForests_Engine<false>;
class CpxExpressionOperator_XmlAddNodes_Engine final
    : public CpxExpressionOperator_XmlAddForests_Engine<false> {
  VX_OPERATOR_TYPE(AddNodesBase, XmlAddNodes)
};

// ---- XmlAddNamespaceNode ----

// Declares a prefix (empty: the default namespace) on the single top
// element.
class CpxExpressionOperator_XmlAddNamespaceNode_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlAddNamespaceNode)
  static constexpr char kCount[] =
      "Expected 3 parameters XmlAddNamespaceNode: xml, ns-uri(string), ns-prefix(string)";

  // The two string inputs are reported by their labels, "na-uri string"
  // (as the documentation spells it) and "ns-prefix string".
  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 3, 3);
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureInputType(0, Kind::Xml);
    if (GetOutputParameters().size() != 1)
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS);
    InsureOutputType(0, Kind::Xml);
    const XmlQName& string = CpxTupleFieldTypes::StringFieldType();
    if (!CheckFieldType(GetInputParameters(), 1, string))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE,
                                  {"type_name", "na-uri string"});
    if (!CheckFieldType(GetInputParameters(), 2, string))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_THIRD_INPUT_WRONG_TYPE,
                                  {"type_name", "ns-prefix string"});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      xmlNodePtr element =
          SingleTopElement<kExactlyOne>(forest, "engine", "XmlAddNamespaceNode", GetName());
      XmlDomLog log;
      if (!forest.AddNamespaceNode(element, ReadText(ev, 1), ReadText(ev, 2), log))
        RaiseFault(log, nullptr);
      return true;
    });
  }
};

// ---- XmlInsertXml, XmlUpdateXml, XmlDeleteXml ----

namespace {

// The location word, lower-cased through the default locale.
std::optional<XmlInsertLocation> ParseLocation(std::string word) {
  const auto& ctype = std::use_facet<std::ctype<char>>(std::locale());
  ctype.tolower(word.data(), word.data() + word.size());
  if (word == "first") return XmlInsertLocation::kFirst;
  if (word == "last") return XmlInsertLocation::kLast;
  if (word == "before") return XmlInsertLocation::kBefore;
  if (word == "after") return XmlInsertLocation::kAfter;
  return std::nullopt;
}

constexpr char kInvalidLocation[] = "Invalid location, \"{loc}\" in XmlInsertXml()";

}  // namespace

// Inserts the second value's nodes at every node the XPath selects: as
// first or last children, or as preceding or following siblings.
class CpxExpressionOperator_XmlInsertXml_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlInsertXml)
  static constexpr char kCount[] = "Expected exactly 4 parameters XmlInsertXml(): xml, xml, string";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 4, 4);
    InsureKinds({Kind::Xml, Kind::Xml, Kind::String, Kind::String}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      const char* word = ReadText(ev, 3);
      const std::optional<XmlInsertLocation> location = ParseLocation(word);
      if (!location) CpxRaiseXmlText<kInvalidLocation>("Execute", GetName(), {{"loc", word}});
      XmlDomForest inserted;
      if (!ReadXml(ev, 1, inserted)) return false;
      const char* xpath = ReadText(ev, 2);
      XmlDomLog log;
      if (!forest.InsertElementsFromXPath(inserted, xpath, *location, log)) RaiseFault(log, xpath);
      return true;
    });
  }
};

// Replaces every node the XPath selects by the second value's nodes.
class CpxExpressionOperator_XmlUpdateXml_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlUpdateXml)
  static constexpr char kCount[] = "Expected exactly 2 parameters XmlUpdateXml(): xml, xml, string";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 3, 3);
    InsureKinds({Kind::Xml, Kind::Xml, Kind::String}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      XmlDomForest replacement;
      if (!ReadXml(ev, 1, replacement)) return false;
      const char* xpath = ReadText(ev, 2);
      XmlDomLog log;
      if (!forest.UpdateElementsFromXPath(replacement, xpath, log)) RaiseFault(log, xpath);
      return true;
    });
  }
};

// Deletes every node the XPath selects.
class CpxExpressionOperator_XmlDeleteXml_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlDeleteXml)
  static constexpr char kCount[] = "Expected exactly 2 parameters XmlDeleteXml: xml, string";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 2, 2);
    InsureKinds({Kind::Xml, Kind::String}, Kind::String, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    EditFirstInput(ev, [&](XmlDomForest& forest) {
      const char* xpath = ReadText(ev, 1);
      XmlDomLog log;
      if (!forest.DeleteElementsFromXPath(xpath, log)) RaiseFault(log, xpath);
      return true;
    });
  }
};

// ---- XmlTransform ----

// The compiled stylesheet of one XmlTransform in one evaluator, with the
// text it was compiled from: a stylesheet is compiled again only when its
// text changes, so a constant stylesheet compiles once per evaluator.
class CpxExpressionOperatorState_Engine_XmlTransform final : public CpxExpressionOperatorState_Engine {
 public:
  const XmlXsltStylesheet* Get(std::string_view text, XmlDomLog& log) {
    if (m_compiled.IsCompiled() && text == m_text) return &m_compiled;
    m_text.clear();
    XmlDomForest forest;
    if (!forest.Read(text, log) || !m_compiled.Compile(forest, log)) return nullptr;
    m_text.assign(text);
    return &m_compiled;
  }

 private:
  std::string m_text;
  XmlXsltStylesheet m_compiled;
};

// The first value transformed by the stylesheet that is the second value's
// single top element; the result's top-level nodes are the output. A
// stylesheet that does not compile, fails, is refused (it may not include
// other stylesheets, read documents, write files or reach the network) or
// goes past a bound raises.
class CpxExpressionOperator_XmlTransform_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, XmlTransform)
  static constexpr char kCount[] = "Expected exactly 2 parameters XmlTransform: xml, xml";
  using State = CpxExpressionOperatorState_Engine_XmlTransform;

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override { return MakePtr<State>(); }
  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 2, 2);
    InsureKinds({Kind::Xml, Kind::Xml}, Kind::Xml, Kind::Xml);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    const OutputSlot out = GetOutputSlot(ev);
    if (AnyInputNull(ev)) return out.SetNull();
    XmlDomForest source;
    if (!ReadXml(ev, 0, source)) return out.SetNull();
    unsigned pos = 0;
    const CpxTuple* t = GetInputTupleField(ev, 1, pos);
    XmlDomLog log;
    State& state = static_cast<State&>(*ev->GetOperatorState(position));
    const XmlXsltStylesheet* stylesheet = state.Get(CpxTupleField_Xml::GetView(t, pos), log);
    XmlDomForest result;
    if (!stylesheet || !result.AddAsTopElementsFromXslt(source, *stylesheet, log))
      RaiseFault(log, nullptr);
    Write(out, std::move(result));
  }
};

// ---- ToStringXml, ToXmlString ----

// The value's text; with the optional boolean true, elements whose content
// is only elements are indented.
class CpxExpressionOperator_ToStringXml_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, ToStringXml)
  static constexpr char kCount[] = "Expected at least 1 parameter in ToStringXml: xml, bool(optional)";

  void InsureValidParameters() const override {
    InsureInputCount<kCount>(*this, 1, 2);
    InsureKinds({Kind::Xml, Kind::Boolean}, Kind::Boolean, Kind::String);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    if (AnyInputNull(ev)) return out.SetNull();
    XmlDomForest forest;
    if (!ReadXml(ev, 0, forest)) return out.SetNull();
    const bool format = InputCount() > 1 && ReadBool(ev, 1);
    std::string& text = g_cpx_xml_text;
    text.clear();
    XmlDomLog log;
    if (!CpxTupleField_Xml::ToString(forest, text, log, format)) {
      VX_LOG_TEXT(LogLevel::Warning, "{operation}: the XML text cannot be written, the result is NULL: {error}",
                  GetName(), {"operation", GetName()}, {"error", log.GetText()});
      return out.SetNull();
    }
    CpxTupleField_String::SetValue(*out.tuple, out.pos, text);
  }
  static inline thread_local std::string g_cpx_xml_text;
};

// Text read as an XML value; text that cannot be read gives NULL (logged).
class CpxExpressionOperator_ToXmlString_Engine final : public XmlBase {
  VX_OPERATOR_TYPE(XmlBase, ToXmlString)

  void InsureValidParameters() const override {
    InsureShape<VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_1_OUTPUT>(
        CpxTupleFieldTypes::StringFieldType(), 1, 1, CpxTupleFieldTypes::XmlFieldType());
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    const OutputSlot out = GetOutputSlot(ev);
    if (AnyInputNull(ev)) return out.SetNull();
    unsigned pos = 0;
    const CpxTuple* t = GetInputTupleField(ev, 0, pos);
    XmlDomForest forest;
    XmlDomLog log;
    if (!CpxTupleField_Xml::FromString(forest, CpxTupleField_String::GetView(t, pos), log)) {
      VX_LOG_TEXT(LogLevel::Warning, "{operation}: the text cannot be read as XML, the result is NULL: {error}",
                  GetName(), {"operation", GetName()}, {"error", log.GetText()});
      return out.SetNull();
    }
    Write(out, std::move(forest));
  }
};

}  // namespace vxi

namespace vx {

void RegisterXmlAggregateOperators(CpxExpressionOperatorRegistry& registry);

void RegisterXmlOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  constexpr const char* kRead = "any NULL input or unreadable XML gives NULL";
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_XmlExists_Engine,
                  "1 xml, 1 string (XPath); or 1 string (XPath, shredding)", "1 boolean", kRead,
                  "True when the XPath selects something."),
      VX_OPERATOR(CpxExpressionOperator_XmlExtract_Engine,
                  "1 xml, 1 string (XPath); or 1 string (XPath, shredding)", "1 xml", kRead,
                  "The selected nodes as top-level nodes."),
      VX_OPERATOR(CpxExpressionOperator_XmlExtractValue_Engine,
                  "1 xml, 1 string (XPath); or 1 string (XPath, shredding)", "1 string",
                  "any NULL input, unreadable XML or no match gives NULL",
                  "String value of the first selected node."),
      VX_OPERATOR(CpxExpressionOperator_XPath_Engine, "1 string (XML text), 1 string (XPath)",
                  "1 string", "any NULL input, unreadable XML or no match gives NULL",
                  "String value of the first node the XPath selects in the XML text."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddElementNode_Engine,
                  "1 xml, 1 string (name), up to 3 strings (namespace URI, prefix, text)", "1 xml",
                  kRead, "The value with a new element after its top-level nodes."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddAttributeNode_Engine,
                  "1 xml, 2 string (name, value), up to 2 strings (namespace URI, prefix)",
                  "1 xml", kRead, "Sets an attribute of the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddChildTextNode_Engine, "1 xml, 1+ string", "1 xml",
                  kRead, "Appends text to the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddChildCommentNode_Engine, "1 xml, 1+ string",
                  "1 xml", kRead, "Appends a comment per string to the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddChildPINode_Engine,
                  "1 xml, 1 string (target), 0+ string (content)", "1 xml", kRead,
                  "Appends a processing instruction to the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddChildrenNodes_Engine,
                  "1 xml, 1 boolean (copy), 1+ xml", "1 xml", kRead,
                  "Appends the further values' nodes as children of the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddNodes_Engine, "1 xml, 1 boolean (copy), 1+ xml",
                  "1 xml", kRead, "Appends the further values' nodes as top-level nodes."),
      VX_OPERATOR(CpxExpressionOperator_XmlAddNamespaceNode_Engine,
                  "1 xml, 2 string (namespace URI, prefix)", "1 xml", kRead,
                  "Declares a namespace prefix on the single top element."),
      VX_OPERATOR(CpxExpressionOperator_XmlInsertXml_Engine,
                  "2 xml, 2 string (XPath, location: first, last, before, after)", "1 xml", kRead,
                  "Inserts the second value's nodes at every selected node."),
      VX_OPERATOR(CpxExpressionOperator_XmlUpdateXml_Engine, "2 xml, 1 string (XPath)", "1 xml",
                  kRead, "Replaces every selected node by the second value's nodes."),
      VX_OPERATOR(CpxExpressionOperator_XmlDeleteXml_Engine, "1 xml, 1 string (XPath)", "1 xml",
                  kRead, "Deletes every selected node."),
      VX_OPERATOR(CpxExpressionOperator_XmlTransform_Engine, "2 xml (value, stylesheet)", "1 xml",
                  kRead, "XSLT 1.0 transformation; no file, network or include access."),
      VX_OPERATOR(CpxExpressionOperator_ToStringXml_Engine, "1 xml, 1 boolean (indent, optional)",
                  "1 string", kRead, "The value's XML text."),
      VX_OPERATOR(CpxExpressionOperator_ToXmlString_Engine, "1 string", "1 xml",
                  "NULL input or text that is not XML gives NULL", "XML text read as a value."),
  };
  registry.Register(kTable, std::size(kTable));
  RegisterXmlAggregateOperators(registry);
}

}  // namespace vx
