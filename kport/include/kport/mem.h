/* Memory. Every allocation of the module is atomic: it never sleeps, may be
 * made in any context (packet path, timer, under a spin lock) and may fail. */
#ifndef KPORT_MEM_H
#define KPORT_MEM_H

#include "kport/compiler.h"
#include "kport/types.h"

KPORT_EXTERN_C_BEGIN

/* kmalloc(size, GFP_ATOMIC). NULL on failure; contents undefined. */
void* kport_kmalloc_atomic(size_t size);
/* kzalloc(size, GFP_ATOMIC). NULL on failure; contents zero. */
void* kport_kzalloc_atomic(size_t size);
/* kfree(); NULL is a no-op. */
void kport_kfree(const void* ptr);

KPORT_EXTERN_C_END

#endif /* KPORT_MEM_H */
