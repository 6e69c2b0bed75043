// Control-flow and tuple-attribute operators.
#include "cpx_expressions/cpx_operators.h"

#include <algorithm>
#include <cstring>

#include "cpx_expressions/cpx_operator_registry.h"

namespace vxi {

using namespace vx;

namespace {

enum class Condition { kNull, kTrue, kFalse };

// A condition is true only when its stored byte is exactly 1.
Condition ReadCondition(CpxTuple* tuple, unsigned pos) {
  const void* v = tuple->GetFieldValue(pos);
  if (!v) return Condition::kNull;
  return *static_cast<const unsigned char*>(v) == 1 ? Condition::kTrue : Condition::kFalse;
}

// A target position is taken as stored: a negative value becomes a huge
// index and ends the run, as does any value not below the operator count.
// A NULL target does not jump: the run falls through to the next operator.
void JumpTo(CpxTuple* tuple, unsigned pos, CpxExpressionEvaluator_Engine* ev) {
  const void* v = tuple->GetFieldValue(pos);
  if (!v) return;
  int32_t target;
  __builtin_memcpy(&target, v, sizeof target);
  ev->SetNextOperator(static_cast<uint32_t>(target));
}

using LabelBase = CpxExpressionOperator_GotoLabelBase<CpxExpressionTypes>;

}  // namespace

// ---- Noop ----

class CpxExpressionOperator_Noop_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, Noop)
  void InsureValidParameters() const override {
    if (!GetInputParameters().empty() || !GetOutputParameters().empty())
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_0_INPUT_0_OUTPUT);
  }
  void Execute(CpxExpressionEvaluator_Engine*, unsigned) const override {}
};

// ---- Goto ----

class CpxExpressionOperator_Goto_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, Goto)
  void InsureValidParameters() const override {
    if (GetInputParameters().size() != 1)
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_0_OUTPUT,
                                  {"type_name", "integer"});
    InsureInputType(0, CpxFieldKind::Integer);
    if (!GetOutputParameters().empty())
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_1_INPUT_0_OUTPUT,
                                  {"type_name", "integer"});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    CpxTuple* t = GetInputTupleField(ev, 0, pos);
    JumpTo(t, pos, ev);
  }
};

// ---- IfTrueGoto, IfFalseGoto, IfTrueOrNullGoto, IfFalseOrNullGoto ----

// Jumps to the position in input 2 when the condition in input 1 is one of
// the accepted outcomes.
template <bool OnTrue, bool OnFalse, bool OnNull>
class CpxExpressionOperator_IfGoto_Base : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (GetInputParameters().size() != 2)
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_PARAMETERS_TWO_INPUT_0_OUTPUT,
                                  {"input_type1", "boolean"});
    InsureInputType(0, CpxFieldKind::Boolean);
    InsureInputType(1, CpxFieldKind::Integer);
    InsureParameterCounts(-1, 0);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    CpxTuple* condition = GetInputTupleField(ev, 0, pos);
    Condition c = ReadCondition(condition, pos);
    bool jump = c == Condition::kTrue ? OnTrue : (c == Condition::kFalse ? OnFalse : OnNull);
    if (!jump) return;
    CpxTuple* t = GetInputTupleField(ev, 1, pos);
    JumpTo(t, pos, ev);
  }
};

class CpxExpressionOperator_IfTrueGoto_Engine final
    : public CpxExpressionOperator_IfGoto_Base<true, false, false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGoto_Base, IfTrueGoto)
};
class CpxExpressionOperator_IfFalseGoto_Engine final
    : public CpxExpressionOperator_IfGoto_Base<false, true, false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGoto_Base, IfFalseGoto)
};
class CpxExpressionOperator_IfTrueOrNullGoto_Engine final
    : public CpxExpressionOperator_IfGoto_Base<true, false, true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGoto_Base, IfTrueOrNullGoto)
};
class CpxExpressionOperator_IfFalseOrNullGoto_Engine final
    : public CpxExpressionOperator_IfGoto_Base<false, true, true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGoto_Base, IfFalseOrNullGoto)
};

