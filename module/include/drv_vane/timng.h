/* TIMNG steering: up to two named cause IDs, each served by one node (vCPU),
 * set by control messages 14 and 15, and the fragment scan that keeps the
 * UDP IPv4 fragments of a scanned cause ID in the fragment tables.
 *
 * Concurrency: messages 14 and 15 (process context) are serialised by a spin
 * lock, which also makes the accepted-message count exact; entries and the
 * master flag are published under a sequence count, so a lookup on the
 * packet path (any context, lock-free) sees an entry whole. */
#ifndef DRV_VANE_TIMNG_H
#define DRV_VANE_TIMNG_H

#include "kport/compiler.h"
#include "kport/types.h"

#define TIMNG_KERNEL_INFO_MAX 2u
/* Bytes of the message 14 and 15 payload that are read; the control
 * receiver answers a shorter message with -EINVAL. */
#define TIMNG_MSG_PAYLOAD_LEN 16u

/* TIMNG_GetVcpuIdByCauseid results. */
#define TIMNG_VCPU_OK 0u        /* vCPU given, or not master (no opinion) */
#define TIMNG_VCPU_NOT_NAMED 1u /* the cause ID is not named */

typedef struct tagTIMNG_KERNEL_INFO {
  u32 causeid;
  u32 nodeId; /* low 8 bits used */
  u32 isFragScan;
} TIMNG_KERNEL_INFO_S;

KPORT_STATIC_ASSERT(sizeof(TIMNG_KERNEL_INFO_S) == 12, "TIMNG_KERNEL_INFO_S is 12 bytes");

/* Payload of messages 14 and 15 (host byte order). */
typedef struct tagTIMNG_KERNEL_MSG {
  u32 causeid;    /* message 14 only */
  u32 nodeId;     /* message 14 only */
  u32 isMaster;   /* both */
  u32 isFragScan; /* message 14 only */
} TIMNG_KERNEL_MSG_S;

KPORT_STATIC_ASSERT(sizeof(TIMNG_KERNEL_MSG_S) == TIMNG_MSG_PAYLOAD_LEN, "TIMNG payload");

KPORT_EXTERN_C_BEGIN

extern TIMNG_KERNEL_INFO_S g_timngKernelInfo[TIMNG_KERNEL_INFO_MAX];
extern u32 g_timngKernelInfoCnt; /* accepted messages, 0..2; never reset while loaded */
extern u32 g_TimngBoardType;     /* isMaster of the last accepted message */

/* Messages 14 and 15: the first two accepted messages take a slot each (14
 * fills it, 15 leaves it zero); later ones are refused with a level-1 line.
 * ulLen is not consulted. Process context; takes the writers' spin lock. */
void TIMNG_LB_InitKernel(u32 ulMsgId, u8* pucMsg, u32 ulLen);

/* Packet path, lock-free. Not master: TIMNG_VCPU_OK, nothing written.
 * Master and named: TIMNG_VCPU_OK, *pulVcpuCnt = 1, pucVcpuList[0] = node.
 * Otherwise (or, when master, a missing pointer) TIMNG_VCPU_NOT_NAMED. */
u32 TIMNG_GetVcpuIdByCauseid(u16 usCauseId, u32* pulVcpuCnt, u8* pucVcpuList);

/* Packet path: 1 when the packet is a UDP IPv4 fragment of a cause ID whose
 * scan is on (after entering, finding or removing it in the fragment
 * tables), else 0. Never reads at or beyond ulLen. */
u32 TIMNG_IsIpFragPacket(u16 usCauseId, u8* pucPkt, u32 ulLen, u16 usEthOffset);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_TIMNG_H */
