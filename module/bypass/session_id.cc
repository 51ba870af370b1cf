// The session ID of a CAPWAP data keep-alive: the one message element (type
// 35, 16 bytes) behind the CAPWAP header that follows the UDP header.
//
// Context: the packet path, any processor; reads the packet only through
// bounds-checked views.
#include "base/bytes.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"

namespace vane {
namespace {

constexpr u32 kErr = 100;
constexpr u64 kUdpHdrLen = 8;
constexpr u64 kMinPastUdp = 16;   // UDP header and the first CAPWAP words
constexpr u64 kMinPastHdr = 30;   // UDP, CAPWAP preamble, whole element
constexpr u32 kCapwapF = 0x80;    // fragment
constexpr u32 kCapwapK = 0x08;    // keep-alive
constexpr u16 kElementsLen = 22;  // one session-ID element with its header
constexpr u16 kSessionIdType = 35;
constexpr u16 kSessionIdLen = 16;

u32 hlen_bytes(u32 word0) { return ((word0 >> 19) & 0x1F) * 4; }

}  // namespace
}  // namespace vane

extern "C" u32 bypass_getSessionId(u32* pulSessionId, u32 ulUdpOffset, u8* pucPkt, u32 ulLen) {
  using namespace vane;
  if (pulSessionId == nullptr || pucPkt == nullptr) return kErr;
  const ByteView pkt(pucPkt, ulLen);
  const u64 u = ulUdpOffset;
  if (u + kMinPastUdp > ulLen) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\ngetSessionId err1(len=%u,ulOffSetUdpLen=%u).",
                     ulLen, ulUdpOffset);
    return kErr;
  }
  const u64 c = u + kUdpHdrLen;
  u32 w = 0;
  (void)pkt.be32(c, &w);  // inside the 16 bytes checked above
  if ((w & kCapwapF) != 0 || (w & kCapwapK) == 0) return kErr;
  const u32 h = hlen_bytes(w);
  const u64 e = c + h;
  u16 elen = 0;
  // The element length lies past the header, which may end the packet: a
  // packet without it fails the length test that follows the value test.
  if (!pkt.be16(e, &elen)) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR,
                     "\r\ngetSessionId err3(len=%u,ulOffSetUdpLen=%u,capHdr=%u).", ulLen,
                     ulUdpOffset, h);
    return kErr;
  }
  if (elen != kElementsLen) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\ngetSessionId err2(u16ElementLen=%u).", elen);
    return kErr;
  }
  if (ulLen < u + kMinPastHdr + h) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR,
                     "\r\ngetSessionId err3(len=%u,ulOffSetUdpLen=%u,capHdr=%u).", ulLen,
                     ulUdpOffset, h);
    return kErr;
  }
  u16 type = 0;
  u16 len = 0;
  (void)pkt.be16(e + 2, &type);
  (void)pkt.be16(e + 4, &len);
  if (type != kSessionIdType || len != kSessionIdLen) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\ngetSessionId err4(type=%u,len=%u).", type, len);
    return kErr;
  }
  for (u32 i = 0; i < 4; ++i) (void)pkt.be32(e + 6 + 4 * i, &pulSessionId[i]);
  return 0;
}