// ---- IfTrueStop, IfFalseStop ----

// Ends the run (next operator = count + 1) on the accepted outcome; NULL
// never stops.
template <bool OnTrue>
class CpxExpressionOperator_IfStop_Base : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  void InsureValidParameters() const override {
    InsureParameterCounts(1, -1);
    InsureInputType(0, CpxFieldKind::Boolean);
    InsureParameterCounts(-1, 0);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    CpxTuple* condition = GetInputTupleField(ev, 0, pos);
    Condition c = ReadCondition(condition, pos);
    if (c == (OnTrue ? Condition::kTrue : Condition::kFalse))
      ev->SetNextOperator(ev->GetMaxOperator() + 1);
  }
};

class CpxExpressionOperator_IfTrueStop_Engine final : public CpxExpressionOperator_IfStop_Base<true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfStop_Base, IfTrueStop)
};
class CpxExpressionOperator_IfFalseStop_Engine final
    : public CpxExpressionOperator_IfStop_Base<false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfStop_Base, IfFalseStop)
};

// ---- GotoLabel ----

class CpxExpressionOperator_GotoLabel_Engine final : public LabelBase {
  VX_OPERATOR_TYPE(LabelBase, GotoLabel)
  void InsureValidParameters() const override {
    InsureValidLabel();
    if (!GetInputParameters().empty() || !GetOutputParameters().empty())
      VX_RAISE_TEXT("zero input parameters and zero output parameter expected", GetName(),
                    {"operator_name", GetName()});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    ev->SetNextOperator(GetGotoOperatorPos());
  }
};

// ---- IfTrueGotoLabel, IfFalseGotoLabel, IfTrueOrNullGotoLabel, IfFalseOrNullGotoLabel ----

template <bool OnTrue, bool OnFalse, bool OnNull>
class CpxExpressionOperator_IfGotoLabel_Base : public LabelBase {
 public:
  using LabelBase::LabelBase;
  void InsureValidParameters() const override {
    InsureValidLabel();
    const XmlQName& boolean = CpxTupleFieldTypes::BooleanFieldType();
    if (!DoInsureValidParameters(boolean, 1, 1, boolean, 0, 0))
      VX_RAISE_TEXT("one boolean input parameters and zero output parameter expected", GetName(),
                    {"operator_name", GetName()},
                    {"last_err_str", GetLastInsureValidParameterErrorString()});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    CpxTuple* condition = GetInputTupleField(ev, 0, pos);
    Condition c = ReadCondition(condition, pos);
    bool jump = c == Condition::kTrue ? OnTrue : (c == Condition::kFalse ? OnFalse : OnNull);
    if (jump) ev->SetNextOperator(GetGotoOperatorPos());
  }
};

class CpxExpressionOperator_IfTrueGotoLabel_Engine final
    : public CpxExpressionOperator_IfGotoLabel_Base<true, false, false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGotoLabel_Base, IfTrueGotoLabel)
};
class CpxExpressionOperator_IfFalseGotoLabel_Engine final
    : public CpxExpressionOperator_IfGotoLabel_Base<false, true, false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGotoLabel_Base, IfFalseGotoLabel)
};
class CpxExpressionOperator_IfTrueOrNullGotoLabel_Engine final
    : public CpxExpressionOperator_IfGotoLabel_Base<true, false, true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGotoLabel_Base, IfTrueOrNullGotoLabel)
};
class CpxExpressionOperator_IfFalseOrNullGotoLabel_Engine final
    : public CpxExpressionOperator_IfGotoLabel_Base<false, true, true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfGotoLabel_Base, IfFalseOrNullGotoLabel)
};

// ---- IfDefinedGotoLabel, IfUndefinedGotoLabel ----

