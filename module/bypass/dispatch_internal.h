// The dispatch pipeline's pieces, each under the one configuration snapshot
// that its decision started with.
#ifndef VANE_BYPASS_DISPATCH_INTERNAL_H
#define VANE_BYPASS_DISPATCH_INTERNAL_H

#include "base/bytes.h"
#include "drv_vane/config.h"
#include "drv_vane/parser.h"
#include "drv_vane/wlan_lb.h"
#include "kport/types.h"

namespace vane {

constexpr u8 kInternalMac0 = 0x0A;
constexpr u8 kInternalMac1 = 0x0B;

// Destination MAC 0A:0B:0B or 0A:0B:0C: the board's internal ECM/VP frames.
// False when the view has fewer than three bytes at off.
inline bool is_internal_mac_at(ByteView pkt, u64 off) {
  const u8* mac = pkt.at(off, 3);
  return mac != nullptr && mac[0] == kInternalMac0 && mac[1] == kInternalMac1 &&
         (mac[2] == 0x0B || mac[2] == 0x0C);
}

// The cause ID, its LB type and packet type; all three stay as they were
// when the packet is too short for them.
void read_cause_id(const BYPASS_PKT_OFFSET_S& cfg, ByteView pkt, u16* cause_id, u32* cause_type,
                   u64* pkt_type);

// The multi-core path (steps 1 to 15) on the packet, prefix stripped.
u32 multicore_path(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32* count, u8* list);

// VP dispatch of the internal frame at eth_offset.
void vp_dispatch(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32 eth_offset, u32* count,
                 u8* list);

// The outer frame at off carries the VP EtherType (behind a tag unless
// untagged); false when the packet is too short to tell.
bool vp_ethertype_at(ByteView pkt, u64 off, u8 untagged);

}  // namespace vane

#endif  // VANE_BYPASS_DISPATCH_INTERNAL_H
