// The packet counters. The packet path raises them on every processor at
// once, so the live counters are per-processor blocks: an increment touches
// only the local block and no cache line moves between processors. Readers
// sum the blocks.
//
// Clearing cannot zero other processors' blocks without racing their
// increments, so a clear records the current sums as a baseline and every
// later read reports sum - baseline. Both are wrapping 32-bit values, so the
// difference is exact modulo 2^32, as the plain counters it replaces were.
//
// g_bypassPktCounts stays the exported 960-counter image: the summed values
// as of the last read of the counts file (or of counters_snapshot), zero
// after a clear. Other modules that read it see the last read's figures.
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/dispatch.h"
#include "kport/errno.h"
#include "kport/percpu.h"

u32 g_bypassPktCounts[BYPASS_PKT_COUNT_NUM];

namespace vane {
namespace {

constinit kport_percpu_t* g_counts_pcp = nullptr;
// Sums at the last clear.
constinit u32 g_counts_baseline[BYPASS_PKT_COUNT_NUM] = {};

}  // namespace

void counters_reset() {
  for (u32 i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) {
    store_relaxed(&g_counts_baseline[i], 0);
    store_relaxed(&g_bypassPktCounts[i], 0);
  }
}

int counters_create() {
  kport_percpu_t* pcp = kport_percpu_alloc(sizeof(g_bypassPktCounts));
  if (pcp == nullptr) return -KPORT_ENOMEM;
  store_release(&g_counts_pcp, pcp);
  return 0;
}

void counters_destroy() { kport_percpu_free(exchange_acq_rel(&g_counts_pcp, nullptr)); }

void count_packet(u32 index) {
  kport_percpu_t* pcp = load_acquire(&g_counts_pcp);
  if (pcp == nullptr || index >= BYPASS_PKT_COUNT_NUM) return;
  kport_percpu_add_u32(pcp, index * sizeof(u32), 1);
}

void counters_snapshot(u32* out) {
  kport_percpu_t* pcp = load_acquire(&g_counts_pcp);
  if (pcp == nullptr) {
    for (u32 i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) out[i] = 0;
    return;
  }
  kport_percpu_sum_u32(pcp, 0, out, BYPASS_PKT_COUNT_NUM);
  for (u32 i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) {
    out[i] -= load_relaxed(&g_counts_baseline[i]);
    store_relaxed(&g_bypassPktCounts[i], out[i]);
  }
}

void counters_clear() {
  kport_percpu_t* pcp = load_acquire(&g_counts_pcp);
  for (u32 i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) {
    // Counter by counter, so that a clear needs no buffer and cannot fail.
    u32 sum = 0;
    if (pcp != nullptr) kport_percpu_sum_u32(pcp, i * sizeof(u32), &sum, 1);
    store_relaxed(&g_counts_baseline[i], sum);
    store_relaxed(&g_bypassPktCounts[i], 0);
  }
}

}  // namespace vane
