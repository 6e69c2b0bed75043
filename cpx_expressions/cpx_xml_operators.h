// Shared pieces of the XML operators (cpx_xml_type.cpp) and of XML
// aggregation (cpx_xml_aggregate.cpp): reading XML values from fields,
// writing results, and raising the XML faults.
//
// An XML field holds the value's text; an operator reads each XML input into
// a forest of its own (XmlDomForest::Read, with every bound of XmlLimits),
// works on that forest, and writes the result's text into the output field
// once (CpxTupleField_Xml::SetValue), freeing the document. Because the
// forests are the operator's own, an operator edits its input forest in
// place rather than copying it first.
//
// Failures, by whose fault they are:
//   - a value that cannot be read (not XML, or refused as hostile: external
//     entities, entity expansion, nesting, size) or a result that cannot be
//     written is a fault of the data: logged at warning level with the
//     reason, and the output is NULL;
//   - an XPath that does not compile or evaluate, an XPath or stylesheet
//     that goes past a bound, and a stylesheet that fails or is refused are
//     faults of the program: they raise, with the reason as a named value.
//
// Threads: the operators are immutable after loading; forests live on the
// stack of one Execute call, compiled stylesheets in per-evaluator states.
#pragma once

#include <string>

#include "cpx_expressions/cpx_accumulators.h"
#include "cpx_expressions/cpx_expression_operators.h"
#include "support/xml_dom_forest.h"

namespace vx {

// Raises the literal text `kText` (one message site per text) naming
// `object`, from `function`.
template <const char* kText>
[[noreturn]] void CpxRaiseXmlText(const char* function, const std::string& object,
                                  std::initializer_list<LogValue> values) {
  static LogMessageSite site;
  site.Prepare(kText, LogLevel::Error, function, __FILE__, __LINE__);
  RaiseMessage(site, object, values);
}

// Reads the XML value of field `pos` of `t` (not NULL) into `forest`. A
// value that cannot be read is logged as a warning naming `operation` and
// gives false.
bool CpxReadXmlField(const std::string& operation, const CpxTuple& t, unsigned pos,
                     XmlDomForest& forest);

// Base of the XML function operators.
class CpxExpressionOperator_XmlBase_Engine : public CpxExpressionOperator_Scalar_Engine {
 public:
  using CpxExpressionOperator_Scalar_Engine::CpxExpressionOperator_Scalar_Engine;

 protected:
  unsigned InputCount() const { return static_cast<unsigned>(GetInputParameters().size()); }
  // True when an input is NULL: the output is then NULL.
  bool AnyInputNull(CpxExpressionEvaluator_Engine* ev) const;
  // Input i (an xml field, not NULL) read into `forest`; false, logged,
  // when it cannot be read.
  bool ReadXml(CpxExpressionEvaluator_Engine* ev, unsigned i, XmlDomForest& forest) const;
  // Input i (a string field, not NULL), zero-terminated.
  const char* ReadText(CpxExpressionEvaluator_Engine* ev, unsigned i) const;
  bool ReadBool(CpxExpressionEvaluator_Engine* ev, unsigned i) const;

  // The result into the output field; a forest that cannot be written is
  // logged and gives NULL. A null libxml2 string gives NULL (and is freed).
  void Write(const OutputSlot& out, XmlDomForest&& forest) const;
  void Write(const OutputSlot& out, xmlChar* text) const;
  void Write(const OutputSlot& out, bool value) const;

  // Raises the fault in `log`: "Invalid XPath: {xpath}" for an expression
  // that does not compile or evaluate, a text naming the operator otherwise.
  [[noreturn]] void RaiseFault(const XmlDomLog& log, const char* xpath) const;

  // The run of an operator that edits its first input: any NULL input or
  // an unreadable value gives NULL; otherwise `edit(forest)` changes the
  // value (returning false for NULL) and the result is written.
  template <class Edit>
  void EditFirstInput(CpxExpressionEvaluator_Engine* ev, Edit&& edit) const {
    const OutputSlot out = GetOutputSlot(ev);
    if (AnyInputNull(ev)) return out.SetNull();
    XmlDomForest forest;
    if (!ReadXml(ev, 0, forest) || !edit(forest)) return out.SetNull();
    Write(out, std::move(forest));
  }

  // Load-time checks: the types of the inputs (`leading` first, then `rest`
  // for every further input) and one output of `out`.
  void InsureKinds(std::initializer_list<CpxFieldKind> leading, CpxFieldKind rest,
                   CpxFieldKind out) const;
};

}  // namespace vx
