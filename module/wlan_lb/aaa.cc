// The AAA lookups. (Stub: filled in by the tables' change.)
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
void aaa_tables_init() {}
void aaa_tables_exit() {}
}  // namespace vane

extern "C" u32 WLAN_LB_GetAAAAccessVcpuID(const WLAN_LB_ACCESS_INFO_S* pstKey, u64* pullVcpu) {
  VANE_WLAN_HOOK(aaa_mac, pstKey, pullVcpu);
  (void)pstKey;
  if (pullVcpu != nullptr) *pullVcpu = 0;
  return WLAN_LB_ERR;
}

extern "C" u32 WLAN_LB_GetAAAPortVcpuID(const WLAN_LB_PORT_INFO_S* pstKey, u32* pulVcpuNum,
                                        u8* pucVcpuIds) {
  VANE_WLAN_HOOK(aaa_port, pstKey, pulVcpuNum, pucVcpuIds);
  (void)pstKey;
  if (pulVcpuNum != nullptr && pucVcpuIds != nullptr) {
    *pulVcpuNum = 1;
    pucVcpuIds[0] = 0;
  }
  return WLAN_LB_OK;
}
