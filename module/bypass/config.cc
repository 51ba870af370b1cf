// The dispatch configuration record and control messages 5 and 6.
//
// Message 5 replaces all 22 slots while packets are dispatched on other
// processors. The record is published under a sequence count, so the
// pipeline works on one message's record from start to end instead of a
// mixture; writers (control messages from concurrent senders) are
// serialised by a spin lock with bottom halves off, so a packet arriving on
// the writer's own processor cannot spin on a half-written record.
// Other modules reading `bypass_pkt_offset` directly see each slot whole.
#include "bypass/config_internal.h"

#include "base/atomic.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/lock.h"

BYPASS_PKT_OFFSET_S bypass_pkt_offset;

namespace vane {
namespace {

constinit kport_spinlock_t g_config_write_lock{};
// Even: stable; odd: a writer is copying.
constinit u32 g_config_seq = 0;

u32* slots(BYPASS_PKT_OFFSET_S* rec) { return &rec->ulHgHdrOffset; }

void publish(const BYPASS_PKT_OFFSET_S& next) {
  kport::SpinGuardBh guard(&g_config_write_lock);
  u32 seq = load_relaxed(&g_config_seq);
  store_relaxed(&g_config_seq, seq + 1);
  // Release stores keep the odd count ahead of every slot: a reader that
  // sees a new slot also sees the count move.
  const u32* src = &next.ulHgHdrOffset;
  u32* dst = slots(&bypass_pkt_offset);
  for (u32 i = 0; i < BYPASS_PKT_OFFSET_SLOTS; ++i) store_release(&dst[i], src[i]);
  store_release(&g_config_seq, seq + 2);
}

}  // namespace

void config_init() {
  kport_spin_lock_init(&g_config_write_lock);
  u32* dst = slots(&bypass_pkt_offset);
  for (u32 i = 0; i < BYPASS_PKT_OFFSET_SLOTS; ++i) store_relaxed(&dst[i], 0);
  store_relaxed(&g_config_seq, 0);
}

void config_exit() { kport_spin_lock_destroy(&g_config_write_lock); }

void config_snapshot(BYPASS_PKT_OFFSET_S* out) {
  u32* dst = slots(out);
  const u32* src = slots(&bypass_pkt_offset);
  for (;;) {
    u32 before = load_acquire(&g_config_seq);
    if (before & 1) {
      kport_cpu_relax();
      continue;
    }
    // Acquire loads keep the second look at the count behind the slots.
    for (u32 i = 0; i < BYPASS_PKT_OFFSET_SLOTS; ++i) dst[i] = load_acquire(&src[i]);
    if (load_relaxed(&g_config_seq) == before) return;
  }
}

}  // namespace vane

extern "C" void bypass_set_pktOffsetAndDebugFlag(u32 ulMsgId, u8* pucPayload, u32 ulLen) {
  (void)ulLen;  // the receiver has checked the message's real size
  if (pucPayload == nullptr) return;
  if (ulMsgId == 5) {
    BYPASS_PKT_OFFSET_S next;
    if (memcpy_s(&next, sizeof(next), pucPayload, sizeof(next)) != 0) return;
    vane::publish(next);
  } else if (ulMsgId == 6) {
    bypass_debug(pucPayload[0]);
  }
}

extern "C" u32 bypass_isSupportMulticore(void) {
  return vane::load_relaxed(&bypass_pkt_offset.ulIsSupportMulticore);
}

extern "C" u32 bypass_get_boardType(void) {
  return vane::load_relaxed(&bypass_pkt_offset.ulBoardType);
}
