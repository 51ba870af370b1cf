// The ivo and deteption cause-ID steering tables: message 11 writes them,
// the dispatch pipeline looks cause IDs up in them.
//
// Context: bypass_set_ivo_lb_table runs in the sending process's context and
// takes the writers' spin lock with bottom halves off; the lookup runs on the
// packet path on any processor, lock-free under the sequence count, and
// retries if a writer changed the table under it.
#include "drv_vane/steering.h"
#include "base/seqcount.h"
#include "bypass/steering_internal.h"
#include "kport/cxx/guard.h"
#include "kport/lock.h"
#include "kport/printk.h"

BYPASS_LB_TABLE_S g_bypass_ivo_lb_table;
BYPASS_LB_TABLE_S g_bypass_deteption_lb_table;

namespace vane {
namespace {

constinit kport_spinlock_t g_steering_lock = {};
constinit SeqCount g_steering_seq;

BYPASS_LB_TABLE_S* table_of(u32 type) {
  return type == BYPASS_LB_TABLE_DETEPTION ? &g_bypass_deteption_lb_table : &g_bypass_ivo_lb_table;
}

// A table's answer for one cause ID: the slot that matched (list index, or
// kSteeringRangeSlot), or kNoMatch.
constexpr u32 kNoMatch = ~0u;
struct Match {
  u32 slot = kNoMatch;
  u8 vcpu = 0;
};

// Inside a read section: every field through seq_load.
Match match(const BYPASS_LB_TABLE_S* t, u16 cause) {
  Match m;
  if (seq_load(&t->ulEnable) == 0) return m;
  u32 num = seq_load(&t->ulCauseIdNum);
  // A count above the list's size means the list was never valid: only the
  // range can match.
  if (num <= BYPASS_LB_CAUSEID_MAX) {
    for (u32 i = 0; i < num; ++i) {
      if (seq_load(&t->ausCauseId[i]) == cause) {
        m.slot = i;
        break;
      }
    }
  }
  if (m.slot == kNoMatch) {
    u16 lo = seq_load(&t->usCauseIdMin);
    u16 hi = seq_load(&t->usCauseIdMax);
    if (lo != 0 && lo <= cause && cause <= hi) m.slot = kSteeringRangeSlot;
  }
  if (m.slot != kNoMatch) m.vcpu = static_cast<u8>(seq_load(&t->ulVcpuId));
  return m;
}

void print_table(const BYPASS_LB_TABLE_S& t, const char* title, const char* name) {
  kport_printk(KPORT_LOGLEVEL_ALERT, "%s", title);
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n%s  enable:%u", name, t.ulEnable);
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n%s  vcpuid:%u", name, t.ulVcpuId);
  if (t.ulCauseIdNum > BYPASS_LB_CAUSEID_MAX) return;
  for (u32 i = 0; i < t.ulCauseIdNum; ++i) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n%s  causeid[%u]:%u", name, i, t.ausCauseId[i]);
  }
}

}  // namespace

void steering_init() {
  g_bypass_ivo_lb_table = BYPASS_LB_TABLE_S{};
  g_bypass_deteption_lb_table = BYPASS_LB_TABLE_S{};
  g_steering_seq.reset();
  kport_spin_lock_init(&g_steering_lock);
  steering_stats_reset();
}

void steering_exit() { kport_spin_lock_destroy(&g_steering_lock); }

kport_spinlock_t* steering_lock() { return &g_steering_lock; }

void steering_tables_copy(BYPASS_LB_TABLE_S* ivo, BYPASS_LB_TABLE_S* deteption) {
  // Writers are excluded by the caller's hold of the lock; the packet path
  // only reads, so plain copies are whole.
  *ivo = g_bypass_ivo_lb_table;
  *deteption = g_bypass_deteption_lb_table;
}

}  // namespace vane

extern "C" void bypass_set_ivo_lb_table(u32 ulMsgId, u8* pucMsg, u32 ulLen) {
  using namespace vane;
  (void)ulMsgId;
  (void)ulLen;
  if (pucMsg == nullptr) return;
  BYPASS_LB_TABLE_S msg;
  __builtin_memcpy(&msg, pucMsg, sizeof(msg));  // the payload need not be aligned
  if (msg.ulTableType > BYPASS_LB_TABLE_DETEPTION) return;
  BYPASS_LB_TABLE_S* t = table_of(msg.ulTableType);

  kport::SpinGuardBh guard(&g_steering_lock);
  g_steering_seq.write_begin();
  seq_store(&t->ulEnable, msg.ulEnable);
  seq_store(&t->ulVcpuId, msg.ulVcpuId);
  // An oversized count takes over only the enable flag and the vCPU; list
  // slots past a valid count keep their old values.
  if (msg.ulCauseIdNum <= BYPASS_LB_CAUSEID_MAX) {
    seq_store(&t->ulCauseIdNum, msg.ulCauseIdNum);
    for (u32 i = 0; i < msg.ulCauseIdNum; ++i) seq_store(&t->ausCauseId[i], msg.ausCauseId[i]);
    seq_store(&t->usCauseIdMin, msg.usCauseIdMin);
    seq_store(&t->usCauseIdMax, msg.usCauseIdMax);
  }
  g_steering_seq.write_end();
}

extern "C" u32 bypass_msg_get_ivo_vcpuid(u16 usCauseId, u32* pulVcpuCnt, u8* pucVcpuList) {
  using namespace vane;
  if (pulVcpuCnt == nullptr || pucVcpuList == nullptr) return BYPASS_IVO_BAD_ARG;
  Match m;
  u32 table = BYPASS_LB_TABLE_IVO;
  u32 s = 0;
  do {
    s = g_steering_seq.read_begin();
    table = BYPASS_LB_TABLE_IVO;
    m = match(&g_bypass_ivo_lb_table, usCauseId);
    if (m.slot == kNoMatch) {
      table = BYPASS_LB_TABLE_DETEPTION;
      m = match(&g_bypass_deteption_lb_table, usCauseId);
    }
  } while (g_steering_seq.read_retry(s));
  if (m.slot == kNoMatch) return BYPASS_IVO_MISS;
  *pulVcpuCnt = 1;
  pucVcpuList[0] = m.vcpu;
  steering_count_hit(table, m.slot);
  return BYPASS_IVO_HIT;
}

extern "C" void bypass_print_ivo_table_info(void) {
  using namespace vane;
  BYPASS_LB_TABLE_S ivo;
  BYPASS_LB_TABLE_S deteption;
  {
    kport::SpinGuardBh guard(&g_steering_lock);
    steering_tables_copy(&ivo, &deteption);
  }
  print_table(ivo, "\r\n********ivo lb table***********\r\n", "Ivo");
  print_table(deteption, "\r\n\r\n********deteption lb table***********\r\n", "Deteption");
}
