#include "cpx_expressions/cpx_expression_engine.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "support/hash.h"

#include "cpx_expressions/cpx_operator_registry.h"

namespace vx {

template class CpxTupleFieldRef<CpxExpressionTypes>;
template class CpxExpressionOperator<CpxExpressionTypes>;
template class CpxTupleKey<CpxExpressionTypes>;
template class CpxExpressionContext<CpxExpressionTypes>;

// ---- names ----

namespace {
const XmlQName kFieldRefTypes[kTupleSetKindCount] = {
    XmlQName("InputTupleFieldRefType"), XmlQName("OutputTupleFieldRefType"),
    XmlQName("ConstantTupleFieldRefType"), XmlQName("TemporaryTupleFieldRefType"),
    XmlQName("VariableTupleFieldRefType")};
}  // namespace

const char* TupleSetKindName(CpxTupleSetKind kind) {
  static const char* const kNames[kTupleSetKindCount] = {"input", "output", "constant",
                                                         "temporary", "variable"};
  return kNames[static_cast<unsigned>(kind)];
}

const XmlQName& FieldRefXsiType(CpxTupleSetKind kind) {
  return kFieldRefTypes[static_cast<unsigned>(kind)];
}

std::optional<CpxTupleSetKind> FieldRefKindOf(const XmlQName& xsi_type) {
  for (unsigned i = 0; i < kTupleSetKindCount; ++i)
    if (kFieldRefTypes[i] == xsi_type) return static_cast<CpxTupleSetKind>(i);
  return std::nullopt;
}

std::string OperatorDisplayName(const std::type_info& type) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string name = status == 0 && demangled ? demangled : type.name();
  std::free(demangled);
  // Drop the namespace qualification of the class itself (not of template
  // arguments) and the common prefix.
  size_t angle = name.find('<');
  size_t colons = name.rfind("::", angle == std::string::npos ? name.size() : angle);
  if (colons != std::string::npos) name.erase(0, colons + 2);
  static const std::string kPrefix = "CpxExpressionOperator_";
  if (name.compare(0, kPrefix.size(), kPrefix) == 0) name.erase(0, kPrefix.size());
  return name;
}

// ---- factories of the type bundle ----

Ptr<CpxExpressionOperator_Engine> CpxExpressionTypes::CreateOperator(
    const XmlQName& type, const std::string& name, CpxExpressionContext_Engine* context) {
  return CpxExpressionOperatorRegistry::Instance().Create(type, name, context);
}

Ptr<CpxTupleFieldRef_Engine> CpxExpressionTypes::CreateFieldRef(CpxTupleSetKind kind,
                                                                CpxExpressionOperator_Engine* owner) {
  switch (kind) {
    case CpxTupleSetKind::Input: return Ptr<CpxTupleFieldRef_Engine>(new CpxInputTupleFieldRef_Engine(owner));
    case CpxTupleSetKind::Output: return Ptr<CpxTupleFieldRef_Engine>(new CpxOutputTupleFieldRef_Engine(owner));
    case CpxTupleSetKind::Constant: return Ptr<CpxTupleFieldRef_Engine>(new CpxConstantTupleFieldRef_Engine(owner));
    case CpxTupleSetKind::Temporary: return Ptr<CpxTupleFieldRef_Engine>(new CpxTemporaryTupleFieldRef_Engine(owner));
    case CpxTupleSetKind::Variable: return Ptr<CpxTupleFieldRef_Engine>(new CpxVariableTupleFieldRef_Engine(owner));
  }
  return nullptr;
}

// ---- operator base ----

bool CpxExpressionOperator_Engine::CheckAllFieldsAvailable(CpxExpressionEvaluator_Engine* evaluator,
                                                           const ParamList& list) {
  for (const Ptr<CpxTupleFieldRef_Engine>& ref : list) {
    unsigned pos = 0;
    const CpxTuple* t = ref->GetTupleField(evaluator, pos);
    if (!t->HasFieldValue(pos)) return false;
  }
  return true;
}

