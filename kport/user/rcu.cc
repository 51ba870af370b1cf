// RCU in user space over liburcu's bulletproof flavour: a thread that reads
// needs no registration, which suits the tests, benchmarks and daemons that
// call the module from threads it never sees start.
//
// ThreadSanitizer cannot see the ordering that liburcu builds between a
// reader leaving its section and a callback running after the grace period
// (the library is not instrumented), and would report the callback's free
// as racing with the reader's loads. Under TSan each unlock releases, and
// each return from a grace-period wait acquires, one sync object that stands
// for "a grace period separates them". The writer's hand-over of a callback
// is ordered by the queue's mutex, which TSan sees.
//
// kport_rcu_barrier is cheap when nothing is queued: each module load and
// unload of a fuzzer or test calls it, and most queue nothing.
#include <urcu-bp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

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

// liburcu's own bookkeeping (its registry of reader threads) is ordered by
// atomics that TSan cannot see; what the library allocates and frees for
// itself is ignored. Our callbacks' frees are not: they are called from
// this file, not from the library.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:liburcu-bp.so\n"; }
#endif

namespace {

// Our half of a kport_rcu_head_t: the link of the pending list and the
// callback.
struct Head {
  Head* next;
  kport_rcu_callback_t fn;
};
static_assert(sizeof(Head) <= sizeof(kport_rcu_head_t), "Head fits kport_rcu_head_t");
static_assert(alignof(Head) <= alignof(kport_rcu_head_t), "Head alignment");

#ifdef KPORT_RCU_TSAN
char g_grace_sync;
void ReaderLeft() { __tsan_release(&g_grace_sync); }
void GraceElapsed() { __tsan_acquire(&g_grace_sync); }
#else
void ReaderLeft() {}
void GraceElapsed() {}
#endif

// Deferred callbacks, run by one thread in batches: whatever was queued
// during a tick waits for one grace period together. Handing each callback
// to liburcu's call_rcu instead makes its thread run grace periods back to
// back under a busy writer, and each grace period interrupts every reader
// (membarrier), which doubled the lookups' cost in the churn benchmarks.
class Deferred {
 public:
  void Queue(Head* h) {
    std::lock_guard<std::mutex> lock(mu_);
    h->next = nullptr;
    if (tail_ != nullptr) {
      tail_->next = h;
    } else {
      head_ = h;
    }
    tail_ = h;
    ++queued_;
    if (!started_) {
      started_ = true;
      std::thread([this] { Run(); }).detach();
    }
    work_.notify_one();
  }

  void Barrier() {
    std::unique_lock<std::mutex> lock(mu_);
    const uint64_t target = queued_;
    if (ran_ >= target) return;
    ++barriers_;
    work_.notify_one();
    done_.wait(lock, [&] { return ran_ >= target; });
    --barriers_;
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
      work_.wait(lock, [&] { return head_ != nullptr; });
      // Let a tick's callbacks gather, unless someone waits for them.
      work_.wait_for(lock, kTick, [&] { return barriers_ > 0; });
      Head* batch = head_;
      head_ = tail_ = nullptr;
      const uint64_t upto = queued_;
      lock.unlock();
      urcu_bp_synchronize_rcu();
      GraceElapsed();
      while (batch != nullptr) {
        Head* next = batch->next;
        batch->fn(reinterpret_cast<kport_rcu_head_t*>(batch));
        batch = next;
      }
      lock.lock();
      ran_ = upto;
      done_.notify_all();
    }
  }

  static constexpr std::chrono::milliseconds kTick{1};
  std::mutex mu_;
  std::condition_variable work_;
  std::condition_variable done_;
  Head* head_ = nullptr;
  Head* tail_ = nullptr;
  uint64_t queued_ = 0;  // callbacks ever queued
  uint64_t ran_ = 0;     // of those, how many have run (in queue order)
  int barriers_ = 0;
  bool started_ = false;
};

// Never destroyed: its thread may still wait for work when the process
// exits.
Deferred& deferred() {
  static Deferred* d = new Deferred;
  return *d;
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
  deferred().Queue(h);
}

extern "C" void kport_synchronize_rcu(void) {
  urcu_bp_synchronize_rcu();
  GraceElapsed();
}

extern "C" void kport_rcu_barrier(void) { deferred().Barrier(); }
