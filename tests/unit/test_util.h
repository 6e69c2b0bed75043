// Helpers shared by the engine's unit tests.
#pragma once

#include <string>

#include "cpx_expressions/cpx_expression_engine.h"

namespace vx::testing {

// A context parent with an optional group-by key over the first input
// descriptor.
class TestParent : public CpxExpressionContextParent_Engine {
 public:
  explicit TestParent(std::vector<std::string> group_fields = {}, std::string descriptor = "In")
      : m_fields(std::move(group_fields)), m_descriptor(std::move(descriptor)) {}
  Ptr<CpxTupleKey_Engine> GetContextGroupByKey() const override {
    if (m_fields.empty()) return nullptr;
    Ptr<CpxTupleKey_Engine> key = MakePtr<CpxTupleKey_Engine>();
    key->SetDescriptorName(m_descriptor);
    for (const std::string& f : m_fields) key->AddField(f, false);
    return key;
  }
  const CpxTupleDescriptor* FindTupleDescriptor(const std::string&) const override {
    return nullptr;
  }

 private:
  std::vector<std::string> m_fields;
  std::string m_descriptor;
};

// Wraps descriptor lists and operators into a context document.
inline std::string ContextXml(const std::string& body) {
  return "<ExpressionContext Name=\"t\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
         body + "</ExpressionContext>";
}

inline std::string Ref(const char* kind, const char* tuple, const char* field) {
  return std::string("<TupleFieldRef xsi:type=\"") + kind + "TupleFieldRefType\" TupleRef=\"" +
         tuple + "\" FieldRef=\"" + field + "\"/>";
}

inline std::string Op(const std::string& name, const std::string& type, const std::string& inputs,
                      const std::string& outputs, const std::string& attributes = "") {
  return "<Operator Name=\"" + name + "\" xsi:type=\"" + type + "\" " + attributes +
         "><InputParameters>" + inputs + "</InputParameters><OutputParameters>" + outputs +
         "</OutputParameters></Operator>";
}

inline Ptr<CpxExpressionContext_Engine> Load(const std::string& xml,
                                             CpxExpressionContextParent_Engine* parent = nullptr) {
  return CpxExpressionContext_Engine::LoadFromString(xml, "test.xml", parent);
}

// Runs the one-row input `in` through its group's evaluator in `ctx` (Reset,
// then Execute); returns the evaluator, whose output tuples hold the row's
// results.
inline Ptr<CpxExpressionEvaluator_Engine> RunRow(CpxExpressionContext_Engine& ctx,
                                                 const Ptr<CpxTuple>& in) {
  CpxTuplesList_Vector inputs;
  inputs.Add(in);
  Ptr<CpxExpressionEvaluator_Engine> ev = ctx.GetEvaluator(*in);
  ev->Reset();
  ev->Execute(0, &inputs);
  return ev;
}

// Field `f` of the evaluator's first output tuple as text, or "NULL".
inline std::string OutputText(const CpxExpressionEvaluator_Engine& ev, unsigned f = 0) {
  const CpxTuple& out = *ev.GetOutputTuples()->GetObjectByPos(0);
  return out.HasFieldValue(f) ? FieldToText(out, f) : "NULL";
}

// Quiets the log for the lifetime of the object (errors are asserted on
// through exceptions instead).
class QuietLog {
 public:
  QuietLog() : m_previous(LogManager::Instance().SetSink(nullptr)) {}
  ~QuietLog() { LogManager::Instance().SetSink(std::move(m_previous)); }

 private:
  LogManager::Sink m_previous;
};

}  // namespace vx::testing