void CpxExpressionOperator_Engine::EnsureValid() {
  ParametersChanged();
  CpxExpressionOperator<CpxExpressionTypes>::EnsureValid();
  m_inline_inputs = static_cast<uint8_t>(
      CopyBoundParams(GetInputParameters(), m_bound_inputs, kInlineInputs));
  m_inline_outputs = static_cast<uint8_t>(
      CopyBoundParams(GetOutputParameters(), m_bound_outputs, kInlineOutputs));
}

// Copies the leading run of bound parameters that fit; returns its length.
unsigned CpxExpressionOperator_Engine::CopyBoundParams(const ParamList& list, BoundParam* to,
                                                       unsigned room) {
  unsigned n = 0;
  for (; n < room && n < list.size(); ++n) {
    const CpxTupleFieldRef_Engine& ref = *list[n];
    if (!ref.IsBound() || ref.GetTuplePos() > UINT16_MAX) break;
    to[n] = {ref.GetFieldPos(), static_cast<uint16_t>(ref.GetTuplePos()), ref.GetKind()};
  }
  return n;
}

void CpxExpressionOperator_Engine::RaiseParameterOutOfRange(unsigned i, size_t size) const {
  XmlObject::RaiseIndexOutOfRange(i, size, GetName());
}

void CpxExpressionOperator_Engine::InsureParameterCounts(int inputs, int outputs) const {
  if (inputs >= 0 && GetInputParameters().size() != static_cast<size_t>(inputs))
    VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS);
  if (outputs >= 0 && GetOutputParameters().size() != static_cast<size_t>(outputs))
    VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_OUTPUT_PARAMETERS);
}

void CpxExpressionOperator_Engine::InsureInputType(unsigned i, CpxFieldKind kind) const {
  const XmlQName& type = CpxTupleFieldTypes::FromKind(kind);
  if (CheckFieldType(GetInputParameters(), i, type)) return;
  switch (i) {
    case 0: VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_FIRST_INPUT_WRONG_TYPE, {"type_name", type.local});
    case 1: VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_SECOND_INPUT_WRONG_TYPE, {"type_name", type.local});
    case 2: VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_THIRD_INPUT_WRONG_TYPE, {"type_name", type.local});
    case 3: VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_FOURTH_INPUT_WRONG_TYPE, {"type_name", type.local});
    default:
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_NTH_INPUT_WRONG_TYPE, {"type_name", type.local},
                                  {"index", i + 1});
  }
}

void CpxExpressionOperator_Engine::InsureOutputType(unsigned i, CpxFieldKind kind) const {
  const XmlQName& type = CpxTupleFieldTypes::FromKind(kind);
  if (!CheckFieldType(GetOutputParameters(), i, type))
    VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_OUTPUT_WRONG_TYPE, {"type_name", type.local});
}

// ---- evaluator ----

CpxExpressionEvaluator_Engine::CpxExpressionEvaluator_Engine(
    const CpxExpressionContext_Engine* context)
    : m_context(context) {}

uint32_t CpxExpressionEvaluator_Engine::GetMaxOperator() const {
  return m_context->GetOperatorCount();
}

namespace {

// The tuples of an evaluator-owned list (or the context's variables), as one
// array.
template <class Table>
void BindList(Table& table, const CpxTuplesList_Vector* list) {
  if (!list) {
    table = {};
    return;
  }
  table.tuples = list->GetTupleArray();
  table.size = list->GetSize();
}

}  // namespace

void CpxExpressionEvaluator_Engine::PrepareTuples(Ptr<CpxTuplesList_Vector>& list,
                                                  CpxTupleSetKind kind) {
  list = MakePtr<CpxTuplesList_Vector>();
  for (const Ptr<CpxTupleDescriptor>& td : m_context->GetDescriptors(kind))
    list->Add(td->CreateDefaultTuple());
}

