// Capture entries as a pcapng file, and the filter options of vanectl
// capture turned into an arming block's fields.
#ifndef VANE_TOOLS_VANECTL_CAPTURE_FILE_H
#define VANE_TOOLS_VANECTL_CAPTURE_FILE_H

#include <string>
#include <vector>

#include "vane/decode.h"

namespace vanectl {

// The whole file: section, interface "vane-capture" (snap length 64), one
// packet per entry at its capture time, with the entry's number, slot and
// event time stamps as comments.
std::string CapturePcapng(const std::vector<vane_capture_entry>& entries);

// One --filter KEY=VALUE into `a` (sets the value and the filter bit).
// Keys: ethertype, sip, dip, sip6, dip6, smac, dmac, len, udf (OFFSET:VALUE,
// twice at most), srcmod, srcport. Throws std::invalid_argument.
void ApplyCaptureFilter(const std::string& kv, vane_capture_arm* a);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_CAPTURE_FILE_H
