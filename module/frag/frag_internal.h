// Fragment tracking internals shared by its files and its tests.
#ifndef VANE_FRAG_FRAG_INTERNAL_H
#define VANE_FRAG_FRAG_INTERNAL_H

#include "kport/types.h"

namespace vane {

// The jhash final mix of (a, b, c), each offset by the seeded initial value.
u32 frag_mix(u32 seed, u32 a, u32 b, u32 c);

// Prepares the dumps' lock (start-up, before the proc files exist).
void frag_dump_init();
// Frees the dump buffers and the lock (shut-down, after the proc files are gone).
void frag_dump_release();

}  // namespace vane

#endif  // VANE_FRAG_FRAG_INTERNAL_H
