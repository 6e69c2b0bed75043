// The operator registry: operator type name -> creator, with the shape that
// `cpxrun operators` and the operator reference print.
//
// The registry is created on first use behind a mutex; each operator family
// registers its table then (see RegisterAllOperatorFamilies), so no family
// can be dropped by the linker and every operator is known before the first
// context is read.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "cpx_expressions/cpx_expression_engine.h"

namespace vx {

using CpxOperatorCreator = Ptr<CpxExpressionOperator_Engine> (*)(const XmlQName&,
                                                                 const std::string&,
                                                                 CpxExpressionContext_Engine*);

// One registered operator type and its documented shape.
struct CpxOperatorInfo {
  const XmlQName* type;     // from CpxExpressionOperatorTypes
  const char* inputs;       // e.g. "2+ integer", "1 boolean, 1 integer", "none"
  const char* outputs;      // e.g. "1 integer", "none"
  const char* null_rule;    // e.g. "any NULL input gives NULL"
  const char* description;  // one line
  CpxOperatorCreator create;
  // A design note (what the operator does, its parameters, NULL rule and
  // state), or null. Operators of one family share one note.
  const char* note;
};

template <class Op>
Ptr<CpxExpressionOperator_Engine> CreateRegisteredOperator(const XmlQName& type,
                                                           const std::string& name,
                                                           CpxExpressionContext_Engine* context) {
  return Ptr<CpxExpressionOperator_Engine>(new Op(name, context, type));
}

// One registration line of a family's table.
#define VX_OPERATOR(Class, inputs, outputs, null_rule, description) \
  VX_OPERATOR_NOTE(Class, inputs, outputs, null_rule, description, nullptr)
// The same with a design note for the operator reference.
#define VX_OPERATOR_NOTE(Class, inputs, outputs, null_rule, description, note) \
  ::vx::CpxOperatorInfo {                                                     \
    &Class::GetOperatorType(), inputs, outputs, null_rule, description,       \
        &::vx::CreateRegisteredOperator<Class>, note                          \
  }

class CpxExpressionOperatorRegistry {
 public:
  static CpxExpressionOperatorRegistry& Instance();

  // Registers one type; a second registration of a name is a programming
  // error and aborts loudly.
  void Register(const CpxOperatorInfo& info);
  void Register(const CpxOperatorInfo* table, size_t count);
  // Null when the type is unknown.
  Ptr<CpxExpressionOperator_Engine> Create(const XmlQName& type, const std::string& name,
                                           CpxExpressionContext_Engine* context) const;
  // Every registered type, ordered by name.
  std::vector<CpxOperatorInfo> GetAll() const;

 private:
  CpxExpressionOperatorRegistry() = default;
  mutable std::mutex m_mutex;
  Factory_3<CpxExpressionOperator_Engine, XmlQName, const XmlQName&, const std::string&,
            CpxExpressionContext_Engine*>
      m_factory;
  std::map<XmlQName, CpxOperatorInfo> m_info;
};

// Family registration functions, one per operator source file.
void RegisterControlFlowOperators(CpxExpressionOperatorRegistry& registry);
void RegisterTupleAttributeOperators(CpxExpressionOperatorRegistry& registry);
void RegisterRowHistoryOperators(CpxExpressionOperatorRegistry& registry);
void RegisterRowOperators(CpxExpressionOperatorRegistry& registry);
void RegisterLookupOperators(CpxExpressionOperatorRegistry& registry);
void RegisterIntegerOperators(CpxExpressionOperatorRegistry& registry);
void RegisterLongOperators(CpxExpressionOperatorRegistry& registry);
void RegisterFloatOperators(CpxExpressionOperatorRegistry& registry);
void RegisterBooleanOperators(CpxExpressionOperatorRegistry& registry);
void RegisterStringOperators(CpxExpressionOperatorRegistry& registry);
void RegisterBlobOperators(CpxExpressionOperatorRegistry& registry);
void RegisterTimeOperators(CpxExpressionOperatorRegistry& registry);
void RegisterIntervalOperators(CpxExpressionOperatorRegistry& registry);
void RegisterAccumulatorOperators(CpxExpressionOperatorRegistry& registry);
void RegisterXmlOperators(CpxExpressionOperatorRegistry& registry);

}  // namespace vx
