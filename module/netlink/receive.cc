// The control-message receiver: routes each message of a received buffer by
// its message id.
//
// Context: the input callback runs synchronously in the sending process's
// context, on any processor and on several at once; nothing here sleeps or
// takes a lock. Only the netlink acknowledgement reports back to the sender.
#include "base/bytes.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "kport/errno.h"
#include "kport/netlink.h"
#include "netlink/netlink_internal.h"
#include "wlan_lb/message.h"

namespace vane {
namespace {

constexpr u32 kCtrlHdrLen = sizeof(NETLINK_CTRL_MSG_S);
// What the built-in ids read of their payload.
constexpr u32 kPidPayloadLen = sizeof(NETLINK_PID_MSG_S);
constexpr u32 kOffsetPayloadLen = sizeof(BYPASS_PKT_OFFSET_S);
constexpr u32 kDebugFlagPayloadLen = 1;
constexpr u32 kIvoPayloadLen = sizeof(BYPASS_LB_TABLE_S);
constexpr u32 kTimngPayloadLen = TIMNG_MSG_PAYLOAD_LEN;

// A control message's payload: its address, the bytes the message really
// carries after the id and length fields, and the length field as sent.
struct Payload {
  u8* data;
  u32 avail;
  u32 len_field;
};

int register_sender(struct sk_buff* skb, const Payload& p) {
  if (p.avail < kPidPayloadLen) return -KPORT_EINVAL;
  ByteView view(p.data, p.avail);
  u32 selector = 0;
  u32 vcpu = 0;
  view.ne32(0, &selector);
  view.ne32(4, &vcpu);
  SUPP_NETLINK_KERNEL_S* rec = channel_by_selector(selector);
  if (rec == nullptr || vcpu >= NETLINK_VCPU_SLOT_NUM) return 0;
  // The port id recorded is the sender's process id, not nlmsg_pid: a worker
  // is reachable when its socket's port id equals its process id.
  channel_register(rec, vcpu, kport_netlink_creds_pid(skb));
  return 0;
}

int call_registered_handler(u32 id, const Payload& p) {
  // Handlers of both sockets come from the normal record.
  NETLINK_MSG_HANDLER_PF handler = channel_handler(&g_supp_netlink_kernel, id);
  if (handler == nullptr) return 0;
  // A handler trusts the length field; one that claims more than the message
  // carries would send it past the message.
  if (p.len_field > p.avail) return -KPORT_EINVAL;
  (void)handler(p.data, p.len_field);
  return 0;
}

// What each routed id reads of its payload; a message that carries less is
// answered -EINVAL after its trace line and changes nothing. The length
// field is passed on as sent, and only the WLAN and handler ids read by it.
int route(struct sk_buff* skb, u32 id, const Payload& p) {
  switch (id) {
    case NETLINK_MID_PID:
      return register_sender(skb, p);
    case NETLINK_MID_OFFSET:
    case NETLINK_MID_DEBUG_FLAG:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nNETLINK_MID_OFFSET.");
      if (p.avail < (id == NETLINK_MID_OFFSET ? kOffsetPayloadLen : kDebugFlagPayloadLen)) {
        return -KPORT_EINVAL;
      }
      bypass_set_pktOffsetAndDebugFlag(id, p.data, p.len_field);
      return 0;
    case NETLINK_MID_WLAN_LB:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nNETLINK_MID_WLAN_LB.");
      return wlan_lb_message(p.data, p.avail, p.len_field) ? 0 : -KPORT_EINVAL;
    case NETLINK_MID_IVO_LB:
      // A short message is refused whole: half a table would steer by
      // fields the sender never wrote.
      if (p.avail < kIvoPayloadLen) return -KPORT_EINVAL;
      bypass_set_ivo_lb_table(id, p.data, p.len_field);
      return 0;
    case NETLINK_MID_TIMNG:
    case NETLINK_MID_TIMNG_MASTER:
      bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\n NETLINK_MID_TIMNG.");
      // Refused before it can use up one of the two slots.
      if (p.avail < kTimngPayloadLen) return -KPORT_EINVAL;
      TIMNG_LB_InitKernel(id, p.data, p.len_field);
      return 0;
    default:
      return call_registered_handler(id, p);
  }
}

}  // namespace
}  // namespace vane

extern "C" int netlink_check_msg(struct sk_buff* skb, struct kport_nlmsghdr* nlh) {
  if (nlh == nullptr || nlh->nlmsg_type != NETLINK_VANE_MSG_TYPE) return -KPORT_EINVAL;
  // The walker guarantees nlmsg_len bytes; without the id and length fields
  // there is nothing to route.
  if (nlh->nlmsg_len < vane::kCtrlHdrLen) return -KPORT_EINVAL;
  u8* msg = reinterpret_cast<u8*>(nlh);
  vane::ByteView view(msg, nlh->nlmsg_len);
  u32 id = 0;
  vane::Payload payload{msg + vane::kCtrlHdrLen, nlh->nlmsg_len - vane::kCtrlHdrLen, 0};
  view.ne32(KPORT_OFFSETOF(NETLINK_CTRL_MSG_S, ulMsgId), &id);
  view.ne32(KPORT_OFFSETOF(NETLINK_CTRL_MSG_S, ulPayloadLen), &payload.len_field);
  if (id > NETLINK_MID_MAX) return 0;
  return vane::route(skb, id, payload);
}

extern "C" void netlink_receive_msg(struct sk_buff* skb) {
  (void)kport_netlink_rcv_skb(skb, netlink_check_msg);
}
