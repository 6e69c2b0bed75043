// Operators over whole rows: the first and last live rows of a group
// (First, Last, GetFirstTimestamp, GetLastTimestamp), copying a row's values
// into another tuple by field name (CopyByRef) and comparing two rows
// (IsEqualTuples).
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "cpx_expressions/cpx_accumulators.h"
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"
#include "cpx_expressions/cpx_operators.h"

namespace vxi {

using namespace vx;

namespace {

// ---- live rows ----

// The live rows of one group in arrival order. A positive row enters; a
// negative row retracts the oldest live row whose field values all equal its
// own (the order in which a window lets its rows go; equal rows cannot be
// told apart otherwise). Rows are matched by a 64-bit digest of their field
// values, so a row costs its digest, its timestamp and the one field value
// the operator reports, never a copy of the whole row.
//
// Item 0: one live row, keyed by its sequence number; the record's value is
// the digest (8 bytes), the timestamp (8), a presence byte and the value's
// bytes. A retraction erases its row's record.
class CpxExpressionOperatorState_Engine_LiveRows final : public CpxExpressionOperatorState_Engine {
 public:
  struct Row {
    uint64_t digest = 0;
    int64_t timestamp = 0;
    bool present = false;
    VxMemoryString bytes;
  };

  explicit CpxExpressionOperatorState_Engine_LiveRows(const char* method) : m_method(method) {}

  // Appends `row`; with `keep_value`, the value of its field `field` too.
  void Add(const CpxTuple& row, unsigned field, bool keep_value) {
    const uint64_t sequence = ++m_sequence;
    Row& r = m_rows.emplace_hint(m_rows.end(), sequence, Row{})->second;
    r.digest = Digest(row);
    r.timestamp = row.GetTimestamp();
    if (keep_value) {
      uint32_t size = 0;
      const void* value = row.GetFieldValue(field, size);
      r.present = value != nullptr;
      if (value) r.bytes.assign(static_cast<const char*>(value), size);
    }
    m_by_digest.emplace(r.digest, sequence);
    Save(sequence, r);
  }

  // Retracts the oldest live row equal to `row`; false when there is none.
  bool Remove(const CpxTuple& row) {
    const uint64_t digest = Digest(row);
    auto it = m_by_digest.lower_bound({digest, 0});
    if (it == m_by_digest.end() || it->first != digest) return false;
    const uint64_t sequence = it->second;
    m_by_digest.erase(it);
    m_rows.erase(sequence);
    EraseKeyedRawBuffer(GetPersistentBatch(), 0, sequence);
    return true;
  }

  const Row* First() const { return m_rows.empty() ? nullptr : &m_rows.begin()->second; }
  const Row* Last() const { return m_rows.empty() ? nullptr : &m_rows.rbegin()->second; }

  void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
    std::string_view bytes;
    if (!LoadRawBuffer(message, block, 0, bytes) || bytes.size() < 17)
      RaiseUnknownItem(GetValueType(message, block), m_method);
    const uint64_t sequence = LoadSubKey(message, block);
    Row r;
    std::memcpy(&r.digest, bytes.data(), 8);
    std::memcpy(&r.timestamp, bytes.data() + 8, 8);
    r.present = bytes[16] == 1;
    r.bytes.assign(bytes.data() + 17, bytes.size() - 17);
    m_by_digest.emplace(r.digest, sequence);
    m_rows[sequence] = std::move(r);
    if (sequence > m_sequence) m_sequence = sequence;
  }

 private:
  // The digest of a row's field values: the hash of their serialised form
  // (presence, then the stored bytes of each field), which is stable across
  // processes, so stored digests still match after a restart.
  uint64_t Digest(const CpxTuple& row) {
    const uint32_t size = row.GetRequiredBufferSize();
    if (m_scratch.size() < size) m_scratch.resize(size);
    const uint32_t n = row.SerializeBody(reinterpret_cast<unsigned char*>(m_scratch.data()), size);
    return XXH3_64bits(m_scratch.data(), n);
  }

