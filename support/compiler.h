// Compiler hints for the per-row path.
#pragma once

// For the small accessors every operator calls for every parameter on every
// row (tuple fields, field references, parameter reads): the compiler's
// size heuristics would otherwise leave some of them as calls, and a call
// costs as much as the access itself.
#define VX_ALWAYS_INLINE [[gnu::always_inline]] inline
