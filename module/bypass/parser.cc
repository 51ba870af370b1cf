// The packet parser: Ethernet, up to four VLAN tags, IPv4 or IPv6 (with its
// extension-header chain) and the UDP/TCP ports.
//
// Packets come straight off the chip and are not trusted: every read goes
// through a ByteView, and a header that does not fit wholly in the data ends
// parsing with BYPASS_PARSE_ERR rather than being read in part. Offsets are
// summed in u64 so that a caller's large offset cannot wrap into the buffer.
#include "drv_vane/parser.h"

#include "base/atomic.h"
#include "base/bytes.h"
#include "base/ether.h"
#include "drv_vane/config.h"

namespace vane {
namespace {

constexpr u32 kEthAddrLen = 6;
// A frame shorter than this fails before anything is written, whatever it
// holds; the VLAN walk may still need more.
constexpr u32 kEthMinLen = 24;
constexpr u32 kEthTypePos = 12;
constexpr u32 kVlanWalkEnd = 28;  // four tags at most
constexpr u32 kVlanTagLen = 4;

constexpr u16 kEthTypeIpv4 = 0x0800;
constexpr u16 kEthTypeIpv6 = 0x86DD;

constexpr u8 kProtoHopByHop = 0;
constexpr u8 kProtoTcp = 6;
constexpr u8 kProtoUdp = 17;
constexpr u8 kProtoRouting = 43;
constexpr u8 kProtoFragment = 44;
constexpr u8 kProtoEsp = 50;
constexpr u8 kProtoAuth = 51;
constexpr u8 kProtoDestOpts = 60;

constexpr u32 kIpv4MinHdrLen = 20;
constexpr u32 kIpv6HdrLen = 40;
// Every IPv6 extension header the walk understands is at least 8 bytes, and
// the walk reads no further into one than that.
constexpr u32 kIpv6ExtMinLen = 8;
constexpr u32 kL4PortsLen = 4;

constexpr u32 kBmpMacs = BYPASS_PKT_BMP_DMAC | BYPASS_PKT_BMP_SMAC;
constexpr u32 kBmpIpv4 = BYPASS_PKT_BMP_ID | BYPASS_PKT_BMP_DIP | BYPASS_PKT_BMP_SIP |
                         BYPASS_PKT_BMP_DPORT | BYPASS_PKT_BMP_SPORT | BYPASS_PKT_BMP_L4OFFSET;
constexpr u32 kBmpIpv6Addrs = BYPASS_PKT_BMP_SIP6 | BYPASS_PKT_BMP_DIP6;
constexpr u32 kBmpL4 = BYPASS_PKT_BMP_DPORT | BYPASS_PKT_BMP_SPORT | BYPASS_PKT_BMP_L4OFFSET;
static_assert(kBmpIpv4 == 0x13E0 && kBmpL4 == 0x1300, "consumers test these groups as a whole");

// IPv4 and IPv6 express the fragment position the same way: a more-fragments
// flag and a byte offset.
constexpr u8 frag_position(bool more, u32 offset) {
  if (offset == 0) return more ? BYPASS_IPFRAG_FIRST : BYPASS_IPFRAG_NONE;
  return more ? BYPASS_IPFRAG_MIDDLE : BYPASS_IPFRAG_LAST;
}
static_assert(frag_position(true, 0) == BYPASS_IPFRAG_FIRST, "");
static_assert(frag_position(false, 8) == BYPASS_IPFRAG_LAST, "");

// Reads both ports at `off` (source first on the wire). The caller has checked
// that four bytes are there.
void store_ports(const ByteView& v, u64 off, BYPASS_PKT_INFO_S* info) {
  const u8* p = v.at(off, kL4PortsLen);
  info->usSrcPort = load_be16(p);
  info->usDstPort = load_be16(p + 2);
}

u32 parse_ipv4(ByteView hdr, BYPASS_PKT_INFO_S* info, u32 hdr_off) {
  if (!hdr.has(0, kIpv4MinHdrLen)) return BYPASS_PARSE_ERR;
  const u8* h = hdr.data();
  const u8 proto = h[9];
  if (proto != kProtoUdp && proto != kProtoTcp) return BYPASS_PARSE_NOT_UDP_TCP;

  // IHL is taken as given, even below 5: the ports then come from inside the
  // 20 bytes already checked, which is odd but never out of bounds.
  const u32 ihl_len = (h[0] & 0x0Fu) * 4u;
  if (!hdr.has(ihl_len, kL4PortsLen)) return BYPASS_PARSE_IPV4_SHORT;

  info->ulDstIp = load_be32(h + 16);
  info->ulSrcIp = load_be32(h + 12);
  store_ports(hdr, ihl_len, info);
  info->ulOffSetUdpLen = static_cast<u32>(static_cast<u64>(hdr_off) + ihl_len);
  info->ulId = load_be16(h + 4);
  info->ucIsUdpPkt = proto == kProtoUdp ? 1 : 0;
  info->ulBmpInfo |= kBmpIpv4;

  const u16 flags_frag = load_be16(h + 6);
  const bool more = (flags_frag & 0x2000u) != 0;
  info->ucIpFrag = frag_position(more, (flags_frag & 0x1FFFu) * 8u);
  info->ulBmpInfo |= BYPASS_PKT_BMP_IPFRAG;
  return BYPASS_PARSE_OK;
}

u32 parse_ipv6(ByteView hdr, BYPASS_PKT_INFO_S* info, u32 hdr_off) {
  // Both addresses must be there before anything is written, so a short
  // header leaves the record as it was.
  if (!hdr.has(0, kIpv6HdrLen)) return BYPASS_PARSE_ERR;
  const u8* h = hdr.data();
  u8 nh = h[6];
  __builtin_memcpy(info->ip6_stDstAddr, h + 24, sizeof(info->ip6_stDstAddr));
  __builtin_memcpy(info->ip6_stSrcAddr, h + 8, sizeof(info->ip6_stSrcAddr));
  info->ulBmpInfo |= kBmpIpv6Addrs;

  // Running out of data, including a header cut short, ends the walk with
  // BYPASS_PARSE_ERR but still records the fragment position found so far:
  // consumers go by the bitmap, not by the result code.
  u64 q = kIpv6HdrLen;
  u32 frag_off = 0;
  bool more = false;
  u32 result = BYPASS_PARSE_ERR;
  while (true) {
    // The end of the data is checked before the next-header value is looked
    // at, so a chain that ends exactly at the data's end is an error even
    // when it names a protocol we do not parse.
    if (!hdr.has(q, 1)) break;
    if (nh == kProtoUdp) {
      if (!hdr.has(q, kL4PortsLen)) break;
      store_ports(hdr, q, info);
      info->ulOffSetUdpLen = static_cast<u32>(hdr_off + q);
      info->ulBmpInfo |= kBmpL4;
      result = BYPASS_PARSE_OK;
      break;
    }
    const bool known_ext = nh == kProtoHopByHop || nh == kProtoRouting || nh == kProtoDestOpts ||
                           nh == kProtoFragment || nh == kProtoAuth;
    if (!known_ext) return nh == kProtoEsp ? BYPASS_PARSE_IPV6_ESP : BYPASS_PARSE_IPV6_OTHER;

    const u8* ext = hdr.at(q, kIpv6ExtMinLen);
    if (ext == nullptr) break;
    const u8 this_nh = nh;
    nh = ext[0];
    if (this_nh == kProtoFragment) {
      info->ulId = load_be32(ext + 4);
      info->ulBmpInfo |= BYPASS_PKT_BMP_ID;
      frag_off = load_be16(ext + 2) & 0xFFF8u;
      more = (ext[3] & 1u) != 0;
      q += 8;
    } else if (this_nh == kProtoAuth) {
      q += (static_cast<u64>(ext[1]) + 2) * 4;
    } else {
      q += (static_cast<u64>(ext[1]) + 1) * 8;
    }
  }
  info->ucIpFrag = frag_position(more, frag_off);
  info->ulBmpInfo |= BYPASS_PKT_BMP_IPFRAG;
  return result;
}

u32 parse_frame(ByteView pkt, u16 mac_off, BYPASS_PKT_INFO_S* info) {
  if (!pkt.has(mac_off, kEthMinLen)) return BYPASS_PARSE_ERR;
  const ByteView frame = pkt.from(mac_off);
  info->usDataLength = static_cast<u16>(frame.size());

  // Taken through at() so the compiler sees the bound at the copy itself.
  const u8* macs = frame.at(0, 2 * kEthAddrLen);
  if (macs == nullptr) return BYPASS_PARSE_ERR;
  __builtin_memcpy(info->ucDstMac, macs, kEthAddrLen);
  __builtin_memcpy(info->ucSrcMac, macs + kEthAddrLen, kEthAddrLen);
  info->ulBmpInfo |= kBmpMacs;

  // After the fourth tag whatever stands at the end of the walk is the
  // EtherType, even another TPID. A tag that would be read past the data
  // ends the frame like a missing EtherType does.
  u32 p = kEthTypePos;
  u16 ether_type = 0;
  while (true) {
    if (!frame.be16(p, &ether_type)) return BYPASS_PARSE_ERR;
    if (p >= kVlanWalkEnd || !is_vlan_tpid(ether_type)) break;
    p += kVlanTagLen;
  }
  info->usProtocolType = ether_type;
  info->ulBmpInfo |= BYPASS_PKT_BMP_ETHTYPE;

  const u32 ip_off = mac_off + p + 2;  // fits: frame.be16(p) succeeded
  switch (ether_type) {
    case kEthTypeIpv4:
      return parse_ipv4(pkt.from(ip_off), info, ip_off);
    case kEthTypeIpv6:
      return parse_ipv6(pkt.from(ip_off), info, ip_off);
    default:
      return BYPASS_PARSE_NOT_IP;
  }
}

}  // namespace
}  // namespace vane

