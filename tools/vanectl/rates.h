// vanectl top's screen: rates between two samples of the counters, per vCPU
// (by kind) and per WLAN packet type.
#ifndef VANE_TOOLS_VANECTL_RATES_H
#define VANE_TOOLS_VANECTL_RATES_H

#include <cstdint>
#include <string>

#include "vane/decode.h"

namespace vanectl {

// Counts of one counter between two samples. A counter that went down was
// cleared in between (a write to counts), so its new value is what it
// counted; a wrap of 2^32 inside one interval is taken for a clear too.
uint32_t Delta(uint32_t before, uint32_t now);

// The screen for an interval of `seconds` (> 0): a line with the totals,
// the vCPUs that moved (or hold a non-zero total), then the WLAN packet
// types that moved. Plain text, no terminal control.
std::string TopScreen(const vane_counters& before, const vane_counters& now, double seconds);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_RATES_H
