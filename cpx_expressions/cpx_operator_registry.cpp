#include "cpx_expressions/cpx_operator_registry.h"

#include <cstdio>
#include <cstdlib>

namespace vx {

namespace {

void RegisterAllOperatorFamilies(CpxExpressionOperatorRegistry& registry) {
  RegisterControlFlowOperators(registry);
  RegisterTupleAttributeOperators(registry);
  RegisterRowHistoryOperators(registry);
  RegisterRowOperators(registry);
  RegisterLookupOperators(registry);
  RegisterIntegerOperators(registry);
  RegisterLongOperators(registry);
  RegisterFloatOperators(registry);
  RegisterBooleanOperators(registry);
  RegisterStringOperators(registry);
  RegisterBlobOperators(registry);
  RegisterTimeOperators(registry);
  RegisterIntervalOperators(registry);
  RegisterAccumulatorOperators(registry);
  RegisterXmlOperators(registry);
}

}  // namespace

CpxExpressionOperatorRegistry& CpxExpressionOperatorRegistry::Instance() {
  static CpxExpressionOperatorRegistry* registry = [] {
    auto* r = new CpxExpressionOperatorRegistry();
    RegisterAllOperatorFamilies(*r);
    return r;
  }();
  return *registry;
}

void CpxExpressionOperatorRegistry::Register(const CpxOperatorInfo& info) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_factory.Register(*info.type, info.create)) {
    std::fprintf(stderr, "operator type '%s' registered twice\n", info.type->local.c_str());
    std::abort();
  }
  m_info.emplace(*info.type, info);
}

void CpxExpressionOperatorRegistry::Register(const CpxOperatorInfo* table, size_t count) {
  for (size_t i = 0; i < count; ++i) Register(table[i]);
}

Ptr<CpxExpressionOperator_Engine> CpxExpressionOperatorRegistry::Create(
    const XmlQName& type, const std::string& name, CpxExpressionContext_Engine* context) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_factory.Create(type, type, name, context);
}

std::vector<CpxOperatorInfo> CpxExpressionOperatorRegistry::GetAll() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<CpxOperatorInfo> all;
  for (const auto& [type, info] : m_info) all.push_back(info);
  return all;
}

}  // namespace vx
