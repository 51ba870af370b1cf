/* Read-copy-update: readers that never lock and never wait, and writers that
 * free what they unlinked only once every reader that could still see it has
 * left its read-side section.
 *
 * The kernel's RCU on Linux; the bulletproof flavour of liburcu in user
 * space, so that a thread needs no registration before it reads.
 *
 * What a caller must do, on both backends:
 *  - a reader brackets every walk with kport_rcu_read_lock/unlock (or the
 *    kport::RcuReadGuard of kport/cxx/guard.h), loads each published pointer
 *    with an acquire load, and keeps no pointer past the unlock. Sections
 *    nest; nothing in them may sleep.
 *  - a writer fills an object completely and then publishes it with a
 *    release store; it unlinks an object so that a reader standing on it
 *    still finds its way on (the object's forward pointer stays intact), and
 *    hands it to kport_call_rcu, whose callback frees it.
 *  - whoever unloads code or frees memory that callbacks use calls
 *    kport_rcu_barrier first.
 *
 * Context:
 *  - kport_rcu_read_lock/unlock, kport_call_rcu: any context; never sleep,
 *    never fail.
 *  - the callback: softirq context in the kernel, a helper thread in user
 *    space; it must not sleep or take a lock that a writer holds while it
 *    waits for a grace period.
 *  - kport_synchronize_rcu, kport_rcu_barrier: process context only, outside
 *    any read-side section and without a spin lock held; they sleep. */
#ifndef KPORT_RCU_H
#define KPORT_RCU_H

#include "kport/compiler.h"
#include "kport/types.h"

/* Embedded in the object that a callback frees. The backend keeps its own
 * callback head and the callback pointer here; the Linux glue asserts that
 * they fit. */
typedef struct kport_rcu_head {
  void* opaque[3];
} kport_rcu_head_t;

typedef void (*kport_rcu_callback_t)(kport_rcu_head_t* head);

KPORT_EXTERN_C_BEGIN

void kport_rcu_read_lock(void);
void kport_rcu_read_unlock(void);
/* Runs fn(head) once every read-side section that began before this call has
 * ended. head stays untouched by the caller until then. */
void kport_call_rcu(kport_rcu_head_t* head, kport_rcu_callback_t fn);
/* Returns once every read-side section that began before the call ended. */
void kport_synchronize_rcu(void);
/* Returns once every callback queued before the call has run. */
void kport_rcu_barrier(void);

KPORT_EXTERN_C_END

#endif /* KPORT_RCU_H */