template <bool OnDefined>
class CpxExpressionOperator_IfDefinedGotoLabel_Base : public LabelBase {
 public:
  using LabelBase::LabelBase;
  void InsureValidParameters() const override {
    InsureValidLabel();
    if (GetInputParameters().size() != 1 || !GetOutputParameters().empty())
      VX_RAISE_TEXT("one input parameter and zero output parameters expected", GetName(),
                    {"operator_name", GetName()});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    CpxTuple* t = GetInputTupleField(ev, 0, pos);
    if (t->HasFieldValue(pos) == OnDefined) ev->SetNextOperator(GetGotoOperatorPos());
  }
};

class CpxExpressionOperator_IfDefinedGotoLabel_Engine final
    : public CpxExpressionOperator_IfDefinedGotoLabel_Base<true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfDefinedGotoLabel_Base, IfDefinedGotoLabel)
};
class CpxExpressionOperator_IfUndefinedGotoLabel_Engine final
    : public CpxExpressionOperator_IfDefinedGotoLabel_Base<false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IfDefinedGotoLabel_Base, IfUndefinedGotoLabel)
};

// ---- IsDefined, IsUndefined ----

// The result is never NULL: it tells whether the input field holds a value.
template <bool Defined>
class CpxExpressionOperator_IsDefined_Base : public CpxExpressionOperator_Engine {
 public:
  using CpxExpressionOperator_Engine::CpxExpressionOperator_Engine;
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureParameterCounts(1, 1);
    InsureOutputType(0, CpxFieldKind::Boolean);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned in_pos = 0, out_pos = 0;
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    CpxTupleField_Boolean::SetValue(*out, out_pos, in->HasFieldValue(in_pos) == Defined);
  }
};

class CpxExpressionOperator_IsDefined_Engine final : public CpxExpressionOperator_IsDefined_Base<true> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IsDefined_Base, IsDefined)
};
class CpxExpressionOperator_IsUndefined_Engine final
    : public CpxExpressionOperator_IsDefined_Base<false> {
  VX_OPERATOR_TYPE(CpxExpressionOperator_IsDefined_Base, IsUndefined)
};

// ---- Undefine ----

class CpxExpressionOperator_Undefine_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, Undefine)
  void InsureValidParameters() const override {
    InsureParameterCounts(0, 1);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned pos = 0;
    GetOutputTupleField(ev, 0, pos)->ClearFieldValue(pos);
  }
};

// ---- GetTimestamp ----

// Reads the input tuple's timestamp; the input field itself is not read and
// may be NULL.
class CpxExpressionOperator_GetTimestamp_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, GetTimestamp)
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    InsureParameterCounts(1, 1);
    InsureOutputType(0, CpxFieldKind::Time);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned in_pos = 0, out_pos = 0;
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    CpxTupleField_Time::SetValue(*out, out_pos, in->GetTimestamp());
  }
};

// ---- SetTimestamp ----

// Sets the output tuple's timestamp from a time field (0 when NULL); the
// output field itself is not written.
class CpxExpressionOperator_SetTimestamp_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, SetTimestamp)
  bool ProhibitInputEqualOutputTuple() const override { return false; }
  void InsureValidParameters() const override {
    InsureParameterCounts(1, -1);
    InsureInputType(0, CpxFieldKind::Time);
    InsureParameterCounts(-1, 1);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned in_pos = 0, out_pos = 0;
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    out->SetTimestamp(in->HasFieldValue(in_pos) ? CpxTupleField_Time::GetValue(in, in_pos) : 0);
  }
};

// ---- CopyTupleType ----

// Copies the input tuple's sign to the output tuple; no field is touched.
class CpxExpressionOperator_CopyTupleType_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, CopyTupleType)
  bool ProhibitInputEqualOutputTuple() const override { return false; }
  void InsureValidParameters() const override {
    InsureParameterCounts(1, 1);
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned) const override {
    unsigned in_pos = 0, out_pos = 0;
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    out->SetTupleType(in->GetTupleType());
  }
};

}  // namespace vxi

