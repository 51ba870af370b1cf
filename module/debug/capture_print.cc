// Debug command 19: the capture state in the kernel log, as operators
// compare it with what catchPkt returned.
//
// Context: the control-message receiver. The block is a word-wise snapshot
// and each entry a copy taken under the store's claim protocol, so the
// printout never shows an entry half written; an entry still being written
// prints as empty.
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/capture.h"
#include "kport/printk.h"

extern "C" void bypass_catch_info(void) {
  using namespace vane;
  kport_printk(KPORT_LOGLEVEL_ALERT,
               "\r\n**bypass_catch_info  g_ulPktAllSlotIsOn[0x%08x] slot[%u]****\r\n",
               load_relaxed(&g_ulPktAllSlotIsOn), load_relaxed(&g_ulCurrSlotId));
  BYPASS_PKT_RECORD_CTRL_S c;
  capture_ctrl_snapshot(&c);
  const u8* s6 = c.ip6_stSrcAddr;
  const u8* d6 = c.ip6_stDstAddr;
  kport_printk(
      KPORT_LOGLEVEL_ALERT,
      "\r\nucCmdEvent[%u] ucSource[%u] usSlot[%u]    usTotalCnt[%u] usCount[%u]   usSrcMod[%u] "
      "\r\nusSrcPort[%u] usDstMod[%u]  usDstPort[%u] usUdfOffset1[%u] usUdfVaule1[%u] "
      "usUdfOffset2[%u] \r\nusUdfVaule2[%u]  usDataLength[%u] usEthType[%u]    "
      "ucSrcMac[%02x%02x-%02x%02x-%02x%02x] ucDstMac[%02x%02x-%02x%02x-%02x%02x]\r\nulSrcIp[%u]   "
      "ulDstIp[%u]   "
      "ip6_stSrcAddr[%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x]\r\n"
      "ip6_stDstAddr[%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x] "
      "ulVauleBmp[%u] ulCatchTime[%u]  ucReceiveSendFlag[%u]",
      c.ucCmdEvent, c.ucSource, c.usSlot, c.usTotalCnt, c.usCount, c.usSrcMod, c.usSrcPort,
      c.usDstMod, c.usDstPort, c.usUdfOffset1, c.usUdfVaule1, c.usUdfOffset2, c.usUdfVaule2,
      c.usDataLength, c.usEthType, c.ucSrcMac[0], c.ucSrcMac[1], c.ucSrcMac[2], c.ucSrcMac[3],
      c.ucSrcMac[4], c.ucSrcMac[5], c.ucDstMac[0], c.ucDstMac[1], c.ucDstMac[2], c.ucDstMac[3],
      c.ucDstMac[4], c.ucDstMac[5], c.ulSrcIp, c.ulDstIp, s6[0], s6[1], s6[2], s6[3], s6[4], s6[5],
      s6[6], s6[7], s6[8], s6[9], s6[10], s6[11], s6[12], s6[13], s6[14], s6[15], d6[0], d6[1],
      d6[2], d6[3], d6[4], d6[5], d6[6], d6[7], d6[8], d6[9], d6[10], d6[11], d6[12], d6[13],
      d6[14], d6[15], c.ulVauleBmp, c.ulCatchTime, c.ucReceiveSendFlag);
  for (u32 ii = 0; ii < BYPASS_CATCH_PKT_NUM; ++ii) {
    BYPASS_CATCH_PKT_S e;
    if (!capture_store_peek(ii, &e)) return;  // no store: nothing to list
    const BYPASS_CATCH_TIME_S* t = e.astTime;
    kport_printk(KPORT_LOGLEVEL_ALERT,
                 "\r\nii=%u,len=%u,slot=%u,num=%u,used=%u\r\n0:used=%u, even=%u,sec=%u,usec=%u"
                 "\r\n1:used=%u, even=%u,sec=%u,usec=%u",
                 ii, e.usLen, e.usSlot, e.ucNum, e.ucUsed, t[0].ucUsed, t[0].usEvent, t[0].ulSec,
                 t[0].ulNsec, t[1].ucUsed, t[1].usEvent, t[1].ulSec, t[1].ulNsec);
  }
}
