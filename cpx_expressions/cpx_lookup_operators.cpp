// Operators that read what the context's parent offers beyond the row (see
// cpx_context_services.h): NextVal (named sequences), GetColumnByName...
// (a column of a named tuple storage), GetPreference... (a preference of the
// current user), GetCurrentUserName and IsCurrentUserInGroup.
//
// The column-lookup and preference operators exist once per value type of
// VX_LOOKUP_OPERATOR_TYPES; they only move stored bytes, so one template
// serves every type.
#include <optional>
#include <string>
#include <string_view>

#include "cpx_expressions/cpx_context_services.h"
#include "cpx_expressions/cpx_expression_operators.h"
#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

namespace {

const CpxExpressionContextParent_Engine* ParentOf(const CpxExpressionOperator_Engine& op) {
  const CpxExpressionContext_Engine* context = op.GetContext();
  return context ? context->GetParent() : nullptr;
}

// The value of a text field; false when it is NULL.
bool ReadText(const CpxTuple* t, unsigned pos, std::string_view& text) {
  if (!t->HasFieldValue(pos)) return false;
  text = CpxTupleField_String::GetView(t, pos);
  return true;
}

// The default text of a constant-tuple parameter, which is its value on
// every row; nullopt for other parameters and NULL constants.
std::optional<std::string> ConstantText(const CpxTupleFieldRef_Engine& ref) {
  if (ref.GetKind() != CpxTupleSetKind::Constant) return std::nullopt;
  return ref.GetDescriptor().GetTupleFieldObject(ref.GetFieldPos())->GetDefaultText();
}

const CpxExpressionAuthenticationToken* TokenOf(const CpxExpressionOperator_Engine& op) {
  const CpxExpressionContextParent_Engine* parent = ParentOf(op);
  return parent ? parent->GetExpressionAuthenticationToken() : nullptr;
}

// Base of the operators with one input, a name (string), and one output of
// kind Out.
template <CpxFieldKind Out>
class CpxExpressionOperator_ByName_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;

  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureParameterCounts(1, 1);
    InsureInputType(0, CpxFieldKind::String);
    InsureOutputType(0, Out);
  }

 protected:
  // Resolves the output and reads the name; false, with the output made
  // NULL, when the name is NULL.
  bool ReadName(CpxExpressionEvaluator_Engine* ev, std::string_view& name, CpxTuple*& out,
                unsigned& out_pos) const {
    unsigned in_pos = 0;
    const CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    out = GetOutputTupleField(ev, 0, out_pos);
    if (ReadText(in, in_pos, name)) return true;
    out->ClearFieldValue(out_pos);
    return false;
  }
};

void CopyValue(const CpxTuple& from, unsigned from_pos, CpxTuple& to, unsigned to_pos) {
  uint32_t size = 0;
  const void* value = from.GetFieldValue(from_pos, size);
  if (value) {
    to.SetFieldValue(to_pos, size, value);
  } else {
    to.ClearFieldValue(to_pos);
  }
}

}  // namespace

// ---- NextVal ----

// The next value of the sequence named by the input. Every execution draws a
// value, a negative row's as well; a NULL name draws nothing.
class CpxExpressionOperator_NextVal_Engine final
    : public CpxExpressionOperator_ByName_Engine<CpxFieldKind::Long> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_ByName_Engine, NextVal)

 public:
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    std::string_view name;
    CpxTuple* out = nullptr;
    unsigned out_pos = 0;
    if (!ReadName(ev, name, out, out_pos)) return;
    const CpxExpressionContextParent_Engine* parent = ParentOf(*this);
    CpxNextvalStorage* storage = parent ? parent->GetNextvalStorage() : nullptr;
    if (!storage) {
      VX_RAISE_TEXT("NextVal: there is no sequence '{name}': the context has no sequences",
                    GetName(), {"name", name}, {"operation", GetName()});
    }
    int64_t value = 0;
    if (!storage->NextVal(name, value))
      VX_RAISE_TEXT("NextVal: there is no sequence '{name}'", GetName(), {"name", name},
                    {"operation", GetName()});
    CpxTupleField_Long::SetValue(*out, out_pos, value);
  }
};

// ---- GetColumnByName ----

// A column of a row of a named tuple storage. Inputs: the storage's name, the
// column's name and, optionally, the row: 1 the oldest, 2 the next, ...; -1
// the newest, -2 the one before; without it the newest row. The column must
// have the operator's type.
// The storage and column resolved for the names seen last, so that a row
// with the same names (constants, usually) looks nothing up. Never saved.
class CpxExpressionOperatorState_Engine_ColumnByName final
    : public CpxExpressionOperatorState_Engine {
 public:
  std::string storage_name;
  std::string column_name;
  const CpxTuplesStorage* storage = nullptr;
  unsigned column = 0;
};

