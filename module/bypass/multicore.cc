// The multi-core path: internal frames, then the steering tables, TIMNG and
// last the WLAN lookup chosen by the cause ID's LB type. The first decider
// that names a vCPU ends the search; the order is the behaviour.
//
// Context: the packet path, any processor, many packets at once. Everything
// per packet is on the stack; the only allocation is a first fragment's
// table entry, the only lock the fragment table's own.
#include "base/bytes.h"
#include "bypass/config_internal.h"
#include "bypass/dispatch_internal.h"
#include "debug/debug_internal.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"

namespace vane {
namespace {

constexpr u32 kOk = 0;
constexpr u32 kErrPara = 100;
constexpr u32 kEncapVlanId = 4094;
constexpr u16 kEncapEthType = 0x0724;
constexpr u32 kCapwapBits =
    BYPASS_PKT_BMP_DIP | BYPASS_PKT_BMP_SIP | BYPASS_PKT_BMP_DPORT | BYPASS_PKT_BMP_SPORT;  // 0x3C0
constexpr u32 kPortBits = BYPASS_PKT_BMP_DPORT | BYPASS_PKT_BMP_SPORT;
constexpr u32 kHgTypeByte = 2;  // packet type's byte in the HiGig2 header

bool is_lb_type(u32 t) { return t >= LB_CAPWAP && t <= LB_AAA_PORT; }

// One packet's decision state.
struct Decision {
  u8* pkt;
  u32 len;
  u32 mac;  // Ethernet offset after the encapsulation test
  u32* count;
  u8* list;
  u16 cause_id = 0;
  u32 cause_type = 0;
  u64 pkt_type = 0;
  BYPASS_PKT_INFO_S info = {};
  u32 parse_ret = 0;
};

u32 lb_aaa_mac(Decision& d) {
  WLAN_LB_ACCESS_INFO_S key = {};
  key.causeid = d.cause_id;
  for (u32 i = 0; i < 6; ++i) key.smac[i] = d.info.ucSrcMac[i];
  key.dhcpFlag = static_cast<u8>(bypass_getDhcpFlag(d.info.usDstPort, d.info.usSrcPort));
  // The parser sets the L4 bit only for an offset inside the packet.
  if ((d.info.ulBmpInfo & BYPASS_PKT_BMP_L4OFFSET) != 0 && d.info.ulOffSetUdpLen <= d.len) {
    key.pucUdpPkt = d.pkt + d.info.ulOffSetUdpLen;
    key.ulUdpPktLen = d.len - d.info.ulOffSetUdpLen;
  }
  const u32 ret = WLAN_LB_GetPktVCPUID(&key, LB_AAA_MAC, d.count, d.list);
  const u8* m = key.smac;
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\n LB_AAA_MAC:ret=%u,dhcpFlag=%u,ulUdpPktLen=%u,vcpunum=%d,vcpuid=%d,smac["
                   "%02x%02x-%02x%02x-%02x%02x]",
                   ret, key.dhcpFlag, key.ulUdpPktLen, static_cast<int>(*d.count), d.list[0], m[0],
                   m[1], m[2], m[3], m[4], m[5]);
  return ret;
}

u32 lb_capwap(Decision& d) {
  if ((d.info.ulBmpInfo & kCapwapBits) != kCapwapBits) {
    *d.count = 0;
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nLB_CAPWAP return,ulBmpInfo=%x.",
                     d.info.ulBmpInfo);
    return kOk;
  }
  WLAN_LB_FIVE_TUPLE_S key = {};
  key.causeid = d.cause_id;
  const u32 ret =
      static_cast<u32>(bypass_getvcpu_by_Five(&d.info, &key, LB_CAPWAP, d.count, d.list));
  bypass_debug_out(
      BYPASS_DEBUG_LEVEL_PKT,
      "\r\nLB_CAPWAP:ret=%u, dip=%08x, sip=%08x, dport=%u, sport=%u, vpn=%u,vcpunum=%d,"
      "vcpuid=%d",
      ret, key.dip, key.sip, key.dport, key.sport, key.vpn, static_cast<int>(*d.count), d.list[0]);
  return ret;
}

u32 lb_aaa_port(Decision& d) {
  if ((d.info.ulBmpInfo & kPortBits) != kPortBits) {
    *d.count = 0;
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nLB_AAA_PORT return, ulBmpInfo=%x.",
                     d.info.ulBmpInfo);
    return kOk;
  }
  WLAN_LB_PORT_INFO_S key = {};
  key.sport = d.info.usSrcPort;
  key.dport = d.info.usDstPort;
  key.causeid = d.cause_id;
  key.ucUDPFlag = d.info.ucIsUdpPkt;
  const u32 ret = WLAN_LB_GetPktVCPUID(&key, LB_AAA_PORT, d.count, d.list);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nLB_AAA_PORT :ret=%u, dport=%u, sport=%u ucUDPFlag=%u,vcpunum=%d,vcpuid=%d",
                   ret, key.dport, key.sport, key.ucUDPFlag, static_cast<int>(*d.count), d.list[0]);
  return ret;
}

