// The CAPWAP keep-alive table: which vCPU serves a tunnel, by the session
// identifier that keep-alive packets carry instead of ports.
//
// Context of each function (as for the CAPWAP table):
//  - hash and match: any context, pure.
//  - WLAN_LB_CAPWAP_KA_LB_FindNodeByNode: any context, takes nothing; the
//    caller holds g_wlan_lb_write_lock or is inside an RCU read-side section.
//  - the other exported writers: process context; each takes
//    g_wlan_lb_write_lock itself; the *_locked forms expect it held.
//  - WLAN_LB_GetVCPUIDByCAPWAPSessionidKey: any context; opens its own RCU
//    read-side section, takes no lock, allocates nothing.
#include "drv_vane/debug.h"
#include "wlan_lb/capwap_table.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit HASH_TABLE_S* g_CAPWAP_KEEP_ALIVE_LB_Table = nullptr;
}

namespace vane {
namespace {

constexpr unsigned kSessionWords = 4;

struct CapwapKaTable {
  using Record = WLAN_LB_CAPWAP_KA_NODE_S;
  using Msg = WLAN_LB_CAPWAP_KA_MSG_S;
  static HASH_TABLE_S** slot() { return &g_CAPWAP_KEEP_ALIVE_LB_Table; }
  static constexpr HASH_KEY_PFN kHash = WLAN_LB_CAPWAP_KA_Hashkey;
  static constexpr HASH_MATCH_PFN kMatch = WLAN_LB_CAPWAP_KA_Hashmatch;
  static void fill(Record* dst, const Record& src) { *dst = src; }
  static Record from_msg(const Msg& m);
};

WLAN_LB_CAPWAP_KA_NODE_S make_node(const u32 (&session)[kSessionWords], u32 process) {
  WLAN_LB_CAPWAP_KA_NODE_S n{};
  for (unsigned i = 0; i < kSessionWords; ++i) n.ulSessionID[i] = session[i];
  n.process = process;
  return n;
}

}  // namespace

WLAN_LB_CAPWAP_KA_NODE_S CapwapKaTable::from_msg(const Msg& m) {
  return make_node(m.ulSessionID, m.process);
}

HASH_TABLE_S* capwap_ka_table_ensure_locked() { return capwap::ensure_locked<CapwapKaTable>(); }

u32 capwap_ka_proc_locked(const WLAN_LB_CAPWAP_KA_MSG_S* msg) {
  if (msg == nullptr) return WLAN_LB_ERR;
  const u32 ret = capwap::apply_msg_locked<CapwapKaTable>(msg);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nProc capwap ka distribute table.(op %u session0 %u  session1 %u session2 "
                   "%u session3 %u  process %u Ret %u).",
                   static_cast<u32>(msg->op), msg->ulSessionID[0], msg->ulSessionID[1],
                   msg->ulSessionID[2], msg->ulSessionID[3], msg->process, ret);
  return ret;
}

}  // namespace vane

extern "C" HASH_TABLE_S* WLAN_LB_InitCAPWAPKeepAliveLBHashTable(void) {
  vane::WlanWriteGuard guard;
  return vane::capwap_ka_table_ensure_locked();
}

extern "C" u64 WLAN_LB_CAPWAP_KA_Hashkey(const void* pKey) {
  if (pKey == nullptr) return 1;
  const u32* w = static_cast<const WLAN_LB_CAPWAP_KA_NODE_S*>(pKey)->ulSessionID;
  const u32 s = w[0] + w[1] + (w[2] + w[3]);
  return s % WLAN_LB_CAPWAP_BUCKETS;
}

extern "C" u32 WLAN_LB_CAPWAP_KA_Hashmatch(const void* pData, const void* pKey) {
  if (pData == nullptr || pKey == nullptr) return 0;
  const u32* a = static_cast<const WLAN_LB_CAPWAP_KA_NODE_S*>(pData)->ulSessionID;
  const u32* b = static_cast<const WLAN_LB_CAPWAP_KA_NODE_S*>(pKey)->ulSessionID;
  return a[0] == b[0] && a[1] == b[1] && a[2] == b[2] && a[3] == b[3] ? 1u : 0u;
}

extern "C" WLAN_LB_CAPWAP_KA_NODE_S* WLAN_LB_CAPWAP_KA_LB_FindNodeByNode(
    const WLAN_LB_CAPWAP_KA_NODE_S* pstKey) {
  return vane::capwap::find<vane::CapwapKaTable>(pstKey);
}

extern "C" u32 WLAN_LB_CAPWAP_KA_LB_AddHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstNode) {
  vane::WlanWriteGuard guard;
  return vane::capwap::add_locked<vane::CapwapKaTable>(pstNode);
}

extern "C" u32 WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstKey) {
  vane::WlanWriteGuard guard;
  return vane::capwap::delete_locked<vane::CapwapKaTable>(pstKey);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPKAHashSet(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap::set_msg_locked<vane::CapwapKaTable>(pstMsg);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap::delete_msg_locked<vane::CapwapKaTable>(pstMsg);
}

extern "C" u32 WLAN_LB_PacketDistribute_CAPWAPKAHashProc(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::capwap_ka_proc_locked(pstMsg);
}

extern "C" u32 WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(const WLAN_LB_SESSION_KEY_S* pstKey,
                                                     u64* pullVcpu) {
  VANE_WLAN_HOOK(capwap_ka, pstKey, pullVcpu);
  if (pstKey == nullptr || pullVcpu == nullptr) return WLAN_LB_ERR;
  const WLAN_LB_CAPWAP_KA_NODE_S keys[] = {vane::make_node(pstKey->ulSessionID, 0)};
  return vane::capwap::lookup<vane::CapwapKaTable>(keys, pullVcpu);
}
