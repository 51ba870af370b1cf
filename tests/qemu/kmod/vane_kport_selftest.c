/* vane_kport_selftest.ko: exercises the pieces of the Linux kport glue that
 * drv_vane does not use yet on the scenarios' paths: timers, lock context,
 * the sysfs device model, simple_strtol, wall-clock time and the log level
 * of kport_printk. The glue sources are compiled into this module too, so it
 * tests the very code drv_vane links.
 *
 * The checks run at load; the load fails (-EINVAL) when one fails, and the
 * kernel log names it ("vane-kport-selftest: FAIL <check>"). The module then
 * leaves for user space:
 *   /sys/class/vane_kport_test/vane_kport_test/value   a number: show prints
 *       it and "\n", store parses it with kport_simple_strtol
 *   an alert line "vane-kport-selftest: alert 7" printed with kport_printk. */
#include <linux/delay.h>
#include <linux/interrupt.h>
#include <linux/kdev_t.h>
#include <linux/module.h>
#include <linux/preempt.h>

#include "../../../kport/linux/lib.c"
#include "../../../kport/linux/lock.c"
#include "../../../kport/linux/printk.c"
#include "../../../kport/linux/sysfs.c"
#include "../../../kport/linux/time.c"
#include "../../../kport/linux/timer.c"

#define ST "vane-kport-selftest: "
#define ST_NAME "vane_kport_test"

static int st_failed;

static void st_check(bool ok, const char* what) {
  if (!ok) {
    pr_err(ST "FAIL %s\n", what);
    st_failed++;
  }
}

/* ---- timers: the callback gets the kport storage back, may re-arm itself,
 * and del_sync reports whether the timer was pending. */
struct st_timer {
  kport_timer_t timer; /* first, so the callback casts back */
  atomic_t fired;
  int rearm;
  kport_timer_t* seen;
};

static void st_timer_fn(kport_timer_t* t) {
  struct st_timer* s = (struct st_timer*)t;

  s->seen = t;
  atomic_inc(&s->fired);
  if (s->rearm-- > 0) kport_timer_mod(t, kport_jiffies() + 1);
}

static bool st_wait_fired(struct st_timer* s, int count) {
  int i;

  for (i = 0; i < 200 && atomic_read(&s->fired) < count; i++) msleep(5);
  return atomic_read(&s->fired) >= count;
}

static void st_timers(void) {
  static struct st_timer s;
  unsigned long j0 = kport_jiffies();

  st_check(kport_hz() == HZ, "hz");
  kport_timer_setup(&s.timer, st_timer_fn);
  st_check(!kport_timer_pending(&s.timer), "timer idle after setup");
  s.rearm = 1;
  kport_timer_add(&s.timer, kport_jiffies() + 1);
  st_check(kport_timer_pending(&s.timer), "timer pending after add");
  st_check(st_wait_fired(&s, 2), "timer fired and re-armed from its callback");
  st_check(s.seen == &s.timer, "callback got the kport storage");
  st_check(kport_time_after(kport_jiffies(), j0), "jiffies advance");
  msleep(20);
  st_check(!kport_timer_pending(&s.timer), "timer idle after firing");
  st_check(kport_timer_del_sync(&s.timer) == 0, "del_sync of an idle timer");

  kport_timer_add(&s.timer, kport_jiffies() + 100 * HZ);
  st_check(kport_timer_mod(&s.timer, kport_jiffies() + 50 * HZ) == 1, "mod of a pending timer");
  st_check(kport_timer_del_sync(&s.timer) == 1, "del_sync of a pending timer");
  st_check(!kport_timer_pending(&s.timer), "timer idle after del_sync");
}

/* ---- locks: the _bh forms keep bottom halves off while held (so a softirq
 * taking the same lock cannot interrupt the holder), irqsave masks
 * interrupts and restores the previous state. */
static void st_locks(void) {
  static kport_rwlock_t rw;
  static kport_spinlock_t sl;
  unsigned long flags;

  kport_rwlock_init(&rw);
  kport_spin_lock_init(&sl);

  kport_read_lock(&rw);
  st_check(softirq_count() != 0, "read lock disables bottom halves");
  kport_read_unlock(&rw);
  kport_write_lock(&rw);
  st_check(softirq_count() != 0, "write lock disables bottom halves");
  kport_write_unlock(&rw);
  st_check(softirq_count() == 0, "rwlock unlock enables bottom halves");

  kport_spin_lock_bh(&sl);
  st_check(softirq_count() != 0, "spin_lock_bh disables bottom halves");
  kport_spin_unlock_bh(&sl);

  kport_spin_lock_irqsave(&sl, &flags);
  st_check(irqs_disabled(), "spin_lock_irqsave masks interrupts");
  kport_spin_unlock_irqrestore(&sl, flags);
  st_check(!irqs_disabled(), "spin_unlock_irqrestore restores interrupts");
  kport_cpu_relax();
  kport_rwlock_destroy(&rw);
  kport_spin_lock_destroy(&sl);
}