  void Save(uint64_t sequence, const Row& r) {
    if (!GetPersistentBatch()) return;
    m_scratch.resize(17);
    std::memcpy(m_scratch.data(), &r.digest, 8);
    std::memcpy(m_scratch.data() + 8, &r.timestamp, 8);
    m_scratch[16] = r.present ? 1 : 0;
    m_scratch.append(r.bytes.data(), r.bytes.size());
    SaveKeyedRawBuffer(GetPersistentBatch(), 0, sequence, m_scratch);
  }

  const char* m_method;
  VxMemoryMap<uint64_t, Row> m_rows;                       // by sequence number
  VxMemorySet<std::pair<uint64_t, uint64_t>> m_by_digest;  // (digest, sequence number)
  uint64_t m_sequence = 0;
  std::string m_scratch;
};

enum class LiveEnd { kFirst, kLast };

// The first or last live row of the group: the value of the input field in
// it (Timestamp false: output of the input's type) or its timestamp
// (Timestamp true: output time; only the input's tuple is used). The row is
// counted before the output is written, so a positive row is its own Last,
// and after a retraction the output shows the rows still live. Rows of
// another tuple type change nothing.
template <LiveEnd End, bool Timestamp>
class CpxExpressionOperator_LiveRow_Base : public CpxExpressionOperator_Engine {
  using State = CpxExpressionOperatorState_Engine_LiveRows;

 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;

  static const char* Method() {
    if constexpr (Timestamp) return End == LiveEnd::kFirst ? "GetFirstTimestamp" : "GetLastTimestamp";
    return End == LiveEnd::kFirst ? "First" : "Last";
  }

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override {
    return MakePtr<State>(Method());
  }

  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (GetInputParameters().size() != 1) {
      SetLastError(std::string(Method()) + "(): Expected 1 parameter got " +
                   std::to_string(GetInputParameters().size()) + " parameters");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS,
                                  {"number", GetInputParameters().size()});
    }
    InsureParameterCounts(-1, 1);
    const XmlQName& type = Timestamp ? CpxTupleFieldTypes::TimeFieldType()
                                     : GetInputParameters()[0]->GetFieldType();
    if (!CheckFieldType(GetOutputParameters(), 0, type))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE,
                                  {"type_name", type.local});
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned in_pos = 0, out_pos = 0;
    const CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    auto& state = static_cast<State&>(*ev->GetOperatorState(position));
    if (in->GetTupleType() == Message::kPositive) {
      state.Add(*in, in_pos, !Timestamp);
    } else if (in->GetTupleType() == Message::kNegative && !state.Remove(*in)) {
      CpxRaiseExtraNegativeTuple(Method(), in->ToString());
    }
    const State::Row* row = End == LiveEnd::kFirst ? state.First() : state.Last();
    if (!row || (!Timestamp && !row->present)) return out->ClearFieldValue(out_pos);
    if constexpr (Timestamp) {
      CpxTupleField_Time::SetValue(*out, out_pos, row->timestamp);
    } else {
      out->SetFieldValue(out_pos, static_cast<uint32_t>(row->bytes.size()), row->bytes.data());
    }
  }
};

}  // namespace

// ---- First, Last, GetFirstTimestamp, GetLastTimestamp ----

VX_DEFINE_OPERATOR(CpxExpressionOperator_First_Engine, First,
                   CpxExpressionOperator_LiveRow_Base<LiveEnd::kFirst, false>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_Last_Engine, Last,
                   CpxExpressionOperator_LiveRow_Base<LiveEnd::kLast, false>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_GetFirstTimestamp_Engine, GetFirstTimestamp,
                   CpxExpressionOperator_LiveRow_Base<LiveEnd::kFirst, true>);
VX_DEFINE_OPERATOR(CpxExpressionOperator_GetLastTimestamp_Engine, GetLastTimestamp,
                   CpxExpressionOperator_LiveRow_Base<LiveEnd::kLast, true>);

namespace {

// Pairs of field positions (in the first tuple, in the second) of the fields
// two descriptors share by name.
using FieldPairs = std::vector<std::pair<unsigned, unsigned>>;

}  // namespace

