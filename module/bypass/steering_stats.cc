// Hit statistics of the steering tables and the ivo proc file.
//
// The packet path counts hits in per-processor blocks (no shared line is
// written). A read of the ivo file sums them into g_stIvoDebugInfo, next to
// whole copies of both tables. Clearing one table's counters records their
// current sums as a baseline that later reads subtract (exact modulo 2^32,
// as the counters wrap), so a clear never writes another processor's block.
//
// Context: steering_count_hit on the packet path, any context, lock-free;
// the proc handlers in the reader's or writer's process context, serialised
// with table writers by the steering lock (bottom halves off).
#include "base/atomic.h"
#include "bypass/steering_internal.h"
#include "drv_vane/steering.h"
#include "kport/cxx/guard.h"
#include "kport/errno.h"
#include "kport/percpu.h"
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/uaccess.h"

BYPASS_IVO_DEBUG_INFO_S g_stIvoDebugInfo;

const struct kport_proc_ops g_bypass_ivo_stat_fop = {bypass_proc_read_ivo_stat_info,
                                                     bypass_proc_write_ivo_stat_info};

namespace vane {
namespace {

// One table's counters in a per-processor block (and in the baseline).
struct TableHits {
  u32 total;
  u32 slot[BYPASS_LB_CAUSEID_MAX];
  u32 range;
};
constexpr u32 kWordsPerTable = sizeof(TableHits) / sizeof(u32);
constexpr u32 kTables = 2;
static_assert(sizeof(TableHits) == 88, "22 counters per table");

constinit kport_percpu_t* g_hits_pcp = nullptr;
constinit TableHits g_hits_baseline[kTables] = {};  // under the steering lock

size_t offset_of(u32 table, u32 word) { return (table * kWordsPerTable + word) * sizeof(u32); }

// Sums of one table since its last clear. Under the steering lock.
void table_hits(kport_percpu_t* pcp, u32 table, TableHits* out) {
  auto* words = reinterpret_cast<u32*>(out);
  const auto* base = reinterpret_cast<const u32*>(&g_hits_baseline[table]);
  if (pcp == nullptr) {
    for (u32 i = 0; i < kWordsPerTable; ++i) words[i] = 0;
    return;
  }
  kport_percpu_sum_u32(pcp, offset_of(table, 0), words, kWordsPerTable);
  for (u32 i = 0; i < kWordsPerTable; ++i) words[i] -= base[i];
}

void refresh_image(BYPASS_IVO_DEBUG_INFO_S* img) {
  kport_percpu_t* pcp = load_acquire(&g_hits_pcp);
  steering_tables_copy(&img->stIvoTable, &img->stDeteptionTable);
  TableHits hits[kTables];
  for (u32 t = 0; t < kTables; ++t) table_hits(pcp, t, &hits[t]);
  img->ulIvoHitCnt = hits[BYPASS_LB_TABLE_IVO].total;
  img->ulDeteptionHitCnt = hits[BYPASS_LB_TABLE_DETEPTION].total;
  for (u32 i = 0; i < BYPASS_LB_CAUSEID_MAX; ++i) {
    img->aulIvoCauseIdHitCnt[i] = hits[BYPASS_LB_TABLE_IVO].slot[i];
    img->aulDeteptionCauseIdHitCnt[i] = hits[BYPASS_LB_TABLE_DETEPTION].slot[i];
  }
  img->ulIvoRangeHitCnt = hits[BYPASS_LB_TABLE_IVO].range;
  img->ulDeteptionRangeHitCnt = hits[BYPASS_LB_TABLE_DETEPTION].range;
}

void clear_table(u32 table) {
  kport_percpu_t* pcp = load_acquire(&g_hits_pcp);
  TableHits sums = {};
  if (pcp != nullptr) {
    kport_percpu_sum_u32(pcp, offset_of(table, 0), reinterpret_cast<u32*>(&sums), kWordsPerTable);
  }
  g_hits_baseline[table] = sums;
}

}  // namespace

int steering_stats_create() {
  kport_percpu_t* pcp = kport_percpu_alloc(kTables * sizeof(TableHits));
  if (pcp == nullptr) return -KPORT_ENOMEM;
  store_release(&g_hits_pcp, pcp);
  return 0;
}

void steering_stats_destroy() { kport_percpu_free(exchange_acq_rel(&g_hits_pcp, nullptr)); }

void steering_stats_reset() {
  g_stIvoDebugInfo = BYPASS_IVO_DEBUG_INFO_S{};
  for (TableHits& h : g_hits_baseline) h = TableHits{};
}

void steering_count_hit(u32 table, u32 slot) {
  kport_percpu_t* pcp = load_acquire(&g_hits_pcp);
  if (pcp == nullptr || table >= kTables || slot > kSteeringRangeSlot) return;
  kport_percpu_add_u32(pcp, offset_of(table, 0), 1);
  kport_percpu_add_u32(pcp, offset_of(table, 1 + slot), 1);
}

}  // namespace vane

extern "C" ssize_t bypass_proc_read_ivo_stat_info(struct file* file, char* ubuf, size_t count,
                                                  kport_loff_t* pos) {
  (void)file;
  // The image is refreshed under the lock, then copied out of a private
  // copy: the copy to user space may fault and sleep.
  BYPASS_IVO_DEBUG_INFO_S img;
  {
    kport::SpinGuardBh guard(vane::steering_lock());
    vane::refresh_image(&g_stIvoDebugInfo);
    img = g_stIvoDebugInfo;
  }
  return kport_simple_read_from_buffer(ubuf, count, pos, &img, sizeof(img));
}

extern "C" ssize_t bypass_proc_write_ivo_stat_info(struct file* file, const char* ubuf,
                                                   size_t count, kport_loff_t* pos) {
  (void)file;
  (void)pos;
  u32 which = 0;
  // Never read past what the writer gave.
  if (count < sizeof(which)) return -KPORT_EINVAL;
  if (kport_copy_from_user(&which, ubuf, sizeof(which)) != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass copy from user failed.\r\n");
    return -1;
  }
  if (which == BYPASS_LB_TABLE_IVO || which == BYPASS_LB_TABLE_DETEPTION) {
    kport::SpinGuardBh guard(vane::steering_lock());
    vane::clear_table(which);
    vane::refresh_image(&g_stIvoDebugInfo);  // other modules see the clear too
  }
  return static_cast<ssize_t>(count);
}
