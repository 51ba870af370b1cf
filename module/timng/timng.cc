// TIMNG cause-ID steering: messages 14 and 15 name up to two cause IDs and
// their nodes, and whether this board is the master.
//
// Context: TIMNG_LB_InitKernel runs in the sending process's context; the
// writers' spin lock (bottom halves off) serialises concurrent messages, so
// two of them can never take the same slot or lose a count. Entries and the
// master flag are published under a sequence count; the packet path reads
// them lock-free and retries when a message changed them under it.
#include "drv_vane/timng.h"
#include "base/seqcount.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "kport/cxx/guard.h"
#include "kport/lock.h"
#include "timng/timng_internal.h"

TIMNG_KERNEL_INFO_S g_timngKernelInfo[TIMNG_KERNEL_INFO_MAX];
u32 g_timngKernelInfoCnt;
u32 g_TimngBoardType;

namespace vane {
namespace {

constinit kport_spinlock_t g_timng_lock = {};
constinit SeqCount g_timng_seq;

enum class Outcome { kRefused, kInit, kMaster, kOther };

}  // namespace

void timng_init() {
  for (TIMNG_KERNEL_INFO_S& e : g_timngKernelInfo) e = TIMNG_KERNEL_INFO_S{};
  g_timngKernelInfoCnt = 0;
  g_TimngBoardType = 0;
  g_timng_seq.reset();
  kport_spin_lock_init(&g_timng_lock);
}

void timng_exit() { kport_spin_lock_destroy(&g_timng_lock); }

TimngView timng_lookup(u16 cause) {
  TimngView v;
  u32 s = 0;
  do {
    s = g_timng_seq.read_begin();
    v = TimngView{};
    v.board_type = seq_load(&g_TimngBoardType);
    // Both entries are compared whatever the count: an unfilled entry holds
    // cause ID 0 and so names cause ID 0.
    for (const TIMNG_KERNEL_INFO_S& e : g_timngKernelInfo) {
      if (seq_load(&e.causeid) == cause) {
        v.found = true;
        v.node = seq_load(&e.nodeId);
        v.frag_scan = seq_load(&e.isFragScan);
        break;
      }
    }
  } while (g_timng_seq.read_retry(s));
  return v;
}

}  // namespace vane

extern "C" void TIMNG_LB_InitKernel(u32 ulMsgId, u8* pucMsg, u32 ulLen) {
  using namespace vane;
  (void)ulLen;
  if (pucMsg == nullptr) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\rTIMNG Init fail: invalid param.");
    return;
  }
  TIMNG_KERNEL_MSG_S msg;
  __builtin_memcpy(&msg, pucMsg, sizeof(msg));  // the payload need not be aligned

  Outcome outcome = Outcome::kOther;
  TIMNG_KERNEL_INFO_S logged = {};
  {
    kport::SpinGuardBh guard(&g_timng_lock);
    u32 n = g_timngKernelInfoCnt;
    if (n >= TIMNG_KERNEL_INFO_MAX) {
      outcome = Outcome::kRefused;
    } else {
      g_timng_seq.write_begin();
      // Any id uses up a slot, even one that fills nothing.
      store_relaxed(&g_timngKernelInfoCnt, n + 1);
      TIMNG_KERNEL_INFO_S* e = &g_timngKernelInfo[n];
      if (ulMsgId == NETLINK_MID_TIMNG) {
        seq_store(&e->causeid, msg.causeid);
        seq_store(&e->nodeId, msg.nodeId);
        seq_store(&e->isFragScan, msg.isFragScan);
        seq_store(&g_TimngBoardType, msg.isMaster);
        outcome = Outcome::kInit;
      } else if (ulMsgId == NETLINK_MID_TIMNG_MASTER) {
        seq_store(&g_TimngBoardType, msg.isMaster);
        outcome = Outcome::kMaster;
      }
      g_timng_seq.write_end();
      logged = *e;
    }
  }
  switch (outcome) {
    case Outcome::kRefused:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\rTIMNG Init fail: kernel info num exceeds limit.");
      break;
    case Outcome::kInit:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r TIMNG Init: causeid=%u, nodeId=%u, isMaster=%u",
                       msg.causeid, msg.nodeId, msg.isMaster);
      break;
    case Outcome::kMaster:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                       "\r TIMNG Master: causeid=%u, nodeId=%u, isMaster=%u", logged.causeid,
                       logged.nodeId, msg.isMaster);
      break;
    case Outcome::kOther:
      break;
  }
}

extern "C" u32 TIMNG_GetVcpuIdByCauseid(u16 usCauseId, u32* pulVcpuCnt, u8* pucVcpuList) {
  vane::TimngView v = vane::timng_lookup(usCauseId);
  if (v.board_type == 0) return TIMNG_VCPU_OK;
  if (!v.found) return TIMNG_VCPU_NOT_NAMED;
  if (pulVcpuCnt == nullptr || pucVcpuList == nullptr) return TIMNG_VCPU_NOT_NAMED;
  *pulVcpuCnt = 1;
  pucVcpuList[0] = static_cast<u8>(v.node);
  return TIMNG_VCPU_OK;
}
