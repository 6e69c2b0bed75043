// Tuples, tuple descriptors and tuple lists: the value model of the engine.
//
// A `CpxTupleDescriptor` is the named schema of a tuple: ordered fields, each
// with a name, one of nine value types and an optional default. A `CpxTuple`
// is one row: a descriptor, a timestamp (microseconds since the epoch), a
// tuple type (0 positive: the row enters a window or group; 1 negative: it
// leaves) and one slot per field. A slot is NULL when it holds no value.
//
// Fixed-size values (boolean 1 byte, integer 4, long/time/interval/float 8)
// live inline in the slot; strings, blobs and xml text live in a per-slot
// buffer that keeps its capacity when cleared, so a tuple that is reused row
// after row stops allocating once its buffers have grown. String values are
// stored without a terminator in their size but always followed by one, so
// they can also be read as C strings.
//
// Tuples are reference counted with an atomic count: a tuple may be handed to
// another thread, and an evaluator tells by the count whether a caller still
// holds an output tuple. A tuple is written by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/limits.h"
#include "support/compiler.h"
#include "support/memory.h"
#include "support/ptr.h"
#include "support/xml_object.h"

namespace vx {

enum class CpxFieldKind : uint8_t { Boolean, Integer, Long, Float, String, Time, IntervalD2S, Blob, Xml };
constexpr unsigned kFieldKindCount = 9;

inline bool IsVariableSizeKind(CpxFieldKind k) {
  return k == CpxFieldKind::String || k == CpxFieldKind::Blob || k == CpxFieldKind::Xml;
}
// Stored size of a fixed-size kind; 0 for variable-size kinds.
uint32_t FixedSizeOfKind(CpxFieldKind k);

// Type names of the nine value types ("boolean", "integer", ...), in no
// namespace.
struct CpxTupleFieldTypes {
  static const XmlQName& BooleanFieldType();
  static const XmlQName& IntegerFieldType();
  static const XmlQName& LongFieldType();
  static const XmlQName& FloatFieldType();
  static const XmlQName& StringFieldType();
  static const XmlQName& TimeFieldType();
  static const XmlQName& IntervalD2SFieldType();
  static const XmlQName& BlobFieldType();
  static const XmlQName& XmlFieldType();
  static const XmlQName& FromKind(CpxFieldKind kind);
  static std::optional<CpxFieldKind> KindOf(const XmlQName& type);
  static const char* Name(CpxFieldKind kind);
};

// A server message: timestamp and tuple type.
class Message : public RefCounted {
 public:
  enum TupleType : int { kPositive = 0, kNegative = 1 };

  int64_t GetTimestamp() const { return m_timestamp; }
  void SetTimestamp(int64_t ts) { m_timestamp = ts; }
  int GetTupleType() const { return m_tuple_type; }
  void SetTupleType(int type) { m_tuple_type = type; }
  bool GetPositiveTuple() const { return m_tuple_type == kPositive; }

 protected:
  explicit Message(int64_t ts) : m_timestamp(ts) {}

 private:
  int64_t m_timestamp = 0;
  int m_tuple_type = kPositive;
};

class CpxTupleDescriptor;

class CpxTuple : public Message {
 public:
  // Where NULL sorts relative to values in a comparison.
  enum NullCompare { kNullsFirst, kNullsLast };

  ~CpxTuple() override;
  CpxTuple(const CpxTuple&) = delete;
  CpxTuple& operator=(const CpxTuple&) = delete;

  const CpxTupleDescriptor* GetTD() const { return m_td.Get(); }
  unsigned GetFieldCount() const { return m_count; }
  CpxFieldKind GetFieldKind(unsigned p) const;

  // The accessors below run for every parameter of every operator on every
  // row, so they are inline: a bounds test, then the slot.
  VX_ALWAYS_INLINE bool HasFieldValue(unsigned p) const { return Slot(p).present; }
  // The stored bytes, or nullptr when the field is NULL.
  VX_ALWAYS_INLINE const void* GetFieldValue(unsigned p) const {
    const FieldSlot& s = Slot(p);
    if (!s.present) return nullptr;
    return s.variable ? static_cast<const void*>(s.var) : s.fixed;
  }
  VX_ALWAYS_INLINE const void* GetFieldValue(unsigned p, uint32_t& size) const {
    const FieldSlot& s = Slot(p);
    if (!s.present) {
      size = 0;
      return nullptr;
    }
    size = s.size;
    return s.variable ? static_cast<const void*>(s.var) : s.fixed;
  }

