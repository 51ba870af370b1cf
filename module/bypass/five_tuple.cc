// LB_CAPWAP by five-tuple, with the fragments of one IPv4 datagram kept on
// the vCPU that the CAPWAP lookup gave its first fragment: middle and last
// fragments carry no ports, so only the fragment table can place them.
//
// Context: the packet path, any processor. The fragment table takes its own
// lock; a first fragment allocates its table entry, nothing else allocates.
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/frag.h"
#include "drv_vane/wlan_lb.h"

namespace vane {
namespace {

constexpr s32 kFirstFragLookupFailed = 100;

void fill_key(const BYPASS_PKT_INFO_S& info, WLAN_LB_FIVE_TUPLE_S* key) {
  key->sip = info.ulSrcIp;
  key->dip = info.ulDstIp;
  key->sport = info.usSrcPort;
  key->dport = info.usDstPort;
  key->vpn = 0;
}

}  // namespace
}  // namespace vane

extern "C" s64 bypass_getvcpu_by_Five(BYPASS_PKT_INFO_S* pstPktInfo, WLAN_LB_FIVE_TUPLE_S* pstKey,
                                      u32 ulLBType, u32* pulVcpuNum, u8* pucVcpuList) {
  using namespace vane;
  if (pstPktInfo == nullptr || pstKey == nullptr || pulVcpuNum == nullptr ||
      pucVcpuList == nullptr) {
    return 0;
  }
  s32 ret = 0;
  u8 vcpu = 0;
  switch (pstPktInfo->ucIpFrag) {
    case BYPASS_IPFRAG_NONE:
      fill_key(*pstPktInfo, pstKey);
      ret = static_cast<s32>(WLAN_LB_GetPktVCPUID(pstKey, ulLBType, pulVcpuNum, pucVcpuList));
      break;
    case BYPASS_IPFRAG_FIRST:
      fill_key(*pstPktInfo, pstKey);
      if (WLAN_LB_GetPktVCPUID(pstKey, ulLBType, pulVcpuNum, pucVcpuList) != WLAN_LB_OK) {
        return kFirstFragLookupFailed;
      }
      // The lookup's vCPU stands even if the table cannot hold the datagram:
      // only its later fragments lose their way then.
      pstPktInfo->ucVcpuId = pucVcpuList[0];
      ret = static_cast<s32>(bypass_ipfrag_addInHash(pstPktInfo));
      break;
    case BYPASS_IPFRAG_MIDDLE:
      ret = static_cast<s32>(bypass_ipfrag_findVcpuInHash(pstPktInfo, &vcpu));
      if (ret == 0) {
        pucVcpuList[0] = vcpu;
        *pulVcpuNum = 1;
      }
      break;
    case BYPASS_IPFRAG_LAST:
      ret =
          static_cast<s32>(bypass_ipfrag_delInHash(pstPktInfo, pstPktInfo->usProtocolType, &vcpu));
      if (ret == 0) {
        pucVcpuList[0] = vcpu;
        *pulVcpuNum = 1;
      }
      break;
    default:
      break;
  }
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nret=%u,ipfrag=%u,dip=%08x, sip=%08x, dport=%08x,sport=%08x,vpn=%u",
                   static_cast<u32>(ret), pstPktInfo->ucIpFrag, pstKey->dip, pstKey->sip,
                   pstKey->dport, pstKey->sport, pstKey->vpn);
  return ret;
}