// ---- CopyByRef ----

// Copies the values of the input parameter's tuple into the output
// parameter's tuple, field by field name: every output field with a
// namesake in the input gets the namesake's value (NULL included); other
// output fields, the timestamp and the tuple type are left alone. The pairs
// are found when the context is validated.
class CpxExpressionOperator_CopyByRef_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, CopyByRef)

 public:
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureParameterCounts(1, 1);
    const CpxTupleDescriptor& in = GetInputParameters()[0]->GetDescriptor();
    const CpxTupleDescriptor& out = GetOutputParameters()[0]->GetDescriptor();
    FieldPairs pairs;
    for (unsigned o = 0; o < out.GetFieldCount(); ++o) {
      unsigned i = 0;
      if (!in.FindFieldPos(out.GetFieldNameByPos(o), i)) continue;
      if (in.GetFieldKind(i) != out.GetFieldKind(o)) {
        VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_PARAMETER_OUTPUT_TYPE_MISMATCH,
                                    {"type_name", CpxTupleFieldTypes::Name(in.GetFieldKind(i))},
                                    {"field", out.GetFieldNameByPos(o)});
      }
      pairs.emplace_back(i, o);
    }
    if (pairs.empty()) {
      SetLastError("no field of '" + out.GetName() + "' has a namesake in '" + in.GetName() + "'");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS);
    }
    m_pairs = std::move(pairs);
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    const CpxTuple* in = GetInputTupleField(ev, 0, pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, pos);
    if (in == out) return;
    for (const auto& [i, o] : m_pairs) {
      uint32_t size = 0;
      const void* value = in->GetFieldValue(i, size);
      if (value) {
        out->SetFieldValue(o, size, value);
      } else {
        out->ClearFieldValue(o);
      }
    }
  }

 private:
  // Set by validation, read-only afterwards.
  mutable FieldPairs m_pairs;
};

// ---- IsEqualTuples ----

// True when the two input parameters' tuples hold equal values in every
// field, fields paired by name; the two descriptors must have the same field
// names and types (checked at load). Values compare as group keys do: two
// NULLs are equal, a NULL differs from every value, NaN equals NaN. The
// timestamps and tuple types are not compared. Never NULL.
class CpxExpressionOperator_IsEqualTuples_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, IsEqualTuples)

 public:
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureParameterCounts(2, 1);
    InsureOutputType(0, CpxFieldKind::Boolean);
    const CpxTupleDescriptor& a = GetInputParameters()[0]->GetDescriptor();
    const CpxTupleDescriptor& b = GetInputParameters()[1]->GetDescriptor();
    // The position in `to` of the field named like field `i` of `from`.
    auto namesake = [this](const CpxTupleDescriptor& from, unsigned i,
                           const CpxTupleDescriptor& to) {
      unsigned j = 0;
      if (!to.FindFieldPos(from.GetFieldNameByPos(i), j)) {
        VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_FIELD, GetName(),
                 {"field_ref", from.GetFieldNameByPos(i)}, {"tuple_ref", to.GetName()},
                 {"operation", GetName()});
      }
      return j;
    };
    FieldPairs pairs;
    for (unsigned i = 0; i < a.GetFieldCount(); ++i) {
      const unsigned j = namesake(a, i, b);
      if (a.GetFieldKind(i) != b.GetFieldKind(j)) {
        VX_RAISE(VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND, GetName(),
                 {"operation", GetName()},
                 {"type_name", CpxTupleFieldTypes::Name(b.GetFieldKind(j))},
                 {"field", a.GetFieldNameByPos(i)});
      }
      pairs.emplace_back(i, j);
    }
    for (unsigned j = 0; j < b.GetFieldCount(); ++j) namesake(b, j, a);
    m_pairs = std::move(pairs);
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    const CpxTuple* a = GetInputTupleField(ev, 0, pos);
    const CpxTuple* b = GetInputTupleField(ev, 1, pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, pos);
    bool equal = true;
    for (const auto& [i, j] : m_pairs) {
      if (CpxTuple::CompareOneField(*a, i, *b, j, CpxTuple::kNullsFirst) != 0) {
        equal = false;
        break;
      }
    }
    CpxTupleField_Boolean::SetValue(*out, pos, equal);
  }

 private:
  mutable FieldPairs m_pairs;
};

}  // namespace vxi