  // Copies `size` bytes as the value (4 for integer; 8 for long, time,
  // interval and float; 1 for boolean; the byte length for the others).
  // A short text or byte value that fits the field's storage (the usual
  // per-row result) is copied inline; anything else goes the general way.
  VX_ALWAYS_INLINE void SetFieldValue(unsigned p, uint32_t size, const void* bytes) {
    FieldSlot& s = Slot(p);
    const auto* from = static_cast<const unsigned char*>(bytes);
    if (s.variable && size <= 32 && size < s.capacity && size <= GetVxLimits().max_value_bytes &&
        (from + size <= s.var || from >= s.var + s.capacity)) [[likely]] {
      CopyShort(s.var, from, size);
      s.var[size] = 0;
      s.size = size;
      s.present = true;
      return;
    }
    SetFieldValueSlow(s, size, bytes);
  }
  // Stores a fixed-size value of the field's own size (what the typed field
  // classes write); any other case goes through SetFieldValue.
  template <class T>
  VX_ALWAYS_INLINE void SetFixedFieldValue(unsigned p, T v) {
    static_assert(sizeof(T) <= 8);
    FieldSlot& s = Slot(p);
    if (s.variable || s.fixed_size != sizeof(T)) [[unlikely]]
      return SetFieldValue(p, sizeof(T), &v);
    uint64_t word = 0;
    __builtin_memcpy(&word, &v, sizeof(T));
    __builtin_memcpy(s.fixed, &word, 8);
    s.size = sizeof(T);
    s.present = true;
  }
  // Writable storage of `size` bytes for a value built in place; the field
  // becomes non-NULL.
  VX_ALWAYS_INLINE void* AllocateFieldValue(unsigned p, uint32_t size) {
    FieldSlot& s = Slot(p);
    s.present = true;
    s.size = size;
    if (!s.variable) return s.fixed;
    if (size > GetVxLimits().max_value_bytes) [[unlikely]] RaiseValueTooLarge(size);
    unsigned char* buf = Reserve(s, size);
    buf[size] = 0;
    return buf;
  }
  VX_ALWAYS_INLINE void ClearFieldValue(unsigned p) {
    FieldSlot& s = Slot(p);
    s.present = false;
    s.size = 0;
  }
  VX_ALWAYS_INLINE void RemoveAllFields() {
    FieldSlot* const slots = m_slots;
    const unsigned n = m_count;
    for (unsigned i = 0; i < n; ++i) {
      slots[i].present = false;
      slots[i].size = 0;
    }
  }
  // Overwrites every field with the descriptor's default (NULL where none).
  inline void WriteDefaultFields();
  // Reserves `size` bytes of value storage for each variable-size field.
  void AllocateBuffer(uint32_t size);

  // A copy with the same descriptor, timestamp, type and values.
  Ptr<CpxTuple> Copy() const;

  // -1, 0 or 1. Fields compare by value (numbers numerically, text and bytes
  // byte-wise with the shorter prefix first, false before true); NaN sorts
  // after every other float and equal to NaN.
  static int CompareOneField(const CpxTuple& a, unsigned pa, const CpxTuple& b, unsigned pb,
                             NullCompare rule);
  // All fields, then timestamp, then tuple type.
  int Compare(const CpxTuple& other) const;
  int CompareFields(const CpxTuple& other) const;
  // All fields and tuple type, ignoring the timestamp.
  int CompareIgnoreTimestamp(const CpxTuple& other) const;

  // "Name[ts=..., sign=+]{field=value, field=NULL, ...}" for messages.
  std::string ToString() const;

