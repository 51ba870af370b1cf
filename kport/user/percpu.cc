// Per-processor data in user space: one cache-line-aligned block per
// configured processor, chosen by sched_getcpu() at each add.
//
// Why per processor rather than per thread: the module has no hook at
// thread start or exit, so per-thread slots would need a registry that the
// packet path searches or grows, and a reader racing a thread's exit. A
// processor index is free (glibc answers sched_getcpu() from rseq without a
// system call) and bounded. A thread may migrate between reading its index
// and adding, so two threads can meet in one block now and then: the add is
// therefore a relaxed atomic add, which costs the same as a plain one while
// the line stays local, and keeps every count exact.
#include <sched.h>
#include <unistd.h>

#include <cstdlib>

#include "internal.h"
#include "kport/percpu.h"

namespace {

constexpr size_t kLine = 64;

size_t RoundUp(size_t n) { return (n + kLine - 1) / kLine * kLine; }

}  // namespace

struct kport_percpu {
  size_t size;
  size_t stride;  // size rounded up to whole cache lines
  unsigned ncpu;
  unsigned char* blocks;

  u32* Counter(unsigned cpu, size_t offset) const {
    return reinterpret_cast<u32*>(blocks + cpu * stride + offset);
  }
  void Check(size_t offset, size_t count) const {
    if (offset % sizeof(u32) != 0 || offset > size || count > (size - offset) / sizeof(u32)) {
      kport::user::internal::Fatal("percpu: u32 range at %zu (+%zu) outside a %zu-byte block",
                                   offset, count, size);
    }
  }
};

using kport::user::internal::CountAlloc;
using kport::user::internal::CountFree;
using kport::user::internal::ShouldFail;

extern "C" {

kport_percpu_t* kport_percpu_alloc(size_t size) {
  if (ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  long conf = sysconf(_SC_NPROCESSORS_CONF);
  unsigned ncpu = conf > 0 ? static_cast<unsigned>(conf) : 1;
  size_t stride = RoundUp(size == 0 ? 1 : size);
  void* mem = std::aligned_alloc(kLine, stride * ncpu);
  auto* pcp = static_cast<kport_percpu*>(std::malloc(sizeof(kport_percpu)));
  if (mem == nullptr || pcp == nullptr) {
    std::free(mem);
    std::free(pcp);
    return nullptr;
  }
  __builtin_memset(mem, 0, stride * ncpu);
  *pcp = kport_percpu{size, stride, ncpu, static_cast<unsigned char*>(mem)};
  CountAlloc();
  return pcp;
}

void kport_percpu_free(kport_percpu_t* pcp) {
  if (pcp == nullptr) return;
  std::free(pcp->blocks);
  std::free(pcp);
  CountFree();
}

void kport_percpu_add_u32(kport_percpu_t* pcp, size_t offset, u32 value) {
  pcp->Check(offset, 1);
  int cpu = sched_getcpu();
  // Processors brought online after the allocation fold onto the others.
  unsigned slot = cpu < 0 ? 0 : static_cast<unsigned>(cpu) % pcp->ncpu;
  __atomic_fetch_add(pcp->Counter(slot, offset), value, __ATOMIC_RELAXED);
}

void kport_percpu_sum_u32(const kport_percpu_t* pcp, size_t offset, u32* out, size_t count) {
  pcp->Check(offset, count);
  for (size_t i = 0; i < count; ++i) out[i] = 0;
  for (unsigned cpu = 0; cpu < pcp->ncpu; ++cpu) {
    const u32* block = pcp->Counter(cpu, offset);
    for (size_t i = 0; i < count; ++i) out[i] += __atomic_load_n(&block[i], __ATOMIC_RELAXED);
  }
}

}  // extern "C"
