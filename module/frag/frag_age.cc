// Ageing sweeps of the fragment tables: every period each record ages by
// one step, and a record that no fragment touched for seven sweeps goes.
//
// Context: the table's timer (softirq on Linux, the timer thread in user
// space). The whole sweep and the re-arm run under the table's write lock;
// every other holder of that lock keeps bottom halves off, so the sweep
// never interrupts a holder on its own processor. Shut-down stops the timer
// with del_sync before the table is freed.
#include "drv_vane/frag.h"
#include "kport/cxx/guard.h"
#include "kport/timer.h"

namespace vane {
namespace {

// The age byte's offset within a record of the table.
void sweep(kport_timer_t* timer, u32 age_offset) {
  const unsigned long now = kport_jiffies();
  if (timer == nullptr) return;
  auto* table = reinterpret_cast<HASH_TABLE_S*>(timer);
  kport::WriteGuard guard(&table->stLock);
  if (table->ulElemCnt != 0) {
    for (u64 i = 0; i < table->ulBucketNum; ++i) {
      LIST_HEAD_S* bucket = &table->astBucket[i];
      if (bucket->usNodeCnt == 0) continue;
      for (LIST_NODE_S* node = bucket->pstHead; node != nullptr;) {
        LIST_NODE_S* next = node->pstNext;
        if (node->pData == nullptr) goto rearm;
        u8* age = static_cast<u8*>(node->pData) + age_offset;
        *age = static_cast<u8>(*age + BYPASS_FRAG_AGE_STEP);
        if (*age > BYPASS_FRAG_AGE_LIMIT) HASH_RemoveNodeByAddress(table, bucket, node);
        node = next;
      }
    }
  }
rearm:
  kport_timer_mod(&table->stTimer, now + static_cast<unsigned long>(table->lTimerPeriod));
}

}  // namespace
}  // namespace vane

extern "C" void bypass_ipv4frag_timer_callback(kport_timer_t* pstTimer) {
  vane::sweep(pstTimer, KPORT_OFFSETOF(BYPASS_IPV4_FRAG_INFO_S, ucAge));
}

extern "C" void bypass_ipv6frag_timer_callback(kport_timer_t* pstTimer) {
  vane::sweep(pstTimer, KPORT_OFFSETOF(BYPASS_IPV6_FRAG_INFO_S, ucAge));
}