  // Serialised field values, for persistent storage. The body holds, per
  // field in order, a presence byte (0 NULL, 1 value) and for a value its
  // stored bytes: fixed-size values as stored (little-endian on this
  // platform), variable-size values as a 4-byte length and the bytes. The
  // timestamp and tuple type are not part of the body.
  uint32_t GetFieldSerializeSize(unsigned p) const;
  uint32_t GetRequiredBufferSize() const;
  // Writes the body into `buffer` (at least GetRequiredBufferSize bytes);
  // returns the bytes written.
  uint32_t SerializeBody(unsigned char* buffer, uint32_t size) const;
  // Replaces every field from a body; false (fields then unspecified) when
  // the bytes are not a body of this descriptor.
  bool DeserializeBody(const unsigned char* bytes, uint32_t size);

 protected:
  // `slot_room`: storage for the descriptor's field slots that comes with
  // the object's own allocation, followed by kInlineValueBytes for each
  // variable-size field (see InlineRoomSize), or nullptr to allocate the
  // slots apart.
  CpxTuple(Ptr<const CpxTupleDescriptor> td, int64_t timestamp, void* slot_room = nullptr);
  // The room after the slots: a short text or byte value (the usual name,
  // code or flag) is stored there, so a row is one allocation that is read
  // with its fields; a longer value moves to an allocation of its own.
  static constexpr uint32_t kInlineValueBytes = 24;
  static size_t InlineRoomSize(const CpxTupleDescriptor& td);

 private:
  // 24 bytes: a fixed-size value lives in the slot itself, a variable-size
  // one in an allocation the slot points to, so the two share their room.
  struct FieldSlot {
    union {
      unsigned char fixed[8];
      unsigned char* var = nullptr;  // string, blob or xml (`variable`)
    };
    uint32_t size = 0;
    uint32_t capacity = 0;
    bool present = false;
    bool variable = false;   // string, blob or xml: the value lives in `var`
    uint8_t fixed_size = 0;  // the stored size of a fixed-size kind
    bool owned = false;      // `var` is an allocation of its own (else room in the tuple's)
  };
  static_assert(sizeof(FieldSlot) == 24);
  VX_ALWAYS_INLINE FieldSlot& Slot(unsigned p) {
    if (p >= m_count) [[unlikely]] RaiseFieldOutOfRange(p);
    return m_slots[p];
  }
  VX_ALWAYS_INLINE const FieldSlot& Slot(unsigned p) const {
    if (p >= m_count) [[unlikely]] RaiseFieldOutOfRange(p);
    return m_slots[p];
  }
  [[noreturn, gnu::cold, gnu::noinline]] void RaiseFieldOutOfRange(unsigned p) const;
  void WriteDefaults();
  void SetFieldValueSlow(FieldSlot& s, uint32_t size, const void* bytes);
  // Copies n <= 32 bytes between places that do not overlap, as two
  // overlapping moves of a power of two.
  VX_ALWAYS_INLINE static void CopyShort(unsigned char* to, const unsigned char* from, uint32_t n) {
    if (n >= 16) {
      __builtin_memcpy(to, from, 16);
      __builtin_memcpy(to + n - 16, from + n - 16, 16);
    } else if (n >= 8) {
      __builtin_memcpy(to, from, 8);
      __builtin_memcpy(to + n - 8, from + n - 8, 8);
    } else if (n >= 4) {
      __builtin_memcpy(to, from, 4);
      __builtin_memcpy(to + n - 4, from + n - 4, 4);
    } else if (n > 0) {
      to[0] = from[0];
      to[n / 2] = from[n / 2];
      to[n - 1] = from[n - 1];
    }
  }
  // Storage for `size` bytes and the spare byte that keeps text values
  // zero-terminated.
  VX_ALWAYS_INLINE unsigned char* Reserve(FieldSlot& slot, uint32_t size) {
    if (slot.capacity >= size + 1 && slot.var) [[likely]] return slot.var;
    return Grow(slot, size);
  }
  unsigned char* Grow(FieldSlot& slot, uint32_t size);

  Ptr<const CpxTupleDescriptor> m_td;
  FieldSlot* m_slots = nullptr;
  unsigned m_count = 0;
  bool m_own_slots = false;  // m_slots is an allocation of its own

