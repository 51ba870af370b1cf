// The CAPWAP and keep-alive tables. (Stub: filled in by the tables' change.)
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit HASH_TABLE_S* g_CAPWAP_LB_Table = nullptr;
constinit HASH_TABLE_S* g_CAPWAP_KEEP_ALIVE_LB_Table = nullptr;
}

namespace vane {
void capwap_tables_exit() {}
}  // namespace vane

extern "C" u32 WLAN_LB_GetVCPUIDByCAPWAPKey(const WLAN_LB_FIVE_TUPLE_S* pstKey, u64* pullVcpu) {
  VANE_WLAN_HOOK(capwap, pstKey, pullVcpu);
  (void)pstKey;
  (void)pullVcpu;
  return WLAN_LB_ERR;
}

extern "C" u32 WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(const WLAN_LB_SESSION_KEY_S* pstKey,
                                                     u64* pullVcpu) {
  VANE_WLAN_HOOK(capwap_ka, pstKey, pullVcpu);
  (void)pstKey;
  (void)pullVcpu;
  return WLAN_LB_ERR;
}
