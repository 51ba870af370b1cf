// The AAA lookups: the vCPUs of AAA traffic by port (Portal, RADIUS CoA,
// socket-port lists, the destination-port range) and by a hash of the
// client's MAC address over the NAC list; and the load-time state and final
// release of the tables they read.
//
// Context:
//  - WLAN_LB_GetAAAPortVcpuID, WLAN_LB_GetAAAAccessVcpuID,
//    WLAN_LB_HashAAAAccessVcpuID: packet path, any context; each opens its
//    own RCU read-side section, takes no lock and allocates nothing.
//  - aaa_tables_init, aaa_tables_exit: the module loader's process context
//    with nothing else running in the subsystem (exit after an RCU barrier).
#include "drv_vane/wlan_lb.h"
#include "kport/cxx/guard.h"
#include "wlan_lb/aaa_tables.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
namespace {

constexpr u32 kMacLen = 6;
constexpr u32 kHashInputMax = 128;
constexpr u32 kDjb2Seed = 5381;
constexpr u32 kPortMax = 0xFFFF;

// Ports arrive as 32-bit values and match the tables' 16-bit ones only when
// they fit.
bool fits_port(u32 port) { return port <= kPortMax; }

// The vCPU of a destination port in the AAA range; false outside it.
bool range_vcpu(u32 dport, u8* vcpu) {
  u32 off = dport - WLAN_LB_PORT_RANGE_BASE;
  if (off > WLAN_LB_PORT_RANGE_SPAN) return false;
  *vcpu = static_cast<u8>(off / WLAN_LB_PORT_RANGE_WIDTH + 1);
  return true;
}

bool src_port_spread(u32 sport, u8 tcp_flag) {
  return fits_port(sport) &&
         WLAN_LB_CheckIsSrcSocketPortNeedDistribute(static_cast<u16>(sport), tcp_flag) != 0;
}

u32 udp_port_vcpus(u32 sport, u32 dport, u32* num, u8* ids) {
  *num = 1;
  PortEntry portal = port_entry_load(&g_stPortalPktDistribute);
  if (dport == portal.port) {
    ids[0] = static_cast<u8>(portal.process);
    return WLAN_LB_OK;
  }
  if (dport == port_entry_load(&g_stRadiusCOADistribute[0]).port ||
      dport == port_entry_load(&g_stRadiusCOADistribute[1]).port) {
    // A CoA request may concern a session on any NAC vCPU: it goes to all of
    // them, as many as the caller has room for.
    const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
    u32 n = nac->count < WLAN_LB_COA_VCPU_MAX ? nac->count : WLAN_LB_COA_VCPU_MAX;
    *num = n;
    for (u32 i = 0; i < n; ++i) ids[i] = static_cast<u8>(nac->ids[i]);
    return WLAN_LB_OK;
  }
  if (fits_port(dport)) {
    u64 process = 0;
    (void)WLAN_LB_GetDstSocketPortNodeID(static_cast<u16>(dport), 0, &process);
    if (process != 0) {
      ids[0] = static_cast<u8>(process);
      return WLAN_LB_ERR;
    }
  }
  if (!src_port_spread(sport, 0)) {
    ids[0] = 0;
    return WLAN_LB_OK;
  }
  return range_vcpu(dport, &ids[0]) ? WLAN_LB_OK : WLAN_LB_ERR;
}

u32 tcp_port_vcpus(u32 sport, u32 dport, u32* num, u8* ids) {
  *num = 1;
  if (!src_port_spread(sport, 1)) {
    ids[0] = 0;
    return WLAN_LB_OK;
  }
  (void)range_vcpu(dport, &ids[0]);
  return WLAN_LB_OK;
}

}  // namespace

void aaa_tables_init() {
  socket_ports_init();
  port_entries_init();
  g_WLAN_LB_CAUSEID_HASH_Table = nullptr;
}

void aaa_tables_exit() {
  socket_ports_free();
  port_entries_free();
  causeid_table_free();
}

}  // namespace vane

// A null output has nowhere to put the vCPU: result 1, nothing written.
extern "C" u32 WLAN_LB_HashAAAAccessVcpuID(const u8* pucBytes, u16 usLength, u64* pullVcpu) {
  if (pullVcpu == nullptr) return WLAN_LB_ERR;
  *pullVcpu = 0;
  if (pucBytes == nullptr || usLength < vane::kMacLen || usLength > vane::kHashInputMax) {
    return WLAN_LB_ERR;
  }
  kport::RcuReadGuard rcu;
  const WLAN_LB_NAC_NODE_TBL_S* nac = vane::nac_list();
  u32 n = nac->count;
  if (n == 0) return WLAN_LB_ERR;
  u32 h = vane::kDjb2Seed;
  for (u16 i = 0; i < usLength; ++i) h = h * 33 + pucBytes[i];
  u32 slot = ((h & 0x7FFFFFFFu) % n) & 0xFFu;
  // A count above the 16 slots is kept as sent; slots past them hold nothing.
  if (slot >= WLAN_LB_NAC_MAX) return WLAN_LB_ERR;
  *pullVcpu = nac->ids[slot];
  return WLAN_LB_OK;
}

extern "C" u32 WLAN_LB_GetAAAAccessVcpuID(const WLAN_LB_ACCESS_INFO_S* pstKey, u64* pullVcpu) {
  VANE_WLAN_HOOK(aaa_mac, pstKey, pullVcpu);
  if (pullVcpu == nullptr) return WLAN_LB_ERR;
  if (pstKey == nullptr) {
    *pullVcpu = 0;
    return WLAN_LB_ERR;
  }
  u32 ret = WLAN_LB_HashAAAAccessVcpuID(pstKey->smac, vane::kMacLen, pullVcpu);
  if (ret != WLAN_LB_OK) *pullVcpu = 0;
  return ret;
}

extern "C" u32 WLAN_LB_GetAAAPortVcpuID(const WLAN_LB_PORT_INFO_S* pstKey, u32* pulVcpuNum,
                                        u8* pucVcpuIds) {
  VANE_WLAN_HOOK(aaa_port, pstKey, pulVcpuNum, pucVcpuIds);
  if (pstKey == nullptr || pulVcpuNum == nullptr || pucVcpuIds == nullptr) return WLAN_LB_ERR;
  // One section over every table the decision reads.
  kport::RcuReadGuard rcu;
  if (pstKey->ucUDPFlag == 1) {
    return vane::udp_port_vcpus(pstKey->sport, pstKey->dport, pulVcpuNum, pucVcpuIds);
  }
  return vane::tcp_port_vcpus(pstKey->sport, pstKey->dport, pulVcpuNum, pucVcpuIds);
}
