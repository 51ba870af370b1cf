// The LB configuration messages. (Stub: filled in by the messages' change.)
#include "wlan_lb/wlan_lb_internal.h"

extern "C" u32 WLAN_LB_PacketDistribute_Proc(u32 ulMsgId, const void* pMsg, u32 ulLen) {
  (void)ulMsgId;
  (void)pMsg;
  (void)ulLen;
  return WLAN_LB_OK;
}