u32 lb_capwap_ka(Decision& d) {
  if ((d.info.ulBmpInfo & BYPASS_PKT_BMP_L4OFFSET) == 0 || d.parse_ret != BYPASS_PARSE_OK) {
    *d.count = 0;
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nLB_CAPWAP_KA return %u.", d.parse_ret);
    return kOk;
  }
  WLAN_LB_SESSION_KEY_S key = {};
  key.causeid = d.cause_id;
  const u32 sid = bypass_getSessionId(key.ulSessionID, d.info.ulOffSetUdpLen, d.pkt, d.len);
  if (sid != 0) {
    *d.count = 0;
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nLB_CAPWAP_KA return,ret=%u, get sessiondid err.",
                     sid);
    return kOk;
  }
  const u32 ret = WLAN_LB_GetPktVCPUID(&key, LB_CAPWAP_KA, d.count, d.list);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nLB_CAPWAP_KA:ret=%u, ulSessionID[0x%08x-0x%08x-0x%08x-0x%08x],vcpunum=%d,"
                   "vcpuid=%d",
                   ret, key.ulSessionID[0], key.ulSessionID[1], key.ulSessionID[2],
                   key.ulSessionID[3], static_cast<int>(*d.count), d.list[0]);
  return ret;
}

// Step 12. The stamp lands in the HiGig2 header, or in the byte before the
// Ethernet header when packets carry none; a stamp that would land before
// the packet (ulMacOffset 0) or past its end is skipped.
void stamp_packet_type(const BYPASS_PKT_OFFSET_S& cfg, const Decision& d) {
  u64 at = 0;
  if (cfg.ulIsNoHgHdr == 1) {
    if (cfg.ulMacOffset == 0) return;
    at = static_cast<u64>(cfg.ulMacOffset) - 1;
  } else {
    at = static_cast<u64>(cfg.ulHgHdrOffset) + kHgTypeByte;
  }
  if (at < d.len) d.pkt[at] = static_cast<u8>(d.pkt_type);
}

// Encapsulated packets of ECM/VP-only boards carry their Ethernet header
// further in: VLAN 4094 with EtherType 0x0724 at bytes 14-17.
u32 ethernet_offset(const BYPASS_PKT_OFFSET_S& cfg, ByteView pkt) {
  u16 tci = 0;
  u16 type = 0;
  if (cfg.ulIsNoHgHdr == 1 && cfg.ulIsEcmVpOnly == 1 && pkt.be16(14, &tci) && pkt.be16(16, &type) &&
      (tci & 0x0FFF) == kEncapVlanId && type == kEncapEthType) {
    return cfg.ulInnerMacOffset;
  }
  return cfg.ulMacOffset;
}

}  // namespace