namespace vx {

namespace {

const char kLiveRowNote[] =
    "`First` and `Last` give the value of the input field in the first (oldest) and the last "
    "(newest) live row of the group; `GetFirstTimestamp` and `GetLastTimestamp` give those "
    "rows' timestamps. Parameters: input 1, the field (for the timestamp forms any field: only "
    "its tuple is used); output 1, a field of the input's type (time for the timestamp forms). "
    "A positive row joins the group's live rows before the output is written, so a row is its "
    "own `Last`; a negative row retracts the oldest live row whose field values all equal its "
    "own (the timestamp is not compared) and the output then shows the rows still live; a "
    "negative row that matches no live row raises the extra-negative-tuple error with the "
    "operator's name as \"method\"; rows of another tuple type change nothing. NULL rule: NULL "
    "while the group has no live row, and NULL when that row's field is NULL (the value of the "
    "row, as `Prev` gives it, not the nearest non-NULL one). State: per group, each live row's "
    "64-bit digest of its field values, its timestamp and (for `First` and `Last`) the field's "
    "value, in arrival order; with persistence one record per live row, written when the row "
    "joins and erased when it is retracted, so the state survives a restart.";

const char kCopyByRefNote[] =
    "Copies the values of the input parameter's tuple into the output parameter's tuple, field "
    "by field name: each output field whose name the input's descriptor also has receives that "
    "field's value. Parameters: input 1 and output 1, any field of each tuple (only the tuples "
    "are used). Fields paired by name must have the same type, and at least one pair must exist "
    "(both checked when the context is loaded). NULL rule: a NULL input field makes its output "
    "field NULL; output fields without a namesake, the output's timestamp and tuple type are "
    "left as they are. State: none.";

const char kIsEqualTuplesNote[] =
    "True when the tuples of the two input parameters hold equal values in every field, fields "
    "paired by name. Parameters: inputs 1 and 2, any field of each tuple (only the tuples are "
    "used), whose descriptors must have the same field names and types (checked when the "
    "context is loaded); output 1, boolean. NULL rule: never NULL; two NULLs are equal, a NULL "
    "and a value are not, and a float NaN equals NaN, as in group keys. Timestamps and tuple "
    "types are not compared. State: none.";

}  // namespace

void RegisterRowOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR_NOTE(CpxExpressionOperator_First_Engine, "1 any", "1 (type of input 1)",
                       "NULL while the group has no live row or when that row's field is NULL",
                       "The field's value in the oldest live row of the group (follows "
                       "retractions; state: live rows).",
                       kLiveRowNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_Last_Engine, "1 any", "1 (type of input 1)",
                       "NULL while the group has no live row or when that row's field is NULL",
                       "The field's value in the newest live row of the group (follows "
                       "retractions; state: live rows).",
                       kLiveRowNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_GetFirstTimestamp_Engine, "1 any (its tuple)",
                       "1 time", "NULL while the group has no live row",
                       "The timestamp of the oldest live row of the group.", kLiveRowNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_GetLastTimestamp_Engine, "1 any (its tuple)",
                       "1 time", "NULL while the group has no live row",
                       "The timestamp of the newest live row of the group.", kLiveRowNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_CopyByRef_Engine, "1 any (its tuple)",
                       "1 any (its tuple)", "NULL fields are copied as NULL",
                       "Copies a tuple's field values into another tuple by field name.",
                       kCopyByRefNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_IsEqualTuples_Engine, "2 any (their tuples)",
                       "1 boolean", "never NULL; NULL equals NULL",
                       "True when two tuples hold equal values in every field.",
                       kIsEqualTuplesNote),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
