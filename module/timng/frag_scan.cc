// The TIMNG fragment scan: UDP IPv4 fragments of a scanned cause ID are
// tracked in the fragment tables so that the whole datagram is handed to the
// default receiver, whichever vCPU the tables remember.
//
// Context: the packet path, any processor, lock-free here; the fragment
// tables take their own locks. The parser never reads at or beyond ulLen.
#include "drv_vane/debug.h"
#include "drv_vane/frag.h"
#include "drv_vane/parser.h"
#include "drv_vane/timng.h"
#include "timng/timng_internal.h"

namespace vane {
namespace {

u32 track_fragment(BYPASS_PKT_INFO_S* info, u32 parse_ret) {
  u8 vcpu = 0;  // the remembered vCPU is not used: scan packets go to 0
  switch (info->ucIpFrag) {
    case BYPASS_IPFRAG_FIRST:
      return bypass_ipfrag_addInHash(info);
    case BYPASS_IPFRAG_MIDDLE:
      return bypass_ipfrag_findVcpuInHash(info, &vcpu);
    case BYPASS_IPFRAG_LAST:
      return bypass_ipfrag_delInHash(info, info->usProtocolType, &vcpu);
    default:
      return parse_ret;
  }
}

}  // namespace
}  // namespace vane

extern "C" u32 TIMNG_IsIpFragPacket(u16 usCauseId, u8* pucPkt, u32 ulLen, u16 usEthOffset) {
  using namespace vane;
  if (pucPkt == nullptr) return 0;
  TimngView v = timng_lookup(usCauseId);
  if (!v.found || v.frag_scan == 0) return 0;

  BYPASS_PKT_INFO_S info = {};
  u32 r = bypass_parse_pkt_multicore(pucPkt, ulLen, &info, usEthOffset);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\npkt info([ret[%u],smac[%02x%02x-%02x%02x-%02x%02x]\r\nusProtocolType[%u],"
                   "ucIpFrag[%u],ulId[%u],ulDstIp[%u],ulSrcIp[%u],\r\nusDstPort[%u],usSrcPort[%u],"
                   "ulOffSetUdpLen[%u],ucIsUdpPkt[%u],ulBmpInfo[0x%08x])",
                   r, info.ucSrcMac[0], info.ucSrcMac[1], info.ucSrcMac[2], info.ucSrcMac[3],
                   info.ucSrcMac[4], info.ucSrcMac[5], info.usProtocolType, info.ucIpFrag,
                   info.ulId, info.ulDstIp, info.ulSrcIp, info.usDstPort, info.usSrcPort,
                   info.ulOffSetUdpLen, info.ucIsUdpPkt, info.ulBmpInfo);
  if (info.ucIsUdpPkt == 0 || info.ucIpFrag == BYPASS_IPFRAG_NONE) return 0;
  u32 e = track_fragment(&info, r);
  if (e != 0) bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nhandle pkt(ret[%u]).", e);
  return 1;
}