// The preference text read last and its value, so that an unchanged
// preference is not parsed again. Never saved.
class CpxExpressionOperatorState_Engine_Preference final
    : public CpxExpressionOperatorState_Engine {
 public:
  std::string text;
  std::string parsed_text;
  std::optional<std::string> value;
  bool parsed = false;
};

// Base of the operators that keep a cache `State` per evaluator and take a
// name first, then further inputs of which the last is optional.
template <class State>
class CpxExpressionOperator_NamedLookup_Engine : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;

  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override {
    return MakePtr<State>();
  }

 protected:
  // `min` or `min` + 1 inputs, the first a string; one output of `out`.
  void InsureNamedShape(size_t min, CpxFieldKind out, const char* expected) const {
    CpxExpressionOperator_Engine::InsureValidParameters();
    const size_t n = GetInputParameters().size();
    if (n < min || n > min + 1) {
      SetLastError(expected);
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS);
    }
    InsureParameterCounts(-1, 1);
    InsureInputType(0, CpxFieldKind::String);
    InsureOutputType(0, out);
  }
  static State& GetState(CpxExpressionEvaluator_Engine* ev, unsigned position) {
    return static_cast<State&>(*ev->GetOperatorState(position));
  }
};

// ---- GetColumnByName ----

// A column of a row of a named tuple storage. Inputs: the storage's name, the
// column's name and, optionally, the row: 1 the oldest, 2 the next, ...; -1
// the newest, -2 the one before; without it the newest row. The column must
// have the operator's type.
template <class Field>
class CpxExpressionOperator_GetColumnByName_Engine
    : public CpxExpressionOperator_NamedLookup_Engine<CpxExpressionOperatorState_Engine_ColumnByName> {
  using State = CpxExpressionOperatorState_Engine_ColumnByName;

 public:
  using CpxExpressionOperator_NamedLookup_Engine<State>::CpxExpressionOperator_NamedLookup_Engine;

  void InsureValidParameters() const override {
    this->InsureNamedShape(2, Field::kKind,
                           "expected the storage name, the column name and optionally the row");
    const size_t n = GetInputParameters().size();
    InsureInputType(1, CpxFieldKind::String);
    if (n == 3) InsureInputType(2, CpxFieldKind::Integer);
    // Constant names are checked now against a storage the parent already
    // has; a storage that appears later is checked when it is first read.
    const std::optional<std::string> storage_name = ConstantText(*GetInputParameters()[0]);
    const std::optional<std::string> column_name = ConstantText(*GetInputParameters()[1]);
    const CpxExpressionContextParent_Engine* parent = ParentOf(*this);
    if (!storage_name || !column_name || !parent) return;
    if (const CpxTuplesStorage* storage = parent->FindTuplesStorage(*storage_name))
      FindColumn(*storage, *storage_name, *column_name);
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned storage_pos = 0, column_pos = 0, pos = 0, out_pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    const CpxTuple* storage_tuple = GetInputTupleField(ev, 0, storage_pos);
    const CpxTuple* column_tuple = GetInputTupleField(ev, 1, column_pos);
    std::string_view storage_name, column_name;
    if (!ReadText(storage_tuple, storage_pos, storage_name) ||
        !ReadText(column_tuple, column_pos, column_name))
      return out->ClearFieldValue(out_pos);
    int32_t row = -1;
    if (GetInputParameters().size() == 3) {
      const CpxTuple* t = GetInputTupleField(ev, 2, pos);
      if (!t->HasFieldValue(pos)) return out->ClearFieldValue(out_pos);
      row = CpxTupleField_Integer::GetValue(t, pos);
    }
    State& state = this->GetState(ev, position);
    if (!state.storage || state.storage_name != storage_name || state.column_name != column_name)
      Resolve(state, storage_name, column_name);
    const int64_t size = state.storage->GetSize();
    const int64_t index = row > 0 ? int64_t{row} - 1 : size + row;
    if (row == 0 || index < 0 || index >= size) return out->ClearFieldValue(out_pos);
    CopyValue(state.storage->GetTuple(static_cast<unsigned>(index)), state.column, *out, out_pos);
  }

 private:
  // The column's position; raises when the storage has no such column or
  // the column has another type.
  unsigned FindColumn(const CpxTuplesStorage& storage, std::string_view storage_name,
                      std::string_view column_name) const {
    const CpxTupleDescriptor& td = storage.GetDescriptor();
    unsigned column = 0;
    if (!td.FindFieldPos(std::string(column_name), column)) {
      VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_FIELD, GetName(), {"field_ref", column_name},
               {"tuple_ref", storage_name}, {"operation", GetName()});
    }
    if (td.GetFieldKind(column) != Field::kKind) {
      VX_RAISE(VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND, GetName(),
               {"operation", GetName()}, {"type_name", CpxTupleFieldTypes::Name(td.GetFieldKind(column))},
               {"column", column_name}, {"expected", CpxTupleFieldTypes::Name(Field::kKind)});
    }
    return column;
  }

  void Resolve(State& state, std::string_view storage_name, std::string_view column_name) const {
    const CpxExpressionContextParent_Engine* parent = ParentOf(*this);
    const CpxTuplesStorage* storage = parent ? parent->FindTuplesStorage(storage_name) : nullptr;
    if (!storage)
      VX_RAISE(VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_STORAGE, GetName(), {"name", storage_name},
               {"operation", GetName()});
    state.column = FindColumn(*storage, storage_name, column_name);
    state.storage = storage;
    state.storage_name.assign(storage_name);
    state.column_name.assign(column_name);
  }
};