u32 multicore_path(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32* count, u8* list) {
  if (pkt == nullptr || count == nullptr || list == nullptr) return kErrPara;
  *count = 0;
  list[0] = 0;
  const ByteView view(pkt, len);
  Decision d{pkt, len, ethernet_offset(cfg, view), count, list};
  // The parser and TIMNG take 16-bit offsets; a larger one cannot be parsed.
  if (d.mac > len || d.mac > 0xFFFF) return kErrPara;

  if (is_internal_mac_at(view, d.mac)) {
    vp_dispatch(cfg, pkt, len, d.mac, count, list);
    return kOk;
  }
  if (cfg.ulIsEcmVpOnly == 1) return kOk;

  read_cause_id(cfg, view, &d.cause_id, &d.cause_type, &d.pkt_type);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nBypass pkt: CauseId=%u,ucCauseType=%u,ulPktType=%u",
                   d.cause_id, d.cause_type, static_cast<u32>(d.pkt_type));

  if (bypass_msg_get_ivo_vcpuid(d.cause_id, count, list) == BYPASS_IVO_HIT && *count != 0) {
    count_packet(list[0]);
    return kOk;
  }
  if (TIMNG_IsIpFragPacket(d.cause_id, pkt, len, static_cast<u16>(d.mac)) == 1) {
    *count = 1;
    list[0] = 0;
    count_packet(0);
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nPass timng scan packet.");
    return kOk;
  }
  u32 ret = TIMNG_GetVcpuIdByCauseid(d.cause_id, count, list);
  if (ret == TIMNG_VCPU_OK && *count != 0) {
    count_packet(list[0]);
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nPass timng packet, vcpuId =%u", list[0]);
    return kOk;
  }

  if (is_lb_type(d.cause_type)) {
    bypass_print_pkt(pkt, len, d.mac, 0);
    d.parse_ret = bypass_parse_pkt_multicore(pkt, len, &d.info, static_cast<u16>(d.mac));
    ret = d.parse_ret;
    const BYPASS_PKT_INFO_S& i = d.info;
    const u8* s = i.ucSrcMac;
    bypass_debug_out(
        BYPASS_DEBUG_LEVEL_PKT,
        "\r\npkt info([ret[%u],smac[%02x%02x-%02x%02x-%02x%02x]\r\nusProtocolType[%u],ucIpFrag[%u],"
        "ulId[%u],ulDstIp[%u],ulSrcIp[%u],\r\nusDstPort[%u],usSrcPort[%u],ulOffSetUdpLen[%u],"
        "ucIsUdpPkt[%u],ulBmpInfo[0x%08x])",
        ret, s[0], s[1], s[2], s[3], s[4], s[5], i.usProtocolType, i.ucIpFrag, i.ulId, i.ulDstIp,
        i.ulSrcIp, i.usDstPort, i.usSrcPort, i.ulOffSetUdpLen, i.ucIsUdpPkt, i.ulBmpInfo);
  }
  // A refused packet leaves count 0 and code 0, which ends the path below.
  switch (d.cause_type) {
    case LB_AAA_MAC:
      ret = lb_aaa_mac(d);
      break;
    case LB_CAPWAP:
      ret = lb_capwap(d);
      break;
    case LB_AAA_PORT:
      ret = lb_aaa_port(d);
      break;
    case LB_CAPWAP_KA:
      ret = lb_capwap_ka(d);
      break;
    default:
      break;
  }

  if (is_lb_type(d.cause_type) && *count != 0) stamp_packet_type(cfg, d);
  if (*count == 0 || *count > 7) return ret;
  for (u32 k = 0; k < *count; ++k) {
    const u8 v = list[k];
    if (v <= BYPASS_VCPU_MAX && d.pkt_type >= WLAN_LB_PKT_TYPE_MIN &&
        d.pkt_type <= WLAN_LB_PKT_TYPE_MAX) {
      bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                       "\r\nBypass WLAN dispatch  packet to (vcpuId=%u)\r\n", v);
      count_packet(BYPASS_PKT_COUNT_WLAN_BASE + BYPASS_PKT_COUNT_WLAN_TYPES * v +
                   static_cast<u32>(d.pkt_type));
    }
  }
  return ret;
}

}  // namespace vane

extern "C" u32 bypass_proc_msg_multicore(u8* pucPkt, u32 ulLen, u32* pulVcpuNum, u8* pucVcpuList) {
  if (pucPkt == nullptr || pulVcpuNum == nullptr || pucVcpuList == nullptr) return 100;
  BYPASS_PKT_OFFSET_S cfg;
  vane::config_snapshot(&cfg);
  return vane::multicore_path(cfg, pucPkt, ulLen, pulVcpuNum, pucVcpuList);
}
