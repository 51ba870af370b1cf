/* Wall-clock time. Any context. */
#ifndef KPORT_TIME_H
#define KPORT_TIME_H

#include "kport/compiler.h"
#include "kport/types.h"

struct kport_timespec64 {
  s64 tv_sec;
  long tv_nsec;
};

KPORT_EXTERN_C_BEGIN

/* ktime_get_real_ts64(). */
void kport_ktime_get_real_ts64(struct kport_timespec64* ts);

KPORT_EXTERN_C_END

#endif /* KPORT_TIME_H */
