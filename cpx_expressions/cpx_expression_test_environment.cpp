#include "cpx_expressions/cpx_expression_test_environment.h"

namespace vx {

namespace {

// Moves into a list element; false when the list is absent or empty (the
// reader is then past an empty one). `present` tells whether it was there.
bool EnterList(XmlReaderContext& reader, const char* name, bool& present) {
  present = reader.MoveToContent() && reader.IsStartElement(name);
  if (!present) return false;
  const bool empty = reader.IsEmptyElement();
  reader.Next();
  return !empty;
}

// The "Name" of the element at the reader; raises the duplicate-object error
// when an item of `taken` already has it.
template <class Items>
std::string ReadUniqueName(XmlReaderContext& reader, const Items& taken) {
  std::string name = reader.GetRequiredAttribute("Name");
  for (const auto& item : taken) {
    if (item.name == name) {
      VX_RAISE(XmlObject::msg_duplicate_object, name, {"name", name}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
    }
  }
  return name;
}

int64_t ReadLongAttribute(XmlReaderContext& reader, const char* name, int64_t fallback,
                          bool allow_zero = true) {
  std::optional<std::string> text = reader.GetAttribute(name);
  if (!text) return fallback;
  int64_t value = 0;
  if (!CpxTupleField_Long::FromString(value, *text) || (!allow_zero && value == 0)) {
    VX_RAISE(XmlObject::msg_invalid_attribute_value, name, {"Value", *text}, {"attribute", name},
             {"line", reader.GetLine()}, {"file", reader.GetFileName()});
  }
  return value;
}

}  // namespace

void CpxExpressionTestEnvironment::ReadXml(XmlReaderContext& reader) {
  ReadStorages(reader);
  ReadSequences(reader);
  ReadToken(reader);
}

void CpxExpressionTestEnvironment::ReadStorages(XmlReaderContext& reader) {
  if (!EnterList(reader, "TuplesStorages", m_has_storages)) return;
  while (reader.MoveToContent() && reader.IsStartElement("TuplesStorage")) {
    Storage storage;
    storage.name = ReadUniqueName(reader, m_storages);
    const bool empty = reader.IsEmptyElement();
    reader.Next();
    if (empty) reader.RaiseUnexpected("a TupleDescriptor inside TuplesStorage");
    reader.ExpectStartElement(CpxTupleDescriptor::GetElementName());
    storage.descriptor = MakePtr<CpxTupleDescriptor>();
    storage.descriptor->XmlRead(reader);
    storage.rows = std::make_unique<CpxTuplesStorage_Vector>(storage.descriptor);
    const CpxTupleDescriptor* td = storage.descriptor.Get();
    auto find = [td](const std::string& name) { return name == td->GetName() ? td : nullptr; };
    while (reader.MoveToContent() && reader.IsStartElement("Tuple"))
      storage.rows->Add(ReadTupleXml(reader, find));
    reader.ReadEndElement("TuplesStorage");
    m_storages.push_back(std::move(storage));
  }
  reader.ReadEndElement("TuplesStorages");
}

void CpxExpressionTestEnvironment::ReadSequences(XmlReaderContext& reader) {
  if (!EnterList(reader, "Sequences", m_has_sequences)) return;
  while (reader.MoveToContent() && reader.IsStartElement("Sequence")) {
    SequenceDeclaration d;
    d.name = ReadUniqueName(reader, m_declarations);
    d.start = ReadLongAttribute(reader, "Start", 1);
    d.increment = ReadLongAttribute(reader, "Increment", 1, false);
    reader.Skip();
    m_sequences.Declare(d.name, d.start, d.increment);
    m_declarations.push_back(std::move(d));
  }
  reader.ReadEndElement("Sequences");
}

void CpxExpressionTestEnvironment::ReadToken(XmlReaderContext& reader) {
  if (!reader.MoveToContent() || !reader.IsStartElement("AuthenticationToken")) return;
  m_token = std::make_unique<CpxExpressionAuthenticationToken_Simple>(
      reader.GetRequiredAttribute("UserName"));
  bool present = false;
  if (!EnterList(reader, "AuthenticationToken", present)) return;
  while (reader.MoveToContent() && reader.IsStartElement()) {
    if (reader.IsStartElement("Group")) {
      m_token->AddGroup(reader.GetRequiredAttribute("Name"));
      reader.Skip();
    } else if (reader.IsStartElement("Preference")) {
      std::string name = reader.GetRequiredAttribute("Name");
      m_token->SetPreference(std::move(name), reader.ReadElementText());
    } else {
      reader.RaiseUnexpected("Group or Preference");
    }
  }
  reader.ReadEndElement("AuthenticationToken");
}

void CpxExpressionTestEnvironment::WriteXml(XmlWriterContext& writer) const {
  if (m_has_storages) {
    writer.StartElement("TuplesStorages");
    for (const Storage& s : m_storages) {
      writer.StartElement("TuplesStorage");
      writer.WriteAttribute("Name", s.name);
      s.descriptor->XmlWrite(writer);
      for (unsigned i = 0; i < s.rows->GetSize(); ++i) WriteTupleXml(writer, s.rows->GetTuple(i));
      writer.EndElement();
    }
    writer.EndElement();
  }
  if (m_has_sequences) {
    writer.StartElement("Sequences");
    for (const SequenceDeclaration& d : m_declarations) {
      writer.StartElement("Sequence");
      writer.WriteAttribute("Name", d.name);
      writer.WriteAttribute("Start", std::to_string(d.start));
      writer.WriteAttribute("Increment", std::to_string(d.increment));
      writer.EndElement();
    }
    writer.EndElement();
  }
  if (m_token) {
    writer.StartElement("AuthenticationToken");
    writer.WriteAttribute("UserName", m_token->GetUserName());
    for (const std::string& group : m_token->GetGroups()) {
      writer.StartElement("Group");
      writer.WriteAttribute("Name", group);
      writer.EndElement();
    }
    for (const auto& [name, value] : m_token->GetPreferences()) {
      writer.StartElement("Preference");
      writer.WriteAttribute("Name", name);
      writer.WriteString(value);
      writer.EndElement();
    }
    writer.EndElement();
  }
}

const CpxTuplesStorage* CpxExpressionTestEnvironment::FindTuplesStorage(
    std::string_view name) const {
  for (const Storage& s : m_storages)
    if (s.name == name) return s.rows.get();
  return nullptr;
}

void CpxExpressionTestEnvironment::ResetSequences() {
  for (const SequenceDeclaration& d : m_declarations)
    m_sequences.Declare(d.name, d.start, d.increment);
}

}  // namespace vx
