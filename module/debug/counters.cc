// The packet counters. Raised from the packet path on every processor at
// once: each increment is one relaxed atomic add, so no count is lost, and a
// reader sees every counter whole (the table as a whole is a snapshot of
// moving values).
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/dispatch.h"

u32 g_bypassPktCounts[BYPASS_PKT_COUNT_NUM];

namespace vane {

void counters_reset() {
  for (u32& c : g_bypassPktCounts) store_relaxed(&c, 0);
}

void count_packet(u32 index) {
  if (index < BYPASS_PKT_COUNT_NUM) fetch_add_relaxed(&g_bypassPktCounts[index], 1);
}

void counters_snapshot(u32* out) {
  for (u32 i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) out[i] = load_relaxed(&g_bypassPktCounts[i]);
}

}  // namespace vane