 protected:
  static constexpr size_t kSlotSize = sizeof(FieldSlot);
};

// The writable tuple that the engine creates for every row it builds.
// Tuples are allocated through the accounted allocator. Create() makes the
// object and its field slots one allocation, so that reading a field of a
// tuple that is out of the cache costs one miss, not two.
class CpxTuple_Writable final : public CpxTuple {
  struct SlotRoom {
    unsigned fields;
    size_t inline_bytes;
  };

 public:
  CpxTuple_Writable(Ptr<const CpxTupleDescriptor> td, int64_t timestamp)
      : CpxTuple(std::move(td), timestamp) {}
  static Ptr<CpxTuple> Create(Ptr<const CpxTupleDescriptor> td, int64_t timestamp);

  static void* operator new(size_t size);
  static void operator delete(void* p);

 private:
  CpxTuple_Writable(Ptr<const CpxTupleDescriptor> td, int64_t timestamp, SlotRoom)
      : CpxTuple(std::move(td), timestamp, reinterpret_cast<char*>(this) + sizeof(CpxTuple_Writable)) {}
  static void* operator new(size_t size, SlotRoom room);
  static void operator delete(void* p, SlotRoom room);
};

// ---- field classes: typed access to one field of a tuple ----

struct CpxTupleField_Boolean {
  using ValueType = bool;
  static constexpr CpxFieldKind kKind = CpxFieldKind::Boolean;
  static const XmlQName& GetTupleFieldType() { return CpxTupleFieldTypes::BooleanFieldType(); }
  // True only for a stored byte of exactly 1.
  VX_ALWAYS_INLINE static bool GetValue(PtrView<const CpxTuple> t, unsigned p) {
    return *static_cast<const unsigned char*>(t->GetFieldValue(p)) == 1;
  }
  VX_ALWAYS_INLINE static void SetValue(CpxTuple& t, unsigned p, bool v) {
    t.SetFixedFieldValue<unsigned char>(p, v ? 1 : 0);
  }
  static bool FromString(bool& out, std::string_view text);
  static int ToString(char* buf, size_t size, bool v, const char* format = nullptr);
};

template <class T, CpxFieldKind K>
struct CpxTupleField_Fixed {
  using ValueType = T;
  static constexpr CpxFieldKind kKind = K;
  static const XmlQName& GetTupleFieldType() { return CpxTupleFieldTypes::FromKind(K); }
  VX_ALWAYS_INLINE static T GetValue(PtrView<const CpxTuple> t, unsigned p) {
    T v;
    __builtin_memcpy(&v, t->GetFieldValue(p), sizeof(T));
    return v;
  }
  VX_ALWAYS_INLINE static void SetValue(CpxTuple& t, unsigned p, T v) { t.SetFixedFieldValue(p, v); }
};

struct CpxTupleField_Integer : CpxTupleField_Fixed<int32_t, CpxFieldKind::Integer> {
  static bool FromString(int32_t& out, std::string_view text);
  static int ToString(char* buf, size_t size, int32_t v, const char* format = nullptr);
};
struct CpxTupleField_Long : CpxTupleField_Fixed<int64_t, CpxFieldKind::Long> {
  static bool FromString(int64_t& out, std::string_view text);
  static int ToString(char* buf, size_t size, int64_t v, const char* format = nullptr);
};
struct CpxTupleField_Float : CpxTupleField_Fixed<double, CpxFieldKind::Float> {
  // Accepts decimal and exponent forms and inf, -inf, nan.
  static bool FromString(double& out, std::string_view text);
  // Without a format: the shortest text that reads back to the same double.
  static int ToString(char* buf, size_t size, double v, const char* format = nullptr);
};
struct CpxTupleField_Time : CpxTupleField_Fixed<int64_t, CpxFieldKind::Time> {
  // "YYYY-MM-DD HH:MM:SS[.ffffff]" in UTC, or "@N" microseconds.
  static bool FromString(int64_t& out, std::string_view text);
  static std::string ToString(int64_t v);
};
struct CpxTupleField_IntervalD2S : CpxTupleField_Fixed<int64_t, CpxFieldKind::IntervalD2S> {
  // "[-]D HH:MM:SS[.ffffff]".
  static bool FromString(int64_t& out, std::string_view text);
  static std::string ToString(int64_t v);
};

// Byte-string values (string, blob, xml): a pointer and a byte length.
template <CpxFieldKind K>
struct CpxTupleField_Bytes {
  using ValueType = std::string_view;
  static constexpr CpxFieldKind kKind = K;
  static const XmlQName& GetTupleFieldType() { return CpxTupleFieldTypes::FromKind(K); }
  VX_ALWAYS_INLINE static std::string_view GetView(PtrView<const CpxTuple> t, unsigned p) {
    uint32_t size = 0;
    const void* b = t->GetFieldValue(p, size);
    return {static_cast<const char*>(b), size};
  }
  static void SetValue(CpxTuple& t, unsigned p, std::string_view v) {
    // Checked before narrowing, so that a value past 4 GiB cannot wrap.
    if (v.size() > GetVxLimits().max_value_bytes) RaiseValueTooLarge(v.size());
    t.SetFieldValue(p, static_cast<uint32_t>(v.size()), v.data());
  }
};

struct CpxTupleField_String : CpxTupleField_Bytes<CpxFieldKind::String> {
  // Zero-terminated text.
  static const char* GetValue(PtrView<const CpxTuple> t, unsigned p) {
    return static_cast<const char*>(t->GetFieldValue(p));
  }
  static bool GetValue(PtrView<const CpxTuple> t, unsigned p, const char*& bytes, uint32_t& length);
  static uint32_t GetBytesLength(PtrView<const CpxTuple> t, unsigned p);
  static const char* GetDefaultValue() { return ""; }
  // Stores the characters of the zero-terminated UTF-8 `text` whose
  // zero-based character index is at least `first` and below `end` (`end`
  // is cut to the character count). Returns false, and leaves the field
  // unchanged, when the text is not valid UTF-8, `first` is negative or past
  // the character count, or `end` is below `first`. `text` may be the
  // field's own value.
  static bool SetUTF8SubString(CpxTuple& t, unsigned p, const char* text, int64_t first,
                               int64_t end);
  // The same for a text whose length is known (its data still zero-terminated
  // at text.size(), as a stored string is).
  static bool SetUTF8SubString(CpxTuple& t, unsigned p, std::string_view text, int64_t first,
                               int64_t end);
  // True when every byte of `text` is one of 1 ... 127: each byte is then a
  // character of its own, so character positions are byte positions and the
  // UTF-8 walks of libxml2 can be skipped with the same answers.
  static bool IsPlainAscii(std::string_view text) {
    const auto* b = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    size_t i = 0;
    constexpr uint64_t kHigh = 0x8080808080808080u, kOnes = 0x0101010101010101u;
    auto plain = [&](size_t at) {
      uint64_t w;
      __builtin_memcpy(&w, b + at, 8);
      return ((w & kHigh) | ((w - kOnes) & ~w & kHigh)) == 0;  // no high bit, no zero byte
    };
    for (; i + 8 <= n; i += 8)
      if (!plain(i)) return false;
    // The last bytes as the last eight again.
    if (i < n && n >= 8) return plain(n - 8);
    for (; i < n; ++i)
      if (static_cast<unsigned>(b[i]) - 1u >= 127u) return false;
    return true;
  }
};

struct CpxTupleField_Blob : CpxTupleField_Bytes<CpxFieldKind::Blob> {
  // Upper-case hexadecimal, two digits a byte.
  static std::string ToHexString(std::string_view bytes);
  // Either case; false for odd length or a non-hex digit.
  static bool FromHexString(std::string& out, std::string_view text);
  // Base64 text (RFC 4648 alphabet, '=' padding, no line breaks) of `size`
  // bytes: its length, and the text written into `out` (that many bytes);
  // ToBase64String returns the length written.
  static uint64_t ToBase64StringBufSize(uint64_t size);
  static uint32_t ToBase64String(char* out, std::string_view bytes);
  // The number of bytes that `text` decodes to when it is base64, and the
  // decoding into `out` (that many bytes). Space, tab, CR and LF are skipped
  // anywhere; padding is optional. FromBase64String returns false for any
  // other character, a '=' before the end, a single final character, or
  // non-zero bits after the last byte; `size` is then unspecified.
  static uint32_t FromBase64StringBufSize(std::string_view text);
  static bool FromBase64String(char* out, uint32_t& size, std::string_view text);
};

class XmlDomForest;
class XmlDomLog;

// The value is the XML text of a forest (see XmlDomForest), in its
// canonical form when the engine wrote it: reading and writing back gives
// the same bytes. The conversions never throw for bad XML; they return
// false and leave the reason in `log`.
struct CpxTupleField_Xml : CpxTupleField_Bytes<CpxFieldKind::Xml> {
  using CpxTupleField_Bytes::SetValue;
  // Appends the text of `forest` to `out` (`format` indents elements).
  static bool ToString(const XmlDomForest& forest, std::string& out, XmlDomLog& log,
                       bool format = false);
  // Reads `text` into `forest`.
  static bool FromString(XmlDomForest& forest, std::string_view text, XmlDomLog& log);
  // Reads the value of field `p` (not NULL) into `forest`.
  static bool GetValue(PtrView<const CpxTuple> t, unsigned p, XmlDomForest& forest, XmlDomLog& log);
  // Writes the text of `forest` as the value of field `p` and frees the
  // forest's document: the result of an operation is written once, never
  // copied as a document. False, and the field unchanged, when the forest
  // cannot be written.
  static bool SetValue(CpxTuple& t, unsigned p, XmlDomForest&& forest, XmlDomLog& log);
  // The canonical text of XML text; nullopt when it is not XML or refused.
  static std::optional<std::string> Canonical(std::string_view text, XmlDomLog& log);
};

// Text form of any field value (see the value-text table in the docs).
// Returns false (and leaves the field unchanged) when `text` is not a value
// of the field's type.
bool SetFieldFromText(CpxTuple& t, unsigned p, std::string_view text);
// Text form of a non-NULL field.
std::string FieldToText(const CpxTuple& t, unsigned p);
// Stored bytes of `text` read as a value of `kind`; nullopt when unreadable.
std::optional<std::string> ValueBytesFromText(CpxFieldKind kind, std::string_view text);

// ---- descriptors ----

// One field of a descriptor: element "Field" with "Name", "Type" and an
// optional "Default".
class CpxTupleField : public XmlNamedObject {
 public:
  CpxTupleField() = default;
  CpxTupleField(std::string name, CpxFieldKind kind, std::optional<std::string> default_text = {});

