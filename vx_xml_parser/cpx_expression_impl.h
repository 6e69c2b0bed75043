// Member definitions of the templates in cpx_expression.h. Included by that
// header only; the engine instantiates them once (cpx_expression_engine.cpp).
#pragma once

namespace vx {

// ---- CpxTupleFieldRef ----

template <class Types>
const CpxTupleDescriptor& CpxTupleFieldRef<Types>::GetDescriptor() const {
  Context* ctx = GetContext();
  if (!m_bound || !ctx) VX_RAISE_TEXT("tuple descriptor is not set", "TupleFieldRef");
  return *ctx->GetDescriptors(m_kind).GetObjectByPos(m_tuple_pos);
}

template <class Types>
void CpxTupleFieldRef<Types>::SetTupleFieldRef(const std::string& tuple_name,
                                               const std::string& field_name) {
  Context* ctx = GetContext();
  if (!ctx) XmlObject::RaiseParentNotSet("TupleFieldRef");
  const std::string operation = m_owner.Get() ? m_owner->GetName() : std::string();
  unsigned tuple_pos = 0;
  if (!ctx->GetDescriptors(m_kind).FindPos(tuple_name, tuple_pos)) {
    VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_DESCRIPTOR, operation, {"tuple_ref", tuple_name},
             {"tuple_kind", TupleSetKindName(m_kind)}, {"operation", operation});
  }
  const CpxTupleDescriptor* td = ctx->GetDescriptors(m_kind).GetObjectByPos(tuple_pos);
  unsigned field_pos = 0;
  if (!td->FindFieldPos(field_name, field_pos)) {
    VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_FIELD, operation, {"tuple_ref", tuple_name},
             {"field_ref", field_name}, {"operation", operation});
  }
  m_tuple_pos = tuple_pos;
  m_field_pos = field_pos;
  m_bound = true;
}

template <class Types>
void CpxTupleFieldRef<Types>::GetTupleFieldPos(std::string& tuple_name,
                                               std::string& field_name) const {
  const CpxTupleDescriptor& td = GetDescriptor();
  tuple_name = td.GetName();
  field_name = td.GetFieldNameByPos(m_field_pos);
}

template <class Types>
void CpxTupleFieldRef<Types>::DoReadAttributes(XmlReaderContext& reader) {
  VX_TRACE_SCOPE();
  std::string tuple = reader.GetRequiredAttribute("TupleRef");
  std::string field = reader.GetRequiredAttribute("FieldRef");
  SetTupleFieldRef(tuple, field);
}

template <class Types>
void CpxTupleFieldRef<Types>::DoWriteAttributes(XmlWriterContext& writer) const {
  VX_TRACE_SCOPE();
  std::string tuple, field;
  GetTupleFieldPos(tuple, field);
  writer.WriteXsiType(GetXsiType());
  writer.WriteAttribute("TupleRef", tuple);
  writer.WriteAttribute("FieldRef", field);
}

// ---- CpxExpressionOperator ----

template <class Types>
bool CpxExpressionOperator<Types>::CheckFieldType(const ParamList& list, unsigned i,
                                                  const XmlQName& type) {
  if (i >= list.size()) XmlObject::RaiseIndexOutOfRange(i, list.size(), "parameter list");
  return list[i]->GetFieldType() == type;
}

template <class Types>
bool CpxExpressionOperator<Types>::CheckFieldsType(const ParamList& list, const XmlQName& type) {
  for (unsigned i = 0; i < list.size(); ++i)
    if (!CheckFieldType(list, i, type)) return false;
  return true;
}

template <class Types>
void CpxExpressionOperator<Types>::SetLastErrorMessage(const std::string& text,
                                                       const XmlQName& type, int n,
                                                       unsigned count) const {
  m_last_error = "Type " + type.local + " with " + std::to_string(n) + text + " with " +
                 std::to_string(count) + " parameters.";
}

template <class Types>
void CpxExpressionOperator<Types>::SetLastErrorMixedTypeFields(const XmlQName& type,
                                                               const ParamList&,
                                                               const char* word) const {
  m_last_error = type.local + ": All types for " + word + " are not all the same type.";
}