/* ---- simple_strtol: base detection, sign, stop at the first non-digit,
 * no white space skipped. */
static void st_strtol(void) {
  static const struct {
    const char* text;
    unsigned int base;
    long value;
    int used;
  } cases[] = {
      {"0x1f,", 0, 31, 4}, {"-12z", 10, -12, 3}, {"0x", 0, 0, 1},  {"077", 0, 63, 3},
      {" 5", 10, 0, 0},    {"ff", 16, 255, 2},   {"19", 0, 19, 2},
  };
  size_t i;

  for (i = 0; i < ARRAY_SIZE(cases); i++) {
    char* end = NULL;
    long v = kport_simple_strtol(cases[i].text, &end, cases[i].base);

    if (v != cases[i].value || end != cases[i].text + cases[i].used) {
      pr_err(ST "FAIL strtol(\"%s\", %u) = %ld, used %td\n", cases[i].text, cases[i].base, v,
             end - cases[i].text);
      st_failed++;
    }
  }
}

static int st_format(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  int n;

  va_start(ap, fmt);
  n = kport_vsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

static void st_time_and_format(void) {
  struct kport_timespec64 ts;
  char buf[8];

  kport_ktime_get_real_ts64(&ts);
  st_check(ts.tv_sec > 1600000000 && ts.tv_nsec >= 0 && ts.tv_nsec < 1000000000, "wall clock");
  st_check(st_format(buf, sizeof(buf), "%s", "123456789") == 9 && !strcmp(buf, "1234567"),
           "vsnprintf reports the untruncated length");
  kport_printk(KPORT_LOGLEVEL_ALERT, ST "alert %d\n", 7);
}

/* ---- sysfs: a class, a device and one read-write attribute. */
static struct kport_class* st_class;
static struct device* st_dev;
static long st_value = 5;
static struct kport_device_attr st_attr;

static ssize_t st_show(struct device* dev, struct kport_device_attr* attr, char* page) {
  if (attr != &st_attr || dev != st_dev) return -EINVAL;
  return snprintf(page, KPORT_PAGE_SIZE, "%ld\n", st_value);
}

static ssize_t st_store(struct device* dev, struct kport_device_attr* attr, const char* buf,
                        size_t count) {
  if (attr != &st_attr || dev != st_dev) return -EINVAL;
  st_value = kport_simple_strtol(buf, NULL, 0);
  return count;
}

static int st_sysfs(void) {
  st_class = kport_class_create(ST_NAME);
  if (!st_class) return -ENOMEM;
  st_dev = kport_device_create(st_class, MKDEV(0, 0), ST_NAME);
  if (!st_dev) goto out_class;
  st_attr.name = "value";
  st_attr.mode = 0644;
  st_attr.show = st_show;
  st_attr.store = st_store;
  if (kport_device_create_file(st_dev, &st_attr)) goto out_dev;
  return 0;
out_dev:
  kport_device_destroy(st_class, MKDEV(0, 0));
  st_dev = NULL;
out_class:
  kport_class_destroy(st_class);
  st_class = NULL;
  return -ENOMEM;
}

static int __init st_init(void) {
  st_timers();
  st_locks();
  st_strtol();
  st_time_and_format();
  st_check(st_sysfs() == 0, "sysfs class, device and attribute");
  if (st_failed) {
    if (st_dev) {
      kport_device_remove_file(st_dev, &st_attr);
      kport_device_destroy(st_class, MKDEV(0, 0));
    }
    if (st_class) kport_class_destroy(st_class);
    return -EINVAL;
  }
  return 0;
}

static void __exit st_exit(void) {
  kport_device_remove_file(st_dev, &st_attr);
  kport_device_destroy(st_class, MKDEV(0, 0));
  kport_class_destroy(st_class);
}

module_init(st_init);
module_exit(st_exit);
MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Test helper: self-test of the Linux kport glue");
