// VP dispatch: internal frames that name their vCPU in the fourth byte of the
// destination MAC, and the fragments of IPv4 datagrams carried in them, which
// the sender marks (first fragment) or leaves to us (vCPU byte 61).
//
// Context: the packet path, any processor. No lock of its own; the fragment
// table locks itself, and a first fragment allocates its entry.
#include "base/bytes.h"
#include "base/ether.h"
#include "bypass/config_internal.h"
#include "bypass/dispatch_internal.h"
#include "debug/debug_internal.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/frag.h"
#include "drv_vane/netlink.h"

namespace vane {
namespace {

constexpr u32 kVcpuByte = 3;
constexpr u32 kTpidAt = 12;
constexpr u8 kNonFirstFragMark = 61;
constexpr u32 kIpv4Addrs = BYPASS_PKT_BMP_DIP | BYPASS_PKT_BMP_SIP;

bool has_ipv4_addrs(const BYPASS_PKT_INFO_S& info) {
  return (info.ulBmpInfo & kIpv4Addrs) == kIpv4Addrs;
}

// Offsets handed to the parser and the printer are 16-bit.
u16 low16(u64 v) { return static_cast<u16>(v & 0xFFFF); }

void non_first_fragment(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32 m, u8 untagged,
                        u32* count, u8* list) {
  const ByteView view(pkt, len);
  const u64 inner = static_cast<u64>(cfg.ulVpFragInnerOffset) + m;
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nKernel receive a packet with non-first-frag vcpuid.");
  bypass_print_pkt(pkt, len, low16(inner), 1);
  if (!vp_ethertype_at(view, m, untagged)) return;
  if (inner > len) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nPacket len error.len=%d", static_cast<int>(len));
    return;
  }
  BYPASS_PKT_INFO_S info = {};
  (void)bypass_parse_pkt_multicore(pkt, len, &info, low16(inner));
  if (!has_ipv4_addrs(info)) return;
  u8 vcpu = 0;
  if (info.ucIpFrag == BYPASS_IPFRAG_MIDDLE) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nKernel receive middle ip frag packet");
    if (bypass_ipfrag_findVcpuInHash(&info, &vcpu) != BYPASS_FRAG_OK) return;
    *count = 1;
    list[0] = vcpu;
    count_packet(BYPASS_PKT_COUNT_VP_BASE + vcpu);
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                     "\r\nFind middle ipfrag in hash table,dst vcpu=%d.\r\n", vcpu);
  } else if (info.ucIpFrag == BYPASS_IPFRAG_LAST) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nkernel receive last ip frag packet");
    if (bypass_ipfrag_delInHash(&info, info.usProtocolType, &vcpu) != BYPASS_FRAG_OK) return;
    *count = 1;
    list[0] = vcpu;
    count_packet(BYPASS_PKT_COUNT_VP_BASE + vcpu);
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                     "\r\nKernel  delete last ipfrag from hash table,dst vcpu=%d.\r\n", vcpu);
  }
}

void direct_vcpu(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32 m, u8 untagged, u8 vcpu,
                 u32* count, u8* list) {
  const ByteView view(pkt, len);
  const u64 inner = static_cast<u64>(cfg.ulVpInnerOffset) + m;
  *count = 1;
  list[0] = vcpu;
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nBypass VP  dispatch  packet to vcpuid:%d", vcpu);
  bypass_print_pkt(pkt, len, low16(inner), 1);
  if (vp_ethertype_at(view, m, untagged) &&
      bypass_proc_check_is_first_ipfrag(pkt, len, m) == BYPASS_FIRST_FRAG_MARK) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nkernel receive first ip frag packet");
    BYPASS_PKT_INFO_S info = {};
    (void)bypass_parse_pkt_multicore(pkt, len, &info, low16(inner));
    if (has_ipv4_addrs(info) && info.ucIpFrag == BYPASS_IPFRAG_FIRST) {
      info.ucVcpuId = vcpu;
      bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nAdd ipfrag to hash table, ucVcpuId=%d.\r\n",
                       vcpu);
      const u32 ret = bypass_ipfrag_addInHash(&info);
      // The dispatch stands: only the later fragments lose their way.
      if (ret != BYPASS_FRAG_OK) {
        bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nPacket addInHash fail.ret=%d,srcip=%u,dip=%u",
                         static_cast<int>(ret), info.ulSrcIp, info.ulDstIp);
      }
    }
  }
  count_packet(BYPASS_PKT_COUNT_VP_BASE + vcpu);
}

}  // namespace

bool vp_ethertype_at(ByteView pkt, u64 off, u8 untagged) {
  // The EtherType test reads bytes 12-13 (untagged) or 16-17 of the frame.
  const u8* eth = pkt.at(off, untagged ? 14 : 18);
  return eth != nullptr && netlink_check_if_data_vp(const_cast<u8*>(eth), untagged) == 0;
}

void vp_dispatch(const BYPASS_PKT_OFFSET_S& cfg, u8* pkt, u32 len, u32 eth_offset, u32* count,
                 u8* list) {
  *count = 0;
  list[0] = 0;
  const ByteView view(pkt, len);
  u8 vcpu = 0;
  // A frame too short for its vCPU byte names no vCPU.
  if (!view.u8_at(static_cast<u64>(eth_offset) + kVcpuByte, &vcpu)) return;
  u16 tpid = 0;
  const u8 untagged =
      view.be16(static_cast<u64>(eth_offset) + kTpidAt, &tpid) && is_vlan_tpid(tpid) ? 0 : 1;
  if (vcpu == kNonFirstFragMark) {
    non_first_fragment(cfg, pkt, len, eth_offset, untagged, count, list);
  } else if (vcpu >= 1 && vcpu <= BYPASS_VCPU_MAX) {
    direct_vcpu(cfg, pkt, len, eth_offset, untagged, vcpu, count, list);
  }
}

}  // namespace vane

extern "C" void bypass_msg_get_ecmvp_pkt_vcpu(u8* pucPkt, u32 ulLen, u32 ulEthOffset,
                                              u32* pulVcpuNum, u8* pucVcpuList) {
  if (pulVcpuNum == nullptr || pucVcpuList == nullptr) return;
  BYPASS_PKT_OFFSET_S cfg;
  vane::config_snapshot(&cfg);
  vane::vp_dispatch(cfg, pucPkt, pucPkt == nullptr ? 0 : ulLen, ulEthOffset, pulVcpuNum,
                    pucVcpuList);
}
