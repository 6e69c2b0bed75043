#include "support/messages.h"

namespace vx {

#define VX_DEFINE_MESSAGE(name, level, text) \
  LogMessageDefinition name() { return {#name, text, LogLevel::level}; }
VX_MESSAGE_DEFINITIONS(VX_DEFINE_MESSAGE)
#undef VX_DEFINE_MESSAGE

const std::vector<LogMessageDefinition>& AllMessageDefinitions() {
#define VX_LIST_MESSAGE(name, level, text) name(),
  static const std::vector<LogMessageDefinition> all = {VX_MESSAGE_DEFINITIONS(VX_LIST_MESSAGE)};
#undef VX_LIST_MESSAGE
  return all;
}

}  // namespace vx
