/* Per-processor data: one zeroed block of the same size for every possible
 * processor (the kernel's per-CPU allocator), or, in user space, for every
 * thread that adds. The packet path adds to its own block, so no cache line
 * is written by two processors; a reader sums the blocks.
 *
 * Only 32-bit counters at 4-byte-aligned offsets are supported: that is all
 * the module keeps per processor, and a sum of wrapping 32-bit counters is
 * exact modulo 2^32 however the increments were spread.
 *
 * Context rules (the same on both backends):
 *  - kport_percpu_alloc / kport_percpu_free: process context (start-up and
 *    shut-down); the allocation is atomic and may fail.
 *  - kport_percpu_add_u32: any context, never sleeps, takes no lock; safe
 *    against preemption and migration (the add lands whole in one block).
 *  - kport_percpu_sum_u32: any context; each counter is read whole, the sum
 *    is a snapshot of moving values. */
#ifndef KPORT_PERCPU_H
#define KPORT_PERCPU_H

#include "kport/compiler.h"
#include "kport/types.h"

typedef struct kport_percpu kport_percpu_t;

KPORT_EXTERN_C_BEGIN

/* size bytes per processor, all zero; NULL on failure. */
kport_percpu_t* kport_percpu_alloc(size_t size);
/* NULL is a no-op. No add or sum may run any more. */
void kport_percpu_free(kport_percpu_t* pcp);
/* Adds value to the u32 at byte offset of this processor's block. */
void kport_percpu_add_u32(kport_percpu_t* pcp, size_t offset, u32 value);
/* out[i] = sum over every processor of the u32 at offset + 4 * i. */
void kport_percpu_sum_u32(const kport_percpu_t* pcp, size_t offset, u32* out, size_t count);

KPORT_EXTERN_C_END

#endif /* KPORT_PERCPU_H */