void CpxExpressionEvaluator_Engine::Prepare() {
  PrepareTuples(m_constant, CpxTupleSetKind::Constant);
  PrepareTuples(m_temporary, CpxTupleSetKind::Temporary);
  PrepareTuples(m_output, CpxTupleSetKind::Output);
  BindOwnTupleTables();
  m_shared.clear();
  m_states.assign(m_context->GetOperatorCount(), nullptr);
  m_live_states.clear();
  m_shared.resize(m_context->GetCountsShareGroups());
  m_shares_version = m_context->GetCountsSharesVersion();
  m_dirty = false;
}

CpxExpressionOperatorState_Engine* CpxExpressionEvaluator_Engine::CreateOperatorState(
    unsigned position) {
  if (position >= m_states.size()) XmlObject::RaiseIndexOutOfRange(position, m_states.size(), "operator states");
  Ptr<CpxExpressionOperatorState_Engine>& state = m_states[position];
  if (!state) {
    const CpxExpressionOperator_Engine* op = m_context->GetOperatorByPos(position);
    state = op->CreateState();
    const CpxExpressionContext_Engine::CountsShare share = m_context->GetCountsShare(position);
    if (state && share.group >= 0 && m_shares_version == m_context->GetCountsSharesVersion())
      op->ShareCounts(*state, m_shared[static_cast<size_t>(share.group)], share.column);
    if (state) m_live_states.push_back(state.Get());
    if (state && m_batch) state->InitializePersistence(m_batch, m_key, position);
  }
  return state.Get();
}

void CpxExpressionEvaluator_Engine::RaiseStepLimit(uint64_t limit, uint32_t position) {
  // The next evaluation starts afresh rather than inside the loop.
  m_next_operator = 0;
  VX_RAISE(VX_SERVER_LIMIT_STEPS_EXCEEDED, m_context->GetName(), {"limit", limit},
           {"position", position},
           {"operator_name", m_context->GetOperatorByPos(position)->GetName()});
}

// The evaluator's own lists keep their tuples in place from Prepare on (Reset
// replaces a tuple in its slot), so their tables are bound once; the input
// list changes with every run and the variables belong to the context.
void CpxExpressionEvaluator_Engine::BindOwnTupleTables() {
  BindList(m_tables[static_cast<unsigned>(CpxTupleSetKind::Output)], m_output.Get());
  BindList(m_tables[static_cast<unsigned>(CpxTupleSetKind::Constant)], m_constant.Get());
  BindList(m_tables[static_cast<unsigned>(CpxTupleSetKind::Temporary)], m_temporary.Get());
}

void CpxExpressionEvaluator_Engine::BindTupleTables() {
  TupleTable& in = m_tables[static_cast<unsigned>(CpxTupleSetKind::Input)];
  if (!m_input) {
    in = {};
  } else {
    in.size = m_input->GetSize();
    in.tuples = m_input->GetTupleArray();
    if (!in.tuples && in.size) {
      m_gathered_input.resize(in.size);
      for (unsigned i = 0; i < in.size; ++i) m_gathered_input[i] = m_input->GetObjectByPos(i);
      in.tuples = m_gathered_input.data();
    }
    // A new row is usually out of the cache, and its fields are read by
    // operators one after the other: asking for its first lines now (the
    // tuple, its field slots and the room of its short values follow each
    // other) makes one wait of them instead of one per line.
    for (unsigned i = 0; i < in.size && i < 4; ++i) {
      const char* row = reinterpret_cast<const char*>(in.tuples[i]);
      for (unsigned line = 0; line < 4; ++line) __builtin_prefetch(row + 64 * line);
    }
  }
  BindList(m_tables[static_cast<unsigned>(CpxTupleSetKind::Variable)], GetVariableTuples());
}

