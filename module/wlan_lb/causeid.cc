// The cause ID's LB type, as the packet path asks for it.
//
// The cause-ID table arrives with the WLAN configuration messages; until then
// no cause ID is load-balanced, which is also what a freshly loaded module
// answers before its first LB configuration. Context: any; lock-free.
#include "drv_vane/wlan_lb.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" u32 WLAN_LB_IsNeedLBPkt(u16 usCauseId, u32* pulLbType, u64* pullPktType) {
  if (pulLbType == nullptr || pullPktType == nullptr) return WLAN_LB_ERR;
#ifndef __KERNEL__
  if (const vane::WlanLbTestHooks* h = vane::wlan_lb_test_hooks(); h && h->is_need_lb) {
    return h->is_need_lb(usCauseId, pulLbType, pullPktType);
  }
#endif
  // Seam: the cause-ID table's probe goes here.
  (void)usCauseId;
  *pulLbType = WLAN_LB_TYPE_NONE;
  *pullPktType = WLAN_LB_PKT_TYPE_NONE;
  return WLAN_LB_ERR;
}
