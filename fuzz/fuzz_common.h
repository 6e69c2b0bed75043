// Shared set-up of the fuzz targets: quiet logging and tight resource bounds,
// so that a run explores inputs rather than time or memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "cpx_expressions/cpx_expression_engine.h"
#include "support/limits.h"
#include "support/log.h"

namespace vx::fuzz {

inline void Setup() {
  static const bool done = [] {
    LogManager::Instance().SetSink(nullptr);
    VxLimits limits;
    limits.max_steps_per_evaluation = 10000;
    limits.max_value_bytes = 1u << 20;
    limits.max_document_bytes = 1u << 20;
    limits.max_operators_per_context = 1000;
    SetVxLimits(limits);
    return true;
  }();
  (void)done;
}

inline std::string Text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Runs one row of default values through every input descriptor of a
// loaded context. Evaluation errors are expected; anything else escapes.
inline void RunDefaultRows(CpxExpressionContext_Engine& ctx) {
  ctx.InitializeEvaluators();
  const auto& inputs = ctx.GetInputTupleDescriptors();
  if (inputs.GetSize() == 0) return;
  CpxTuplesList_Vector rows;
  for (unsigned i = 0; i < inputs.GetSize(); ++i)
    rows.Add(inputs.GetObjectByPos(i)->CreateDefaultTuple());
  for (int sign : {Message::kPositive, Message::kNegative}) {
    try {
      rows.GetObjectByPos(0)->SetTupleType(sign);
      Ptr<CpxExpressionEvaluator_Engine> ev = ctx.GetEvaluator(*rows.GetObjectByPos(0));
      ev->Reset();
      ev->Execute(1000000, &rows);
    } catch (const ExceptionType&) {
    }
  }
}

}  // namespace vx::fuzz