CpxTuple* CpxExpressionEvaluator_Engine::GetTupleAtSlow(CpxTupleSetKind kind, unsigned pos) const {
  const CpxTuplesList* list = nullptr;
  switch (kind) {
    case CpxTupleSetKind::Input: list = m_input; break;
    case CpxTupleSetKind::Output: list = m_output.Get(); break;
    case CpxTupleSetKind::Constant: list = m_constant.Get(); break;
    case CpxTupleSetKind::Temporary: list = m_temporary.Get(); break;
    case CpxTupleSetKind::Variable: list = GetVariableTuples(); break;
  }
  // The list itself answers: its tuple, or its own out-of-range error.
  if (list) return list->GetObjectByPos(pos);
  XmlObject::RaiseIndexOutOfRange(pos, 0, std::string(TupleSetKindName(kind)) + " tuples");
}

void CpxExpressionEvaluator_Engine::Execute(const int64_t& now,
                                            PtrView<const CpxTuplesList> input) {
  m_now = now;
  m_input = input.Get();
  m_dirty = true;
  BindTupleTables();
  // A group's states are separate objects, likely out of the cache when its
  // next row comes: asking for all of them now lets their loads overlap
  // instead of each operator waiting for its own in turn.
  for (const CpxExpressionOperatorState_Engine* state : m_live_states) __builtin_prefetch(state);
  const uint32_t count = m_context->GetOperatorCount();
  const CpxExpressionOperator_Engine* const* flat = m_context->GetOperatorArray().data();
  uint32_t p = m_next_operator;
  struct Release {
    CpxExpressionEvaluator_Engine* ev;
    ~Release() {
      ev->m_input = nullptr;
      ev->m_now = 0;
    }
  } release{this};
  // Steps are counted from the last backward jump, so straight-line code pays
  // nothing: a backward jump adds the operators run since the one before.
  const uint64_t step_limit = GetVxLimits().max_steps_per_evaluation;
  uint64_t steps = 0;
  uint32_t run_start = p;
  while (p < count) {
    flat[p]->Execute(this, p);
    if (m_next_operator == p) {
      m_next_operator = p + 1;
    } else if (m_next_operator <= p && step_limit != 0) {
      steps += p - run_start + 1;
      run_start = m_next_operator;
      if (steps > step_limit) RaiseStepLimit(step_limit, p);
    }
    p = m_next_operator;
  }
  // The last row of a group has run: its records go, after everything the
  // row itself wrote.
  if (m_cleanup_on_exit && m_batch) RemoveAllFromPersistentStorage();
}

void CpxExpressionEvaluator_Engine::Reset() {
  if (!m_dirty) return;
  // The temporaries' table is bound from Prepare on (Reset keeps them in place).
  const TupleTable& temporaries = m_tables[static_cast<unsigned>(CpxTupleSetKind::Temporary)];
  for (unsigned i = 0; i < temporaries.size; ++i) temporaries.tuples[i]->RemoveAllFields();
  const auto& descriptors = m_context->GetOutputTupleDescriptors();
  const unsigned outputs = m_output->GetSize();
  for (unsigned i = 0; i < outputs; ++i) {
    const Ptr<CpxTuple>& t = m_output->GetPtrByPos(i);
    if (t.IsUnique()) {
      t->SetTupleType(Message::kPositive);
      t->SetTimestamp(0);
      t->WriteDefaultFields();  // clears every field first
    } else {
      // A caller still holds this tuple: leave it as it is and take a new one.
      m_output->Set(i, descriptors.GetObjectByPos(i)->CreateDefaultTuple());
    }
  }
  m_next_operator = 0;
  m_dirty = false;
}

uint32_t CpxExpressionEvaluator_Engine::ChangeTuplesCount(const CpxTuple& tuple) {
  int type = tuple.GetTupleType();
  if (type == Message::kPositive) {
    ++m_tuples_count;
  } else if (type == Message::kNegative) {
    --m_tuples_count;
  }
  if (m_batch && m_group_tuple) Defer(*m_batch);
  return m_tuples_count;
}

