// Packet delivery to the workers.
//
// Context: the switch driver's packet path, any processor, possibly where
// sleeping is forbidden. No lock is taken; each message costs one atomic
// socket-buffer allocation and one copy; the unicast never blocks. A failed
// delivery is reported to the caller and neither retried nor queued.
#include "base/bytes.h"
#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "kport/bndsafe.h"
#include "kport/errno.h"
#include "kport/netlink.h"
#include "netlink/netlink_internal.h"

namespace vane {
namespace {

constexpr u32 kMsgHdrLen = sizeof(NETLINK_PKT_MSG_S);
constexpr u32 kFieldsLen = kMsgHdrLen - KPORT_NLMSG_HDRLEN;  // type + length

bool valid_send_args(int type, const u8* buf, u32 len) {
  return type >= 1 && type <= NETLINK_MSG_TYPE_MAX && buf != nullptr && len >= 1 &&
         len <= NETLINK_MSG_DATA_LEN_MAX;
}

// Builds the packet message for port id `portid` and unicasts it.
int send_to_port(struct sock* sk, int type, const u8* buf, u32 len, u32 portid) {
  const u32 payload = KPORT_NLMSG_ALIGN(len + kFieldsLen);
  struct sk_buff* skb = kport_alloc_skb(KPORT_NLMSG_ALIGN(len + kMsgHdrLen) + KPORT_NLMSG_HDRLEN);
  if (skb == nullptr) return -KPORT_ENOMEM;
  kport_netlink_set_creds_pid(skb, 0);
  if (kport_skb_tailroom(skb) < KPORT_NLMSG_HDRLEN + payload) {
    kport_kfree_skb(skb);
    return -KPORT_EMSGSIZE;
  }
  kport_nlmsghdr* nlh = kport_nlmsg_put(skb, portid, 0, 0, static_cast<int>(payload), 0);
  nlh->nlmsg_type = NETLINK_VANE_MSG_TYPE;
  u8* body = reinterpret_cast<u8*>(nlh) + KPORT_NLMSG_HDRLEN;
  const u32 fields[2] = {static_cast<u32>(type), len};
  __builtin_memcpy(body, fields, sizeof(fields));
  (void)memcpy_s(body + kFieldsLen, payload - kFieldsLen, buf, len);
  // The platform leaves these alignment bytes as it found them; they must
  // not carry stale memory to user space.
  __builtin_memset(body + kFieldsLen + len, 0, payload - kFieldsLen - len);
  return kport_netlink_unicast(sk, skb, portid, 1);
}

}  // namespace
}  // namespace vane

extern "C" int netlink_send_msg_vcpuid(int iType, u8* pucBuf, u32 ulLen, u8 ucVcpuId,
                                       SUPP_NETLINK_KERNEL_S* pstNetlink) {
  if (!vane::valid_send_args(iType, pucBuf, ulLen) || ucVcpuId > BYPASS_VCPU_MAX ||
      pstNetlink == nullptr) {
    return -KPORT_EINVAL;
  }
  struct sock* sk = vane::channel_sock(pstNetlink);
  if (sk == nullptr) return -KPORT_EBADFD;
  u32 portid = vane::channel_vcpu_pid(pstNetlink, ucVcpuId);
  if (portid == 0) return -KPORT_EBADFD;
  return vane::send_to_port(sk, iType, pucBuf, ulLen, portid);
}

extern "C" int netlink_send_msg_bysock(int iType, u8* pucBuf, u32 ulLen,
                                       SUPP_NETLINK_KERNEL_S* pstNetlink) {
  if (!vane::valid_send_args(iType, pucBuf, ulLen) || pstNetlink == nullptr) {
    return -KPORT_EINVAL;
  }
  struct sock* sk = vane::channel_sock(pstNetlink);
  u32 default_pid = vane::channel_default_pid(pstNetlink);
  // Without a default receiver the channel is not ready, even when vCPU
  // receivers are registered.
  if (sk == nullptr || default_pid == 0) return -KPORT_EBADFD;

  if (bypass_isSupportMulticore() != 0) {
    u32 count = 0;
    u8 list[BYPASS_VCPU_LIST_MAX] = {};
    bypass_msg_getVCpuId(pucBuf, ulLen, &count, list);
    if (count == 1 && list[0] >= 1 && list[0] <= BYPASS_VCPU_MAX) {
      return netlink_send_msg_vcpuid(iType, pucBuf, ulLen, list[0], pstNetlink);
    }
    if (count >= 2 && count <= BYPASS_VCPU_LIST_MAX) {
      // The sum mixes message lengths and negative errors; callers that care
      // which vCPU failed must look at the counters.
      int sum = 0;
      for (u32 i = 0; i < count; ++i) {
        if (list[i] <= BYPASS_VCPU_MAX) {
          sum += netlink_send_msg_vcpuid(iType, pucBuf, ulLen, list[i], pstNetlink);
        }
      }
      return sum;
    }
  }
  return vane::send_to_port(sk, iType, pucBuf, ulLen, default_pid);
}

extern "C" int netlink_send_msg(u32 ulType, u8* pucBuf, u32 ulLen) {
  if (pucBuf == nullptr) return -KPORT_EINVAL;
  vane::ByteView view(pucBuf, ulLen);
  u32 word0 = 1;
  // ICMP echo takes the fast channel; only packets whose prefix word 0 is 0
  // may be diverted.
  if (view.ne32(0, &word0) && word0 == 0 && ulType == 1 &&
      netlink_filter_icmp_pkt(pucBuf, ulLen) == 1) {
    return netlink_send_msg_bysock(1, pucBuf, ulLen, &g_supp_fast_netlink_kernel);
  }
  return netlink_send_msg_bysock(static_cast<int>(ulType), pucBuf, ulLen, &g_supp_netlink_kernel);
}

extern "C" int netlink_fastsend_msg(u32 ulType, u8* pucBuf, u32 ulLen) {
  return netlink_send_msg_bysock(static_cast<int>(ulType), pucBuf, ulLen,
                                 &g_supp_fast_netlink_kernel);
}
