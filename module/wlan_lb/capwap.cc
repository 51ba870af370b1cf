// The CAPWAP table: which vCPU serves a tunnel, by addresses, ports and VPN,
// with the wildcard entries that user space installs for whole ports.
//
// Context of each function:
//  - hash and match: any context, pure.
//  - WLAN_LB_CAPWAP_LB_FindNodeByNode: any context, takes nothing; the caller
//    holds g_wlan_lb_write_lock or is inside an RCU read-side section.
//  - the other exported writers (init, add, delete, set, proc): process
//    context; each takes g_wlan_lb_write_lock itself. The *_locked forms
//    expect it held (the LB message handler holds it for a whole message).
//  - WLAN_LB_GetVCPUIDByCAPWAPKey: any context; opens its own RCU read-side
//    section, takes no lock, allocates nothing.
//  - capwap_tables_exit: unload, after the caller's RCU barrier.
#include "drv_vane/debug.h"
#include "wlan_lb/capwap_table.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit HASH_TABLE_S* g_CAPWAP_LB_Table = nullptr;
}

namespace vane {
namespace {

struct CapwapTable {
  using Record = WLAN_LB_CAPWAP_NODE_S;
  using Msg = WLAN_LB_CAPWAP_MSG_S;
  static HASH_TABLE_S** slot() { return &g_CAPWAP_LB_Table; }
  static constexpr HASH_KEY_PFN kHash = WLAN_LB_CAPWAP_Hashkey;
  static constexpr HASH_MATCH_PFN kMatch = WLAN_LB_CAPWAP_Hashmatch;
  static void fill(Record* dst, const Record& src) {
    dst->sip = src.sip;
    dst->dip = src.dip;
    dst->sport = src.sport;
    dst->dport = src.dport;
    dst->vpn = src.vpn;
    dst->process = src.process;
  }
  static Record from_msg(const Msg& m);
};

// A record with zero padding, so that nothing undefined reaches the table.
WLAN_LB_CAPWAP_NODE_S make_node(u32 sip, u32 dip, u16 sport, u16 dport, u8 vpn, u32 process) {
  WLAN_LB_CAPWAP_NODE_S n{};
  n.sip = sip;
  n.dip = dip;
  n.sport = sport;
  n.dport = dport;
  n.vpn = vpn;
  n.process = process;
  return n;
}

constexpr u32 kAnyIp = 0xFFFFFFFFu;
constexpr u16 kAnyPort = 0xFFFFu;
constexpr u8 kAnyVpn = 0xFFu;

}  // namespace

WLAN_LB_CAPWAP_NODE_S CapwapTable::from_msg(const Msg& m) {
  return make_node(m.sip, m.dip, m.sport, m.dport, m.vpn, m.process);
}

HASH_TABLE_S* capwap_table_ensure_locked() { return capwap::ensure_locked<CapwapTable>(); }

u32 capwap_proc_locked(const WLAN_LB_CAPWAP_MSG_S* msg) {
  if (msg == nullptr) return WLAN_LB_ERR;
  const u32 ret = capwap::apply_msg_locked<CapwapTable>(msg);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nProc capwap distribute table.(op %u vpn %u  dip %u sip %u dport %u sport "
                   "%u process %u Ret %u).",
                   static_cast<u32>(msg->op), static_cast<u32>(msg->vpn), msg->dip, msg->sip,
                   static_cast<u32>(msg->dport), static_cast<u32>(msg->sport), msg->process, ret);
  return ret;
}

void capwap_tables_exit() {
  capwap::destroy(&g_CAPWAP_LB_Table);
  capwap::destroy(&g_CAPWAP_KEEP_ALIVE_LB_Table);
}

}  // namespace vane

extern "C" HASH_TABLE_S* WLAN_LB_InitCAPWAPLBHashTable(void) {
  vane::WlanWriteGuard guard;
  return vane::capwap_table_ensure_locked();
}

extern "C" u64 WLAN_LB_CAPWAP_Hashkey(const void* pKey) {
  if (pKey == nullptr) return 1;
  const auto* k = static_cast<const WLAN_LB_CAPWAP_NODE_S*>(pKey);
  const u32 s = static_cast<u32>(k->sport) + k->dport + k->vpn + (k->sip + k->dip);
  return s % WLAN_LB_CAPWAP_BUCKETS;
}

extern "C" u32 WLAN_LB_CAPWAP_Hashmatch(const void* pData, const void* pKey) {
  if (pData == nullptr || pKey == nullptr) return 0;
  const auto* a = static_cast<const WLAN_LB_CAPWAP_NODE_S*>(pData);
  const auto* b = static_cast<const WLAN_LB_CAPWAP_NODE_S*>(pKey);
  return a->sip == b->sip && a->dip == b->dip && a->sport == b->sport && a->dport == b->dport &&
                 a->vpn == b->vpn
             ? 1u
             : 0u;
}

extern "C" WLAN_LB_CAPWAP_NODE_S* WLAN_LB_CAPWAP_LB_FindNodeByNode(
    const WLAN_LB_CAPWAP_NODE_S* pstKey) {
  return vane::capwap::find<vane::CapwapTable>(pstKey);
}

extern "C" u32 WLAN_LB_CAPWAP_LB_AddHashNode(const WLAN_LB_CAPWAP_NODE_S* pstNode) {
  vane::WlanWriteGuard guard;
  return vane::capwap::add_locked<vane::CapwapTable>(pstNode);
}

extern "C" u32 WLAN_LB_CAPWAP_LB_DeleteHashNode(const WLAN_LB_CAPWAP_NODE_S* pstKey) {
  vane::WlanWriteGuard guard;
  return vane::capwap::delete_locked<vane::CapwapTable>(pstKey);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPHashSet(const WLAN_LB_CAPWAP_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap::set_msg_locked<vane::CapwapTable>(pstMsg);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPHashDelete(const WLAN_LB_CAPWAP_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap::delete_msg_locked<vane::CapwapTable>(pstMsg);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPHashProc(const WLAN_LB_CAPWAP_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap_proc_locked(pstMsg);
}

extern "C" u32 WLAN_LB_GetVCPUIDByCAPWAPKey(const WLAN_LB_FIVE_TUPLE_S* pstKey, u64* pullVcpu) {
  VANE_WLAN_HOOK(capwap, pstKey, pullVcpu);
  if (pstKey == nullptr || pullVcpu == nullptr) return WLAN_LB_ERR;
  const auto sport = static_cast<u16>(pstKey->sport);
  const auto dport = static_cast<u16>(pstKey->dport);
  // A flow's own entry first; then the port-wide entries, the
  // destination-port-only one before the source-and-destination one.
  const WLAN_LB_CAPWAP_NODE_S keys[] = {
      vane::make_node(pstKey->sip, pstKey->dip, sport, dport, static_cast<u8>(pstKey->vpn), 0),
      vane::make_node(vane::kAnyIp, vane::kAnyIp, vane::kAnyPort, dport, vane::kAnyVpn, 0),
      vane::make_node(vane::kAnyIp, vane::kAnyIp, sport, dport, vane::kAnyVpn, 0),
  };
  return vane::capwap::lookup<vane::CapwapTable>(keys, pullVcpu);
}