template <class Types>
bool CpxExpressionOperator<Types>::DoInsureValidParameters(const XmlQName& input_type,
                                                           int min_inputs, int max_inputs,
                                                           const XmlQName& output_type,
                                                           int min_outputs,
                                                           int max_outputs) const {
  const unsigned n = static_cast<unsigned>(m_inputs.size());
  const unsigned m = static_cast<unsigned>(m_outputs.size());
  if (min_inputs != -1 && n < static_cast<unsigned>(min_inputs)) {
    VX_RAISE_TEXT("Input parameters have less than the required minimun", GetName(),
                  {"input_type", input_type.local}, {"min_input", min_inputs}, {"size_type", n});
  }
  if (max_inputs != -1 && n > static_cast<unsigned>(max_inputs)) {
    SetLastErrorMessage(" input parameters have more than the required maximum of ", input_type,
                        min_inputs, n);
    return false;
  }
  if (!CheckFieldsType(m_inputs, input_type)) {
    SetLastErrorMixedTypeFields(input_type, m_inputs, "input");
    return false;
  }
  if (min_outputs != -1 && m < static_cast<unsigned>(min_outputs)) {
    SetLastErrorMessage(" output parameters have less than the required minimun of ",
                        output_type, min_outputs, m);
    return false;
  }
  if (max_outputs != -1 && m > static_cast<unsigned>(max_outputs)) {
    SetLastErrorMessage(" output parameters have more than the required maximun of ",
                        output_type, min_outputs, m);
    return false;
  }
  if (!CheckFieldsType(m_outputs, output_type)) {
    // The input type and the word "input" are reported here too, as the
    // server's diagnostics always have.
    SetLastErrorMixedTypeFields(input_type, m_outputs, "input");
    return false;
  }
  return true;
}

template <class Types>
void CpxExpressionOperator<Types>::InsureInputNotEqualOutputTuple() const {
  // Two references designate the same field when they name the same tuple
  // set, tuple and field; references into different sets never collide.
  for (unsigned o = 0; o < m_outputs.size(); ++o) {
    for (const Ptr<FieldRef>& in : m_inputs) {
      if (!m_outputs[o]->SameField(*in)) continue;
      std::string tuple, field;
      m_outputs[o]->GetTupleFieldPos(tuple, field);
      VX_RAISE_TEXT(
          "\nZRT Error: Output field == Input field, position {pos}, type={type}, \nout_xsi "
          "type={out_xsi_type},\ntuple_ref={tuple_ref}, tuple_field_ref={tuple_field_ref}\n",
          GetName(), {"pos", o}, {"type", m_type.local},
          {"out_xsi_type", m_outputs[o]->GetXsiType().local}, {"tuple_ref", tuple},
          {"tuple_field_ref", field});
    }
  }
}

template <class Types>
void CpxExpressionOperator<Types>::DoReadAttributes(XmlReaderContext& reader) {
  XmlNamedObject::DoReadAttributes(reader);
}

template <class Types>
void CpxExpressionOperator<Types>::DoWriteAttributes(XmlWriterContext& writer) const {
  XmlNamedObject::DoWriteAttributes(writer);
  writer.WriteXsiType(m_type);
}

