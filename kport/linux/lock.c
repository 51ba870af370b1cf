/* Reader-writer and spin locks over the kernel's own, kept in the opaque
 * storage the core embeds. The _bh forms are what let the packet path (a
 * softirq in the real driver), the timers and process context share a lock
 * without deadlocking on one processor. The wrappers carry sparse's context
 * annotations, so that a caller's imbalance shows where it is, not here. */
#include <linux/build_bug.h>
#include <linux/processor.h>
#include <linux/spinlock.h>

#include "kport/lock.h"

static_assert(sizeof(rwlock_t) <= sizeof(kport_rwlock_t), "rwlock_t fits kport_rwlock_t");
static_assert(__alignof__(rwlock_t) <= __alignof__(kport_rwlock_t), "rwlock_t alignment");
static_assert(sizeof(spinlock_t) <= sizeof(kport_spinlock_t), "spinlock_t fits kport_spinlock_t");
static_assert(__alignof__(spinlock_t) <= __alignof__(kport_spinlock_t), "spinlock_t alignment");

static inline rwlock_t* rw(kport_rwlock_t* lock) { return (rwlock_t*)lock->opaque; }

static inline spinlock_t* sl(kport_spinlock_t* lock) { return (spinlock_t*)lock->opaque; }

void kport_rwlock_init(kport_rwlock_t* lock) { rwlock_init(rw(lock)); }

void kport_rwlock_destroy(kport_rwlock_t* lock) {}

void kport_read_lock(kport_rwlock_t* lock) __acquires(lock) { read_lock_bh(rw(lock)); }

void kport_read_unlock(kport_rwlock_t* lock) __releases(lock) { read_unlock_bh(rw(lock)); }

void kport_write_lock(kport_rwlock_t* lock) __acquires(lock) { write_lock_bh(rw(lock)); }

void kport_write_unlock(kport_rwlock_t* lock) __releases(lock) { write_unlock_bh(rw(lock)); }

void kport_spin_lock_init(kport_spinlock_t* lock) { spin_lock_init(sl(lock)); }

void kport_spin_lock_destroy(kport_spinlock_t* lock) {}

void kport_spin_lock_bh(kport_spinlock_t* lock) __acquires(lock) { spin_lock_bh(sl(lock)); }

void kport_spin_unlock_bh(kport_spinlock_t* lock) __releases(lock) { spin_unlock_bh(sl(lock)); }

void kport_spin_lock_irqsave(kport_spinlock_t* lock, unsigned long* flags) __acquires(lock) {
  unsigned long f;

  spin_lock_irqsave(sl(lock), f);
  *flags = f;
}

void kport_spin_unlock_irqrestore(kport_spinlock_t* lock, unsigned long flags) __releases(lock) {
  spin_unlock_irqrestore(sl(lock), flags);
}

void kport_cpu_relax(void) { cpu_relax(); }
