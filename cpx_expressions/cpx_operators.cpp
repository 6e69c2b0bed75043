// Control-flow and tuple-attribute operators.
#include "cpx_expressions/cpx_operators.h"

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