// The group record: the live-row count, then the group's key values. The
// key values never change, so a count that is back at the value last
// written (a full sliding window, after a row left and one arrived) leaves
// the record as the store holds it.
void CpxExpressionEvaluator_Engine::WriteDeferred(CpxPersistentStorageBatch& batch) {
  if (!m_group_tuple) return;
  if (m_count_stored && m_stored_count == m_tuples_count) return;
  m_stored_count = m_tuples_count;
  m_count_stored = true;
  m_record.resize(4 + m_group_tuple->GetRequiredBufferSize());
  std::memcpy(m_record.data(), &m_tuples_count, 4);
  m_group_tuple->SerializeBody(reinterpret_cast<unsigned char*>(m_record.data()) + 4,
                               static_cast<uint32_t>(m_record.size() - 4));
  batch.Put(m_key, m_record);
}

void* CpxSharedState_Engine::operator new(size_t size) {
  void* p = VxMemoryFuncMalloc(size);
  if (!p) throw std::bad_alloc();
  return p;
}
void CpxSharedState_Engine::operator delete(void* p) { VxMemoryFuncFree(p); }

// ---- context ----

// The groups of a grouped context. A group is found by its key bytes: the
// group-by key fields of a row written one after the other in a form where
// two rows have the same bytes exactly when the key compares them equal
// (CompareByKey gives 0). A lookup writes the arriving row's key into a
// reused buffer, hashes it with a well-mixed 64-bit hash and probes an
// open-addressing table of (hash, evaluator) slots; the bytes are compared
// only on a full hash match, with the copy the evaluator keeps. No tuple is
// built and no stored row is visited. Per field: a NULL is one byte 0; a
// value is a byte 1 and then
//   boolean             one byte, 1 for true (a stored byte of 1) and 0 else
//   integer, long,      the stored bytes
//   time, interval
//   float               the stored bytes, with -0.0 written as 0.0 and every
//                       NaN as one NaN (they compare equal)
//   string, blob, xml   the byte length (4 bytes) and the bytes
// The key hash of the engine (CpxTupleKey_Engine::GetHash, h * 5 + byte)
// stays what it is for its own users; it spreads small integer keys over a
// few thousand values only, too few for a table of many groups.
//
// The table uses linear probing, doubles when it would be half full and
// removes by shifting the rest of a probe run back, so groups that come and
// go leave no tombstones. It holds one reference to each evaluator.
struct CpxExpressionContext_Engine::EvaluatorMap {
  // How a key field is written.
  enum class Form : uint8_t { kBoolean, kFloat, kBytes, kRaw4, kRaw8 };
  struct Field {
    unsigned pos;
    Form form;
  };
  struct Slot {
    uint64_t hash;
    CpxExpressionEvaluator_Engine* evaluator;  // null: the slot is empty
  };

  explicit EvaluatorMap(const CpxTupleKey_Engine* key) : slots(16, Slot{0, nullptr}) {
    const CpxTupleDescriptor* td = key->GetDescriptor();
    for (unsigned i = 0; i < key->GetFieldCount(); ++i) {
      const unsigned pos = key->GetField(i).pos;
      const CpxFieldKind kind = td->GetFieldKind(pos);
      Form form = kind == CpxFieldKind::Boolean ? Form::kBoolean
                  : kind == CpxFieldKind::Float ? Form::kFloat
                  : IsVariableSizeKind(kind)    ? Form::kBytes
                  : FixedSizeOfKind(kind) == 4  ? Form::kRaw4
                                                : Form::kRaw8;
      fields.push_back({pos, form});
      fixed_bound += 1 + 8;
      has_bytes = has_bytes || form == Form::kBytes;
    }
  }
  ~EvaluatorMap() {
    for (const Slot& s : slots)
      if (s.evaluator) s.evaluator->Release();
  }
  EvaluatorMap(const EvaluatorMap&) = delete;
  EvaluatorMap& operator=(const EvaluatorMap&) = delete;

