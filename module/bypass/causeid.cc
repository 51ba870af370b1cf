// The packet's cause ID: the upper 13 bits of the big-endian 16-bit value at
// ulCauseIdOffset + 18, and the LB treatment the WLAN tables give it.
//
// Context: the packet path, any processor; lock-free, allocates nothing.
#include "base/bytes.h"
#include "bypass/config_internal.h"
#include "bypass/dispatch_internal.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"

namespace vane {
namespace {

constexpr u32 kMinLenPastMac = 24;
constexpr u32 kCauseIdAt = 18;  // past ulCauseIdOffset

}  // namespace

void read_cause_id(const BYPASS_PKT_OFFSET_S& cfg, ByteView pkt, u16* cause_id, u32* cause_type,
                   u64* pkt_type) {
  u16 raw = 0;
  // The length test concerns the Ethernet header, but the two cause-ID bytes
  // sit at an offset of their own: a packet too short for them is treated as
  // too short for a cause ID at all.
  if (static_cast<u64>(pkt.size()) < static_cast<u64>(cfg.ulMacOffset) + kMinLenPastMac ||
      !pkt.be16(static_cast<u64>(cfg.ulCauseIdOffset) + kCauseIdAt, &raw)) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nget_causeid err(len=%u,offtoMac=%u).", pkt.size(),
                     cfg.ulMacOffset);
    return;
  }
  *cause_id = static_cast<u16>(raw >> 3);
  *cause_type = 0;
  (void)WLAN_LB_IsNeedLBPkt(*cause_id, cause_type, pkt_type);
}

}  // namespace vane

extern "C" void bypass_msg_get_causeid(u8* pucPkt, u32 ulLen, u16* pusCauseId, u32* pulCauseType,
                                       u64* pullPktType) {
  if (pucPkt == nullptr || pusCauseId == nullptr || pulCauseType == nullptr ||
      pullPktType == nullptr) {
    return;
  }
  BYPASS_PKT_OFFSET_S cfg;
  vane::config_snapshot(&cfg);
  vane::read_cause_id(cfg, vane::ByteView(pucPkt, ulLen), pusCauseId, pulCauseType, pullPktType);
}