// ---- GetPreference ----

// The current user's preference named by input 1, read as a value of the
// operator's type from its text form; input 2, when given, is the value for
// a user without that preference (or without a token, or whose text does
// not read as the type).
template <class Field>
class CpxExpressionOperator_GetPreference_Engine
    : public CpxExpressionOperator_NamedLookup_Engine<CpxExpressionOperatorState_Engine_Preference> {
  using State = CpxExpressionOperatorState_Engine_Preference;

 public:
  using CpxExpressionOperator_NamedLookup_Engine<State>::CpxExpressionOperator_NamedLookup_Engine;

  void InsureValidParameters() const override {
    this->InsureNamedShape(1, Field::kKind,
                           "expected the preference's name and optionally a default value");
    if (GetInputParameters().size() == 2) InsureInputType(1, Field::kKind);
  }

  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned pos = 0, out_pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    const CpxTuple* name_tuple = GetInputTupleField(ev, 0, pos);
    std::string_view name;
    if (!ReadText(name_tuple, pos, name)) return out->ClearFieldValue(out_pos);
    const CpxExpressionAuthenticationToken* token = TokenOf(*this);
    State& state = this->GetState(ev, position);
    if (token && token->FindPreference(name, state.text)) {
      if (!state.parsed || state.parsed_text != state.text) {
        state.value = ValueBytesFromText(Field::kKind, state.text);
        state.parsed_text = state.text;
        state.parsed = true;
      }
      if (state.value)
        return out->SetFieldValue(out_pos, static_cast<uint32_t>(state.value->size()),
                                  state.value->data());
    }
    if (GetInputParameters().size() < 2) return out->ClearFieldValue(out_pos);
    const CpxTuple* fallback = GetInputTupleField(ev, 1, pos);
    CopyValue(*fallback, pos, *out, out_pos);
  }
};

// ---- GetCurrentUserName ----

// The name of the user on whose behalf the context runs; NULL without one.
class CpxExpressionOperator_GetCurrentUserName_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, GetCurrentUserName)

 public:
  void InsureValidParameters() const override {
    InsureParameterCounts(0, 1);
    InsureOutputType(0, CpxFieldKind::String);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned out_pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    const CpxExpressionAuthenticationToken* token = TokenOf(*this);
    if (!token) return out->ClearFieldValue(out_pos);
    CpxTupleField_String::SetValue(*out, out_pos, token->GetUserName());
  }
};

// ---- IsCurrentUserInGroup ----

// Whether the current user belongs to the group named by the input. Without
// a user the answer is false: nobody is in no group.
class CpxExpressionOperator_IsCurrentUserInGroup_Engine final
    : public CpxExpressionOperator_ByName_Engine<CpxFieldKind::Boolean> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_ByName_Engine, IsCurrentUserInGroup)

 public:
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    std::string_view group;
    CpxTuple* out = nullptr;
    unsigned out_pos = 0;
    if (!ReadName(ev, group, out, out_pos)) return;
    const CpxExpressionAuthenticationToken* token = TokenOf(*this);
    CpxTupleField_Boolean::SetValue(*out, out_pos, token && token->IsMemberOf(group));
  }
};

// ---- one column-lookup and one preference operator per type ----

#define VX_LOOKUP_CLASSES(X, Type, type, column, preference)                         \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_GetColumnByName_Engine, column, \
                     CpxExpressionOperator_GetColumnByName_Engine<CpxTupleField_##Type>); \
  VX_DEFINE_OPERATOR(CpxExpressionOperator_##Type##_GetPreference_Engine, preference, \
                     CpxExpressionOperator_GetPreference_Engine<CpxTupleField_##Type>);
VX_LOOKUP_OPERATOR_TYPES(VX_LOOKUP_CLASSES, _)
#undef VX_LOOKUP_CLASSES

}  // namespace vxi