  // The key bytes of `row`, in the reused buffer.
  std::string_view KeyOf(const CpxTuple& row) {
    size_t bound = fixed_bound;
    if (has_bytes) {
      for (const Field& f : fields) {
        uint32_t size = 0;
        if (f.form == Form::kBytes && row.GetFieldValue(f.pos, size)) bound += 4 + size;
      }
    }
    if (probe.size() < bound) probe.resize(bound);
    char* out = probe.data();
    for (const Field& f : fields) {
      uint32_t size = 0;
      const void* v = row.GetFieldValue(f.pos, size);
      *out++ = v ? 1 : 0;
      if (!v) continue;
      switch (f.form) {
        case Form::kBoolean:
          *out++ = *static_cast<const unsigned char*>(v) == 1 ? 1 : 0;
          break;
        case Form::kFloat: {
          double d;
          std::memcpy(&d, v, sizeof d);
          if (d == 0) d = 0;
          if (std::isnan(d)) d = std::numeric_limits<double>::quiet_NaN();
          std::memcpy(out, &d, sizeof d);
          out += sizeof d;
          break;
        }
        case Form::kBytes:
          std::memcpy(out, &size, sizeof size);
          if (size) std::memcpy(out + sizeof size, v, size);
          out += sizeof size + size;
          break;
        case Form::kRaw4:
          std::memcpy(out, v, 4);
          out += 4;
          break;
        case Form::kRaw8:
          std::memcpy(out, v, 8);
          out += 8;
          break;
      }
    }
    return std::string_view(probe.data(), static_cast<size_t>(out - probe.data()));
  }

  // The slot of the group with key bytes `key` (hash `hash`), or the empty
  // slot where it would go.
  size_t Find(std::string_view key, uint64_t hash) const {
    const size_t mask = slots.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const Slot& s = slots[i];
      if (!s.evaluator || (s.hash == hash && s.evaluator->GetGroupKeyBytes() == key)) return i;
    }
  }
  // Puts `ev` in the empty slot `i` found for its hash.
  void Insert(size_t i, uint64_t hash, CpxExpressionEvaluator_Engine* ev) {
    if (2 * (size + 1) > slots.size()) {
      Grow();
      i = Find(ev->GetGroupKeyBytes(), hash);
    }
    ev->AddRef();
    slots[i] = {hash, ev};
    ++size;
  }
  void Erase(size_t hole) {
    slots[hole].evaluator->Release();
    const size_t mask = slots.size() - 1;
    for (size_t j = (hole + 1) & mask;; j = (j + 1) & mask) {
      const Slot& s = slots[j];
      if (!s.evaluator) break;
      const size_t home = s.hash & mask;
      const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (!stays) {
        slots[hole] = s;
        hole = j;
      }
    }
    slots[hole] = {0, nullptr};
    --size;
  }
  void Grow() {
    VxMemoryVector<Slot> old(2 * slots.size(), Slot{0, nullptr});
    old.swap(slots);
    const size_t mask = slots.size() - 1;
    for (const Slot& s : old) {
      if (!s.evaluator) continue;
      size_t i = s.hash & mask;
      while (slots[i].evaluator) i = (i + 1) & mask;
      slots[i] = s;
    }
  }

  std::vector<Field> fields;
  size_t fixed_bound = 0;  // the key bytes of the fields but their texts
  bool has_bytes = false;
  std::string probe;
  VxMemoryVector<Slot> slots;
  size_t size = 0;
};

CpxExpressionContext_Engine::CpxExpressionContext_Engine(std::string name,
                                                         CpxExpressionContextParent_Engine* parent)
    : CpxExpressionContext<CpxExpressionTypes>(std::move(name), parent) {}

CpxExpressionContext_Engine::~CpxExpressionContext_Engine() = default;

namespace {

Ptr<CpxExpressionContext_Engine> Load(XmlReaderContext& reader,
                                      CpxExpressionContextParent_Engine* parent,
                                      std::string name) {
  Ptr<CpxExpressionContext_Engine> ctx(new CpxExpressionContext_Engine(name, parent));
  try {
    ctx->XmlRead(reader);
    if (!name.empty()) ctx->SetName(name);
    if (reader.MoveToContent()) reader.RaiseUnexpected("end of document");
    ctx->EnsureValid();
  } catch (ExceptionType& e) {
    SetFaultLocation(e, reader);
    throw;
  }
  return ctx;
}

}  // namespace