namespace vx {

void RegisterControlFlowOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_Noop_Engine, "none", "none", "-", "Does nothing."),
      VX_OPERATOR(CpxExpressionOperator_Goto_Engine, "1 integer (position)", "none",
                  "NULL target does not jump", "Jumps to an absolute operator position."),
      VX_OPERATOR(CpxExpressionOperator_IfTrueGoto_Engine, "1 boolean, 1 integer", "none",
                  "NULL condition does not jump", "Jumps to a position when the condition is true."),
      VX_OPERATOR(CpxExpressionOperator_IfFalseGoto_Engine, "1 boolean, 1 integer", "none",
                  "NULL condition does not jump", "Jumps to a position when the condition is false."),
      VX_OPERATOR(CpxExpressionOperator_IfTrueOrNullGoto_Engine, "1 boolean, 1 integer", "none",
                  "NULL condition jumps", "Jumps to a position when the condition is true or NULL."),
      VX_OPERATOR(CpxExpressionOperator_IfFalseOrNullGoto_Engine, "1 boolean, 1 integer", "none",
                  "NULL condition jumps", "Jumps to a position when the condition is false or NULL."),
      VX_OPERATOR(CpxExpressionOperator_IfTrueStop_Engine, "1 boolean", "none",
                  "NULL condition does not stop", "Ends the run when the condition is true."),
      VX_OPERATOR(CpxExpressionOperator_IfFalseStop_Engine, "1 boolean", "none",
                  "NULL condition does not stop", "Ends the run when the condition is false."),
      VX_OPERATOR(CpxExpressionOperator_GotoLabel_Engine, "none (attribute GotoLabel)", "none", "-",
                  "Jumps to the operator marked by a label."),
      VX_OPERATOR(CpxExpressionOperator_IfTrueGotoLabel_Engine, "1 boolean (attribute GotoLabel)",
                  "none", "NULL condition does not jump", "Jumps to a label when the condition is true."),
      VX_OPERATOR(CpxExpressionOperator_IfFalseGotoLabel_Engine, "1 boolean (attribute GotoLabel)",
                  "none", "NULL condition does not jump", "Jumps to a label when the condition is false."),
      VX_OPERATOR(CpxExpressionOperator_IfTrueOrNullGotoLabel_Engine,
                  "1 boolean (attribute GotoLabel)", "none", "NULL condition jumps",
                  "Jumps to a label when the condition is true or NULL."),
      VX_OPERATOR(CpxExpressionOperator_IfFalseOrNullGotoLabel_Engine,
                  "1 boolean (attribute GotoLabel)", "none", "NULL condition jumps",
                  "Jumps to a label when the condition is false or NULL."),
      VX_OPERATOR(CpxExpressionOperator_IfDefinedGotoLabel_Engine, "1 any (attribute GotoLabel)",
                  "none", "jumps when the field is not NULL",
                  "Jumps to a label when the field holds a value."),
      VX_OPERATOR(CpxExpressionOperator_IfUndefinedGotoLabel_Engine, "1 any (attribute GotoLabel)",
                  "none", "jumps when the field is NULL", "Jumps to a label when the field is NULL."),
  };
  registry.Register(kTable, std::size(kTable));
}

void RegisterTupleAttributeOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_IsDefined_Engine, "1 any", "1 boolean", "never NULL",
                  "True when the input field holds a value."),
      VX_OPERATOR(CpxExpressionOperator_IsUndefined_Engine, "1 any", "1 boolean", "never NULL",
                  "True when the input field is NULL."),
      VX_OPERATOR(CpxExpressionOperator_Undefine_Engine, "none", "1 any", "output becomes NULL",
                  "Makes the output field NULL."),
      VX_OPERATOR(CpxExpressionOperator_GetTimestamp_Engine, "1 any (its tuple)", "1 time",
                  "never NULL", "The input tuple's timestamp."),
      VX_OPERATOR(CpxExpressionOperator_SetTimestamp_Engine, "1 time", "1 any (its tuple)",
                  "NULL sets 0", "Sets the output tuple's timestamp."),
      VX_OPERATOR(CpxExpressionOperator_CopyTupleType_Engine, "1 any (its tuple)",
                  "1 any (its tuple)", "-", "Copies the input tuple's sign to the output tuple."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx

// ---- Prev, GetPrevTimestamp ----

namespace vxi {

namespace {

// Reads the depth input; false when it is NULL.
bool ReadDepth(CpxTuple* tuple, unsigned pos, int32_t& depth) {
  if (!tuple->HasFieldValue(pos)) return false;
  depth = CpxTupleField_Integer::GetValue(tuple, pos);
  return true;
}

}  // namespace

// The value a field had k stored rows earlier. Only ordinary (positive) rows
// are remembered; the depth is read once, from the first row where it is not
// NULL. The history keeps at most k values, newest first.
class CpxExpressionOperator_Prev_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, Prev)

  // Items: 1 = depth and field position (4 + 4 bytes); 2 = one remembered
  // value, keyed by its sequence number (a presence byte, then the bytes).
  class CpxExpressionOperatorState_Engine_Accumulator_Prev final
      : public CpxExpressionOperatorState_Engine {
   public:
    struct Entry {
      uint64_t sequence = 0;
      bool present = false;
      VxMemoryString bytes;
    };
    VxMemoryDeque<Entry> history;  // newest at the front
    uint32_t depth = 0;
    uint64_t sequence = 0;
    bool initialized = false;
    uint32_t field = 0;
    std::string scratch;

    void SaveConfig() {
      uint32_t config[2] = {depth, field};
      SaveRawBuffer(GetPersistentBatch(), 1,
                    std::string_view(reinterpret_cast<const char*>(config), sizeof config));
    }
    void SaveEntry(const Entry& e) {
      if (!GetPersistentBatch()) return;
      scratch.assign(1, e.present ? '\1' : '\0');
      scratch.append(e.bytes.data(), e.bytes.size());
      SaveKeyedRawBuffer(GetPersistentBatch(), 2, e.sequence, scratch);
    }
    void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
      std::string_view bytes;
      if (LoadRawBuffer(message, block, 1, bytes) && bytes.size() == 8) {
        std::memcpy(&depth, bytes.data(), 4);
        std::memcpy(&field, bytes.data() + 4, 4);
        initialized = true;
      } else if (LoadRawBuffer(message, block, 2, bytes) && !bytes.empty()) {
        Entry e;
        e.sequence = LoadSubKey(message, block);
        e.present = bytes[0] == 1;
        e.bytes.assign(bytes.data() + 1, bytes.size() - 1);
        auto at = std::find_if(history.begin(), history.end(),
                               [&](const Entry& x) { return x.sequence < e.sequence; });
        history.insert(at, std::move(e));
        sequence = std::max(sequence, history.front().sequence);
      } else {
        RaiseUnknownItem(GetValueType(message, block), "Prev");
      }
    }
  };

 public:
  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override {
    return MakePtr<CpxExpressionOperatorState_Engine_Accumulator_Prev>();
  }
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (GetInputParameters().size() != 2) {
      SetLastError("Prev(): Expected 2 parameters got " +
                   std::to_string(GetInputParameters().size()) + " parameters");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS,
                                  {"number", GetInputParameters().size()});
    }
    if (!CheckFieldType(GetInputParameters(), 1, CpxTupleFieldTypes::IntegerFieldType()))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_CANT_GET_INTEGER_INDEX);
    const XmlQName& type = GetInputParameters()[0]->GetFieldType();
    if (!CheckFieldType(GetOutputParameters(), 0, type))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE,
                                  {"type_name", type.local});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned out_pos = 0, in_pos = 0, depth_pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    auto& state =
        static_cast<CpxExpressionOperatorState_Engine_Accumulator_Prev&>(*ev->GetOperatorState(position));
    if (!state.initialized) {
      int32_t depth = 0;
      CpxTuple* depth_tuple = GetInputTupleField(ev, 1, depth_pos);
      if (!ReadDepth(depth_tuple, depth_pos, depth))
        return out->ClearFieldValue(out_pos);
      if (depth < 0)
        VX_RAISE_TEXT("Constant index in Prev() is < 0! MUST be non-negative!", GetName());
      state.depth = static_cast<uint32_t>(depth);
      state.field = in_pos;
      state.initialized = true;
      state.SaveConfig();
    }
    // The earlier value is written before the history moves on.
    uint32_t size = 0;
    const void* value = nullptr;
    if (state.depth == 0) {
      value = in->GetFieldValue(state.field, size);
    } else if (state.history.size() >= state.depth && state.history.back().present) {
      value = state.history.back().bytes.data();
      size = static_cast<uint32_t>(state.history.back().bytes.size());
    }
    if (value) {
      out->SetFieldValue(out_pos, size, value);
    } else {
      out->ClearFieldValue(out_pos);
    }
    if (in->GetTupleType() != Message::kPositive || state.depth == 0) return;
    using Entry = CpxExpressionOperatorState_Engine_Accumulator_Prev::Entry;
    Entry entry;
    if (state.history.size() >= state.depth) {
      // Reuse the evicted entry's buffer: a full history allocates nothing.
      entry = std::move(state.history.back());
      state.history.pop_back();
      state.EraseKeyedRawBuffer(state.GetPersistentBatch(), 2, entry.sequence);
    }
    entry.sequence = ++state.sequence;
    const void* current = in->GetFieldValue(state.field, size);
    entry.present = current != nullptr;
    entry.bytes.assign(current ? static_cast<const char*>(current) : "", current ? size : 0);
    state.history.push_front(std::move(entry));
    state.SaveEntry(state.history.front());
  }
};

