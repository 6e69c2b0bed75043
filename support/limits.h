// Resource bounds that protect a server from documents and rows it did not
// write.
//
// One process-wide set, read on the paths that need it (document loading,
// context checking, value writes, evaluation). Each bound raises its own
// clear error; docs/limits.md lists the defaults and the errors. A bound of 0
// means "no limit" where the comment says so.
//
// The set is meant to be configured once, at start-up, before contexts are
// loaded; changing it while other threads load or evaluate is not supported
// (the fields are read without synchronisation on hot paths).
#pragma once

#include <cstdint>
#include <string>

#include "support/log.h"

namespace vx {

struct VxLimits {
  // Element nesting of a context, suite or tuple document on load.
  uint32_t max_document_depth = 128;
  // Size of a context, suite or tuple document on load, in bytes.
  uint64_t max_document_bytes = 64ull << 20;
  // Operators in one expression context.
  uint32_t max_operators_per_context = 100000;
  // Size of one string, blob or XML value written into a tuple, in bytes:
  // values that operators build (concatenation in a loop) and values read
  // from rows alike.
  uint32_t max_value_bytes = 64u << 20;
  // Operators one evaluation may run before it is stopped; 0 = no limit.
  // Programs without backward jumps always stop, so the count matters only
  // for loops, and it is checked only when a jump goes backward.
  uint64_t max_steps_per_evaluation = 0;
};

// The bounds in force (defaults until SetVxLimits is called).
namespace detail {
inline VxLimits g_limits;
}
inline const VxLimits& GetVxLimits() { return detail::g_limits; }
inline void SetVxLimits(const VxLimits& limits) { detail::g_limits = limits; }

// Restores the previous bounds when it goes out of scope (tests, tools).
class VxLimitsScope {
 public:
  explicit VxLimitsScope(const VxLimits& limits) : m_saved(GetVxLimits()) { SetVxLimits(limits); }
  ~VxLimitsScope() { SetVxLimits(m_saved); }
  VxLimitsScope(const VxLimitsScope&) = delete;
  VxLimitsScope& operator=(const VxLimitsScope&) = delete;

 private:
  VxLimits m_saved;
};

// The errors of the bounds.
LogMessageDefinition VX_SERVER_LIMIT_DOCUMENT_TOO_DEEP();
LogMessageDefinition VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE();
LogMessageDefinition VX_SERVER_LIMIT_TOO_MANY_OPERATORS();
LogMessageDefinition VX_SERVER_LIMIT_VALUE_TOO_LARGE();
LogMessageDefinition VX_SERVER_LIMIT_STEPS_EXCEEDED();

// Raises VX_SERVER_LIMIT_VALUE_TOO_LARGE. Out of line: the check that calls
// it sits on the value-write path.
[[noreturn]] void RaiseValueTooLarge(uint64_t size);

// Raises VX_SERVER_LIMIT_DOCUMENT_TOO_LARGE for a document named `file`.
[[noreturn]] void RaiseDocumentTooLarge(const std::string& file, uint64_t size);

}  // namespace vx
