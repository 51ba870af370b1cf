// Wall-clock time: the real clock, or a fixed instant a test chose.
#include <time.h>

#include <mutex>
#include <optional>

#include "kport/time.h"
#include "kport/user/testing.h"

namespace kport::user::clock {
namespace {

std::mutex g_mu;
std::optional<kport_timespec64> g_fixed;

}  // namespace

void FixWallClock(int64_t sec, long nsec) {
  std::lock_guard lock(g_mu);
  g_fixed = kport_timespec64{sec, nsec};
}

void UseRealWallClock() {
  std::lock_guard lock(g_mu);
  g_fixed.reset();
}

}  // namespace kport::user::clock

extern "C" void kport_ktime_get_real_ts64(struct kport_timespec64* ts) {
  {
    std::lock_guard lock(kport::user::clock::g_mu);
    if (kport::user::clock::g_fixed) {
      *ts = *kport::user::clock::g_fixed;
      return;
    }
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  ts->tv_sec = now.tv_sec;
  ts->tv_nsec = now.tv_nsec;
}
