#include "support/tuple.h"

#include <cmath>
#include <cstring>

#include "support/log.h"

namespace vx {

uint32_t FixedSizeOfKind(CpxFieldKind k) {
  switch (k) {
    case CpxFieldKind::Boolean: return 1;
    case CpxFieldKind::Integer: return 4;
    case CpxFieldKind::Long:
    case CpxFieldKind::Float:
    case CpxFieldKind::Time:
    case CpxFieldKind::IntervalD2S: return 8;
    default: return 0;
  }
}

// ---- CpxTupleFieldTypes ----

namespace {
const XmlQName kTypeNames[kFieldKindCount] = {
    XmlQName("boolean"), XmlQName("integer"), XmlQName("long"),
    XmlQName("float"),   XmlQName("string"),  XmlQName("time"),
    XmlQName("interval"), XmlQName("blob"),   XmlQName("xml")};
}  // namespace

const XmlQName& CpxTupleFieldTypes::BooleanFieldType() { return kTypeNames[0]; }
const XmlQName& CpxTupleFieldTypes::IntegerFieldType() { return kTypeNames[1]; }
const XmlQName& CpxTupleFieldTypes::LongFieldType() { return kTypeNames[2]; }
const XmlQName& CpxTupleFieldTypes::FloatFieldType() { return kTypeNames[3]; }
const XmlQName& CpxTupleFieldTypes::StringFieldType() { return kTypeNames[4]; }
const XmlQName& CpxTupleFieldTypes::TimeFieldType() { return kTypeNames[5]; }
const XmlQName& CpxTupleFieldTypes::IntervalD2SFieldType() { return kTypeNames[6]; }
const XmlQName& CpxTupleFieldTypes::BlobFieldType() { return kTypeNames[7]; }
const XmlQName& CpxTupleFieldTypes::XmlFieldType() { return kTypeNames[8]; }
const XmlQName& CpxTupleFieldTypes::FromKind(CpxFieldKind kind) {
  return kTypeNames[static_cast<unsigned>(kind)];
}
std::optional<CpxFieldKind> CpxTupleFieldTypes::KindOf(const XmlQName& type) {
  for (unsigned i = 0; i < kFieldKindCount; ++i)
    if (kTypeNames[i] == type) return static_cast<CpxFieldKind>(i);
  return std::nullopt;
}
const char* CpxTupleFieldTypes::Name(CpxFieldKind kind) {
  return kTypeNames[static_cast<unsigned>(kind)].local.c_str();
}

// ---- CpxTuple ----

CpxTuple::CpxTuple(Ptr<const CpxTupleDescriptor> td, int64_t timestamp, void* slot_room)
    : Message(timestamp), m_td(std::move(td)), m_count(m_td->GetFieldCount()) {
  if (m_count) {
    if (slot_room) {
      m_slots = static_cast<FieldSlot*>(slot_room);
    } else {
      m_slots = static_cast<FieldSlot*>(VxMemoryFuncMalloc(sizeof(FieldSlot) * m_count));
      if (!m_slots) throw std::bad_alloc();
      m_own_slots = true;
    }
    unsigned char* room =
        slot_room ? static_cast<unsigned char*>(slot_room) + kSlotSize * m_count : nullptr;
    for (unsigned i = 0; i < m_count; ++i) {
      FieldSlot* slot = new (&m_slots[i]) FieldSlot();
      const CpxFieldKind kind = m_td->GetFieldKind(i);
      slot->variable = IsVariableSizeKind(kind);
      slot->fixed_size = static_cast<uint8_t>(FixedSizeOfKind(kind));
      if (slot->variable && room) {
        slot->var = room;
        slot->capacity = kInlineValueBytes;
        room += kInlineValueBytes;
      }
    }
  }
}

size_t CpxTuple::InlineRoomSize(const CpxTupleDescriptor& td) {
  return size_t{td.m_variable_fields} * kInlineValueBytes;
}

CpxTuple::~CpxTuple() {
  for (unsigned i = 0; i < m_count; ++i)
    if (m_slots[i].variable && m_slots[i].owned) VxMemoryFuncFree(m_slots[i].var);
  if (m_own_slots) VxMemoryFuncFree(m_slots);
}

// ---- CpxTuple_Writable ----

namespace {
void* AllocateTuple(size_t size) {
  void* p = VxMemoryFuncMalloc(size);
  if (!p) throw std::bad_alloc();
  return p;
}
}  // namespace

void* CpxTuple_Writable::operator new(size_t size) { return AllocateTuple(size); }
void* CpxTuple_Writable::operator new(size_t size, SlotRoom room) {
  // The slots start right after the object.
  static_assert(sizeof(CpxTuple_Writable) % alignof(CpxTuple) == 0);
  return AllocateTuple(size + kSlotSize * room.fields + room.inline_bytes);
}
void CpxTuple_Writable::operator delete(void* p) { VxMemoryFuncFree(p); }
void CpxTuple_Writable::operator delete(void* p, SlotRoom) { VxMemoryFuncFree(p); }

Ptr<CpxTuple> CpxTuple_Writable::Create(Ptr<const CpxTupleDescriptor> td, int64_t timestamp) {
  const SlotRoom room{td->GetFieldCount(), InlineRoomSize(*td)};
  return Ptr<CpxTuple>(new (room) CpxTuple_Writable(std::move(td), timestamp, room));
}

void CpxTuple::RaiseFieldOutOfRange(unsigned p) const {
  XmlObject::RaiseIndexOutOfRange(p, m_count, m_td->GetName());
}

CpxFieldKind CpxTuple::GetFieldKind(unsigned p) const {
  if (p >= m_count) XmlObject::RaiseIndexOutOfRange(p, m_count, m_td->GetName());
  return m_td->GetFieldKind(p);
}

unsigned char* CpxTuple::Grow(FieldSlot& slot, uint32_t size) {
  const uint32_t cap = std::max<uint32_t>({size + 1, slot.capacity * 2, 16});
  void* grown = nullptr;
  if (slot.owned) {
    grown = VxMemoryFuncRealloc(slot.var, cap);
  } else {
    // Leaving the room in the tuple's own allocation, with what it held.
    grown = VxMemoryFuncMalloc(cap);
    if (grown && slot.var) std::memcpy(grown, slot.var, slot.capacity);
  }
  if (!grown) throw std::bad_alloc();
  slot.var = static_cast<unsigned char*>(grown);
  slot.capacity = cap;
  slot.owned = true;
  return slot.var;
}

void CpxTuple::SetFieldValueSlow(FieldSlot& s, uint32_t size, const void* bytes) {
  if (!s.variable) {
    const uint32_t fixed = s.fixed_size;
    if (size > fixed) size = fixed;
    std::memset(s.fixed, 0, sizeof s.fixed);
    std::memcpy(s.fixed, bytes, size);
    s.size = fixed;
    s.present = true;
    return;
  }
  if (size > GetVxLimits().max_value_bytes) RaiseValueTooLarge(size);
  // The source may live in this very buffer (a value copied onto itself).
  if (s.var && bytes >= s.var && bytes < s.var + s.capacity) {
    std::memmove(s.var, bytes, size);
    s.var[size] = 0;
  } else {
    unsigned char* buf = Reserve(s, size);
    if (size) std::memcpy(buf, bytes, size);
    buf[size] = 0;
  }
  s.size = size;
  s.present = true;
}

void CpxTuple::WriteDefaults() {
  for (unsigned i : m_td->m_defaulted) {
    const std::optional<std::string>& d = m_td->GetTupleFieldObject(i)->GetDefaultBytes();
    SetFieldValue(i, static_cast<uint32_t>(d->size()), d->data());
  }
}

void CpxTuple::AllocateBuffer(uint32_t size) {
  for (unsigned i = 0; i < m_count; ++i)
    if (IsVariableSizeKind(m_td->GetFieldKind(i))) Reserve(m_slots[i], size);
}

Ptr<CpxTuple> CpxTuple::Copy() const {
  Ptr<CpxTuple> copy = CpxTuple_Writable::Create(m_td, GetTimestamp());
  copy->SetTupleType(GetTupleType());
  for (unsigned i = 0; i < m_count; ++i) {
    if (!m_slots[i].present) continue;
    uint32_t size = 0;
    const void* v = GetFieldValue(i, size);
    copy->SetFieldValue(i, size, v);
  }
  return copy;
}

namespace {

template <class T>
int Cmp(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int CmpDouble(double a, double b) {
  bool na = std::isnan(a), nb = std::isnan(b);
  if (na || nb) return na == nb ? 0 : (na ? 1 : -1);
  return Cmp(a, b);
}

int CmpBytes(const void* a, uint32_t sa, const void* b, uint32_t sb) {
  int r = std::memcmp(a, b, std::min(sa, sb));
  if (r != 0) return r < 0 ? -1 : 1;
  return Cmp(sa, sb);
}

}  // namespace

int CpxTuple::CompareOneField(const CpxTuple& a, unsigned pa, const CpxTuple& b, unsigned pb,
                              NullCompare rule) {
  bool ha = a.HasFieldValue(pa), hb = b.HasFieldValue(pb);
  if (!ha || !hb) {
    if (ha == hb) return 0;
    int null_side = rule == kNullsFirst ? -1 : 1;
    return ha ? -null_side : null_side;
  }
  CpxFieldKind kind = a.GetFieldKind(pa);
  switch (kind) {
    case CpxFieldKind::Boolean:
      return Cmp(CpxTupleField_Boolean::GetValue(&a, pa), CpxTupleField_Boolean::GetValue(&b, pb));
    case CpxFieldKind::Integer:
      return Cmp(CpxTupleField_Integer::GetValue(&a, pa), CpxTupleField_Integer::GetValue(&b, pb));
    case CpxFieldKind::Long:
    case CpxFieldKind::Time:
    case CpxFieldKind::IntervalD2S:
      return Cmp(CpxTupleField_Long::GetValue(&a, pa), CpxTupleField_Long::GetValue(&b, pb));
    case CpxFieldKind::Float:
      return CmpDouble(CpxTupleField_Float::GetValue(&a, pa), CpxTupleField_Float::GetValue(&b, pb));
    default: {
      uint32_t sa = 0, sb = 0;
      const void* va = a.GetFieldValue(pa, sa);
      const void* vb = b.GetFieldValue(pb, sb);
      return CmpBytes(va, sa, vb, sb);
    }
  }
}

int CpxTuple::CompareFields(const CpxTuple& other) const {
  unsigned n = std::min(m_count, other.m_count);
  for (unsigned i = 0; i < n; ++i) {
    if (GetFieldKind(i) != other.GetFieldKind(i))
      return Cmp(static_cast<int>(GetFieldKind(i)), static_cast<int>(other.GetFieldKind(i)));
    int r = CompareOneField(*this, i, other, i, kNullsFirst);
    if (r) return r;
  }
  return Cmp(m_count, other.m_count);
}

int CpxTuple::CompareIgnoreTimestamp(const CpxTuple& other) const {
  int r = CompareFields(other);
  return r ? r : Cmp(GetTupleType(), other.GetTupleType());
}

int CpxTuple::Compare(const CpxTuple& other) const {
  int r = CompareFields(other);
  if (r) return r;
  r = Cmp(GetTimestamp(), other.GetTimestamp());
  return r ? r : Cmp(GetTupleType(), other.GetTupleType());
}

std::string CpxTuple::ToString() const {
  std::string out = m_td->GetName();
  out += "[ts=" + CpxTupleField_Time::ToString(GetTimestamp());
  out += GetTupleType() == kPositive ? ", sign=+" : (GetTupleType() == kNegative ? ", sign=-" : ", sign=?");
  out += "]{";
  for (unsigned i = 0; i < m_count; ++i) {
    if (i) out += ", ";
    out += m_td->GetFieldNameByPos(i) + "=";
    out += HasFieldValue(i) ? FieldToText(*this, i) : "NULL";
  }
  return out + "}";
}

// ---- serialisation ----

uint32_t CpxTuple::GetFieldSerializeSize(unsigned p) const {
  const FieldSlot& s = Slot(p);
  if (!s.present) return 1;
  CpxFieldKind kind = m_td->GetFieldKind(p);
  return IsVariableSizeKind(kind) ? 1 + 4 + s.size : 1 + FixedSizeOfKind(kind);
}

uint32_t CpxTuple::GetRequiredBufferSize() const {
  uint32_t size = 0;
  for (unsigned i = 0; i < m_count; ++i) size += GetFieldSerializeSize(i);
  return size;
}

uint32_t CpxTuple::SerializeBody(unsigned char* buffer, uint32_t size) const {
  uint32_t at = 0;
  for (unsigned i = 0; i < m_count; ++i) {
    const uint32_t need = GetFieldSerializeSize(i);
    if (at + need > size) XmlObject::RaiseIndexOutOfRange(at + need, size, "tuple buffer");
    const FieldSlot& s = m_slots[i];
    buffer[at++] = s.present ? 1 : 0;
    if (!s.present) continue;
    if (IsVariableSizeKind(m_td->GetFieldKind(i))) {
      std::memcpy(buffer + at, &s.size, 4);
      at += 4;
      if (s.size) std::memcpy(buffer + at, s.var, s.size);
      at += s.size;
    } else {
      const uint32_t fixed = FixedSizeOfKind(m_td->GetFieldKind(i));
      std::memcpy(buffer + at, s.fixed, fixed);
      at += fixed;
    }
  }
  return at;
}

bool CpxTuple::DeserializeBody(const unsigned char* bytes, uint32_t size) {
  uint32_t at = 0;
  for (unsigned i = 0; i < m_count; ++i) {
    if (at >= size) return false;
    const unsigned char flag = bytes[at++];
    if (flag == 0) {
      ClearFieldValue(i);
      continue;
    }
    if (flag != 1) return false;
    uint32_t len = FixedSizeOfKind(m_td->GetFieldKind(i));
    if (IsVariableSizeKind(m_td->GetFieldKind(i))) {
      if (size - at < 4) return false;
      std::memcpy(&len, bytes + at, 4);
      at += 4;
    }
    if (size - at < len) return false;
    SetFieldValue(i, len, bytes + at);
    at += len;
  }
  return at == size;
}

// ---- descriptors ----

CpxTupleField::CpxTupleField(std::string name, CpxFieldKind kind,
                             std::optional<std::string> default_text)
    : XmlNamedObject(std::move(name)), m_kind(kind), m_default_text(std::move(default_text)) {
  if (m_default_text) {
    m_default_bytes = ValueBytesFromText(m_kind, *m_default_text);
    if (!m_default_bytes)
      VX_RAISE(XmlObject::msg_invalid_attribute_value, GetName(), {"Value", *m_default_text},
               {"attribute", "Default"}, {"line", 0}, {"file", ""});
  }
}

void CpxTupleField::DoReadAttributes(XmlReaderContext& reader) {
  XmlNamedObject::DoReadAttributes(reader);
  std::string type = reader.GetRequiredAttribute("Type");
  std::optional<CpxFieldKind> kind = CpxTupleFieldTypes::KindOf(XmlQName(type));
  if (!kind)
    VX_RAISE(XmlObject::msg_invalid_attribute_value, GetName(), {"Value", type},
             {"attribute", "Type"}, {"line", reader.GetLine()}, {"file", reader.GetFileName()});
  m_kind = *kind;
  m_default_text = reader.GetAttribute("Default");
  m_default_bytes.reset();
  if (m_default_text) {
    m_default_bytes = ValueBytesFromText(m_kind, *m_default_text);
    if (!m_default_bytes)
      VX_RAISE(XmlObject::msg_invalid_attribute_value, GetName(), {"Value", *m_default_text},
               {"attribute", "Default"}, {"line", reader.GetLine()},
               {"file", reader.GetFileName()});
  }
}

void CpxTupleField::DoWriteAttributes(XmlWriterContext& writer) const {
  XmlNamedObject::DoWriteAttributes(writer);
  writer.WriteAttribute("Type", GetType().local);
  if (m_default_text) writer.WriteAttribute("Default", *m_default_text);
}

void CpxTupleDescriptor::DoReadContent(XmlReaderContext& reader) {
  while (reader.MoveToContent() && reader.IsStartElement("Field")) {
    Ptr<CpxTupleField> field(new CpxTupleField());
    field->XmlRead(reader);
    AddField(std::move(field));
  }
}

void CpxTupleDescriptor::DoWriteContent(XmlWriterContext& writer) const {
  for (const Ptr<CpxTupleField>& f : m_fields) f->XmlWrite(writer);
}

uint32_t CpxTupleDescriptor::CalculateTupleMinimumSize() const {
  uint32_t size = 0;
  for (CpxFieldKind k : m_kinds) size += FixedSizeOfKind(k);
  return size;
}

Ptr<CpxTuple> CpxTupleDescriptor::CreateDefaultTuple(unsigned reserve) const {
  Ptr<CpxTuple> t = CpxTuple_Writable::Create(Ptr<const CpxTupleDescriptor>(this), 0);
  if (reserve) t->AllocateBuffer(reserve);
  t->WriteDefaultFields();
  return t;
}

// ---- tuple XML ----

namespace {

LogMessageDefinition msg_bad_tuple() {
  return {"TUPLE_XML_INVALID", "Invalid tuple at line {line} in file {file}: {reason}",
          LogLevel::Error};
}

[[noreturn]] void RaiseBadTuple(XmlReaderContext& reader, const std::string& reason) {
  VX_RAISE(msg_bad_tuple, "Tuple", {"line", reader.GetLine()}, {"file", reader.GetFileName()},
           {"reason", reason});
}

}  // namespace

Ptr<CpxTuple> ReadTupleXml(XmlReaderContext& reader, const CpxDescriptorFinder& find) {
  reader.ExpectStartElement("Tuple");
  std::string td_name = reader.GetRequiredAttribute("Descriptor");
  const CpxTupleDescriptor* td = find(td_name);
  if (!td) RaiseBadTuple(reader, "unknown descriptor '" + td_name + "'");
  int64_t ts = 0;
  if (auto text = reader.GetAttribute("Timestamp")) {
    if (!CpxTupleField_Time::FromString(ts, *text))
      RaiseBadTuple(reader, "invalid Timestamp '" + *text + "'");
  }
  int type = Message::kPositive;
  if (auto sign = reader.GetAttribute("Sign")) {
    if (*sign == "-") {
      type = Message::kNegative;
    } else if (*sign != "+") {
      RaiseBadTuple(reader, "invalid Sign '" + *sign + "' (expected + or -)");
    }
  }
  Ptr<CpxTuple> tuple = CpxTuple_Writable::Create(Ptr<const CpxTupleDescriptor>(td), ts);
  tuple->SetTupleType(type);
  bool empty = reader.IsEmptyElement();
  reader.Next();
  if (empty) return tuple;
  while (reader.MoveToContent() && reader.IsStartElement("Field")) {
    std::string name = reader.GetRequiredAttribute("Name");
    unsigned pos = 0;
    if (!td->FindFieldPos(name, pos))
      RaiseBadTuple(reader, "descriptor '" + td_name + "' has no field '" + name + "'");
    std::optional<std::string> null_attr = reader.GetAttribute("Null");
    if (null_attr && (*null_attr == "true" || *null_attr == "1")) {
      tuple->ClearFieldValue(pos);
      reader.Skip();
      continue;
    }
    CpxFieldKind kind = td->GetFieldKind(pos);
    int line = reader.GetLine();
    std::string text =
        kind == CpxFieldKind::Xml ? reader.ReadInnerXml() : reader.ReadElementText();
    if (!SetFieldFromText(*tuple, pos, text)) {
      VX_RAISE(msg_bad_tuple, "Tuple", {"line", line}, {"file", reader.GetFileName()},
               {"reason", "'" + text + "' is not a " + CpxTupleFieldTypes::Name(kind) +
                              " value for field '" + name + "'"});
    }
  }
  reader.ReadEndElement("Tuple");
  return tuple;
}

void WriteTupleXml(XmlWriterContext& writer, const CpxTuple& tuple) {
  writer.StartElement("Tuple");
  writer.WriteAttribute("Descriptor", tuple.GetTD()->GetName());
  if (tuple.GetTimestamp() != 0)
    writer.WriteAttribute("Timestamp", CpxTupleField_Time::ToString(tuple.GetTimestamp()));
  if (tuple.GetTupleType() == Message::kNegative) writer.WriteAttribute("Sign", "-");
  for (unsigned i = 0; i < tuple.GetFieldCount(); ++i) {
    if (!tuple.HasFieldValue(i)) continue;
    writer.StartElement("Field");
    writer.WriteAttribute("Name", tuple.GetTD()->GetFieldNameByPos(i));
    if (tuple.GetFieldKind(i) == CpxFieldKind::Xml) {
      writer.WriteRaw(CpxTupleField_Xml::GetView(&tuple, i));
    } else {
      writer.WriteString(FieldToText(tuple, i));
    }
    writer.EndElement();
  }
  writer.EndElement();
}

}  // namespace vx

namespace vx {

bool CpxTupleField_String::GetValue(PtrView<const CpxTuple> t, unsigned p, const char*& bytes,
                                    uint32_t& length) {
  const void* v = t->GetFieldValue(p, length);
  bytes = static_cast<const char*>(v);
  return v != nullptr;
}

uint32_t CpxTupleField_String::GetBytesLength(PtrView<const CpxTuple> t, unsigned p) {
  uint32_t size = 0;
  t->GetFieldValue(p, size);
  return size;
}

}  // namespace vx