  const char* GetXmlElementName() const override { return "Field"; }
  const XmlQName& GetType() const { return CpxTupleFieldTypes::FromKind(m_kind); }
  CpxFieldKind GetKind() const { return m_kind; }
  const std::optional<std::string>& GetDefaultText() const { return m_default_text; }
  // Stored bytes of the default value; nullopt when the default is NULL.
  const std::optional<std::string>& GetDefaultBytes() const { return m_default_bytes; }

 protected:
  void DoReadAttributes(XmlReaderContext& reader) override;
  void DoWriteAttributes(XmlWriterContext& writer) const override;

 private:
  CpxFieldKind m_kind = CpxFieldKind::String;
  std::optional<std::string> m_default_text;
  std::optional<std::string> m_default_bytes;
};

// Element "TupleDescriptor" with attribute "Name" and "Field" children.
class CpxTupleDescriptor : public XmlNamedObject {
 public:
  CpxTupleDescriptor() = default;
  explicit CpxTupleDescriptor(std::string name) : XmlNamedObject(std::move(name)) {}

  const char* GetXmlElementName() const override { return "TupleDescriptor"; }
  static const char* GetElementName() { return "TupleDescriptor"; }

  void AddField(Ptr<CpxTupleField> field) {
    CpxFieldKind kind = field->GetKind();
    const bool has_default = field->GetDefaultBytes().has_value();
    m_fields.Add(std::move(field));
    if (has_default) m_defaulted.push_back(static_cast<unsigned>(m_kinds.size()));
    m_kinds.push_back(kind);
    if (IsVariableSizeKind(kind)) ++m_variable_fields;
  }
  const XmlNamedObjectList<CpxTupleField>& GetConstFields() const { return m_fields; }
  unsigned GetFieldCount() const { return m_fields.GetSize(); }
  const CpxTupleField* GetTupleFieldObject(unsigned p) const { return m_fields.GetObjectByPos(p); }
  const std::string& GetFieldNameByPos(unsigned p) const { return GetTupleFieldObject(p)->GetName(); }
  CpxFieldKind GetFieldKind(unsigned p) const { return m_kinds[p]; }
  bool FindFieldPos(const std::string& name, unsigned& p) const { return m_fields.FindPos(name, p); }
  // Bytes of the fixed part of a tuple of this descriptor.
  uint32_t CalculateTupleMinimumSize() const;

