/* Kernel timers. The core's callback takes the kport storage, the kernel's
 * takes the timer_list: the storage holds both, and a trampoline converts. */
#include <linux/build_bug.h>
#include <linux/jiffies.h>
#include <linux/timer.h>

#include "kport/timer.h"

struct kport_linux_timer {
  struct timer_list timer;
  kport_timer_fn fn;
};

static_assert(sizeof(struct kport_linux_timer) <= sizeof(kport_timer_t),
              "timer_list and callback fit kport_timer_t");
static_assert(__alignof__(struct kport_linux_timer) <= __alignof__(kport_timer_t),
              "timer alignment");

static inline struct kport_linux_timer* lt(kport_timer_t* timer) {
  return (struct kport_linux_timer*)timer->opaque;
}

static void kport_timer_trampoline(struct timer_list* t) {
  struct kport_linux_timer* w = from_timer(w, t, timer);

  w->fn((kport_timer_t*)w);
}

void kport_timer_setup(kport_timer_t* timer, kport_timer_fn fn) {
  struct kport_linux_timer* w = lt(timer);

  w->fn = fn;
  timer_setup(&w->timer, kport_timer_trampoline, 0);
}

void kport_timer_add(kport_timer_t* timer, unsigned long expires) {
  struct kport_linux_timer* w = lt(timer);

  w->timer.expires = expires;
  add_timer(&w->timer);
}

int kport_timer_mod(kport_timer_t* timer, unsigned long expires) {
  return mod_timer(&lt(timer)->timer, expires);
}

int kport_timer_del_sync(kport_timer_t* timer) { return del_timer_sync(&lt(timer)->timer); }

int kport_timer_pending(const kport_timer_t* timer) {
  return timer_pending(&((const struct kport_linux_timer*)timer->opaque)->timer);
}

unsigned long kport_jiffies(void) { return jiffies; }

unsigned long kport_hz(void) { return HZ; }
