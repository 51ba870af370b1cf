/* The two netlink channels: channel records, control messages from user
 * space, handler registration by other kernel modules, and packet delivery
 * to the workers.
 *
 * Results follow the netlink family of drv_vane/status.h. */
#ifndef DRV_VANE_NETLINK_H
#define DRV_VANE_NETLINK_H

#include "kport/compiler.h"
#include "kport/netlink.h"
#include "kport/types.h"

#define NETLINK_VANE_PROTO 26      /* normal channel */
#define NETLINK_VANE_FAST_PROTO 27 /* fast channel */
#define NETLINK_VANE_MSG_TYPE 18   /* nlmsg_type of every message, both ways */

#define NETLINK_VCPU_SLOT_NUM 64
#define NETLINK_MSG_HANDLER_NUM 16
#define NETLINK_MSG_TYPE_MAX 15 /* packet message types are 1..15 */
#define NETLINK_MSG_DATA_LEN_MAX 10000u

/* Control message ids (byte 16 of a control message). Ids 1-4, 7-9, 12 and
 * 13 go to handlers that other modules register. */
#define NETLINK_MID_PID 0
#define NETLINK_MID_OFFSET 5
#define NETLINK_MID_DEBUG_FLAG 6
#define NETLINK_MID_WLAN_LB 10
#define NETLINK_MID_IVO_LB 11
#define NETLINK_MID_TIMNG 14
#define NETLINK_MID_TIMNG_MASTER 15
#define NETLINK_MID_MAX 15

/* A handler gets the payload's address and the message's payload-length
 * field; its result is not read. */
typedef int (*NETLINK_MSG_HANDLER_PF)(void* pPayload, u32 ulLen);

typedef struct tagSUPP_NETLINK_KERNEL {
  struct sock* pstSock;
  u32 ulPid;                             /* default receiver; 0 = none */
  u32 aulVcpuPid[NETLINK_VCPU_SLOT_NUM]; /* per-vCPU port id; 0 = none */
  NETLINK_MSG_HANDLER_PF apfnMsgHandler[NETLINK_MSG_HANDLER_NUM];
} SUPP_NETLINK_KERNEL_S;

/* Control message, user space to kernel (host byte order). */
typedef struct tagNETLINK_CTRL_MSG {
  struct kport_nlmsghdr stHdr; /* type 18, NLM_F_REQUEST, NLM_F_ACK optional */
  u32 ulMsgId;                 /* NETLINK_MID_* */
  u32 ulPayloadLen;            /* handed to handlers unchanged */
  /* payload follows */
} NETLINK_CTRL_MSG_S;
KPORT_STATIC_ASSERT(sizeof(NETLINK_CTRL_MSG_S) == 24, "control message header");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(NETLINK_CTRL_MSG_S, ulMsgId) == 16, "message id at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(NETLINK_CTRL_MSG_S, ulPayloadLen) == 20, "length at 20");

/* Payload of control message 0. */
typedef struct tagNETLINK_PID_MSG {
  u32 ulChannel; /* NETLINK_VANE_PROTO or NETLINK_VANE_FAST_PROTO */
  u32 ulVcpuId;  /* 0: default receiver and slot 0; 1..63: that slot */
} NETLINK_PID_MSG_S;
KPORT_STATIC_ASSERT(sizeof(NETLINK_PID_MSG_S) == 8, "registration payload");

/* Packet message, kernel to user space (host byte order). The data is
 * followed by zero padding up to a multiple of 4. */
typedef struct tagNETLINK_PKT_MSG {
  struct kport_nlmsghdr stHdr; /* len 16 + A, A = align4(len + 8); type 18 */
  u32 ulType;                  /* the caller's type, 1..15 */
  u32 ulDataLen;               /* len */
  /* len bytes of data follow */
} NETLINK_PKT_MSG_S;
KPORT_STATIC_ASSERT(sizeof(NETLINK_PKT_MSG_S) == 24, "packet message header");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(NETLINK_PKT_MSG_S, ulType) == 16, "type at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(NETLINK_PKT_MSG_S, ulDataLen) == 20, "length at 20");

KPORT_EXTERN_C_BEGIN

extern SUPP_NETLINK_KERNEL_S g_supp_netlink_kernel;      /* protocol 26 */
extern SUPP_NETLINK_KERNEL_S g_supp_fast_netlink_kernel; /* protocol 27 */

/* Handler registration, any context. 0, or -EINVAL for an id outside 1..15.
 * netlink_connect/netlink_disconnect act on the normal channel, the only one
 * whose handlers the receiver calls. A module that disconnects and then goes
 * away must make sure no message of its id is still inside its handler. */
int netlink_connect(int iMsgId, NETLINK_MSG_HANDLER_PF pfnHandler);
int netlink_disconnect(int iMsgId);
int netlink_connect_bysock(int iMsgId, NETLINK_MSG_HANDLER_PF pfnHandler,
                           SUPP_NETLINK_KERNEL_S* pstNetlink);

/* Input callback of both sockets (the sender's context). */
void netlink_receive_msg(struct sk_buff* skb);
/* Per-message callback: -EINVAL for a type other than 18, for a message too
 * short to carry its id and length fields, and for a message too short for
 * what its id reads (8 payload bytes for id 0, 88 for id 5, 1 for id 6, and
 * for handler ids the payload-length field itself); nothing of such a message
 * is read or changed. Else 0, whatever the routed function did. */
int netlink_check_msg(struct sk_buff* skb, struct kport_nlmsghdr* nlh);

/* Packet delivery, any context (never sleeps). Results: a message length (or
 * a sum of results when several vCPUs are chosen), -EINVAL, -EBADFD,
 * -ENOMEM, -EMSGSIZE, or the platform unicast's error. */
int netlink_send_msg(u32 ulType, u8* pucBuf, u32 ulLen);
int netlink_fastsend_msg(u32 ulType, u8* pucBuf, u32 ulLen);
int netlink_send_msg_bysock(int iType, u8* pucBuf, u32 ulLen, SUPP_NETLINK_KERNEL_S* pstNetlink);
int netlink_send_msg_vcpuid(int iType, u8* pucBuf, u32 ulLen, u8 ucVcpuId,
                            SUPP_NETLINK_KERNEL_S* pstNetlink);
/* 1 for an IPv4 ICMP echo request or reply (Ethernet header at byte 12, up to
 * two VLAN tags), else 0; never reads at or beyond ulLen. */
int netlink_filter_icmp_pkt(u8* pucBuf, u32 ulLen);

/* EtherType tests on an Ethernet header; ucUntagged nonzero reads the
 * EtherType at byte 12, zero at byte 16 (after one VLAN tag). The header must
 * hold at least 18 bytes. 0 on a match, else -EINVAL. */
int netlink_check_if_data_ipc(u8* pucEthHdr, u8 ucUntagged);
int netlink_check_if_data_vp(u8* pucEthHdr, u8 ucUntagged);
int netlink_check_if_data_ecm_vcpu(u8* pucEthHdr, u8 ucUntagged);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_NETLINK_H */