extern "C" {

u32 bypass_parse_pkt_multicore(u8* pucPkt, u32 ulLen, BYPASS_PKT_INFO_S* pstInfo, u16 usMacOffset) {
  if (pucPkt == nullptr || pstInfo == nullptr) return BYPASS_PARSE_ERR;
  return vane::parse_frame(vane::ByteView(pucPkt, ulLen), usMacOffset, pstInfo);
}

u32 bypass_parse_pkt_ipv4(u8* pucIpHdr, u32 ulRemain, BYPASS_PKT_INFO_S* pstInfo, u32 ulHdrOffset) {
  if (pucIpHdr == nullptr || pstInfo == nullptr) return BYPASS_PARSE_ERR;
  return vane::parse_ipv4(vane::ByteView(pucIpHdr, ulRemain), pstInfo, ulHdrOffset);
}

u32 bypass_parse_pkt_ipv6(u8* pucIpHdr, u32 ulRemain, BYPASS_PKT_INFO_S* pstInfo, u32 ulHdrOffset) {
  if (pucIpHdr == nullptr || pstInfo == nullptr) return BYPASS_PARSE_ERR;
  return vane::parse_ipv6(vane::ByteView(pucIpHdr, ulRemain), pstInfo, ulHdrOffset);
}

u32 bypass_getDhcpFlag(u16 usDstPort, u16 usSrcPort) {
  if (usDstPort == 67 && usSrcPort == 68) return BYPASS_DHCP_V4;
  if (usDstPort == 547 && usSrcPort == 546) return BYPASS_DHCP_V6;
  return BYPASS_DHCP_NONE;
}

u32 bypass_proc_check_is_first_ipfrag(u8* pucPkt, u32 ulLen, u32 ulEthOffset) {
  if (pucPkt == nullptr) return BYPASS_PARSE_ERR;
  const u64 mark_off =
      static_cast<u64>(vane::load_relaxed(&bypass_pkt_offset.ulFirstFragFlagOffset)) + ulEthOffset;
  u8 mark = 0;
  if (!vane::ByteView(pucPkt, ulLen).u8_at(mark_off, &mark)) return 0;
  return mark;
}

}  // extern "C"
