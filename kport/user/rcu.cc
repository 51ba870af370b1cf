// RCU in user space over liburcu's bulletproof flavour: a thread that reads
// needs no registration, which suits the tests, benchmarks and daemons that
// call the module from threads it never sees start.
//
// ThreadSanitizer cannot see the ordering that liburcu builds between a
// reader leaving its section and a callback running after the grace period
// (the library is not instrumented), and would report the callback's free
// as racing with the reader's loads. Under TSan each unlock and each
// call_rcu releases, and each callback and each return from a grace-period
// wait acquires, one sync object that stands for "a grace period separates
// them". The release in call_rcu covers the writer's own accesses to what it
// hands over (the walk that found the node, the callback pointer), which
// liburcu's uninstrumented queue would otherwise hide.
//
// kport_rcu_barrier is cheap when nothing is queued: each module load and
// unload of a fuzzer or test calls it, and most queue nothing.
#include <urcu-bp.h>

#include <atomic>
#include <cstddef>

#include "kport/rcu.h"

#if defined(__SANITIZE_THREAD__)
#define KPORT_RCU_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KPORT_RCU_TSAN 1
#endif
#endif

#ifdef KPORT_RCU_TSAN
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);

// liburcu's own bookkeeping (the completion that a barrier allocates and its
// call_rcu thread frees) is ordered by atomics that TSan cannot see; what
// the library allocates and frees for itself is ignored. Our callbacks'
// frees are not: they are called from this file, not from the library.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:liburcu-bp.so\n"; }
#endif

namespace {

struct Head {
  struct rcu_head urcu;
  kport_rcu_callback_t fn;
};
static_assert(sizeof(Head) <= sizeof(kport_rcu_head_t), "liburcu's head fits kport_rcu_head_t");
static_assert(alignof(Head) <= alignof(kport_rcu_head_t), "liburcu's head alignment");

std::atomic<long> g_queued{0};

#ifdef KPORT_RCU_TSAN
char g_grace_sync;
void ReaderLeft() { __tsan_release(&g_grace_sync); }
void GraceElapsed() { __tsan_acquire(&g_grace_sync); }
#else
void ReaderLeft() {}
void GraceElapsed() {}
#endif

void Trampoline(struct rcu_head* urcu) {
  Head* head = reinterpret_cast<Head*>(reinterpret_cast<char*>(urcu) - offsetof(Head, urcu));
  GraceElapsed();
  kport_rcu_callback_t fn = head->fn;
  fn(reinterpret_cast<kport_rcu_head_t*>(head));
  g_queued.fetch_sub(1, std::memory_order_release);
}

}  // namespace

extern "C" void kport_rcu_read_lock(void) { urcu_bp_read_lock(); }

extern "C" void kport_rcu_read_unlock(void) {
  ReaderLeft();
  urcu_bp_read_unlock();
}

extern "C" void kport_call_rcu(kport_rcu_head_t* head, kport_rcu_callback_t fn) {
  Head* h = reinterpret_cast<Head*>(head);
  h->fn = fn;
  ReaderLeft();
  g_queued.fetch_add(1, std::memory_order_relaxed);
  urcu_bp_call_rcu(&h->urcu, Trampoline);
}

extern "C" void kport_synchronize_rcu(void) {
  urcu_bp_synchronize_rcu();
  GraceElapsed();
}

extern "C" void kport_rcu_barrier(void) {
  if (g_queued.load(std::memory_order_acquire) == 0) return;
  urcu_bp_barrier();
  GraceElapsed();
}
