#include "support/limits.h"

namespace vx {

LogMessageDefinition VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP() {
  return {"VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP",
          "Elements nest deeper than {limit} levels at line {line} in file {file}",
          LogLevel::Error};
}
LogMessageDefinition VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE() {
  return {"VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE",
          "Document {file} has {size} bytes, more than the limit of {limit}", LogLevel::Error};
}
LogMessageDefinition VX_SERVER_LIMIT_TOO_MANY_OPERATORS() {
  return {"VX_SERVER_LIMIT_TOO_MANY_OPERATORS",
          "Expression context has more than {limit} operators", LogLevel::Error};
}
LogMessageDefinition VX_SERVER_LIMIT_VALUE_TOO_LARGE() {
  return {"VX_SERVER_LIMIT_VALUE_TOO_LARGE",
          "A value of {size} bytes is larger than the limit of {limit} bytes", LogLevel::Error};
}
LogMessageDefinition VX_SERVER_LIMIT_STEPS_EXCEEDED() {
  return {"VX_SERVER_LIMIT_STEPS_EXCEEDED",
          "Evaluation stopped after {limit} operator steps at operator {position}: a loop does "
          "not end",
          LogLevel::Error};
}

void RaiseValueTooLarge(uint64_t size) {
  VX_RAISE(VX_SERVER_LIMIT_VALUE_TOO_LARGE, "CpxTuple", {"size", size},
           {"limit", GetVxLimits().max_value_bytes});
}

void RaiseDocumentTooLarge(const std::string& file, uint64_t size) {
  VX_RAISE(VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE, file, {"file", file}, {"size", size},
           {"limit", GetVxLimits().max_document_bytes});
}

}  // namespace vx
