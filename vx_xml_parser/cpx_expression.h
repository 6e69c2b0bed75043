// Class templates of expression contexts, operators, field references and
// tuple keys, over a type bundle.
//
// The templates own everything that does not depend on running a program:
// the XML forms, the descriptor lists, labels, parameter lists and parameter
// checks, and binding field references to (tuple position, field position)
// pairs. The engine instantiates them over `CpxExpressionTypes` and adds
// evaluation (cpx_expressions/cpx_expression_engine.h). A bundle supplies
// `Context`, `Operator`, `FieldRef` and `ContextParent`, plus the factories
// `CreateOperator(type, name, context)` and `CreateFieldRef(kind, owner)`.
#pragma once

#include <cxxabi.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include "support/log.h"
#include "support/messages.h"
#include "support/tuple.h"
#include "support/xml_object.h"

namespace vx {

// The five tuple sets a field reference can designate.
enum class CpxTupleSetKind : uint8_t { Input, Output, Constant, Temporary, Variable };
constexpr unsigned kTupleSetKindCount = 5;

// "input", "output", ... for messages.
const char* TupleSetKindName(CpxTupleSetKind kind);
// The xsi:type of a field reference of that kind ("InputTupleFieldRefType", ...).
const XmlQName& FieldRefXsiType(CpxTupleSetKind kind);
std::optional<CpxTupleSetKind> FieldRefKindOf(const XmlQName& xsi_type);
// The class name of an object without namespace and without the
// "CpxExpressionOperator_" prefix ("Noop_Engine"), for messages.
std::string OperatorDisplayName(const std::type_info& type);

// ---- field references ----

// Element "TupleFieldRef" with xsi:type (the tuple set), "TupleRef" (a
// descriptor of that set) and "FieldRef" (a field of it). Bound once, when
// read, to the descriptor's position in its list and the field's position in
// the descriptor.
template <class Types>
class CpxTupleFieldRef : public XmlObject {
 public:
  using Operator = typename Types::Operator;
  using Context = typename Types::Context;

  CpxTupleFieldRef(Operator* owner, CpxTupleSetKind kind) : m_owner(owner), m_kind(kind) {}
  CpxTupleFieldRef(const CpxTupleFieldRef&) = default;
  CpxTupleFieldRef& operator=(const CpxTupleFieldRef&) = default;

  const char* GetXmlElementName() const override { return "TupleFieldRef"; }
  static const char* GetElementName() { return "TupleFieldRef"; }

  const XmlQName& GetXsiType() const { return FieldRefXsiType(m_kind); }
  CpxTupleSetKind GetKind() const { return m_kind; }
  unsigned GetTuplePos() const { return m_tuple_pos; }
  unsigned GetFieldPos() const { return m_field_pos; }
  bool IsBound() const { return m_bound; }
  Operator* GetOwner() const { return m_owner.Get(); }
  Context* GetContext() const { return m_owner.Get() ? m_owner->GetContext() : nullptr; }

  // The descriptor the reference is bound to; raises "tuple descriptor is not
  // set" when unbound.
  const CpxTupleDescriptor& GetDescriptor() const;
  CpxFieldKind GetFieldKind() const { return GetDescriptor().GetFieldKind(m_field_pos); }
  const XmlQName& GetFieldType() const { return CpxTupleFieldTypes::FromKind(GetFieldKind()); }

  // Binds the reference by names; raises "can't find descriptor" or
  // VX_SERVER_EXPRESSION_CANT_FIND_FIELD.
  void SetTupleFieldRef(const std::string& tuple_name, const std::string& field_name);
  void GetTupleFieldPos(std::string& tuple_name, std::string& field_name) const;
  // Same tuple set, tuple and field.
  bool SameField(const CpxTupleFieldRef& o) const {
    return m_kind == o.m_kind && m_tuple_pos == o.m_tuple_pos && m_field_pos == o.m_field_pos;
  }

 protected:
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;

 private:
  Alias<Operator> m_owner;
  CpxTupleSetKind m_kind;
  unsigned m_tuple_pos = 0;
  unsigned m_field_pos = 0;
  bool m_bound = false;
};

// ---- operators ----

// Element "Operator" with "Name" and xsi:type (the operator type), holding
// "InputParameters" and "OutputParameters" lists of field references.
template <class Types>
class CpxExpressionOperator : public XmlNamedObject {
 public:
  using Context = typename Types::Context;
  using FieldRef = typename Types::FieldRef;
  using ParamList = std::vector<Ptr<FieldRef>>;

  CpxExpressionOperator(std::string name, Context* context)
      : XmlNamedObject(std::move(name)), m_context(context) {}
  CpxExpressionOperator(std::string name, Context* context, XmlQName type)
      : XmlNamedObject(std::move(name)), m_context(context), m_type(std::move(type)) {}
  CpxExpressionOperator(const CpxExpressionOperator&) = default;
  CpxExpressionOperator& operator=(const CpxExpressionOperator&) = default;

