// Deciding on capture: the refusal rules, the filters of the control block
// in their fixed order, and the field tests that the driver may call alone.
//
// Context: the caller's packet path, any processor, any context that may
// not sleep. Every read of packet bytes is bounded by the length given.
#include "base/atomic.h"
#include "base/bytes.h"
#include "debug/debug_internal.h"
#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/parser.h"

namespace vane {
namespace {

constexpr u32 kEthAddrLen = 6;
constexpr u32 kIpcMinLen = 21;
constexpr u32 kIpcTypeOffset = 16;
constexpr u16 kIpcTypeBoard = 0x5101;
constexpr u16 kIpcTypeOther = 0x0640;
constexpr u8 kIpcMacPrefix[3] = {0x0A, 0x0B, 0x0C};

bool armed(const BYPASS_PKT_RECORD_CTRL_S& c) {
  return c.usCount != 0 && c.usTotalCnt <= BYPASS_CATCH_PKT_NUM && c.usCount <= c.usTotalCnt &&
         c.ucCatchIsOn == 1;
}

// A frame too short to hold the address cannot match it.
bool mac_is(ByteView frame, u32 off, const u8* want) {
  const u8* mac = frame.at(off, kEthAddrLen);
  return mac != nullptr && __builtin_memcmp(mac, want, kEthAddrLen) == 0;
}

bool selected(u32 bmp, u32 bit) { return (bmp & bit) != 0; }
bool has(const BYPASS_PKT_INFO_S& p, u32 bit) { return (p.ulBmpInfo & bit) != 0; }

// The filters in the order operators read them in the printout; the first
// that fails refuses the packet.
bool passes(const BYPASS_PKT_RECORD_CTRL_S& c, const BYPASS_PKT_INFO_S& p, ByteView frame) {
  const u32 bmp = c.ulVauleBmp;
  // The parser leaves the chip's source module and port at 0, so these two
  // pass only for a control value of 0.
  if (selected(bmp, BYPASS_CATCH_FLT_SRCMOD) && c.usSrcMod != p.usHgSrcMod) return false;
  if (selected(bmp, BYPASS_CATCH_FLT_SRCPORT) && c.usSrcPort != p.usHgSrcPort) return false;
  if (selected(bmp, BYPASS_CATCH_FLT_LEN) && c.usDataLength != p.usDataLength) return false;
  u8* data = const_cast<u8*>(frame.data());
  if (selected(bmp, BYPASS_CATCH_FLT_UDF1) &&
      bypass_TS_IsNeedCatchPktByUdf(data, frame.size(), c.usUdfOffset1, c.usUdfVaule1) != 0) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_UDF2) &&
      bypass_TS_IsNeedCatchPktByUdf(data, frame.size(), c.usUdfOffset2, c.usUdfVaule2) != 0) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_SMAC) && !mac_is(frame, kEthAddrLen, c.ucSrcMac)) return false;
  if (selected(bmp, BYPASS_CATCH_FLT_DMAC) && !mac_is(frame, 0, c.ucDstMac)) return false;
  if (selected(bmp, BYPASS_CATCH_FLT_ETHTYPE) && has(p, BYPASS_PKT_BMP_ETHTYPE) &&
      p.usProtocolType != c.usEthType) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_SIP) && has(p, BYPASS_PKT_BMP_SIP) && p.ulSrcIp != c.ulSrcIp) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_DIP) && has(p, BYPASS_PKT_BMP_DIP) && p.ulDstIp != c.ulDstIp) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_SIP6) && has(p, BYPASS_PKT_BMP_SIP6) &&
      __builtin_memcmp(p.ip6_stSrcAddr, c.ip6_stSrcAddr, 16) != 0) {
    return false;
  }
  if (selected(bmp, BYPASS_CATCH_FLT_DIP6) && has(p, BYPASS_PKT_BMP_DIP6) &&
      __builtin_memcmp(p.ip6_stDstAddr, c.ip6_stDstAddr, 16) != 0) {
    return false;
  }
  return true;
}

}  // namespace
}  // namespace vane

extern "C" u32 bypass_IsNeedCatchPkt(u8* pucPkt, u32 ulLen, u16 usEvent, u8* pucMark,
                                     u16 usMacOffset) {
  using namespace vane;
  const u32 mask = load_acquire(&g_ulPktAllSlotIsOn);
  if (mask == 0 || pucPkt == nullptr || pucMark == nullptr) return 0;
  const u32 slot = load_relaxed(&g_ulCurrSlotId);
  if ((mask & (1u << (slot % 32))) == 0) return 0;
  BYPASS_PKT_RECORD_CTRL_S ctrl;
  capture_ctrl_snapshot(&ctrl);
  if (!armed(ctrl)) return 0;
  // No frame starts past the end of the packet.
  if (usMacOffset > ulLen) return 0;

  BYPASS_PKT_INFO_S info{};
  (void)bypass_parse_pkt_multicore(pucPkt, ulLen, &info, usMacOffset);
  const ByteView frame = ByteView(pucPkt, ulLen).from(usMacOffset);
  if (!passes(ctrl, info, frame)) return 0;

  u8 num = 0;
  if (!capture_claim_number(&num)) return 0;  // another packet took the last one
  const u8 mark = static_cast<u8>(num | BYPASS_CATCH_MARK_ON);
  *pucMark = mark;
  bypass_TS_RecvPktEvent(BYPASS_CATCH_EVENT_CAPTURE, pucPkt + usMacOffset, ulLen - usMacOffset,
                         usEvent, mark, static_cast<u16>(slot));
  return 1;
}

extern "C" u32 bypass_TS_IsNeedCatchPktByUdf(u8* pucData, u32 ulLen, u16 usOffset, u16 usValue) {
  u16 field = 0;
  if (pucData == nullptr || ulLen < 2) return 1;
  if (!vane::ByteView(pucData, ulLen).be16(usOffset, &field)) return 1;
  return field == usValue ? 0 : 1;
}

extern "C" u32 bypass_TS_IsIpcPkt(u8* pucData, u32 ulLen) {
  using namespace vane;
  if (pucData == nullptr || ulLen < kIpcMinLen) return 0;
  const ByteView frame(pucData, ulLen);
  const u8* prefix = frame.at(0, sizeof(kIpcMacPrefix));
  u16 type = 0;
  if (prefix == nullptr || __builtin_memcmp(prefix, kIpcMacPrefix, sizeof(kIpcMacPrefix)) != 0 ||
      !frame.be16(kIpcTypeOffset, &type)) {
    return 0;
  }
  const u16 want = bypass_get_boardType() == BYPASS_CATCH_IPC_BOARD ? kIpcTypeBoard : kIpcTypeOther;
  return type == want ? 1 : 0;
}