template <class Types>
void CpxExpressionOperator<Types>::ReadParameters(XmlReaderContext& reader, const char* list_name,
                                                  ParamList& list) {
  if (!reader.MoveToContent() || !reader.IsStartElement(list_name)) return;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  while (reader.MoveToContent() && reader.IsStartElement(FieldRef::GetElementName())) {
    std::optional<XmlQName> type = reader.GetXsiType();
    if (!type) {
      VX_RAISE(XmlObject::msg_missing_required_attribute, GetName(), {"attribute", "xsi:type"},
               {"element", FieldRef::GetElementName()}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
    }
    std::optional<CpxTupleSetKind> kind = FieldRefKindOf(*type);
    if (!kind) {
      VX_RAISE(XmlObject::msg_cannot_create_object, GetName(), {"type", type->ToString()},
               {"element", FieldRef::GetElementName()}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
    }
    Ptr<FieldRef> ref = Types::CreateFieldRef(*kind, static_cast<typename Types::Operator*>(this));
    ref->XmlRead(reader);
    list.push_back(std::move(ref));
  }
  reader.ReadEndElement(list_name);
}

template <class Types>
void CpxExpressionOperator<Types>::DoReadContent(XmlReaderContext& reader) {
  ReadParameters(reader, GetInputParametersName(), m_inputs);
  ReadParameters(reader, GetOutputParametersName(), m_outputs);
  ParametersChanged();
}

template <class Types>
void CpxExpressionOperator<Types>::WriteParameters(XmlWriterContext& writer,
                                                   const char* list_name,
                                                   const ParamList& list) const {
  writer.StartElement(list_name);
  for (const Ptr<FieldRef>& ref : list) ref->XmlWrite(writer);
  writer.EndElement();
}

template <class Types>
void CpxExpressionOperator<Types>::DoWriteContent(XmlWriterContext& writer) const {
  WriteParameters(writer, GetInputParametersName(), m_inputs);
  WriteParameters(writer, GetOutputParametersName(), m_outputs);
}

// ---- CpxTupleKey ----

template <class Types>
void CpxTupleKey<Types>::Bind(const CpxTupleDescriptor* td) {
  if (!td) VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_DESCRIPTOR, m_element,
                    {"tuple_ref", m_td.GetName()}, {"tuple_kind", "input"},
                    {"operation", m_element});
  for (Entry& e : m_fields) {
    if (!td->FindFieldPos(e.field_name, e.pos)) {
      VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_FIELD, m_element, {"tuple_ref", td->GetName()},
               {"field_ref", e.field_name}, {"operation", m_element});
    }
  }
  m_td.Bind(td);
}

template <class Types>
uint32_t CpxTupleKey<Types>::GetHash(const CpxTuple& tuple, const CpxTupleKey& key) {
  uint32_t h = 0;
  for (const Entry& e : key.m_fields) {
    uint32_t size = 0;
    const unsigned char* bytes = static_cast<const unsigned char*>(tuple.GetFieldValue(e.pos, size));
    if (!bytes) continue;
    for (uint32_t i = 0; i < size; ++i) h = h * 5 + bytes[i];
  }
  return h;
}

template <class Types>
int CpxTupleKey<Types>::CompareByKey(const CpxTuple& a, const CpxTupleKey& ka, const CpxTuple& b,
                                     const CpxTupleKey& kb, CpxTuple::NullCompare rule) {
  if (&a == &b && &ka == &kb) return 0;
  const size_t n = std::min(ka.m_fields.size(), kb.m_fields.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned pa = ka.m_fields[i].pos, pb = kb.m_fields[i].pos;
    int r = ka.m_fields[i].descending ? CpxTuple::CompareOneField(b, pb, a, pa, rule)
                                      : CpxTuple::CompareOneField(a, pa, b, pb, rule);
    if (r != 0) return r;
  }
  return 0;
}

template <class Types>
void CpxTupleKey<Types>::CheckCompatible(const CpxTupleKey& other) const {
  const size_t n = std::min(m_fields.size(), other.m_fields.size());
  for (size_t i = 0; i < n; ++i) {
    if (m_fields[i].pos != other.m_fields[i].pos) {
      VX_RAISE_TEXT("tuple fields do not match", m_element, {"field_pos", i},
                    {"field", m_fields[i].field_name}, {"other_field", other.m_fields[i].field_name});
    }
    if (m_fields[i].descending != other.m_fields[i].descending) {
      VX_RAISE_TEXT("tuple field sort orders do not match", m_element, {"field_pos", i},
                    {"order", m_fields[i].descending ? "DESCENDING" : "ASCENDING"},
                    {"other_order", other.m_fields[i].descending ? "DESCENDING" : "ASCENDING"});
    }
  }
}

template <class Types>
void CpxTupleKey<Types>::DoReadAttributes(XmlReaderContext& reader) {
  m_td.SetName(reader.GetRequiredAttribute("TupleDescriptorRef"));
}