  // A new tuple holding the descriptor's defaults (NULL where none).
  Ptr<CpxTuple> CreateDefaultTuple(unsigned reserve = 0) const;

 protected:
  void DoReadContent(XmlReaderContext& reader) override;
  void DoWriteContent(XmlWriterContext& writer) const override;

 private:
  friend class CpxTuple;
  XmlNamedObjectList<CpxTupleField> m_fields;
  std::vector<CpxFieldKind> m_kinds;
  unsigned m_variable_fields = 0;  // text, blob and xml fields
  std::vector<unsigned> m_defaulted;  // positions of the fields that have a default
};

inline void CpxTuple::WriteDefaultFields() {
  RemoveAllFields();
  if (!m_td->m_defaulted.empty()) WriteDefaults();
}

// ---- tuple lists ----

class CpxTuplesList : public RefCounted {
 public:
  virtual unsigned GetSize() const = 0;
  // Raises the index-out-of-range error past the end.
  virtual CpxTuple* GetObjectByPos(unsigned p) const = 0;
  // The GetSize() tuples as one array, valid until the list changes, or
  // nullptr when the list does not keep them so (an evaluator then gathers
  // them with GetObjectByPos once per run).
  virtual CpxTuple* const* GetTupleArray() const { return nullptr; }
};

class CpxTuplesList_Vector final : public CpxTuplesList {
 public:
  unsigned GetSize() const override { return static_cast<unsigned>(m_tuples.size()); }
  CpxTuple* GetObjectByPos(unsigned p) const override {
    if (p >= m_tuples.size()) XmlObject::RaiseIndexOutOfRange(p, m_tuples.size(), "tuple list");
    return m_tuples[p].Get();
  }
  CpxTuple* const* GetTupleArray() const override { return m_raw.data(); }
  const Ptr<CpxTuple>& GetPtrByPos(unsigned p) const { return m_tuples[p]; }
  void Add(Ptr<CpxTuple> t) {
    m_raw.push_back(t.Get());
    m_tuples.push_back(std::move(t));
  }
  void Set(unsigned p, Ptr<CpxTuple> t) {
    m_raw[p] = t.Get();
    m_tuples[p] = std::move(t);
  }
  void Clear() {
    m_tuples.clear();
    m_raw.clear();
  }

 private:
  VxMemoryVector<Ptr<CpxTuple>> m_tuples;
  VxMemoryVector<CpxTuple*> m_raw;  // the same tuples, unowned, for GetTupleArray
};

// ---- tuple XML ----
//
// <Tuple Descriptor="Trades" Timestamp="2024-01-02 10:00:00" Sign="-">
//   <Field Name="Symbol">IBM</Field>
//   <Field Name="Qty" Null="true"/>
// </Tuple>
// Unlisted fields are NULL. An xml field holds its value as child markup.

using CpxDescriptorFinder = std::function<const CpxTupleDescriptor*(const std::string&)>;

// Reads one "Tuple" element; raises on an unknown descriptor or field, or a
// value that does not read as its field's type.
Ptr<CpxTuple> ReadTupleXml(XmlReaderContext& reader, const CpxDescriptorFinder& find);
void WriteTupleXml(XmlWriterContext& writer, const CpxTuple& tuple);

}  // namespace vx
