/* Netlink kernel sockets and socket buffers over the kernel's own.
 *
 * kport_netlink_rcv_skb is the kernel's netlink_rcv_skb walk written out
 * here: the kernel's callback takes an extended-ack argument that the core's
 * does not, and casting one function type to the other would break indirect
 * call checking. Acknowledgements go out through the kernel's netlink_ack, so
 * user space sees exactly the kernel's acknowledgement format. */
#include <linux/build_bug.h>
#include <linux/netlink.h>
#include <linux/skbuff.h>
#include <net/net_namespace.h>
#include <net/netlink.h>

#include "kport/netlink.h"

static_assert(sizeof(struct kport_nlmsghdr) == sizeof(struct nlmsghdr), "nlmsghdr size");
static_assert(offsetof(struct kport_nlmsghdr, nlmsg_len) == offsetof(struct nlmsghdr, nlmsg_len),
              "nlmsg_len");
static_assert(offsetof(struct kport_nlmsghdr, nlmsg_type) == offsetof(struct nlmsghdr, nlmsg_type),
              "nlmsg_type");
static_assert(offsetof(struct kport_nlmsghdr, nlmsg_flags) ==
                  offsetof(struct nlmsghdr, nlmsg_flags),
              "nlmsg_flags");
static_assert(offsetof(struct kport_nlmsghdr, nlmsg_seq) == offsetof(struct nlmsghdr, nlmsg_seq),
              "nlmsg_seq");
static_assert(offsetof(struct kport_nlmsghdr, nlmsg_pid) == offsetof(struct nlmsghdr, nlmsg_pid),
              "nlmsg_pid");
static_assert(KPORT_NLMSG_HDRLEN == NLMSG_HDRLEN, "NLMSG_HDRLEN");
static_assert(KPORT_NLMSG_ALIGN(13) == NLMSG_ALIGN(13), "NLMSG_ALIGN");
static_assert(KPORT_NLM_F_REQUEST == NLM_F_REQUEST, "NLM_F_REQUEST");
static_assert(KPORT_NLM_F_ACK == NLM_F_ACK, "NLM_F_ACK");
static_assert(KPORT_NLM_F_CAPPED == NLM_F_CAPPED, "NLM_F_CAPPED");
static_assert(KPORT_NLMSG_ERROR == NLMSG_ERROR, "NLMSG_ERROR");
static_assert(KPORT_NLMSG_MIN_TYPE == NLMSG_MIN_TYPE, "NLMSG_MIN_TYPE");

struct sock* kport_netlink_kernel_create(int protocol, kport_netlink_input_t input) {
  struct netlink_kernel_cfg cfg = {
      .groups = 0,
      .flags = 0,
      .input = input,
  };

  return netlink_kernel_create(&init_net, protocol, &cfg);
}

void kport_netlink_kernel_release(struct sock* sk) { netlink_kernel_release(sk); }

int kport_netlink_rcv_skb(struct sk_buff* skb, kport_netlink_msg_cb_t cb) {
  while (skb->len >= nlmsg_total_size(0)) {
    struct nlmsghdr* nlh = nlmsg_hdr(skb);
    int err = 0;
    u32 msglen;

    if (nlh->nlmsg_len < NLMSG_HDRLEN || skb->len < nlh->nlmsg_len) return 0;

    if ((nlh->nlmsg_flags & NLM_F_REQUEST) && nlh->nlmsg_type >= NLMSG_MIN_TYPE)
      err = cb(skb, (struct kport_nlmsghdr*)nlh);

    if ((nlh->nlmsg_flags & NLM_F_ACK) || err) netlink_ack(skb, nlh, err, NULL);

    msglen = NLMSG_ALIGN(nlh->nlmsg_len);
    if (msglen > skb->len) msglen = skb->len;
    skb_pull(skb, msglen);
  }
  return 0;
}

u32 kport_netlink_creds_pid(const struct sk_buff* skb) { return NETLINK_CREDS(skb)->pid; }

void kport_netlink_set_creds_pid(struct sk_buff* skb, u32 pid) { NETLINK_CB(skb).creds.pid = pid; }

struct sk_buff* kport_alloc_skb(unsigned int size) {
  return alloc_skb(size, GFP_ATOMIC);
}

void kport_kfree_skb(struct sk_buff* skb) { kfree_skb(skb); }

unsigned int kport_skb_tailroom(const struct sk_buff* skb) { return skb_tailroom(skb); }

struct kport_nlmsghdr* kport_nlmsg_put(struct sk_buff* skb, u32 portid, u32 seq, int type,
                                       int payload, int flags) {
  return (struct kport_nlmsghdr*)__nlmsg_put(skb, portid, seq, type, payload, flags);
}

int kport_netlink_unicast(struct sock* sk, struct sk_buff* skb, u32 portid, int nonblock) {
  return netlink_unicast(sk, skb, portid, nonblock);
}