Ptr<CpxExpressionContext_Engine> CpxExpressionContext_Engine::LoadFromFile(
    const std::string& path, CpxExpressionContextParent_Engine* parent, std::string name) {
  auto reader = XmlReaderContext::FromFile(path);
  return Load(*reader, parent, std::move(name));
}

Ptr<CpxExpressionContext_Engine> CpxExpressionContext_Engine::LoadFromString(
    std::string text, const std::string& document_name, CpxExpressionContextParent_Engine* parent,
    std::string name) {
  auto reader = XmlReaderContext::FromMemory(std::move(text), document_name);
  return Load(*reader, parent, std::move(name));
}

std::string CpxExpressionContext_Engine::WriteToString() const {
  auto writer = XmlWriterContext::ToMemory();
  XmlWrite(*writer);
  return writer->Finish();
}

Ptr<CpxExpressionEvaluator_Engine> CpxExpressionContext_Engine::NewEvaluator() const {
  Ptr<CpxExpressionEvaluator_Engine> ev = MakePtr<CpxExpressionEvaluator_Engine>(this);
  ev->SetGroupByKey(m_group_by_key.Get());
  ev->Prepare();
  return ev;
}

void CpxExpressionContext_Engine::InitializeEvaluators(PtrView<const CpxTuplesList> input_tuples,
                                                       CpxPersistentStorageBatch* batch,
                                                       const CpxPersistentStorageKey& key,
                                                       CpxPersistentStorageMessageCache* cache,
                                                       CpxPersistentStorageManager* manager) {
  InitializeEvaluators(input_tuples);
  m_batch = batch;
  m_key = key;
  m_cache = cache;
  m_manager = manager;
}

void CpxExpressionContext_Engine::TakeOperatorArray() const {
  m_operator_array.clear();
  for (const Ptr<CpxExpressionOperator_Engine>& op : GetOperators()) m_operator_array.push_back(op.Get());
  // Share groups: the operators of one input, in order, a table's columns
  // to a group.
  constexpr unsigned kColumns = CpxExpressionOperator_Engine::kCountsShareColumns;
  const size_t n = m_operator_array.size();
  std::vector<std::optional<CpxExpressionOperator_Engine::CountsKey>> keys(n);
  for (size_t p = 0; p < n; ++p) keys[p] = m_operator_array[p]->GetCountsKey();
  m_counts_shares.assign(n, CountsShare{});
  m_counts_share_groups = 0;
  ++m_counts_shares_taken;
  for (size_t p = 0; p < n; ++p) {
    if (!keys[p] || m_counts_shares[p].group >= 0) continue;
    std::vector<size_t> same{p};
    for (size_t q = p + 1; q < n; ++q)
      if (keys[q] == keys[p] && m_counts_shares[q].group < 0) same.push_back(q);
    if (same.size() < 2) continue;
    for (size_t i = 0; i < same.size(); ++i) {
      if (i % kColumns == 0 && same.size() - i < 2) break;  // a last one alone
      if (i % kColumns == 0) ++m_counts_share_groups;
      m_counts_shares[same[i]] = {static_cast<int32_t>(m_counts_share_groups - 1),
                                  static_cast<uint32_t>(i % kColumns)};
    }
  }
}

void CpxExpressionContext_Engine::InitializeEvaluators(PtrView<const CpxTuplesList>) {
  TakeOperatorArray();
  m_batch = nullptr;
  m_cache = nullptr;
  m_manager = nullptr;
  m_restoring.clear();
  m_next_group_id = 1;
  m_variables = MakePtr<CpxTuplesList_Vector>();
  for (const Ptr<CpxTupleDescriptor>& td : GetVariableTupleDescriptors())
    m_variables->Add(td->CreateDefaultTuple());
  m_group_by_key = nullptr;
  if (GetParent()) {
    Ptr<CpxTupleKey_Engine> key = GetParent()->GetContextGroupByKey();
    if (key && !key->IsEmpty()) {
      const CpxTupleDescriptor* td = GetInputTupleDescriptors().Find(key->GetDescriptorName());
      if (!td) td = GetParent()->FindTupleDescriptor(key->GetDescriptorName());
      key->Bind(td);
      m_group_by_key = key;
    }
  }
  m_single = nullptr;
  m_map = m_group_by_key ? std::make_unique<EvaluatorMap>(m_group_by_key.Get()) : nullptr;
  m_group_count = 0;
  m_initialized = true;
}