// The timestamp of the row that lay `depth` stored rows earlier.
class CpxExpressionOperator_GetPrevTimestamp_Engine final : public CpxExpressionOperator_Engine {
  VX_OPERATOR_TYPE(CpxExpressionOperator_Engine, GetPrevTimestamp)

  // Items: 1 = depth (4 bytes); 2 = one remembered timestamp (8 bytes), keyed
  // by its sequence number.
  class CpxExpressionOperatorState_Engine_Accumulator_GetPrevTimestamp final
      : public CpxExpressionOperatorState_Engine {
   public:
    VxMemoryMap<uint64_t, int64_t> history;  // oldest = smallest sequence number
    int32_t depth = 0;                        // 0: not read yet
    uint64_t sequence = 0;

    void RestoreFromPersistentStorage(const PutMessage& message, unsigned block) override {
      std::string_view bytes;
      if (LoadRawBuffer(message, block, 1, bytes) && bytes.size() == 4) {
        std::memcpy(&depth, bytes.data(), 4);
      } else if (LoadRawBuffer(message, block, 2, bytes) && bytes.size() == 8) {
        const uint64_t seq = LoadSubKey(message, block);
        int64_t ts = 0;
        std::memcpy(&ts, bytes.data(), 8);
        history[seq] = ts;
        sequence = std::max(sequence, seq);
      } else {
        RaiseUnknownItem(GetValueType(message, block), "GetPrevTimestamp");
      }
    }
  };

