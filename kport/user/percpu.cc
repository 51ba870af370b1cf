// Per-processor data in user space, kept per thread: each thread that adds
// gets a cache-line-aligned slot of its own in the block set, and only that
// thread ever writes it, so an add is a plain load and store (no locked
// instruction, no line shared with another writer).
//
// Why per thread rather than per processor (sched_getcpu()): a thread can
// migrate or be preempted between choosing a processor's slot and adding, so
// per-processor slots in user space need an atomic read-modify-write on
// every add to stay exact, which costs about as much as the rest of a
// decision. A thread's own slot needs none. Readers sum every slot under the
// block set's mutex.
//
// A thread finds its slot through a small thread-local cache keyed by the
// block set's serial number (an address may be reused by a later load). Its
// first add to a block set takes the mutex and claims a slot: one released
// by a thread that has exited, or a new one. Slots keep their counts when
// their thread exits, so sums never go back.
#include <cstdlib>
#include <mutex>
#include <vector>

#include "internal.h"
#include "kport/percpu.h"

namespace {

constexpr size_t kLine = 64;
constexpr int kCacheWays = 8;

size_t RoundUp(size_t n) { return (n + kLine - 1) / kLine * kLine; }

struct Slot {
  unsigned char* words;  // size bytes, cache-line aligned
  bool owned;            // under the block set's mutex
};

}  // namespace

struct kport_percpu {
  size_t size;
  unsigned long serial;
  std::mutex mu;
  std::vector<Slot*> slots;  // under mu

  void Check(size_t offset, size_t count) const {
    if (offset % sizeof(u32) != 0 || offset > size || count > (size - offset) / sizeof(u32)) {
      kport::user::internal::Fatal("percpu: u32 range at %zu (+%zu) outside a %zu-byte block",
                                   offset, count, size);
    }
  }
};

namespace {

// Block sets alive, so that an exiting thread releases only slots that
// still exist.
std::mutex& Registry() {
  static auto* mu = new std::mutex;  // never destroyed: threads exit late
  return *mu;
}
std::vector<kport_percpu*>& Live() {
  static auto* live = new std::vector<kport_percpu*>;
  return *live;
}
unsigned long g_next_serial = 1;  // under Registry()

struct CacheEntry {
  kport_percpu* pcp = nullptr;
  unsigned long serial = 0;
  Slot* slot = nullptr;
};

// The calling thread's slots; released for reuse when the thread exits.
struct ThreadSlots {
  CacheEntry ways[kCacheWays];
  int next = 0;
  ~ThreadSlots() {
    std::lock_guard reg(Registry());
    for (CacheEntry& e : ways) {
      if (e.slot == nullptr) continue;
      for (kport_percpu* pcp : Live()) {
        if (pcp == e.pcp && pcp->serial == e.serial) {
          std::lock_guard lock(pcp->mu);
          e.slot->owned = false;
        }
      }
    }
  }
};
thread_local ThreadSlots t_slots;

Slot* Claim(kport_percpu* pcp) {
  std::lock_guard lock(pcp->mu);
  for (Slot* s : pcp->slots) {
    if (!s->owned) {
      s->owned = true;
      return s;
    }
  }
  auto* s =
      new Slot{static_cast<unsigned char*>(std::aligned_alloc(kLine, RoundUp(pcp->size))), true};
  if (s->words == nullptr) kport::user::internal::Fatal("percpu: out of memory for a slot");
  __builtin_memset(s->words, 0, RoundUp(pcp->size));
  pcp->slots.push_back(s);
  return s;
}

Slot* SlotOf(kport_percpu* pcp) {
  ThreadSlots& t = t_slots;
  for (CacheEntry& e : t.ways) {
    if (e.pcp == pcp && e.serial == pcp->serial) return e.slot;
  }
  Slot* s = Claim(pcp);
  // A thread that adds to more block sets than the cache holds keeps
  // claiming slots; the module uses two.
  t.ways[t.next] = CacheEntry{pcp, pcp->serial, s};
  t.next = (t.next + 1) % kCacheWays;
  return s;
}

}  // namespace

using kport::user::internal::CountAlloc;
using kport::user::internal::CountFree;
using kport::user::internal::ShouldFail;

extern "C" {

kport_percpu_t* kport_percpu_alloc(size_t size) {
  if (ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  auto* pcp = new kport_percpu;
  pcp->size = size;
  {
    std::lock_guard reg(Registry());
    pcp->serial = g_next_serial++;
    Live().push_back(pcp);
  }
  CountAlloc();
  return pcp;
}

void kport_percpu_free(kport_percpu_t* pcp) {
  if (pcp == nullptr) return;
  {
    std::lock_guard reg(Registry());
    std::erase(Live(), pcp);
  }
  for (Slot* s : pcp->slots) {
    std::free(s->words);
    delete s;
  }
  delete pcp;
  CountFree();
}

void kport_percpu_add_u32(kport_percpu_t* pcp, size_t offset, u32 value) {
  pcp->Check(offset, 1);
  auto* counter = reinterpret_cast<u32*>(SlotOf(pcp)->words + offset);
  // Only this thread writes the slot; readers load it whole.
  __atomic_store_n(counter, __atomic_load_n(counter, __ATOMIC_RELAXED) + value, __ATOMIC_RELAXED);
}

void kport_percpu_sum_u32(const kport_percpu_t* pcp, size_t offset, u32* out, size_t count) {
  pcp->Check(offset, count);
  for (size_t i = 0; i < count; ++i) out[i] = 0;
  auto* self = const_cast<kport_percpu*>(pcp);
  std::lock_guard lock(self->mu);
  for (const Slot* s : self->slots) {
    const auto* block = reinterpret_cast<const u32*>(s->words + offset);
    for (size_t i = 0; i < count; ++i) out[i] += __atomic_load_n(&block[i], __ATOMIC_RELAXED);
  }
}

}  // extern "C"
