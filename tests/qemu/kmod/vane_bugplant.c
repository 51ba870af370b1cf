/* vane_bugplant.ko: plants one kernel bug on request, so that the harness
 * can prove that each detector of the debug kernels reports here. A clean run
 * means something only if the same run would have failed on a real bug.
 *
 * Test-only: built only when the harness asks for it (VANE_BUGPLANT=m), never
 * shipped with the product's modules.
 *
 *   insmod vane_bugplant.ko bug=NAME
 *
 *   oob        reads one byte past a 16-byte allocation         (KASAN)
 *   lockinv    takes A then B in process context, B then A in a
 *              timer: a circular lock order                     (lockdep)
 *   sleep      a sleeping allocation under a spin lock          (might_sleep)
 *   timerfree  frees memory that holds a pending timer          (debug objects)
 *   leak       loses the only pointer to an allocation          (kmemleak)
 *   race       plain increments on one processor against plain
 *              reads on the other                               (KCSAN)
 *
 * Loading succeeds whatever the detector says, so the serial log, not the
 * insmod status, tells whether the report came. */
#include <linux/completion.h>
#include <linux/delay.h>
#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/timer.h>

static char* bug = "";
module_param(bug, charp, 0444);
MODULE_PARM_DESC(bug, "the bug to plant: oob, lockinv, sleep, timerfree, leak or race");

/* ---- oob ---------------------------------------------------------------- */

static noinline u8 read_at(const u8* p, size_t i) { return p[i]; }

static void plant_oob(void) {
  u8* p = kmalloc(16, GFP_KERNEL);

  if (!p) return;
  memset(p, 0, 16);
  pr_info("vane_bugplant: oob read gave %u\n", read_at(p, 16));
  kfree(p);
}

/* ---- lockinv ------------------------------------------------------------ */

static DEFINE_SPINLOCK(lock_a);
static DEFINE_SPINLOCK(lock_b);
static struct timer_list inv_timer;
static DECLARE_COMPLETION(inv_done);

static void inv_timer_fn(struct timer_list* t) {
  spin_lock(&lock_b);
  spin_lock(&lock_a);
  spin_unlock(&lock_a);
  spin_unlock(&lock_b);
  complete(&inv_done);
}

static void plant_lockinv(void) {
  spin_lock_bh(&lock_a);
  spin_lock(&lock_b);
  spin_unlock(&lock_b);
  spin_unlock_bh(&lock_a);

  timer_setup(&inv_timer, inv_timer_fn, 0);
  mod_timer(&inv_timer, jiffies + 1);
  wait_for_completion_timeout(&inv_done, 5 * HZ);
  del_timer_sync(&inv_timer);
}

/* ---- sleep -------------------------------------------------------------- */

static DEFINE_SPINLOCK(sleep_lock);

static void plant_sleep(void) {
  void* p;

  spin_lock(&sleep_lock);
  p = kmalloc(64, GFP_KERNEL);
  spin_unlock(&sleep_lock);
  kfree(p);
}

/* ---- timerfree ---------------------------------------------------------- */

struct timed {
  struct timer_list timer;
};

static void timed_fn(struct timer_list* t) {}

static void plant_timerfree(void) {
  struct timed* t = kmalloc(sizeof(*t), GFP_KERNEL);

  if (!t) return;
  timer_setup(&t->timer, timed_fn, 0);
  mod_timer(&t->timer, jiffies + 1000 * HZ);
  /* The bug: the timer is still pending. Debug objects catch the free and
   * deactivate the timer, so the kernel survives to report it. */
  kfree(t);
}

/* ---- leak --------------------------------------------------------------- */

static void* volatile leak_sink;

static void plant_leak(void) {
  leak_sink = kmalloc(128, GFP_KERNEL);
  /* Forget it: nothing points at the 128 bytes any more. */
  leak_sink = NULL;
}

/* ---- race --------------------------------------------------------------- */

static unsigned long shared_counter;
static struct completion race_done[2];

static int race_writer(void* unused) {
  unsigned long end = jiffies + 3 * HZ;

  while (time_before(jiffies, end)) {
    shared_counter++;
    cpu_relax();
  }
  complete(&race_done[0]);
  return 0;
}

static int race_reader(void* unused) {
  unsigned long end = jiffies + 3 * HZ, seen = 0;

  while (time_before(jiffies, end)) {
    seen += shared_counter;
    cpu_relax();
  }
  pr_info("vane_bugplant: reader saw %lu\n", seen);
  complete(&race_done[1]);
  return 0;
}

static void plant_race(void) {
  int (*fns[2])(void*) = {race_writer, race_reader};
  int cpu;

  for (cpu = 0; cpu < 2; cpu++) {
    struct task_struct* t;

    init_completion(&race_done[cpu]);
    t = kthread_create(fns[cpu], NULL, "vane_race/%d", cpu);
    if (IS_ERR(t)) {
      complete(&race_done[cpu]);
      continue;
    }
    kthread_bind(t, cpu);
    wake_up_process(t);
  }
  for (cpu = 0; cpu < 2; cpu++) wait_for_completion(&race_done[cpu]);
}

/* ------------------------------------------------------------------------- */

static const struct {
  const char* name;
  void (*plant)(void);
} bugs[] = {
    {"oob", plant_oob},     {"lockinv", plant_lockinv},
    {"sleep", plant_sleep}, {"timerfree", plant_timerfree},
    {"leak", plant_leak},   {"race", plant_race},
};

static int __init bugplant_init(void) {
  size_t i;

  for (i = 0; i < ARRAY_SIZE(bugs); i++) {
    if (strcmp(bug, bugs[i].name) == 0) {
      pr_info("vane_bugplant: planting %s\n", bug);
      bugs[i].plant();
      pr_info("vane_bugplant: planted %s\n", bug);
      return 0;
    }
  }
  pr_err("vane_bugplant: unknown bug '%s'\n", bug);
  return -EINVAL;
}

static void __exit bugplant_exit(void) {}

module_init(bugplant_init);
module_exit(bugplant_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Test-only: plants one kernel bug for the detector proofs");
