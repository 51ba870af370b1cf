// Steering tables inside the module: lifecycle and the hit statistics.
#ifndef VANE_BYPASS_STEERING_INTERNAL_H
#define VANE_BYPASS_STEERING_INTERNAL_H

#include "drv_vane/steering.h"
#include "kport/lock.h"
#include "kport/types.h"

namespace vane {

// Load-time state: both tables zero, statistics zero, the writers' lock
// initialised. vane_entry_init, before the control input is live;
// steering_exit releases the lock at vane_entry_exit.
void steering_init();
void steering_exit();

// Serialises table writers, the statistics image and its clearing. Taken
// with bottom halves off (the packet path reads the tables under the
// sequence count and must not interrupt a writer on its processor).
kport_spinlock_t* steering_lock();
// Copies both tables whole. Under steering_lock().
void steering_tables_copy(BYPASS_LB_TABLE_S* ivo, BYPASS_LB_TABLE_S* deteption);

// Hit statistics, per processor. create: 0 or -ENOMEM (start-up); destroy:
// shut-down, after the packet path has stopped.
int steering_stats_create();
void steering_stats_destroy();
void steering_stats_reset();
// Packet path: one hit of table (BYPASS_LB_TABLE_*) through list slot
// (0..19) or, with slot == kSteeringRangeSlot, through the range.
constexpr u32 kSteeringRangeSlot = BYPASS_LB_CAUSEID_MAX;
void steering_count_hit(u32 table, u32 slot);

}  // namespace vane

#endif  // VANE_BYPASS_STEERING_INTERNAL_H
