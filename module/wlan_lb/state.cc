// The LB state shared by the WLAN tables, and the subsystem's lifecycle.
//
// Context: wlan_lb_init and wlan_lb_exit run in the module loader's process
// context while nothing else can reach the subsystem (before the control
// sockets exist; after they are closed, the views removed and the packet
// path quiet).
#include "kport/rcu.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit u64 g_ulIsLBInited = 0;
constinit u32 g_ulKernelLBBoardType = WLAN_LB_BOARD_TYPE_DEFAULT;
constinit u32 g_ulMessageStatistics[WLAN_LB_SET_TYPE_NUM] = {};
}

namespace vane {

constinit kport_spinlock_t g_wlan_lb_write_lock = {};

void wlan_lb_init() {
  g_ulIsLBInited = 0;
  g_ulKernelLBBoardType = WLAN_LB_BOARD_TYPE_DEFAULT;
  for (u32& c : g_ulMessageStatistics) c = 0;
  kport_spin_lock_init(&g_wlan_lb_write_lock);
  aaa_tables_init();
}

void wlan_lb_exit() {
  // Entries unlinked while the module ran may still wait for their grace
  // period; their callbacks must have run before the tables (and, in the
  // kernel, the code of the callbacks) go away.
  kport_rcu_barrier();
  capwap_tables_exit();
  aaa_tables_exit();
  kport_rcu_barrier();
  kport_spin_lock_destroy(&g_wlan_lb_write_lock);
}

}  // namespace vane
