// The packet's vCPUs by LB type: one entry that picks the table.
//
// Context: the packet path, any processor; reads tables only, takes no lock,
// allocates nothing. The per-table lookups live with their tables.
#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" u32 WLAN_LB_GetPktVCPUID(const void* pKey, u32 ulLBType, u32* pulVcpuNum,
                                    u8* pucVcpuIds) {
  if (pKey == nullptr || pulVcpuNum == nullptr || pucVcpuIds == nullptr) return WLAN_LB_ERR;
  u32 ret = WLAN_LB_OK;
  u64 vcpu = 0;
  switch (ulLBType) {
    case LB_CAPWAP:
      ret = WLAN_LB_GetVCPUIDByCAPWAPKey(static_cast<const WLAN_LB_FIVE_TUPLE_S*>(pKey), &vcpu);
      break;
    case LB_CAPWAP_KA:
      ret = WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(static_cast<const WLAN_LB_SESSION_KEY_S*>(pKey),
                                                  &vcpu);
      break;
    case LB_AAA_MAC:
      ret = WLAN_LB_GetAAAAccessVcpuID(static_cast<const WLAN_LB_ACCESS_INFO_S*>(pKey), &vcpu);
      break;
    case LB_AAA_PORT:
      ret = WLAN_LB_GetAAAPortVcpuID(static_cast<const WLAN_LB_PORT_INFO_S*>(pKey), pulVcpuNum,
                                     pucVcpuIds);
      break;
    default:
      return WLAN_LB_OK;
  }
  if (ulLBType != LB_AAA_PORT) {
    *pulVcpuNum = 1;
    pucVcpuIds[0] = static_cast<u8>(vcpu);
  }
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nGet nac&wlan packet vcpuid.(LBType %u VcpuNum %u VcpuID %u Ret %u).",
                   ulLBType, *pulVcpuNum, static_cast<u32>(pucVcpuIds[0]), ret);
  return WLAN_LB_OK;
}
