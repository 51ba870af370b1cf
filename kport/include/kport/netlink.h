/* Netlink kernel sockets and socket buffers.
 *
 * `struct sock` and `struct sk_buff` are the backend's (the kernel's own on
 * Linux); the module only holds pointers to them. Message headers are laid
 * out exactly as the kernel's struct nlmsghdr (asserted by the Linux glue).
 *
 * Context: kport_alloc_skb, kport_nlmsg_put, kport_netlink_unicast (with
 * nonblock set) and kport_kfree_skb never sleep and may be called on the
 * packet path. kport_netlink_kernel_create/release are process context. */
#ifndef KPORT_NETLINK_H
#define KPORT_NETLINK_H

#include "kport/compiler.h"
#include "kport/types.h"

struct sock;
struct sk_buff;

struct kport_nlmsghdr {
  u32 nlmsg_len;
  u16 nlmsg_type;
  u16 nlmsg_flags;
  u32 nlmsg_seq;
  u32 nlmsg_pid;
};
KPORT_STATIC_ASSERT(sizeof(struct kport_nlmsghdr) == 16, "netlink header is 16 bytes");

#define KPORT_NLMSG_HDRLEN 16u
#define KPORT_NLMSG_ALIGN(len) (((len) + 3u) & ~3u)
#define KPORT_NLM_F_REQUEST 0x0001
#define KPORT_NLM_F_ACK 0x0004
#define KPORT_NLM_F_CAPPED 0x0100
#define KPORT_NLMSG_ERROR 0x2
#define KPORT_NLMSG_MIN_TYPE 0x10

/* Input callback of a kernel socket: runs synchronously in the sending
 * process's context, on any processor, possibly on several at once. */
typedef void (*kport_netlink_input_t)(struct sk_buff* skb);
/* Per-message callback of kport_netlink_rcv_skb. */
typedef int (*kport_netlink_msg_cb_t)(struct sk_buff* skb, struct kport_nlmsghdr* nlh);

KPORT_EXTERN_C_BEGIN

/* netlink_kernel_create(&init_net, protocol, {groups 0, flags 0, input}).
 * NULL when the protocol is taken by another kernel socket or memory is
 * short. */
struct sock* kport_netlink_kernel_create(int protocol, kport_netlink_input_t input);
/* netlink_kernel_release(). Once it returns no input callback of the socket
 * is running or will run. NULL is a no-op. */
void kport_netlink_kernel_release(struct sock* sk);

/* netlink_rcv_skb(): walks the messages of a received buffer. Stops at a
 * message shorter than a header or longer than what remains. Calls `cb` only
 * for messages that carry NLM_F_REQUEST and a type >= NLMSG_MIN_TYPE; others
 * are skipped. After each message, sends the sender an NLMSG_ERROR
 * acknowledgement carrying the callback's result when that result is nonzero
 * or the message asked for NLM_F_ACK. Returns 0. */
int kport_netlink_rcv_skb(struct sk_buff* skb, kport_netlink_msg_cb_t cb);
/* Process id in the credentials of a received buffer (NETLINK_CREDS). */
u32 kport_netlink_creds_pid(const struct sk_buff* skb);
/* Sets the process id in the credentials of an outgoing buffer. */
void kport_netlink_set_creds_pid(struct sk_buff* skb, u32 pid);

/* alloc_skb(size, GFP_ATOMIC). NULL on failure. */
struct sk_buff* kport_alloc_skb(unsigned int size);
/* kfree_skb(); NULL is a no-op. */
void kport_kfree_skb(struct sk_buff* skb);
/* skb_tailroom(). */
unsigned int kport_skb_tailroom(const struct sk_buff* skb);
/* __nlmsg_put(): appends a header and `payload` bytes of room (aligned to 4;
 * only the alignment bytes beyond `payload` are zeroed). The caller has
 * checked the tail room. */
struct kport_nlmsghdr* kport_nlmsg_put(struct sk_buff* skb, u32 portid, u32 seq, int type,
                                       int payload, int flags);
/* netlink_unicast(). Consumes `skb` in every case. Returns the number of
 * bytes queued, -ECONNREFUSED when no socket has that port id, -EAGAIN when
 * the receiver's queue is full and `nonblock` is set. */
int kport_netlink_unicast(struct sock* sk, struct sk_buff* skb, u32 portid, int nonblock);

KPORT_EXTERN_C_END

#endif /* KPORT_NETLINK_H */
