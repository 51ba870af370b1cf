// The Portal and RADIUS CoA entries and the NAC vCPU list.
//
// A Portal or CoA entry's port and process live in its first aligned 8-byte
// word, written and read as one word, so a lookup never pairs the port of
// one setting with the process of another. The NAC list is too large for
// one store: a reload fills a whole new copy and publishes its pointer with
// a release store; the copy it replaces is freed after a grace period. At
// load the pointer holds a static empty list, so readers never test for
// null. A reload that cannot get memory keeps the old list and logs
// "\r\nWLAN LB NAC list kept: no memory for %u ids." at level 1.
//
// Context:
//  - WLAN_LB_InitRdsCOADistributeTbl, WLAN_LB_SetAAARdsCOADistributeTbl,
//    WLAN_LB_SetAAAPortalDistributeTbl, WLAN_LB_InitAAAAccessVcpuIDList:
//    process context; take g_wlan_lb_write_lock.
//  - port_entry_store, coa_reset_locked, nac_load_locked: under the lock.
//  - port_entry_load, nac_list: any context, inside the caller's RCU
//    read-side section (the NAC list stays valid only there); allocate
//    nothing.
#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/mem.h"
#include "kport/rcu.h"
#include "wlan_lb/aaa_tables.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
namespace {

constinit WLAN_LB_NAC_NODE_TBL_S g_nac_empty = {};

// A loaded NAC list with the head of its deferred free; the list comes first
// so that the published pointer is the copy's own.
struct NacCopy {
  WLAN_LB_NAC_NODE_TBL_S tbl;
  kport_rcu_head_t rcu;
};
static_assert(__builtin_offsetof(NacCopy, tbl) == 0);

void free_nac(kport_rcu_head_t* head) {
  kport_kfree(reinterpret_cast<char*>(head) - __builtin_offsetof(NacCopy, rcu));
}

// The entry's port and process as one word; may_alias because the word is
// read and written over the record's own fields.
using EntryWord = u64 __attribute__((may_alias));
static_assert(sizeof(WLAN_LB_PORT_DISTRIBUTE_S) >= sizeof(EntryWord));
static_assert(alignof(WLAN_LB_PORT_DISTRIBUTE_S) >= alignof(EntryWord));
static_assert(__builtin_offsetof(WLAN_LB_PORT_DISTRIBUTE_S, process) + sizeof(u32) <=
              sizeof(EntryWord));

EntryWord* word_of(WLAN_LB_PORT_DISTRIBUTE_S* entry) { return reinterpret_cast<EntryWord*>(entry); }
const EntryWord* word_of(const WLAN_LB_PORT_DISTRIBUTE_S* entry) {
  return reinterpret_cast<const EntryWord*>(entry);
}

}  // namespace

// The reserved word after the pair is not part of the store: nothing in the
// module reads or writes it.
void port_entry_store(WLAN_LB_PORT_DISTRIBUTE_S* entry, u16 port, u32 process) {
  WLAN_LB_PORT_DISTRIBUTE_S tmp{};
  tmp.port = port;
  tmp.process = process;
  u64 word = 0;
  __builtin_memcpy(&word, &tmp, sizeof(word));
  store_relaxed(word_of(entry), word);
}

PortEntry port_entry_load(const WLAN_LB_PORT_DISTRIBUTE_S* entry) {
  u64 word = load_relaxed(word_of(entry));
  WLAN_LB_PORT_DISTRIBUTE_S tmp{};
  __builtin_memcpy(&tmp, &word, sizeof(word));
  return PortEntry{tmp.port, tmp.process};
}

void coa_reset_locked() {
  for (WLAN_LB_PORT_DISTRIBUTE_S& e : g_stRadiusCOADistribute) {
    port_entry_store(&e, WLAN_LB_RADIUS_COA_PORT, WLAN_LB_PROCESS_NAC);
  }
}

void nac_load_locked(const u32* ids, u32 capacity, u16 count) {
  if (ids == nullptr) return;
  auto* copy = static_cast<NacCopy*>(kport_kzalloc_atomic(sizeof(NacCopy)));
  if (copy == nullptr) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nWLAN LB NAC list kept: no memory for %u ids.",
                     static_cast<u32>(count));
    return;
  }
  // The count is kept as sent; the copy stops at the sender's capacity and
  // at the list's 16 slots, and readers clamp to the slots.
  copy->tbl.count = count;
  u32 limit = capacity / sizeof(u32);
  if (limit > WLAN_LB_NAC_MAX) limit = WLAN_LB_NAC_MAX;
  if (limit > count) limit = count;
  // The ids sit in the message body at whatever alignment it has.
  __builtin_memcpy(copy->tbl.ids, ids, limit * sizeof(u32));
  WLAN_LB_NAC_NODE_TBL_S* old = g_pstNACNodidTbl;
  store_release(&g_pstNACNodidTbl, &copy->tbl);
  if (old != &g_nac_empty) {
    kport_call_rcu(&reinterpret_cast<NacCopy*>(old)->rcu, free_nac);
  }
}

const WLAN_LB_NAC_NODE_TBL_S* nac_list() { return load_acquire(&g_pstNACNodidTbl); }

void port_entries_init() {
  for (WLAN_LB_PORT_DISTRIBUTE_S& e : g_stRadiusCOADistribute) e = WLAN_LB_PORT_DISTRIBUTE_S{};
  g_stPortalPktDistribute = WLAN_LB_PORT_DISTRIBUTE_S{};
  g_nac_empty = WLAN_LB_NAC_NODE_TBL_S{};
  g_pstNACNodidTbl = &g_nac_empty;
}

void port_entries_free() {
  if (g_pstNACNodidTbl != &g_nac_empty) kport_kfree(g_pstNACNodidTbl);
  g_pstNACNodidTbl = &g_nac_empty;
}

}  // namespace vane

extern "C" {
constinit WLAN_LB_PORT_DISTRIBUTE_S g_stRadiusCOADistribute[2] = {};
constinit WLAN_LB_PORT_DISTRIBUTE_S g_stPortalPktDistribute = {};
constinit WLAN_LB_NAC_NODE_TBL_S* g_pstNACNodidTbl = &vane::g_nac_empty;
}

extern "C" void WLAN_LB_InitRdsCOADistributeTbl(void) {
  vane::WlanWriteGuard guard;
  vane::coa_reset_locked();
}

extern "C" u32 WLAN_LB_SetAAARdsCOADistributeTbl(u16 usPort, u32 ulProcess, u8 ucIndex) {
  if (ucIndex > 1) return WLAN_LB_ERR;
  vane::WlanWriteGuard guard;
  vane::port_entry_store(&g_stRadiusCOADistribute[ucIndex], usPort, ulProcess);
  return WLAN_LB_OK;
}

extern "C" u32 WLAN_LB_SetAAAPortalDistributeTbl(u16 usPort, u32 ulProcess) {
  vane::WlanWriteGuard guard;
  vane::port_entry_store(&g_stPortalPktDistribute, usPort, ulProcess);
  return WLAN_LB_OK;
}

extern "C" void WLAN_LB_InitAAAAccessVcpuIDList(const u32* pulIds, u32 ulCapacity, u16 usCount) {
  vane::WlanWriteGuard guard;
  vane::nac_load_locked(pulIds, ulCapacity, usCount);
}
