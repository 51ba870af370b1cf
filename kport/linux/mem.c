/* Memory: every allocation of the module is atomic, so the packet path, the
 * timers and code under a spin lock may all allocate. */
#include <linux/slab.h>

#include "kport/mem.h"

void* kport_kmalloc_atomic(size_t size) { return kmalloc(size, GFP_ATOMIC); }

void* kport_kzalloc_atomic(size_t size) { return kzalloc(size, GFP_ATOMIC); }

void kport_kfree(const void* ptr) { kfree(ptr); }
