// The public embedding interface over the engine.
#include "vx_expressions/vx_expressions.h"

#include <limits>

#include "cpx_expressions/cpx_context_services.h"
#include "cpx_expressions/cpx_expression_engine.h"
#include "cpx_expressions/vx_expressions_build.h"
#include "support/limits.h"
#include "support/storage.h"

namespace vx_expressions {

namespace {

vx::CpxTuple& T(void* p) { return *static_cast<vx::CpxTuple*>(p); }

[[noreturn]] void Fail(const std::string& what) { throw Error(what); }

// Runs `f`, turning engine exceptions into Error.
template <class F>
auto Guard(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (const vx::ExceptionType& e) {
    throw Error(e.what());
  }
}

}  // namespace

// ---- Table ----

struct Table::Impl final : vx::CpxTuplesStorage {
  vx::Ptr<vx::CpxTupleDescriptor> descriptor;
  std::vector<vx::Ptr<vx::CpxTuple>> rows;
  std::vector<std::unique_ptr<Tuple>> views;  // one per row, same order

  const vx::CpxTupleDescriptor& GetDescriptor() const override { return *descriptor; }
  unsigned GetSize() const override { return static_cast<unsigned>(rows.size()); }
  const vx::CpxTuple& GetTuple(unsigned pos) const override { return *rows[pos]; }
  void Check(size_t i) const {
    if (i >= rows.size())
      Fail("row " + std::to_string(i) + " does not exist (the table has " +
           std::to_string(rows.size()) + ")");
  }
};

Table::Table(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Table::~Table() = default;

std::unique_ptr<Table> Table::Create(const std::string& descriptor_xml) {
  auto impl = std::make_unique<Impl>();
  Guard([&] {
    auto reader = vx::XmlReaderContext::FromMemory(descriptor_xml, "table descriptor");
    reader->ExpectStartElement(vx::CpxTupleDescriptor::GetElementName());
    impl->descriptor = vx::MakePtr<vx::CpxTupleDescriptor>();
    impl->descriptor->XmlRead(*reader);
  });
  return std::unique_ptr<Table>(new Table(std::move(impl)));
}

size_t Table::RowCount() const { return m_impl->rows.size(); }

Tuple& Table::AppendRow() {
  m_impl->rows.push_back(m_impl->descriptor->CreateDefaultTuple());
  vx::CpxTuple& row = *m_impl->rows.back();
  row.RemoveAllFields();
  m_impl->views.push_back(std::unique_ptr<Tuple>(new Tuple()));
  m_impl->views.back()->m_tuple = &row;
  return *m_impl->views.back();
}

Tuple& Table::Row(size_t i) {
  m_impl->Check(i);
  return *m_impl->views[i];
}

const Tuple& Table::Row(size_t i) const {
  m_impl->Check(i);
  return *m_impl->views[i];
}

void Table::RemoveRow(size_t i) {
  m_impl->Check(i);
  m_impl->rows.erase(m_impl->rows.begin() + static_cast<std::ptrdiff_t>(i));
  m_impl->views.erase(m_impl->views.begin() + static_cast<std::ptrdiff_t>(i));
}

void Table::Clear() {
  m_impl->rows.clear();
  m_impl->views.clear();
}

// ---- Environment ----

Environment::~Environment() = default;
std::optional<int64_t> Environment::NextValue(std::string_view) { return std::nullopt; }
const Table* Environment::FindTable(std::string_view) const { return nullptr; }
const User* Environment::CurrentUser() const { return nullptr; }

// ---- StreamParent ----

// The context parent of a stream: its group-by key, and what its options
// and environment offer (sequences the stream keeps first, then the
// environment's).
class StreamParent final : public vx::CpxExpressionContextParent_Engine,
                           private vx::CpxNextvalStorage,
                           private vx::CpxExpressionAuthenticationToken {
 public:
  explicit StreamParent(const StreamOptions& options)
      : m_fields(options.group_by), m_environment(options.environment) {
    for (const auto& [name, seq] : options.sequences) {
      if (seq.increment == 0) Fail("sequence '" + name + "' has an increment of 0");
      m_sequences.Declare(name, seq.start, seq.increment);
    }
    m_has_sequences = !options.sequences.empty();
  }
  void SetDescriptor(std::string name) { m_descriptor = std::move(name); }
  // Draws of the stream's own sequences go into the store's batches.
  void AttachStore(vx::CpxPersistentStorageManager* store) {
    if (m_has_sequences) m_sequences.AttachStore(store);
  }

  vx::Ptr<vx::CpxTupleKey_Engine> GetContextGroupByKey() const override {
    if (m_fields.empty()) return nullptr;
    auto key = vx::MakePtr<vx::CpxTupleKey_Engine>();
    key->SetDescriptorName(m_descriptor);
    for (const std::string& f : m_fields) key->AddField(f, false);
    return key;
  }
  const vx::CpxTupleDescriptor* FindTupleDescriptor(const std::string&) const override {
    return nullptr;
  }
  vx::CpxNextvalStorage* GetNextvalStorage() const override {
    if (!m_has_sequences && !m_environment) return nullptr;
    return const_cast<StreamParent*>(this);
  }
  const vx::CpxTuplesStorage* FindTuplesStorage(std::string_view name) const override {
    const Table* table = m_environment ? m_environment->FindTable(name) : nullptr;
    return table ? table->m_impl.get() : nullptr;
  }
  const vx::CpxExpressionAuthenticationToken* GetExpressionAuthenticationToken() const override {
    m_user = m_environment ? m_environment->CurrentUser() : nullptr;
    return m_user ? this : nullptr;
  }

 private:
  bool NextVal(std::string_view name, int64_t& value) override {
    if (m_has_sequences && m_sequences.NextVal(name, value)) return true;
    std::optional<int64_t> v = m_environment ? m_environment->NextValue(name) : std::nullopt;
    if (v) value = *v;
    return v.has_value();
  }
  const std::string& GetUserName() const override { return m_user->name; }
  bool IsMemberOf(std::string_view group) const override {
    return m_user->groups.find(group) != m_user->groups.end();
  }
  bool FindPreference(std::string_view name, std::string& value) const override {
    auto it = m_user->preferences.find(name);
    if (it == m_user->preferences.end()) return false;
    value = it->second;
    return true;
  }

  std::vector<std::string> m_fields;
  std::string m_descriptor;
  Environment* m_environment;
  vx::CpxNextvalStorage_Sequences m_sequences;
  bool m_has_sequences = false;
  mutable const User* m_user = nullptr;
};

// ---- Tuple ----

const std::string& Tuple::DescriptorName() const { return T(m_tuple).GetTD()->GetName(); }
size_t Tuple::FieldCount() const { return T(m_tuple).GetFieldCount(); }

const std::string& Tuple::FieldName(size_t i) const {
  if (i >= FieldCount()) Fail("field index " + std::to_string(i) + " is out of range");
  return T(m_tuple).GetTD()->GetFieldNameByPos(static_cast<unsigned>(i));
}

const char* Tuple::FieldType(size_t i) const {
  if (i >= FieldCount()) Fail("field index " + std::to_string(i) + " is out of range");
  return vx::CpxTupleFieldTypes::Name(T(m_tuple).GetFieldKind(static_cast<unsigned>(i)));
}

size_t Tuple::FieldIndex(std::string_view name) const {
  unsigned pos = 0;
  if (!T(m_tuple).GetTD()->FindFieldPos(std::string(name), pos))
    Fail("descriptor '" + DescriptorName() + "' has no field '" + std::string(name) + "'");
  return pos;
}

bool Tuple::IsNull(size_t i) const {
  return Guard([&] { return !T(m_tuple).HasFieldValue(static_cast<unsigned>(i)); });
}

std::optional<std::string> Tuple::Text(size_t i) const {
  if (IsNull(i)) return std::nullopt;
  return vx::FieldToText(T(m_tuple), static_cast<unsigned>(i));
}

int64_t Tuple::Int64(size_t i) const {
  if (IsNull(i)) Fail("field '" + FieldName(i) + "' is NULL");
  const vx::CpxTuple& t = T(m_tuple);
  const unsigned p = static_cast<unsigned>(i);
  switch (t.GetFieldKind(p)) {
    case vx::CpxFieldKind::Integer: return vx::CpxTupleField_Integer::GetValue(&t, p);
    case vx::CpxFieldKind::Long:
    case vx::CpxFieldKind::Time:
    case vx::CpxFieldKind::IntervalD2S: return vx::CpxTupleField_Long::GetValue(&t, p);
    default: Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a whole number");
  }
}

double Tuple::Double(size_t i) const {
  if (IsNull(i)) Fail("field '" + FieldName(i) + "' is NULL");
  if (T(m_tuple).GetFieldKind(static_cast<unsigned>(i)) != vx::CpxFieldKind::Float)
    Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a float");
  return vx::CpxTupleField_Float::GetValue(&T(m_tuple), static_cast<unsigned>(i));
}

bool Tuple::Bool(size_t i) const {
  if (IsNull(i)) Fail("field '" + FieldName(i) + "' is NULL");
  if (T(m_tuple).GetFieldKind(static_cast<unsigned>(i)) != vx::CpxFieldKind::Boolean)
    Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a boolean");
  return vx::CpxTupleField_Boolean::GetValue(&T(m_tuple), static_cast<unsigned>(i));
}

void Tuple::SetNull(size_t i) {
  Guard([&] { T(m_tuple).ClearFieldValue(static_cast<unsigned>(i)); });
}

void Tuple::SetText(size_t i, std::string_view text) {
  if (i >= FieldCount()) Fail("field index " + std::to_string(i) + " is out of range");
  // Guarded: a text past the value-size bound raises inside the engine.
  if (!Guard([&] { return vx::SetFieldFromText(T(m_tuple), static_cast<unsigned>(i), text); }))
    Fail("'" + std::string(text) + "' is not a " + FieldType(i) + " value for field '" +
         FieldName(i) + "'");
}

void Tuple::SetInt64(size_t i, int64_t value) {
  vx::CpxTuple& t = T(m_tuple);
  const unsigned p = static_cast<unsigned>(i);
  switch (Guard([&] { return t.GetFieldKind(p); })) {
    case vx::CpxFieldKind::Integer:
      if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
        Fail(std::to_string(value) + " does not fit integer field '" + FieldName(i) + "'");
      vx::CpxTupleField_Integer::SetValue(t, p, static_cast<int32_t>(value));
      return;
    case vx::CpxFieldKind::Long:
    case vx::CpxFieldKind::Time:
    case vx::CpxFieldKind::IntervalD2S:
      vx::CpxTupleField_Long::SetValue(t, p, value);
      return;
    default:
      Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a whole number");
  }
}

void Tuple::SetDouble(size_t i, double value) {
  if (Guard([&] { return T(m_tuple).GetFieldKind(static_cast<unsigned>(i)); }) !=
      vx::CpxFieldKind::Float)
    Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a float");
  vx::CpxTupleField_Float::SetValue(T(m_tuple), static_cast<unsigned>(i), value);
}

void Tuple::SetBool(size_t i, bool value) {
  if (Guard([&] { return T(m_tuple).GetFieldKind(static_cast<unsigned>(i)); }) !=
      vx::CpxFieldKind::Boolean)
    Fail("field '" + FieldName(i) + "' is a " + FieldType(i) + ", not a boolean");
  vx::CpxTupleField_Boolean::SetValue(T(m_tuple), static_cast<unsigned>(i), value);
}

bool Tuple::IsNegative() const { return T(m_tuple).GetTupleType() == vx::Message::kNegative; }
void Tuple::SetNegative(bool negative) {
  T(m_tuple).SetTupleType(negative ? vx::Message::kNegative : vx::Message::kPositive);
}
int64_t Tuple::Timestamp() const { return T(m_tuple).GetTimestamp(); }
void Tuple::SetTimestamp(int64_t micros) { T(m_tuple).SetTimestamp(micros); }

// ---- Stream ----

struct Stream::Impl {
  explicit Impl(const StreamOptions& o) : options(o), parent(o) {}

  StreamOptions options;
  StreamParent parent;
  vx::Ptr<vx::CpxExpressionContext_Engine> context;
  std::unique_ptr<vx::CpxPersistentStorageManager> store;
  vx::CpxPersistentStorageMessageCache cache;
  vx::Ptr<vx::CpxTuple> row;
  vx::Ptr<vx::CpxTuplesList_Vector> inputs;
  Tuple row_view;
  std::vector<Tuple> outputs;
  vx::Ptr<vx::CpxExpressionEvaluator_Engine> last;

  void Start() {
    const auto& in = context->GetInputTupleDescriptors();
    if (in.IsEmpty()) Fail("expression context '" + context->GetName() + "' has no input descriptor");
    parent.SetDescriptor(in.GetObjectByPos(0)->GetName());
    for (const std::string& f : options.group_by) {
      unsigned pos = 0;
      if (!in.GetObjectByPos(0)->FindFieldPos(f, pos))
        Fail("group-by field '" + f + "' is not a field of input descriptor '" +
             in.GetObjectByPos(0)->GetName() + "'");
    }
    if (options.state_dir.empty()) {
      context->InitializeEvaluators();
    } else {
      store = vx::CpxPersistentStorageManager::Open("BASIC", options.state_dir, options.sync);
      vx::CpxPersistentStorageKey key;
      key.AppendBlock(3, "ctx");
      context->InitializeEvaluators(nullptr, &store->GetBatch(), key, &cache, store.get());
      context->RestoreMessages();
      parent.AttachStore(store.get());
    }
    row = in.GetObjectByPos(0)->CreateDefaultTuple();
    inputs = vx::MakePtr<vx::CpxTuplesList_Vector>();
    inputs->Add(row);
    for (unsigned i = 1; i < in.GetSize(); ++i) inputs->Add(in.GetObjectByPos(i)->CreateDefaultTuple());
    row_view.m_tuple = row.Get();
    ClearRow();
  }
  void ClearRow() {
    row->RemoveAllFields();
    row->SetTupleType(vx::Message::kPositive);
    row->SetTimestamp(0);
  }
};

Stream::Stream(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

Stream::~Stream() {
  if (m_impl && m_impl->context) m_impl->context->ShutdownEvaluators();
}

std::unique_ptr<Stream> Stream::Open(const std::string& context_path, const StreamOptions& options) {
  auto impl = std::make_unique<Impl>(options);
  Guard([&] {
    impl->context = vx::CpxExpressionContext_Engine::LoadFromFile(context_path, &impl->parent);
    impl->Start();
  });
  return std::unique_ptr<Stream>(new Stream(std::move(impl)));
}

std::unique_ptr<Stream> Stream::OpenString(const std::string& context_xml, const std::string& name,
                                           const StreamOptions& options) {
  auto impl = std::make_unique<Impl>(options);
  Guard([&] {
    impl->context = vx::CpxExpressionContext_Engine::LoadFromString(context_xml, name, &impl->parent);
    impl->Start();
  });
  return std::unique_ptr<Stream>(new Stream(std::move(impl)));
}

Tuple& Stream::Row() { return m_impl->row_view; }

bool Stream::Push(int64_t now_micros) {
  Impl& s = *m_impl;
  return Guard([&] {
    if (s.store) s.store->StartBatch();
    s.last = s.context->GetEvaluator(*s.row);
    s.last->Reset();
    s.last->Execute(now_micros, s.inputs.Get());
    if (s.store) s.store->EndBatch();
    const vx::CpxTuplesList_Vector* out = s.last->GetOutputTuples();
    while (s.outputs.size() < out->GetSize()) s.outputs.push_back(Tuple());
    for (unsigned i = 0; i < out->GetSize(); ++i) s.outputs[i].m_tuple = out->GetObjectByPos(i);
    s.ClearRow();
    return s.last->GetNextOperator() != s.last->GetMaxOperator() + 1;
  });
}

size_t Stream::OutputCount() const { return m_impl->outputs.size(); }

const Tuple& Stream::Output(size_t i) const {
  if (i >= m_impl->outputs.size())
    Fail("output " + std::to_string(i) + " does not exist (the stream has " +
         std::to_string(m_impl->outputs.size()) + " after its last push)");
  return m_impl->outputs[i];
}

size_t Stream::GroupCount() const { return m_impl->context->GetGroupCount(); }

const char* Version() { return vx_expressions_get_build_version_string(); }

Limits GetLimits() {
  const vx::VxLimits& in = vx::GetVxLimits();
  return {in.max_document_depth, in.max_document_bytes, in.max_operators_per_context,
          in.max_value_bytes, in.max_steps_per_evaluation};
}

void SetLimits(const Limits& limits) {
  vx::VxLimits out;
  out.max_document_depth = limits.max_document_depth;
  out.max_document_bytes = limits.max_document_bytes;
  out.max_operators_per_context = limits.max_operators_per_context;
  out.max_value_bytes = limits.max_value_bytes;
  out.max_steps_per_evaluation = limits.max_steps_per_evaluation;
  vx::SetVxLimits(out);
}

}  // namespace vx_expressions
