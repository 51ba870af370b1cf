// TIMNG inside the module: lifecycle and the consistent entry lookup.
#ifndef VANE_TIMNG_TIMNG_INTERNAL_H
#define VANE_TIMNG_TIMNG_INTERNAL_H

#include "drv_vane/timng.h"
#include "kport/types.h"

namespace vane {

// Load-time state (no message accepted, not master, both entries zero) and
// the writers' lock. vane_entry_init, before the control input is live;
// timng_exit releases the lock at vane_entry_exit.
void timng_init();
void timng_exit();

// A consistent view of what the packet path needs. Packet path, lock-free.
struct TimngView {
  bool found = false;  // an entry names the cause ID
  u32 node = 0;        // its nodeId
  u32 frag_scan = 0;   // its isFragScan
  u32 board_type = 0;  // g_TimngBoardType
};
TimngView timng_lookup(u16 cause);

}  // namespace vane

#endif  // VANE_TIMNG_TIMNG_INTERNAL_H