template <class Types>
void CpxTupleKey<Types>::DoReadContent(XmlReaderContext& reader) {
  while (reader.MoveToContent() && reader.IsStartElement("TupleKeyFieldRef")) {
    std::string field = reader.GetRequiredAttribute("FieldRef");
    std::string order = reader.GetAttribute("Order").value_or("ASCENDING");
    if (order != "ASCENDING" && order != "DESCENDING") {
      VX_RAISE_TEXT("Invalid value '{Value}' for attribute 'Order'", m_element, {"Value", order},
                    {"line", reader.GetLine()}, {"file", reader.GetFileName()});
    }
    AddField(field, order == "DESCENDING");
    reader.Skip();
  }
}

template <class Types>
void CpxTupleKey<Types>::DoWriteAttributes(XmlWriterContext& writer) const {
  writer.WriteAttribute("TupleDescriptorRef", m_td.GetName());
}

template <class Types>
void CpxTupleKey<Types>::DoWriteContent(XmlWriterContext& writer) const {
  for (const Entry& e : m_fields) {
    writer.StartElement("TupleKeyFieldRef");
    writer.WriteAttribute("FieldRef", e.field_name);
    writer.WriteAttribute("Order", e.descending ? "DESCENDING" : "ASCENDING");
    writer.EndElement();
  }
}

// ---- CpxExpressionContext ----

template <class Types>
void CpxExpressionContext<Types>::AddOperator(Ptr<Operator> op) {
  unsigned pos = m_operators.GetSize();
  const uint32_t limit = GetVxLimits().max_operators_per_context;
  if (pos >= limit) {
    VX_RAISE(VX_SERVER_LIMIT_TOO_MANY_OPERATORS, GetName(), {"limit", limit},
             {"operator_name", op ? op->GetName() : std::string()});
  }
  const Operator* raw = op.Get();
  m_operators.Add(std::move(op));
  m_operator_pos[raw] = pos;
}

template <class Types>
void CpxExpressionContext<Types>::AddOperatorLabel(const std::string& label, Operator* op) {
  m_labels[label] = op;
}

template <class Types>
bool CpxExpressionContext<Types>::FindOperatorPosByLabel(const std::string& label,
                                                         unsigned& pos) const {
  auto it = m_labels.find(label);
  if (it == m_labels.end()) return false;
  auto p = m_operator_pos.find(it->second);
  if (p == m_operator_pos.end()) return false;
  pos = p->second;
  return true;
}

template <class Types>
unsigned CpxExpressionContext<Types>::GetOperatorPosByLabel(const std::string& label) const {
  unsigned pos = 0;
  if (!FindOperatorPosByLabel(label, pos))
    VX_RAISE_TEXT("goto label does not match any operator", GetName(), {"operator_name", label});
  return pos;
}

template <class Types>
typename Types::Operator* CpxExpressionContext<Types>::FindOperatorByLabel(
    const std::string& label) const {
  auto it = m_labels.find(label);
  return it == m_labels.end() ? nullptr : it->second;
}

template <class Types>
void CpxExpressionContext<Types>::EnsureValid() {
  for (const Ptr<Operator>& op : m_operators) {
    try {
      op->EnsureValid();
    } catch (ExceptionType& e) {
      e.SetDocumentLocation(op->GetSourceFile(), op->GetSourcePosition());
      throw;
    }
  }
}

template <class Types>
void CpxExpressionContext<Types>::ReadDescriptors(XmlReaderContext& reader, CpxTupleSetKind kind,
                                                  const char* list_name) {
  if (!reader.MoveToContent() || !reader.IsStartElement(list_name)) return;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  while (reader.MoveToContent() && reader.IsStartElement(CpxTupleDescriptor::GetElementName())) {
    Ptr<CpxTupleDescriptor> td(new CpxTupleDescriptor());
    td->XmlRead(reader);
    GetDescriptors(kind).Add(std::move(td));
  }
  reader.ReadEndElement(list_name);
}

