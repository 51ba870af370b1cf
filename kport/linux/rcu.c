/* RCU over the kernel's own. The kernel's callback head and the caller's
 * callback share the opaque storage, so the glue needs no allocation and no
 * cast between function types (which control-flow integrity would refuse). */
#include <linux/build_bug.h>
#include <linux/kernel.h>
#include <linux/rcupdate.h>

#include "kport/rcu.h"

struct kport_rcu_glue {
  struct rcu_head head;
  kport_rcu_callback_t fn;
};

static_assert(sizeof(struct kport_rcu_glue) <= sizeof(kport_rcu_head_t),
              "rcu_head and callback fit kport_rcu_head_t");
static_assert(__alignof__(struct kport_rcu_glue) <= __alignof__(kport_rcu_head_t),
              "rcu_head alignment");

static void kport_rcu_trampoline(struct rcu_head* head) {
  struct kport_rcu_glue* glue = container_of(head, struct kport_rcu_glue, head);

  glue->fn((kport_rcu_head_t*)glue);
}

void kport_rcu_read_lock(void) __acquires(RCU) { rcu_read_lock(); }

void kport_rcu_read_unlock(void) __releases(RCU) { rcu_read_unlock(); }

void kport_call_rcu(kport_rcu_head_t* head, kport_rcu_callback_t fn) {
  struct kport_rcu_glue* glue = (struct kport_rcu_glue*)head;

  glue->fn = fn;
  call_rcu(&glue->head, kport_rcu_trampoline);
}

void kport_synchronize_rcu(void) { synchronize_rcu(); }

void kport_rcu_barrier(void) { rcu_barrier(); }
