/* The packet parser: an Ethernet frame at an offset of a packet becomes a
 * BYPASS_PKT_INFO_S. The parser only adds to the record (fields and bitmap
 * bits), so callers clear it first. It never reads at or beyond the length it
 * is given: a header that does not fit wholly counts as the end of the data
 * (BYPASS_PARSE_ERR), and the record keeps what was found before it.
 *
 * Where the data ends inside a header:
 *  - frame: fewer than offset + 24 bytes writes nothing; a VLAN tag or an
 *    EtherType that would be read past the data ends the walk with only the
 *    MAC bits set;
 *  - IPv4: the stage writes nothing unless 20 bytes and the ports (IHL * 4 + 4
 *    bytes) are there; the latter failing is BYPASS_PARSE_IPV4_SHORT;
 *  - IPv6: the stage writes nothing unless the 40-byte header is there; an
 *    extension header needs 8 bytes at its start and the UDP ports 4, else
 *    the walk ends there. A walk that ends for want of data still records the
 *    fragment position (bit 0x8) from any fragment header it passed.
 * Offsets are summed without wrapping, so a large offset never lands back
 * inside the buffer. */
#ifndef DRV_VANE_PARSER_H
#define DRV_VANE_PARSER_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_PKT_BMP_DMAC 0x1u
#define BYPASS_PKT_BMP_SMAC 0x2u
#define BYPASS_PKT_BMP_ETHTYPE 0x4u
#define BYPASS_PKT_BMP_IPFRAG 0x8u
#define BYPASS_PKT_BMP_ID 0x20u
#define BYPASS_PKT_BMP_DIP 0x40u
#define BYPASS_PKT_BMP_SIP 0x80u
#define BYPASS_PKT_BMP_DPORT 0x100u
#define BYPASS_PKT_BMP_SPORT 0x200u
#define BYPASS_PKT_BMP_SIP6 0x400u
#define BYPASS_PKT_BMP_DIP6 0x800u
#define BYPASS_PKT_BMP_L4OFFSET 0x1000u

/* ucIpFrag values. */
#define BYPASS_IPFRAG_NONE 0
#define BYPASS_IPFRAG_FIRST 1
#define BYPASS_IPFRAG_MIDDLE 2
#define BYPASS_IPFRAG_LAST 3

/* Parser result codes. */
#define BYPASS_PARSE_OK 0u          /* parsed up to the UDP or TCP header */
#define BYPASS_PARSE_NOT_IP 1u      /* EtherType neither IPv4 nor IPv6 */
#define BYPASS_PARSE_NOT_UDP_TCP 3u /* IPv4 protocol neither 17 nor 6 */
#define BYPASS_PARSE_IPV4_SHORT 4u  /* fewer bytes than IHL * 4 + 4 */
#define BYPASS_PARSE_IPV6_ESP 5u    /* IPv6 chain reached ESP */
#define BYPASS_PARSE_IPV6_OTHER 6u  /* IPv6 chain reached anything else */
#define BYPASS_PARSE_ERR 100u       /* missing argument, or data too short */

#define BYPASS_FIRST_FRAG_MARK 171u /* 0xAB */

/* DHCP classes of bypass_getDhcpFlag. */
#define BYPASS_DHCP_V4 1u
#define BYPASS_DHCP_V6 2u
#define BYPASS_DHCP_NONE 3u

typedef struct tagBYPASS_PKT_INFO {
  u8 ucDstMac[6];
  u8 ucSrcMac[6];
  u16 usProtocolType;
  u8 ucIpFrag;
  u8 ucVcpuId;
  u32 ulId;
  u32 ulDstIp;
  u32 ulSrcIp;
  u16 usDstPort;
  u16 usSrcPort;
  u8 ip6_stSrcAddr[16];
  u8 ip6_stDstAddr[16];
  u32 ulOffSetUdpLen;
  u8 ucIsUdpPkt;
  u16 usDataLength;
  u16 usHgSrcMod;
  u16 usHgSrcPort;
  u32 ulBmpInfo;
} BYPASS_PKT_INFO_S;

KPORT_EXTERN_C_BEGIN

u32 bypass_parse_pkt_multicore(u8* pucPkt, u32 ulLen, BYPASS_PKT_INFO_S* pstInfo, u16 usMacOffset);
u32 bypass_parse_pkt_ipv4(u8* pucIpHdr, u32 ulRemain, BYPASS_PKT_INFO_S* pstInfo, u32 ulHdrOffset);
u32 bypass_parse_pkt_ipv6(u8* pucIpHdr, u32 ulRemain, BYPASS_PKT_INFO_S* pstInfo, u32 ulHdrOffset);
u32 bypass_getDhcpFlag(u16 usDstPort, u16 usSrcPort);
/* The byte at ulFirstFragFlagOffset + ulEthOffset, 0 when that lies outside
 * the packet, 100 without a packet. */
u32 bypass_proc_check_is_first_ipfrag(u8* pucPkt, u32 ulLen, u32 ulEthOffset);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_PARSER_H */
