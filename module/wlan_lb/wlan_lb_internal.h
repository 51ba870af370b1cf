// The WLAN subsystem inside the module: its writer lock, lifecycle, and the
// unlocked forms of the table writers that the LB message handler calls
// while it holds the lock for a whole message.
//
// Lock and RCU context, one rule for the whole subsystem:
//  - g_wlan_lb_write_lock (spin lock, bottom halves off) serialises every
//    change of every WLAN table and of the LB state. Exported writers take
//    it; the *_locked functions below require it.
//  - Readers open an RCU read-side section (kport::RcuReadGuard), load
//    published pointers with load_acquire and mutable words with
//    load_relaxed, and keep no pointer past the section.
//  - Writers publish with store_release (new entries, tables, NAC copies),
//    change single words with store_relaxed, and free what they unlinked
//    with kport_call_rcu. Nothing under the lock sleeps.
#ifndef VANE_WLAN_LB_WLAN_LB_INTERNAL_H
#define VANE_WLAN_LB_WLAN_LB_INTERNAL_H

#include "drv_vane/wlan_lb.h"
#include "kport/cxx/guard.h"
#include "kport/lock.h"

namespace vane {

extern kport_spinlock_t g_wlan_lb_write_lock;

// Load-time state and the writer lock: vane_entry_init, before the control
// input is live. wlan_lb_exit frees every table, list entry and NAC copy:
// vane_entry_exit, once the control sockets are closed and the views
// removed, with no packet in flight. Process context.
void wlan_lb_init();
void wlan_lb_exit();

// The writer lock over a whole message or exported call.
class KPORT_SCOPED_CAPABILITY WlanWriteGuard {
 public:
  WlanWriteGuard() KPORT_ACQUIRE(g_wlan_lb_write_lock) {
    kport_spin_lock_bh(&g_wlan_lb_write_lock);
  }
  ~WlanWriteGuard() KPORT_RELEASE() { kport_spin_unlock_bh(&g_wlan_lb_write_lock); }
  WlanWriteGuard(const WlanWriteGuard&) = delete;
  WlanWriteGuard& operator=(const WlanWriteGuard&) = delete;
};

// ---- Unlocked writers (the caller holds g_wlan_lb_write_lock) ----

// CAPWAP and keep-alive tables: created when absent, the table (null when
// creation fails). An existing table is returned as it is.
HASH_TABLE_S* capwap_table_ensure_locked() KPORT_REQUIRES(g_wlan_lb_write_lock);
HASH_TABLE_S* capwap_ka_table_ensure_locked() KPORT_REQUIRES(g_wlan_lb_write_lock);
u32 capwap_proc_locked(const WLAN_LB_CAPWAP_MSG_S* msg) KPORT_REQUIRES(g_wlan_lb_write_lock);
u32 capwap_ka_proc_locked(const WLAN_LB_CAPWAP_KA_MSG_S* msg) KPORT_REQUIRES(g_wlan_lb_write_lock);

// Cause-ID table, socket-port lists, Portal, RADIUS CoA, NAC list.
HASH_TABLE_S* causeid_table_ensure_locked() KPORT_REQUIRES(g_wlan_lb_write_lock);
void causeid_set_locked(const WLAN_LB_CAUSEID_NODE_S* nodes, u32 count)
    KPORT_REQUIRES(g_wlan_lb_write_lock);
void socket_ports_clear_locked() KPORT_REQUIRES(g_wlan_lb_write_lock);
u32 socket_port_proc_locked(const WLAN_LB_SOCKET_PORT_MSG_S* msg)
    KPORT_REQUIRES(g_wlan_lb_write_lock);
void port_entry_store(WLAN_LB_PORT_DISTRIBUTE_S* entry, u16 port, u32 process)
    KPORT_REQUIRES(g_wlan_lb_write_lock);
void coa_reset_locked() KPORT_REQUIRES(g_wlan_lb_write_lock);
void nac_load_locked(const u32* ids, u32 capacity, u16 count) KPORT_REQUIRES(g_wlan_lb_write_lock);

// ---- Readers (any context; the caller is inside an RCU read-side section) ----

// A Portal or RADIUS CoA entry read whole.
struct PortEntry {
  u16 port;
  u32 process;
};
PortEntry port_entry_load(const WLAN_LB_PORT_DISTRIBUTE_S* entry);
// The published NAC list (never null: the load-time list is an empty one).
const WLAN_LB_NAC_NODE_TBL_S* nac_list();

// ---- Lifecycle of the table files (called by wlan_lb_init/exit) ----
void capwap_tables_exit();
void aaa_tables_init();
void aaa_tables_exit();

// Test builds of the core only (VANE_WLAN_TEST_HOOKS): dispatch tests that
// want fixed answers install hooks, each non-null entry answering in place of
// the cause-ID table or of one table lookup, with the signature of the
// function it replaces. The product core and the kernel module define
// neither these functions nor the check on the packet path.
struct WlanLbTestHooks {
  u32 (*is_need_lb)(u16 cause_id, u32* lb_type, u64* pkt_type);
  u32 (*capwap)(const WLAN_LB_FIVE_TUPLE_S* key, u64* vcpu);
  u32 (*capwap_ka)(const WLAN_LB_SESSION_KEY_S* key, u64* vcpu);
  u32 (*aaa_mac)(const WLAN_LB_ACCESS_INFO_S* key, u64* vcpu);
  u32 (*aaa_port)(const WLAN_LB_PORT_INFO_S* key, u32* vcpu_num, u8* vcpu_ids);
};
// Installs hooks (null: none). The hooks object must outlive its use; set it
// while no packet is in flight.
void wlan_lb_set_test_hooks(const WlanLbTestHooks* hooks);
const WlanLbTestHooks* wlan_lb_test_hooks();

}  // namespace vane

// First statement of a hooked lookup: answers from the test hook when one is
// installed (test builds of the core only; nothing in the product).
#ifdef VANE_WLAN_TEST_HOOKS
#define VANE_WLAN_HOOK(name, ...)                                        \
  do {                                                                   \
    const vane::WlanLbTestHooks* h = vane::wlan_lb_test_hooks();         \
    if (h != nullptr && h->name != nullptr) return h->name(__VA_ARGS__); \
  } while (0)
#else
#define VANE_WLAN_HOOK(name, ...) \
  do {                            \
  } while (0)
#endif

#endif  // VANE_WLAN_LB_WLAN_LB_INTERNAL_H
