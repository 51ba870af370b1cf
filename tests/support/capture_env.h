// Capture helpers shared by the capture suites: arming through the catchPkt
// file as an operator's tool does, reading the store back as records, and
// the frames the suites capture.
#ifndef VANE_TESTS_SUPPORT_CAPTURE_ENV_H
#define VANE_TESTS_SUPPORT_CAPTURE_ENV_H

#include <cstdint>
#include <vector>

#include "drv_vane/capture.h"
#include "support/packet_builder.h"

namespace vane::test {

// A block that captures `total` packets on slot 2 with the given filters.
BYPASS_PKT_RECORD_CTRL_S CaptureBlock(uint16_t total, uint32_t filters = 0);
// Writes mask, slot and block to /proc/bypassDebug/catchPkt; its result.
long ArmCapture(const BYPASS_PKT_RECORD_CTRL_S& block, uint32_t mask = 1u << 2, uint32_t slot = 2);
// The whole store in one read of catchPkt (which empties it).
std::vector<BYPASS_CATCH_PKT_S> ReadCaptureStore();
// Entries with ucUsed set, in store order.
std::vector<BYPASS_CATCH_PKT_S> UsedEntries(const std::vector<BYPASS_CATCH_PKT_S>& store);

// An untagged IPv4 UDP frame 10.0.0.1:1000 -> 10.0.0.2:2000, with `tag`
// in the first payload bytes and `payload` payload bytes in all.
Bytes CaptureFrame(uint32_t tag = 0, size_t payload = 40);

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_CAPTURE_ENV_H
