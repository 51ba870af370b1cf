// The module's own view of the configuration record.
#ifndef VANE_BYPASS_CONFIG_INTERNAL_H
#define VANE_BYPASS_CONFIG_INTERNAL_H

#include "drv_vane/config.h"

namespace vane {

// Load-time state: all slots 0, the writer lock ready. Before any socket.
void config_init();
// Releases the writer lock; after the last control message.
void config_exit();

// A consistent copy of all 22 slots: never a mixture of two messages 5.
// Any context; spins only while a writer is copying (a few dozen stores,
// with bottom halves off on the writer's processor).
void config_snapshot(BYPASS_PKT_OFFSET_S* out);

}  // namespace vane

#endif  // VANE_BYPASS_CONFIG_INTERNAL_H
