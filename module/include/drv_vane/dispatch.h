/* The dispatch pipeline: which vCPUs receive a packet, and the packet
 * counters it raises. */
#ifndef DRV_VANE_DISPATCH_H
#define DRV_VANE_DISPATCH_H

#include "drv_vane/parser.h"
#include "drv_vane/wlan_lb.h"
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

/* The 13-bit cause ID at ulCauseIdOffset + 18 of the packet, with its LB type
 * and packet type. A packet shorter than ulMacOffset + 24, or too short for
 * the two cause-ID bytes, writes nothing (the pipeline keeps 0, 0, 0). */
void bypass_msg_get_causeid(u8* pucPkt, u32 ulLen, u16* pusCauseId, u32* pulCauseType,
                            u64* pullPktType);

/* LB_CAPWAP by five-tuple, with the fragments of one datagram kept on the
 * vCPU of its first: not a fragment and first fragment look the key up (the
 * first is then entered into the fragment table), middle and last fragments
 * take the vCPU the table holds. Result widened from a signed 32-bit code:
 * 0 (also for a missing argument), the lookup's or fragment table's code, or
 * 100 when a first fragment's lookup failed. */
s64 bypass_getvcpu_by_Five(BYPASS_PKT_INFO_S* pstPktInfo, WLAN_LB_FIVE_TUPLE_S* pstKey,
                           u32 ulLBType, u32* pulVcpuNum, u8* pucVcpuList);

/* The four session-ID words (host order) of a CAPWAP data keep-alive whose
 * UDP header is at ulUdpOffset: 0, or 100 for a missing argument, a packet
 * that is not a keep-alive, a malformed element or one that does not fit. */
u32 bypass_getSessionId(u32* pulSessionId, u32 ulUdpOffset, u8* pucPkt, u32 ulLen);

/* VP dispatch of an internal frame at ulEthOffset: count 0 or 1 and entry 0;
 * first fragments marked by the sender are entered into the fragment table,
 * non-first ones (vCPU byte 61) take the vCPU it holds. The caller passes
 * valid count and list pointers. Any context; never sleeps; allocates only a
 * first fragment's table entry. */
void bypass_msg_get_ecmvp_pkt_vcpu(u8* pucPkt, u32 ulLen, u32 ulEthOffset, u32* pulVcpuNum,
                                   u8* pucVcpuList);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_DISPATCH_H */