 public:
  Ptr<CpxExpressionOperatorState_Engine> CreateState() const override {
    return MakePtr<CpxExpressionOperatorState_Engine_Accumulator_GetPrevTimestamp>();
  }
  void InsureValidParameters() const override {
    CpxExpressionOperator_Engine::InsureValidParameters();
    if (GetInputParameters().size() != 2) {
      SetLastError("GetPrevTimestamp(): Expected 2 parameters got " +
                   std::to_string(GetInputParameters().size()) + " parameters");
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INVALID_WRONG_NUMBER_INPUT_PARAMETERS,
                                  {"number", GetInputParameters().size()});
    }
    if (!CheckFieldType(GetInputParameters(), 1, CpxTupleFieldTypes::IntegerFieldType()))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_CANT_GET_INTEGER_INDEX);
    if (!CheckFieldType(GetOutputParameters(), 0, CpxTupleFieldTypes::TimeFieldType()))
      VX_RAISE_INVALID_PARAMETERS(VX_SERVER_EXPRESSION_INPUT_TYPE_DOES_NOT_MATCH_OUTPUT_TYPE,
                                  {"type_name", "time"});
  }
  void Execute(CpxExpressionEvaluator_Engine* ev, unsigned position) const override {
    unsigned out_pos = 0, in_pos = 0, depth_pos = 0;
    CpxTuple* out = GetOutputTupleField(ev, 0, out_pos);
    CpxTuple* in = GetInputTupleField(ev, 0, in_pos);
    auto& state = static_cast<CpxExpressionOperatorState_Engine_Accumulator_GetPrevTimestamp&>(
        *ev->GetOperatorState(position));
    if (state.depth == 0) {
      int32_t depth = 0;
      CpxTuple* depth_tuple = GetInputTupleField(ev, 1, depth_pos);
      if (!ReadDepth(depth_tuple, depth_pos, depth))
        return out->ClearFieldValue(out_pos);
      state.depth = depth;
      state.SaveRawBuffer(state.GetPersistentBatch(), 1,
                          std::string_view(reinterpret_cast<const char*>(&depth), 4));
      if (depth < 0) {
        VX_RAISE_TEXT("Constant index in GetPrevTimstampStack() is < 0! MUST be non-negative!",
                      GetName());
      }
    }
    const int64_t size = static_cast<int64_t>(state.history.size());
    // An empty history has no oldest entry, whatever the depth.
    const bool full = size >= state.depth && !state.history.empty();
    const int64_t oldest = full ? state.history.begin()->second : 0;
    if (in->GetTupleType() == Message::kPositive) {
      if (!state.history.empty() && size >= state.depth) {
        state.EraseKeyedRawBuffer(state.GetPersistentBatch(), 2, state.history.begin()->first);
        state.history.erase(state.history.begin());
      }
      const uint64_t seq = ++state.sequence;
      const int64_t ts = in->GetTimestamp();
      state.history.emplace(seq, ts);
      state.SaveKeyedRawBuffer(state.GetPersistentBatch(), 2, seq,
                               std::string_view(reinterpret_cast<const char*>(&ts), 8));
    }
    if (static_cast<int64_t>(state.history.size()) < state.depth || !full)
      return out->ClearFieldValue(out_pos);
    CpxTupleField_Time::SetValue(*out, out_pos, oldest);
  }
};

}  // namespace vxi

namespace vx {

void RegisterRowHistoryOperators(CpxExpressionOperatorRegistry& registry) {
  using namespace vxi;
  static const CpxOperatorInfo kTable[] = {
      VX_OPERATOR(CpxExpressionOperator_Prev_Engine, "1 any, 1 integer (depth k)",
                  "1 (type of input 1)", "NULL until k rows are stored; NULL depth gives NULL",
                  "The value the field had k stored rows earlier (state: bounded history)."),
      VX_OPERATOR(CpxExpressionOperator_GetPrevTimestamp_Engine, "1 any (its tuple), 1 integer",
                  "1 time", "NULL until the history is full; NULL depth gives NULL",
                  "The timestamp of the row that lay k stored rows earlier."),
  };
  registry.Register(kTable, std::size(kTable));
}

}  // namespace vx
