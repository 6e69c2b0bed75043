// Operators that steer the run or look at tuple attributes rather than
// values: control flow (jumps by position or label, conditional stops) and
// the tuple-attribute operators (IsDefined, Undefine, timestamps, tuple type).
#pragma once

#include <string>

#include "cpx_expressions/cpx_expression_engine.h"

namespace vx {

// Declares the registry name of an operator class and inherits the operator
// constructors.
#define VX_OPERATOR_TYPE(Base, stem)                                           \
 public:                                                                      \
  using Base::Base;                                                           \
  static const ::vx::XmlQName& GetOperatorType() {                           \
    return ::vx::CpxExpressionOperatorTypes::stem##OperatorType();           \
  }

// Base of the operators that jump to a label: the "GotoLabel" attribute and
// the label's operator position, resolved when the context is validated (or
// on the first taken jump of an operator that was never validated).
template <class Types>
class CpxExpressionOperator_GotoLabelBase : public Types::Operator {
 public:
  using Types::Operator::Operator;

  std::string GetGotoLabel() const { return m_label; }
  void SetGotoLabel(std::string label) {
    m_label = std::move(label);
    m_cached = false;
  }
  // The position of the operator that carries the label.
  uint32_t GetGotoOperatorPos() const {
    if (m_cached) return m_pos;
    auto* context = this->GetContext();
    if (!context) XmlObject::RaiseParentNotSet(this->GetName());
    m_pos = context->GetOperatorPosByLabel(m_label);
    m_cached = true;
    return m_pos;
  }

 protected:
  // The label checks every label operator runs before its own parameter
  // rule; resolves the label's position.
  void InsureValidLabel() const {
    if (m_label.empty())
      VX_RAISE_TEXT("goto label is not set", this->GetName(), {"operator_name", this->GetName()});
    auto* context = this->GetContext();
    if (!context) XmlObject::RaiseParentNotSet(this->GetName());
    if (!context->FindOperatorByLabel(m_label)) {
      VX_RAISE_TEXT("goto label does not match any operator", this->GetName(),
                    {"operator_name", this->GetName()}, {"label", m_label});
    }
    GetGotoOperatorPos();
  }
  void DoReadAttributes(XmlReaderContext& reader) override {
    Types::Operator::DoReadAttributes(reader);
    SetGotoLabel(reader.GetRequiredAttribute("GotoLabel"));
  }
  void DoWriteAttributes(XmlWriterContext& writer) const override {
    Types::Operator::DoWriteAttributes(writer);
    writer.WriteAttribute("GotoLabel", m_label);
  }

 private:
  std::string m_label;
  mutable uint32_t m_pos = 0;
  mutable bool m_cached = false;
};

}  // namespace vx
