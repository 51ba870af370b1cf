/* Kernel timers and the tick counter.
 *
 * A timer is opaque storage embedded in its owner. The callback receives the
 * address of that storage, so an owner that places the timer first may cast
 * it back to itself. Callbacks run in timer (softirq) context on Linux and on
 * the backend's timer thread, or inside kport_user's manual clock, in user
 * space: they must not sleep.
 *
 * Ticks wrap; compare them with kport_time_after(). The tick rate (HZ) is the
 * backend's; kport_hz() tells it. */
#ifndef KPORT_TIMER_H
#define KPORT_TIMER_H

#include "kport/compiler.h"
#include "kport/types.h"

#define KPORT_TIMER_SIZE 96

typedef struct kport_timer {
  unsigned char opaque[KPORT_TIMER_SIZE] KPORT_ALIGNED(8);
} kport_timer_t;

typedef void (*kport_timer_fn)(kport_timer_t* timer);

KPORT_EXTERN_C_BEGIN

/* timer_setup(): binds the callback; the timer is not pending afterwards. */
void kport_timer_setup(kport_timer_t* timer, kport_timer_fn fn);
/* add_timer() with the given expiry; the timer must not be pending. */
void kport_timer_add(kport_timer_t* timer, unsigned long expires);
/* mod_timer(): (re)starts the timer; 1 if it was pending, else 0. Callable
 * from the timer's own callback. */
int kport_timer_mod(kport_timer_t* timer, unsigned long expires);
/* del_timer_sync(): stops the timer and waits for a running callback to
 * finish; 1 if it was pending. Never call it from the timer's own callback or
 * while holding a lock that the callback takes. */
int kport_timer_del_sync(kport_timer_t* timer);
int kport_timer_pending(const kport_timer_t* timer);

/* jiffies. */
unsigned long kport_jiffies(void);
/* HZ. */
unsigned long kport_hz(void);

KPORT_EXTERN_C_END

static inline int kport_time_after(unsigned long a, unsigned long b) { return (long)(b - a) < 0; }

#endif /* KPORT_TIMER_H */
