/* Reader-writer and spin locks.
 *
 * Lock objects are opaque storage that the backend casts to its own lock
 * type; the Linux glue asserts at compile time that rwlock_t and spinlock_t
 * fit. A lock must be initialised before first use; zero-filled storage is
 * not a valid lock on every kernel configuration (lockdep).
 *
 * Context rules (they are the same on both backends):
 *  - kport_read_lock/kport_write_lock disable bottom halves while held
 *    (read_lock_bh/write_lock_bh), so the packet path, timers and process
 *    context may share one lock without deadlocking on one processor.
 *    Not for hard-interrupt context.
 *  - kport_spin_lock_bh: the same for spin locks.
 *  - kport_spin_lock_irqsave masks interrupts as well; callable anywhere.
 *  - None of them sleeps; none is recursive for writers. */
#ifndef KPORT_LOCK_H
#define KPORT_LOCK_H

#include "kport/compiler.h"
#include "kport/types.h"

#define KPORT_RWLOCK_SIZE 64
#define KPORT_SPINLOCK_SIZE 64

typedef struct KPORT_CAPABILITY("rwlock") kport_rwlock {
  unsigned char opaque[KPORT_RWLOCK_SIZE] KPORT_ALIGNED(8);
} kport_rwlock_t;

typedef struct KPORT_CAPABILITY("spinlock") kport_spinlock {
  unsigned char opaque[KPORT_SPINLOCK_SIZE] KPORT_ALIGNED(8);
} kport_spinlock_t;

KPORT_EXTERN_C_BEGIN

void kport_rwlock_init(kport_rwlock_t* lock);
/* Releases backend resources of an initialised, unheld lock (a no-op in the
 * kernel). Call before the memory that holds the lock is freed. */
void kport_rwlock_destroy(kport_rwlock_t* lock);
void kport_read_lock(kport_rwlock_t* lock) KPORT_ACQUIRE_SHARED(lock);
void kport_read_unlock(kport_rwlock_t* lock) KPORT_RELEASE_SHARED(lock);
void kport_write_lock(kport_rwlock_t* lock) KPORT_ACQUIRE(lock);
void kport_write_unlock(kport_rwlock_t* lock) KPORT_RELEASE(lock);

void kport_spin_lock_init(kport_spinlock_t* lock);
void kport_spin_lock_destroy(kport_spinlock_t* lock);
void kport_spin_lock_bh(kport_spinlock_t* lock) KPORT_ACQUIRE(lock);
void kport_spin_unlock_bh(kport_spinlock_t* lock) KPORT_RELEASE(lock);
void kport_spin_lock_irqsave(kport_spinlock_t* lock, unsigned long* flags) KPORT_ACQUIRE(lock);
void kport_spin_unlock_irqrestore(kport_spinlock_t* lock, unsigned long flags) KPORT_RELEASE(lock);

/* Busy-wait hint for spin loops (cpu_relax()). */
void kport_cpu_relax(void);

KPORT_EXTERN_C_END

#endif /* KPORT_LOCK_H */
