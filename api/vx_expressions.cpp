// The public embedding interface over the engine.
#include "vx_expressions/vx_expressions.h"

#include <limits>

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

class Parent final : public vx::CpxExpressionContextParent_Engine {
 public:
  explicit Parent(std::vector<std::string> fields) : m_fields(std::move(fields)) {}
  void SetDescriptor(std::string name) { m_descriptor = std::move(name); }
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

 private:
  std::vector<std::string> m_fields;
  std::string m_descriptor;
};

}  // namespace

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
  explicit Impl(const StreamOptions& o) : options(o), parent(o.group_by) {}

  StreamOptions options;
  Parent parent;
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