  const char* GetXmlElementName() const override { return "Operator"; }
  static const char* GetElementName() { return "Operator"; }
  static const char* GetInputParametersName() { return "InputParameters"; }
  static const char* GetOutputParametersName() { return "OutputParameters"; }

  const XmlQName& GetOperatorTypeName() const { return m_type; }
  Context* GetContext() const { return m_context.Get(); }
  void SetInputParameters(ParamList list) {
    m_inputs = std::move(list);
    ParametersChanged();
  }
  void SetOutputParameters(ParamList list) {
    m_outputs = std::move(list);
    ParametersChanged();
  }
  const ParamList& GetInputParameters() const { return m_inputs; }
  const ParamList& GetOutputParameters() const { return m_outputs; }
  const std::string& GetLastInsureValidParameterErrorString() const { return m_last_error; }
  // The class name for messages ("Noop_Engine").
  std::string GetDisplayName() const { return OperatorDisplayName(typeid(*this)); }

  // Runs the parameter checks.
  void EnsureValid() override { InsureValidParameters(); }
  // Whether an output may not designate a field that is also an input.
  virtual bool ProhibitInputEqualOutputTuple() const { return true; }
  // Load-time parameter checks; raises on the first fault.
  virtual void InsureValidParameters() const {
    if (ProhibitInputEqualOutputTuple()) InsureInputNotEqualOutputTuple();
  }
  // Raises the "ZRT Error" when an output designates an input field.
  void InsureInputNotEqualOutputTuple() const;

  // True when the i-th parameter's field has type `type` (no wildcard).
  static bool CheckFieldType(const ParamList& list, unsigned i, const XmlQName& type);
  // CheckFieldType for every parameter; true for an empty list.
  static bool CheckFieldsType(const ParamList& list, const XmlQName& type);

 protected:
  // Called whenever the parameter lists are replaced (by a setter or by
  // reading the element), for subclasses that keep something derived from
  // them.
  virtual void ParametersChanged() {}
  // Checks counts and types; a bound of -1 disables that check. Raises at
  // once when there are too few inputs; otherwise returns false with the
  // last error set.
  bool DoInsureValidParameters(const XmlQName& input_type, int min_inputs, int max_inputs,
                               const XmlQName& output_type, int min_outputs,
                               int max_outputs) const;
  void SetLastErrorMessage(const std::string& text, const XmlQName& type, int n,
                           unsigned count) const;
  void SetLastErrorMixedTypeFields(const XmlQName& type, const ParamList& list,
                                   const char* word) const;
  void SetLastError(std::string text) const { m_last_error = std::move(text); }

  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteContent(XmlWriterContext& writer) const override;

 private:
  void ReadParameters(XmlReaderContext& reader, const char* list_name, ParamList& list);
  void WriteParameters(XmlWriterContext& writer, const char* list_name,
                       const ParamList& list) const;

  Alias<Context> m_context;
  XmlQName m_type;
  ParamList m_inputs;
  ParamList m_outputs;
  // Diagnostics of the last failed check; validation is logically const.
  mutable std::string m_last_error;
};

// Raise a parameter-fault definition with the named values every such fault
// carries. Use inside an operator's member functions.
#define VX_RAISE_INVALID_PARAMETERS(definition, ...)                                        \
  VX_RAISE(definition, this->GetName(), {"operation", this->GetName()},                     \
           {"class_name", this->GetDisplayName()},                                          \
           {"number_input_params", this->GetInputParameters().size()},                      \
           {"number_output_params", this->GetOutputParameters().size()},                    \
           {"last_err_str", this->GetLastInsureValidParameterErrorString()} __VA_OPT__(, )  \
               __VA_ARGS__)

// ---- tuple keys ----

// An ordered list of fields of one descriptor, each ascending or descending.
// XML: <GroupByKey TupleDescriptorRef="T"><TupleKeyFieldRef FieldRef="f"
// Order="ASCENDING"/>...</GroupByKey> (the element name is the caller's).
template <class Types>
class CpxTupleKey : public XmlObject {
 public:
  struct Entry {
    std::string field_name;
    unsigned pos = 0;
    bool descending = false;
  };

  explicit CpxTupleKey(std::string element_name = "GroupByKey")
      : m_element(std::move(element_name)) {}

  const char* GetXmlElementName() const override { return m_element.c_str(); }
  const std::string& GetDescriptorName() const { return m_td.GetName(); }
  const CpxTupleDescriptor* GetDescriptor() const { return m_td.Get(); }
  bool IsEmpty() const { return m_fields.empty(); }
  unsigned GetFieldCount() const { return static_cast<unsigned>(m_fields.size()); }
  const Entry& GetField(unsigned i) const { return m_fields[i]; }

  void SetDescriptorName(std::string name) { m_td.SetName(std::move(name)); }
  void AddField(std::string field_name, bool descending) {
    m_fields.push_back({std::move(field_name), 0, descending});
  }
  // Resolves the field names against `td`; raises
  // VX_SERVER_EXPRESSION_CANT_FIND_FIELD for an unknown field.
  void Bind(const CpxTupleDescriptor* td);
  bool IsBound() const { return m_td.IsBound(); }

