/* The dispatch pipeline: which vCPUs receive a packet, and the packet
 * counters it raises. */
#ifndef DRV_VANE_DISPATCH_H
#define DRV_VANE_DISPATCH_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_VCPU_LIST_MAX 8
#define BYPASS_VCPU_MAX 63
#define BYPASS_PKT_PREFIX_LEN 12 /* delivery prefix before the packet */
#define BYPASS_PKT_BUF_LEN_MAX 10000u

/* g_bypassPktCounts layout. */
#define BYPASS_PKT_COUNT_NUM 960
#define BYPASS_PKT_COUNT_VP_BASE 64
#define BYPASS_PKT_COUNT_ECM_BASE 128
#define BYPASS_PKT_COUNT_WLAN_BASE 192
#define BYPASS_PKT_COUNT_WLAN_TYPES 12

KPORT_EXTERN_C_BEGIN

/* Counters: v dispatches to vCPU v (0: none or more than seven), 64 + v VP,
 * 128 + v ECM, 192 + 12 v + t WLAN of packet type t. Raised atomically; a
 * read is a snapshot of each counter. */
extern u32 g_bypassPktCounts[BYPASS_PKT_COUNT_NUM];

/* Packets still to be dumped to the kernel log (debug command 16). */
extern s32 g_pktprintfcout;

/* Sets *pulVcpuNum and fills the first entries of pucVcpuList
 * (BYPASS_VCPU_LIST_MAX bytes). Buffer: 12-byte delivery prefix (ethNum at
 * bytes 8-11), then the packet; ulLen 12..10000. May stamp the packet type
 * into the packet. Any context; never sleeps. */
void bypass_msg_getVCpuId(u8* pucBuf, u32 ulLen, u32* pulVcpuNum, u8* pucVcpuList);
/* The multi-core path on the packet (prefix stripped): 0, 100, or the code
 * of the last decider that ran. */
u32 bypass_proc_msg_multicore(u8* pucPkt, u32 ulLen, u32* pulVcpuNum, u8* pucVcpuList);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_DISPATCH_H */
