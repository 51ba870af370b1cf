/* Wall-clock time. */
#include <linux/ktime.h>
#include <linux/timekeeping.h>

#include "kport/time.h"

void kport_ktime_get_real_ts64(struct kport_timespec64* ts) {
  struct timespec64 now;

  ktime_get_real_ts64(&now);
  ts->tv_sec = now.tv_sec;
  ts->tv_nsec = now.tv_nsec;
}