Ptr<CpxExpressionEvaluator_Engine> CpxExpressionContext_Engine::GetEvaluator(const CpxTuple& tuple) {
  if (!m_initialized) InitializeEvaluators();
  if (!m_map) {
    if (!m_single) {
      m_single = NewEvaluator();
      if (m_batch) {
        CpxPersistentStorageKey key = m_key;
        key.AppendTypedValue<uint8_t>(0);
        m_single->SetPersistentKey(m_batch, key);
      }
    }
    return m_single;
  }
  // The lookup only views the row; a new group keeps its own copy of its
  // first row (its persistent record holds it), because callers may reuse
  // their row objects.
  const std::string_view key = m_map->KeyOf(tuple);
  const uint64_t hash = CpxHashBytes(key.data(), key.size());
  const size_t slot = m_map->Find(key, hash);
  if (CpxExpressionEvaluator_Engine* found = m_map->slots[slot].evaluator) {
    Ptr<CpxExpressionEvaluator_Engine> ev(found);
    if (ev->ChangeTuplesCount(tuple) == 0) {
      uint64_t id = 0;
      if (m_cache && ev->GetPersistentKey().GetTypedValue(m_key.GetValuesNumber() + 1, id))
        m_cache->RemoveRecord(id);
      ev->SetCleanupOnExit(true);
      m_map->Erase(slot);
      --m_group_count;
    }
    return ev;
  }
  const uint64_t id = m_cache ? m_cache->NewGroupId() : m_next_group_id++;
  Ptr<CpxExpressionEvaluator_Engine> ev = NewGroupEvaluator(id);
  if (m_cache) m_cache->AddRecord(id);
  ev->SetGroupTuple(tuple.Copy());
  ev->SetGroupKeyBytes(key);
  ev->ChangeTuplesCount(tuple);
  m_map->Insert(slot, hash, ev.Get());
  ++m_group_count;
  return ev;
}

Ptr<CpxExpressionEvaluator_Engine> CpxExpressionContext_Engine::NewGroupEvaluator(
    uint64_t group_id) const {
  Ptr<CpxExpressionEvaluator_Engine> ev = NewEvaluator();
  if (m_batch) {
    CpxPersistentStorageKey key = m_key;
    key.AppendTypedValue<uint8_t>(1);
    key.AppendTypedValue<uint64_t>(group_id);
    ev->SetPersistentKey(m_batch, key);
  }
  return ev;
}

void CpxExpressionContext_Engine::InsertGroup(const Ptr<CpxExpressionEvaluator_Engine>& evaluator) {
  if (!m_map) return;
  const std::string_view key = m_map->KeyOf(*evaluator->GetGroupTuple());
  const uint64_t hash = CpxHashBytes(key.data(), key.size());
  const size_t slot = m_map->Find(key, hash);
  if (m_map->slots[slot].evaluator) return;
  evaluator->SetGroupKeyBytes(key);
  m_map->Insert(slot, hash, evaluator.Get());
  ++m_group_count;
}

void CpxExpressionContext_Engine::ResetEvaluators() {
  if (m_single) m_single->Reset();
  if (m_map)
    for (const EvaluatorMap::Slot& s : m_map->slots)
      if (s.evaluator) s.evaluator->Reset();
}

void CpxExpressionContext_Engine::ShutdownEvaluators() {
  m_single = nullptr;
  m_map.reset();
  m_restoring.clear();
  m_batch = nullptr;
  m_cache = nullptr;
  m_manager = nullptr;
  m_group_count = 0;
  m_initialized = false;
}

}  // namespace vx