  // h = h * 5 + byte over the stored bytes of each non-NULL key field.
  static uint32_t GetHash(const CpxTuple& tuple, const CpxTupleKey& key);
  static int CompareByKey(const CpxTuple& a, const CpxTupleKey& ka, const CpxTuple& b,
                          const CpxTupleKey& kb, CpxTuple::NullCompare rule);
  static int CompareReverseByKey(const CpxTuple& a, const CpxTupleKey& ka, const CpxTuple& b,
                                 const CpxTupleKey& kb, CpxTuple::NullCompare rule) {
    return -CompareByKey(a, ka, b, kb, rule);
  }
  // Raises "tuple fields do not match" or "tuple field sort orders do not
  // match" unless both keys describe the same ordering.
  void CheckCompatible(const CpxTupleKey& other) const;

 protected:
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;
  void DoWriteContent(XmlWriterContext& writer) const override;

 private:
  std::string m_element;
  Alias<const CpxTupleDescriptor> m_td;
  std::vector<Entry> m_fields;
};

// ---- contexts ----

// Root element "ExpressionContext": descriptor lists, operators, labels.
template <class Types>
class CpxExpressionContext : public XmlNamedObject {
 public:
  using Operator = typename Types::Operator;
  using Parent = typename Types::ContextParent;
  using DescriptorList = XmlNamedObjectList<CpxTupleDescriptor>;

  CpxExpressionContext(std::string name, Parent* parent)
      : XmlNamedObject(std::move(name)), m_parent(parent) {}

  const char* GetXmlElementName() const override { return "ExpressionContext"; }
  static const char* GetElementName() { return "ExpressionContext"; }
  static const char* GetInputTupleDescriptorsListName() { return "InputTuples"; }
  static const char* GetOutputTupleDescriptorsListName() { return "OutputTuples"; }
  static const char* GetVariableTupleDescriptorsListName() { return "VariableTuples"; }
  static const char* GetConstantTupleDescriptorsListName() { return "ConstantTuples"; }
  static const char* GetTemporaryTupleDescriptorsListName() { return "TemporaryTuples"; }
  static const char* GetOperatorsListName() { return "Operators"; }
  static const char* GetLabelsListName() { return "Labels"; }
  static const char* GetLabelName() { return "Label"; }

  Parent* GetParent() const { return m_parent; }
  const DescriptorList& GetDescriptors(CpxTupleSetKind kind) const {
    return m_descriptors[static_cast<unsigned>(kind)];
  }
  DescriptorList& GetDescriptors(CpxTupleSetKind kind) {
    return m_descriptors[static_cast<unsigned>(kind)];
  }
  const DescriptorList& GetInputTupleDescriptors() const { return GetDescriptors(CpxTupleSetKind::Input); }
  const DescriptorList& GetOutputTupleDescriptors() const { return GetDescriptors(CpxTupleSetKind::Output); }
  const DescriptorList& GetVariableTupleDescriptors() const { return GetDescriptors(CpxTupleSetKind::Variable); }
  const DescriptorList& GetConstantTupleDescriptors() const { return GetDescriptors(CpxTupleSetKind::Constant); }
  const DescriptorList& GetTemporaryTupleDescriptors() const { return GetDescriptors(CpxTupleSetKind::Temporary); }

  unsigned GetOperatorCount() const { return m_operators.GetSize(); }
  // Raises the index-out-of-range error past the end.
  Operator* GetOperatorByPos(unsigned pos) const { return m_operators.GetObjectByPos(pos); }
  const XmlNamedObjectList<Operator>& GetOperators() const { return m_operators; }
  void AddOperator(Ptr<Operator> op);
  Operator* FindOperatorByName(const std::string& name) const { return m_operators.Find(name); }

  // Marks `op` (an operator of this context) with `label`.
  void AddOperatorLabel(const std::string& label, Operator* op);
  bool FindOperatorPosByLabel(const std::string& label, unsigned& pos) const;
  // Raises "goto label does not match any operator" for an unknown label.
  unsigned GetOperatorPosByLabel(const std::string& label) const;
  Operator* FindOperatorByLabel(const std::string& label) const;
  const std::map<std::string, Operator*>& GetLabels() const { return m_labels; }

  // Validates every operator (their parameter checks). A fault is raised
  // with the operator's file and line.
  void EnsureValid() override;

 protected:
  bool IsNameRequired() const override { return false; }
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteContent(XmlWriterContext& writer) const override;
  void ReadLabels(XmlReaderContext& reader);
  void WriteLabels(XmlWriterContext& writer) const;

 private:
  void ReadDescriptors(XmlReaderContext& reader, CpxTupleSetKind kind, const char* list_name);
  void ReadOperators(XmlReaderContext& reader);

  Parent* m_parent;
  DescriptorList m_descriptors[kTupleSetKindCount];
  XmlNamedObjectList<Operator> m_operators;
  std::unordered_map<const Operator*, unsigned> m_operator_pos;
  std::map<std::string, Operator*> m_labels;
};

}  // namespace vx

#include "vx_xml_parser/cpx_expression_impl.h"