namespace vx {

namespace {

const char kNextValNote[] =
    "Draws the next value of a named sequence that the context's parent keeps (the server's "
    "sequences; in test suites the \"Sequences\" the suite declares). Parameters: input 1, the "
    "sequence's name (string); output 1, long. A sequence gives its start first, then adds its "
    "increment on every draw; drawing past the range of a long raises \"sequence '{name}' is "
    "exhausted\". Every execution draws, a negative row's too. NULL rule: a NULL name gives "
    "NULL and draws nothing; an unknown name, or a parent without sequences, raises \"NextVal: "
    "there is no sequence '{name}'\". State: none in the operator; the sequence belongs to the "
    "parent, is shared by every group and context that names it, and is persistent: the "
    "harness (and any parent built on CpxNextvalStorage_Sequences) writes each draw into the "
    "batch of the row that drew it, so a restart continues after the last committed value.";

const char kColumnNote[] =
    "Reads a column of a row of a named tuple storage (a window or table the context's parent "
    "keeps; in test suites the \"TuplesStorages\" the suite declares). Parameters: input 1, the "
    "storage's name; input 2, the column's name (both string); optional input 3 (integer), the "
    "row: 1 the oldest, 2 the next, ..., -1 the newest, -2 the one before, and the newest "
    "without it; output 1, the operator's type, which the column must have. An unknown storage "
    "raises VX_SERVER_EXPRESSION_CANT_FIND_TUPLES_STORAGE, an unknown column "
    "VX_SERVER_EXPRESSION_CANT_FIND_FIELD, a column of another type "
    "VX_SERVER_EXPRESSION_INCORRECT_FIELD_TYPE_FOUND; names given as constants are checked "
    "when the context is loaded if the storage exists then. NULL rule: a NULL input, a row "
    "position of 0 or outside the storage, an empty storage and a NULL column value give NULL. "
    "State: per evaluator, the storage and column resolved for the names seen last (a cache, "
    "never persisted); the rows themselves are read on every execution.";

const char kPreferenceNote[] =
    "Reads a preference of the current user (the authentication token the context's parent "
    "gives; in test suites the \"Preference\" elements of the \"AuthenticationToken\"). "
    "Parameters: input 1, the preference's name (string); optional input 2, a default of the "
    "operator's type; output 1, the operator's type. The preference's text is read as a value "
    "of the type, in the text form of values (hexadecimal for blobs). NULL rule: a NULL name "
    "gives NULL; when there is no token, the user has no such preference or its text does not "
    "read as the type, the output is the default (NULL without one). State: per evaluator, the "
    "text read last and its value (a cache, never persisted).";

const char kUserNote[] =
    "`GetCurrentUserName` gives the name of the user on whose behalf the context runs, and "
    "`IsCurrentUserInGroup` whether that user belongs to the group named by its input; both "
    "read the authentication token the context's parent gives (in test suites the "
    "\"AuthenticationToken\" element). Parameters: `GetCurrentUserName` has no input and a "
    "string output; `IsCurrentUserInGroup` has a string input and a boolean output. Group names "
    "compare exactly. NULL rule: without a token the user name is NULL and the membership "
    "false; a NULL group name gives NULL. State: none.";

}  // namespace

void RegisterLookupOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
#define VX_LOOKUP_REGISTRATIONS(X, Type, type, column, preference)                          \
  VX_OPERATOR_NOTE(CpxExpressionOperator_##Type##_GetColumnByName_Engine,                  \
                   "2 string (storage, column), 0-1 integer (row)", "1 " #type,            \
                   "any NULL input, a row outside the storage or a NULL column value "     \
                   "gives NULL",                                                           \
                   "A " #type " column of a row (the newest by default) of a named tuple "  \
                   "storage.",                                                             \
                   kColumnNote),                                                           \
      VX_OPERATOR_NOTE(CpxExpressionOperator_##Type##_GetPreference_Engine,                \
                       "1 string (name), 0-1 " #type " (default)", "1 " #type,             \
                       "NULL name gives NULL; a missing or unreadable preference gives "   \
                       "the default (NULL without one)",                                   \
                       "The current user's preference read as a " #type ".",               \
                       kPreferenceNote),
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR_NOTE(CpxExpressionOperator_NextVal_Engine, "1 string (sequence)", "1 long",
                       "NULL name gives NULL and draws nothing",
                       "The next value of a named persistent sequence.", kNextValNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_GetCurrentUserName_Engine, "none", "1 string",
                       "NULL without a current user", "The current user's name.", kUserNote),
      VX_OPERATOR_NOTE(CpxExpressionOperator_IsCurrentUserInGroup_Engine, "1 string (group)",
                       "1 boolean", "NULL group gives NULL; false without a current user",
                       "True when the current user belongs to the group.", kUserNote),
      VX_LOOKUP_OPERATOR_TYPES(VX_LOOKUP_REGISTRATIONS, _)};
#undef VX_LOOKUP_REGISTRATIONS
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
