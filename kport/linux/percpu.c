/* Per-processor data over the kernel's per-CPU allocator. The handle the
 * core holds is the __percpu pointer itself. this_cpu_add() is a single
 * preemption- and interrupt-safe read-modify-write of the local copy (one
 * instruction on x86_64; preemption briefly off on arm64), so no two
 * processors ever write the same line. */
#include <linux/compiler.h>
#include <linux/cpumask.h>
#include <linux/gfp.h>
#include <linux/percpu.h>
#include <linux/types.h>

#include "kport/percpu.h"

static inline void __percpu* pcpu(const kport_percpu_t* pcp) {
  return (void __percpu*)(unsigned long)pcp;
}

kport_percpu_t* kport_percpu_alloc(size_t size) {
  void __percpu* p = __alloc_percpu_gfp(size, sizeof(u64), GFP_ATOMIC);
  return (kport_percpu_t*)(unsigned long)p;
}

void kport_percpu_free(kport_percpu_t* pcp) { free_percpu(pcpu(pcp)); }

void kport_percpu_add_u32(kport_percpu_t* pcp, size_t offset, u32 value) {
  u32 __percpu* counter = (u32 __percpu*)((char __percpu*)pcpu(pcp) + offset);
  this_cpu_add(*counter, value);
}

void kport_percpu_sum_u32(const kport_percpu_t* pcp, size_t offset, u32* out, size_t count) {
  size_t i;
  int cpu;

  for (i = 0; i < count; ++i) out[i] = 0;
  for_each_possible_cpu(cpu) {
    const u32* block = (const u32*)((const char*)per_cpu_ptr(pcpu(pcp), cpu) + offset);

    for (i = 0; i < count; ++i) out[i] += READ_ONCE(block[i]);
  }
}
