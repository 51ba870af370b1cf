// Locks: the kernel's rwlock_t and spinlock_t become a pthread rwlock and an
// error-checking mutex placed in the caller's opaque storage.
//
// Bottom halves need no disabling here: timer callbacks run on a thread of
// their own (or in the advancing thread, outside any lock the test holds), so
// a lock held by process context can never be re-entered on the same thread
// by a softirq. What the kernel would turn into a silent deadlock (a second
// write_lock by the holder, an unlock by a non-owner) aborts instead.
#include <pthread.h>
#include <sched.h>

#include <cstring>
#include <new>

#include "internal.h"
#include "kport/lock.h"

namespace {

static_assert(sizeof(pthread_rwlock_t) <= KPORT_RWLOCK_SIZE, "rwlock storage too small");
static_assert(alignof(pthread_rwlock_t) <= 8, "rwlock storage underaligned");
static_assert(sizeof(pthread_mutex_t) <= KPORT_SPINLOCK_SIZE, "spinlock storage too small");
static_assert(alignof(pthread_mutex_t) <= 8, "spinlock storage underaligned");

pthread_rwlock_t* Rw(kport_rwlock_t* lock) {
  return reinterpret_cast<pthread_rwlock_t*>(lock->opaque);
}

pthread_mutex_t* Mu(kport_spinlock_t* lock) {
  return reinterpret_cast<pthread_mutex_t*>(lock->opaque);
}

void Check(int rc, const char* what) {
  if (rc != 0) kport::user::internal::Fatal("%s failed: %s", what, std::strerror(rc));
}

}  // namespace

extern "C" {

void kport_rwlock_init(kport_rwlock_t* lock) {
  // Readers are preferred (the glibc default) because the kernel's read
  // side is recursive: a reader may take the lock again while a writer waits.
  Check(pthread_rwlock_init(new (lock->opaque) pthread_rwlock_t, nullptr), "rwlock init");
}

void kport_rwlock_destroy(kport_rwlock_t* lock) {
  Check(pthread_rwlock_destroy(Rw(lock)), "rwlock destroy");
}

void kport_read_lock(kport_rwlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_rwlock_rdlock(Rw(lock)), "read_lock");
}

void kport_read_unlock(kport_rwlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_rwlock_unlock(Rw(lock)), "read_unlock");
}

void kport_write_lock(kport_rwlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_rwlock_wrlock(Rw(lock)), "write_lock");
}

void kport_write_unlock(kport_rwlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_rwlock_unlock(Rw(lock)), "write_unlock");
}

void kport_spin_lock_init(kport_spinlock_t* lock) {
  pthread_mutexattr_t attr;
  Check(pthread_mutexattr_init(&attr), "spin_lock_init");
  Check(pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK), "spin_lock_init");
  Check(pthread_mutex_init(new (lock->opaque) pthread_mutex_t, &attr), "spin_lock_init");
  pthread_mutexattr_destroy(&attr);
}

void kport_spin_lock_destroy(kport_spinlock_t* lock) {
  Check(pthread_mutex_destroy(Mu(lock)), "spin_lock destroy");
}

void kport_spin_lock_bh(kport_spinlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_mutex_lock(Mu(lock)), "spin_lock_bh");
}

void kport_spin_unlock_bh(kport_spinlock_t* lock) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_mutex_unlock(Mu(lock)), "spin_unlock_bh");
}

void kport_spin_lock_irqsave(kport_spinlock_t* lock,
                             unsigned long* flags) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  Check(pthread_mutex_lock(Mu(lock)), "spin_lock_irqsave");
  *flags = 0;
}

void kport_spin_unlock_irqrestore(kport_spinlock_t* lock,
                                  unsigned long flags) KPORT_NO_THREAD_SAFETY_ANALYSIS {
  (void)flags;
  Check(pthread_mutex_unlock(Mu(lock)), "spin_unlock_irqrestore");
}

// A spinning thread must let the holder run: the machine may have fewer
// processors than spinning threads.
void kport_cpu_relax(void) { sched_yield(); }

}  // extern "C"
