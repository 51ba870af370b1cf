// Diagnostics services shared inside the module.
#ifndef VANE_DEBUG_DEBUG_INTERNAL_H
#define VANE_DEBUG_DEBUG_INTERNAL_H

#include "drv_vane/capture.h"
#include "kport/types.h"

namespace vane {

// Debug text buffer: load-time state (level 0, no buffer), then create and
// destroy around the module's life. create: 0 or -ENOMEM.
void debug_out_reset();
int debug_buffer_create();
void debug_buffer_destroy();
// Empties the text area (the debug proc file's write).
void debug_buffer_clear();

// Packet counters, per processor. reset: load-time state (no block, zero
// image and baseline). create: 0 or -ENOMEM, start-up; destroy: shut-down,
// after the packet path has stopped. count_packet: packet path, any context,
// writes only this processor's block; a no-op without a block.
void counters_reset();
int counters_create();
void counters_destroy();
void count_packet(u32 index);
// Sums the counters since the last clear into out[BYPASS_PKT_COUNT_NUM] and
// refreshes the g_bypassPktCounts image with them. Process context.
void counters_snapshot(u32* out);
// Zeroes what readers see from now on. Process context.
void counters_clear();

// Debug command settings to their load-time values.
void debug_settings_reset();

// Capture store: 0 or -ENOMEM; both only at start-up and shut-down.
int capture_store_create();
void capture_store_destroy();
// Moves every published entry into out[BYPASS_CATCH_STORE_LEN] (the rest
// zero) and frees it; entries still being written stay. false without a
// store. Process context.
bool capture_store_take(u8* out);
// Copy of entry `index` when it is published, else zeros; false without a
// store. Process context.
bool capture_store_peek(u32 index, BYPASS_CATCH_PKT_S* out);

// Capture control values. reset: load-time state. load: a catchPkt write's
// 100 bytes (mask, slot, block), process context. snapshot and claim: packet
// path. claim takes the next capture number of the run, or answers false
// when the run is closed or used up.
void capture_ctrl_reset();
void capture_ctrl_load(const u8* block);
void capture_ctrl_snapshot(BYPASS_PKT_RECORD_CTRL_S* out);
bool capture_claim_number(u8* num);

}  // namespace vane

#endif  // VANE_DEBUG_DEBUG_INTERNAL_H
