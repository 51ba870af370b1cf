// The cause-ID table: which cause IDs are load-balanced, by which LB type and
// with which packet type.
//
// The table only grows: a cause ID, once set, keeps its first LB type and
// packet type for the life of the module, so a published record never
// changes and readers need nothing beyond the RCU-published chain of the
// _LB_New operations. The table itself is created on first use and
// published with a release store; it goes away only at unload.
//
// Context:
//  - WLAN_LB_InitLBCauseIDHashTable, WLAN_LB_CauseID_Table_AddHashNode,
//    WLAN_LB_SetCauseIDTable: process context; take g_wlan_lb_write_lock.
//  - causeid_table_ensure_locked, causeid_set_locked: under the lock.
//  - the key and match callbacks: any context, no lock.
//  - WLAN_LB_CauseID_Table_FindNodeByNode: under the lock or inside the
//    caller's RCU read-side section (the record stays valid only there).
//  - WLAN_LB_IsNeedLBPkt: packet path, any context; opens its own RCU
//    read-side section and allocates nothing.
#include "base/atomic.h"
#include "drv_vane/container.h"
#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/cxx/guard.h"
#include "wlan_lb/aaa_tables.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit HASH_TABLE_S* g_WLAN_LB_CAUSEID_HASH_Table = nullptr;
}

namespace vane {
namespace {

HASH_TABLE_S* causeid_table() { return load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table); }

u32 causeid_add_locked(const WLAN_LB_CAUSEID_NODE_S* node) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  if (node == nullptr) return WLAN_LB_ERR;
  HASH_TABLE_S* table = causeid_table();
  if (table == nullptr) return WLAN_LB_ERR;
  // First setting wins: a later message must not retarget a cause ID that
  // the packet path may already be steering.
  if (HASH_FindElemFromFirstList_LB_New(table, node) != nullptr) return WLAN_LB_OK;
  auto* record = static_cast<WLAN_LB_CAUSEID_NODE_S*>(HASH_NewData(table));
  if (record == nullptr) return WLAN_LB_ERR;
  *record = *node;
  u32 ret = HASH_AddNode_LB_New(table, record, record);
  if (ret != HASH_OK) (void)HASH_FreeData(table, record);
  return ret;
}

}  // namespace

HASH_TABLE_S* causeid_table_ensure_locked() {
  HASH_TABLE_S* table = causeid_table();
  if (table != nullptr) return table;
  table = HASH_CreateNew(sizeof(WLAN_LB_CAUSEID_NODE_S), WLAN_LB_CAUSEID_BUCKETS,
                         WLAN_LB_CauseID_Hashkey, WLAN_LB_CauseID_Hashmatch);
  if (table != nullptr) store_release(&g_WLAN_LB_CAUSEID_HASH_Table, table);
  return table;
}

void causeid_set_locked(const WLAN_LB_CAUSEID_NODE_S* nodes, u32 count) {
  if (nodes == nullptr || count == 0) return;
  (void)causeid_table_ensure_locked();
  if (count > WLAN_LB_CAUSEID_MAX) return;
  for (u32 i = 0; i < count; ++i) {
    // The entries sit in the message body at whatever alignment it has.
    WLAN_LB_CAUSEID_NODE_S node;
    __builtin_memcpy(&node, reinterpret_cast<const u8*>(nodes) + i * sizeof(node), sizeof(node));
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                     "WLAN_LB_SetCauseIDTable  causeid %u lbtype %u pkttype %u\n", node.causeid,
                     node.lbtype, node.pkttype);
    (void)causeid_add_locked(&node);
  }
}

void causeid_table_free() {
  HASH_Destroy(g_WLAN_LB_CAUSEID_HASH_Table);
  g_WLAN_LB_CAUSEID_HASH_Table = nullptr;
}

}  // namespace vane

// An existing table is returned as it is: replacing it would drop the cause
// IDs that readers are using.
extern "C" HASH_TABLE_S* WLAN_LB_InitLBCauseIDHashTable(void) {
  vane::WlanWriteGuard guard;
  return vane::causeid_table_ensure_locked();
}

extern "C" u64 WLAN_LB_CauseID_Hashkey(const void* pKey) {
  if (pKey == nullptr) return 1;
  return static_cast<const WLAN_LB_CAUSEID_NODE_S*>(pKey)->causeid % WLAN_LB_CAUSEID_BUCKETS;
}

extern "C" u32 WLAN_LB_CauseID_Hashmatch(const void* pData, const void* pKey) {
  if (pData == nullptr || pKey == nullptr) return 0;
  return static_cast<const WLAN_LB_CAUSEID_NODE_S*>(pData)->causeid ==
                 static_cast<const WLAN_LB_CAUSEID_NODE_S*>(pKey)->causeid
             ? 1u
             : 0u;
}

extern "C" WLAN_LB_CAUSEID_NODE_S* WLAN_LB_CauseID_Table_FindNodeByNode(
    const WLAN_LB_CAUSEID_NODE_S* pstKey) {
  return static_cast<WLAN_LB_CAUSEID_NODE_S*>(
      HASH_FindElemFromFirstList_LB_New(vane::causeid_table(), pstKey));
}

extern "C" u32 WLAN_LB_CauseID_Table_AddHashNode(const WLAN_LB_CAUSEID_NODE_S* pstNode) {
  vane::WlanWriteGuard guard;
  return vane::causeid_add_locked(pstNode);
}

extern "C" void WLAN_LB_SetCauseIDTable(const WLAN_LB_CAUSEID_NODE_S* pstNodes, u32 ulCount) {
  vane::WlanWriteGuard guard;
  vane::causeid_set_locked(pstNodes, ulCount);
}

extern "C" u32 WLAN_LB_IsNeedLBPkt(u16 usCauseId, u32* pulLbType, u64* pullPktType) {
  // The null test comes before the hook: stand-ins write their outputs
  // without one.
  if (pulLbType == nullptr || pullPktType == nullptr) return WLAN_LB_ERR;
  VANE_WLAN_HOOK(is_need_lb, usCauseId, pulLbType, pullPktType);
  // Until user space has configured LB on a board that balances, no cause ID
  // is load-balanced, whatever the table holds.
  if (vane::load_relaxed(&g_ulIsLBInited) != 0 &&
      vane::load_relaxed(&g_ulKernelLBBoardType) == WLAN_LB_BOARD_TYPE_LB) {
    kport::RcuReadGuard rcu;
    WLAN_LB_CAUSEID_NODE_S key{};
    key.causeid = usCauseId;
    const WLAN_LB_CAUSEID_NODE_S* node = WLAN_LB_CauseID_Table_FindNodeByNode(&key);
    if (node != nullptr) {
      *pulLbType = node->lbtype;
      *pullPktType = node->pkttype;
      return WLAN_LB_OK;
    }
  }
  *pulLbType = WLAN_LB_TYPE_NONE;
  *pullPktType = WLAN_LB_PKT_TYPE_NONE;
  return WLAN_LB_ERR;
}