template <class Types>
void CpxExpressionContext<Types>::ReadOperators(XmlReaderContext& reader) {
  if (!reader.MoveToContent() || !reader.IsStartElement(GetOperatorsListName())) return;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  while (reader.MoveToContent() && reader.IsStartElement(Operator::GetElementName())) {
    std::optional<XmlQName> type = reader.GetXsiType();
    std::string name = reader.GetRequiredAttribute(XmlNamedObject::GetNameAttributeName());
    if (!type) {
      VX_RAISE(XmlObject::msg_missing_required_attribute, name, {"attribute", "xsi:type"},
               {"element", Operator::GetElementName()}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
    }
    Ptr<Operator> op =
        Types::CreateOperator(*type, name, static_cast<typename Types::Context*>(this));
    if (!op) {
      VX_RAISE(XmlObject::msg_cannot_create_object, name, {"type", type->ToString()},
               {"element", Operator::GetElementName()}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
    }
    op->XmlRead(reader);
    AddOperator(std::move(op));
  }
  reader.ReadEndElement(GetOperatorsListName());
}

template <class Types>
void CpxExpressionContext<Types>::ReadLabels(XmlReaderContext& reader) {
  if (!reader.MoveToContent() || !reader.IsStartElement(GetLabelsListName())) return;
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return;
  while (reader.MoveToContent() && reader.IsStartElement(GetLabelName())) {
    std::string label = reader.GetRequiredAttribute(XmlNamedObject::GetNameAttributeName());
    int line = reader.GetLine();
    std::string target = reader.ReadElementText();
    Operator* op = m_operators.Find(target);
    if (!op) {
      VX_RAISE_TEXT("goto label does not match any operator", GetName(),
                    {"operator_name", target}, {"label", label}, {"line", line},
                    {"file", reader.GetFileName()});
    }
    AddOperatorLabel(label, op);
  }
  reader.ReadEndElement(GetLabelsListName());
}

template <class Types>
void CpxExpressionContext<Types>::DoReadContent(XmlReaderContext& reader) {
  VX_TRACE_SCOPE();
  XmlNamedObject::DoReadContent(reader);
  ReadDescriptors(reader, CpxTupleSetKind::Input, GetInputTupleDescriptorsListName());
  ReadDescriptors(reader, CpxTupleSetKind::Output, GetOutputTupleDescriptorsListName());
  ReadDescriptors(reader, CpxTupleSetKind::Variable, GetVariableTupleDescriptorsListName());
  ReadDescriptors(reader, CpxTupleSetKind::Constant, GetConstantTupleDescriptorsListName());
  ReadDescriptors(reader, CpxTupleSetKind::Temporary, GetTemporaryTupleDescriptorsListName());
  ReadOperators(reader);
  ReadLabels(reader);
}

template <class Types>
void CpxExpressionContext<Types>::WriteLabels(XmlWriterContext& writer) const {
  if (m_labels.empty()) return;
  writer.StartElement(GetLabelsListName());
  for (const auto& [label, op] : m_labels) {
    writer.StartElement(GetLabelName());
    writer.WriteAttribute(XmlNamedObject::GetNameAttributeName(), label);
    writer.WriteString(op->GetName());
    writer.EndElement();
  }
  writer.EndElement();
}

template <class Types>
void CpxExpressionContext<Types>::DoWriteContent(XmlWriterContext& writer) const {
  VX_TRACE_SCOPE();
  XmlNamedObject::DoWriteContent(writer);
  const std::pair<CpxTupleSetKind, const char*> lists[] = {
      {CpxTupleSetKind::Input, GetInputTupleDescriptorsListName()},
      {CpxTupleSetKind::Output, GetOutputTupleDescriptorsListName()},
      {CpxTupleSetKind::Variable, GetVariableTupleDescriptorsListName()},
      {CpxTupleSetKind::Constant, GetConstantTupleDescriptorsListName()},
      {CpxTupleSetKind::Temporary, GetTemporaryTupleDescriptorsListName()}};
  for (const auto& [kind, name] : lists) {
    writer.StartElement(name);
    for (const Ptr<CpxTupleDescriptor>& td : GetDescriptors(kind)) td->XmlWrite(writer);
    writer.EndElement();
  }
  writer.StartElement(GetOperatorsListName());
  for (const Ptr<Operator>& op : m_operators) op->XmlWrite(writer);
  writer.EndElement();
  WriteLabels(writer);
}

}  // namespace vx
