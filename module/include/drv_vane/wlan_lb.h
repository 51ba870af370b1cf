/* WLAN load balancing as the dispatch pipeline sees it: the cause ID's LB
 * type, the four lookup records the pipeline fills from a parsed packet, and
 * the one lookup entry that picks a table by LB type.
 *
 * The WLAN tables themselves are not loaded yet: every cause ID answers as on
 * a freshly loaded module (not load-balanced) and every table lookup finds
 * nothing. Both are lock-free and callable from any context. */
#ifndef DRV_VANE_WLAN_LB_H
#define DRV_VANE_WLAN_LB_H

#include "kport/compiler.h"
#include "kport/types.h"

/* LB types of a cause ID. */
#define LB_CAPWAP 1u
#define LB_CAPWAP_KA 2u
#define LB_AAA_MAC 3u
#define LB_AAA_PORT 4u
/* What a cause ID that is not load-balanced answers. */
#define WLAN_LB_TYPE_NONE 7u
#define WLAN_LB_PKT_TYPE_NONE 12u
/* Packet types the per-type counters cover. */
#define WLAN_LB_PKT_TYPE_MIN 1u
#define WLAN_LB_PKT_TYPE_MAX 11u

/* Results of the WLAN functions. */
#define WLAN_LB_OK 0u
#define WLAN_LB_ERR 1u

/* LB_CAPWAP key. The CAPWAP lookup uses the low 16 bits of the ports and the
 * low 8 bits of vpn; the pipeline puts 0 in vpn. */
typedef struct tagWLAN_LB_FIVE_TUPLE {
  u32 sip;
  u32 dip;
  u32 sport;
  u32 dport;
  u32 vpn;
  u32 causeid;
} WLAN_LB_FIVE_TUPLE_S;

/* LB_CAPWAP_KA key: the keep-alive's session ID in host order. */
typedef struct tagWLAN_LB_SESSION_KEY {
  u32 ulSessionID[4];
  u32 causeid;
} WLAN_LB_SESSION_KEY_S;

/* LB_AAA_MAC key. pucUdpPkt points into the packet (NULL without a UDP or
 * TCP header); ulUdpPktLen counts the bytes from there to the packet's end. */
typedef struct tagWLAN_LB_ACCESS_INFO {
  u32 causeid;
  u8 smac[6];
  u8 dhcpFlag;
  u8* pucUdpPkt;
  u32 ulUdpPktLen;
} WLAN_LB_ACCESS_INFO_S;

/* LB_AAA_PORT key. ucUDPFlag is 1 for UDP. */
typedef struct tagWLAN_LB_PORT_INFO {
  u32 sport;
  u32 dport;
  u32 causeid;
  u8 ucUDPFlag;
} WLAN_LB_PORT_INFO_S;

/* The records are shared with other modules of the same build: sizes and
 * offsets are fixed here for both 64-bit targets. */
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_FIVE_TUPLE_S) == 24, "five-tuple key");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_FIVE_TUPLE_S, vpn) == 16, "vpn at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_FIVE_TUPLE_S, causeid) == 20, "cause ID at 20");
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_SESSION_KEY_S) == 20, "session key");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_SESSION_KEY_S, causeid) == 16, "cause ID at 16");
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_ACCESS_INFO_S) == 32, "access key");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_ACCESS_INFO_S, smac) == 4, "smac at 4");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_ACCESS_INFO_S, dhcpFlag) == 10, "dhcpFlag at 10");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_ACCESS_INFO_S, pucUdpPkt) == 16, "pointer at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_ACCESS_INFO_S, ulUdpPktLen) == 24, "length at 24");
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_PORT_INFO_S) == 16, "port key");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_PORT_INFO_S, ucUDPFlag) == 12, "UDP flag at 12");

KPORT_EXTERN_C_BEGIN

/* The LB type and packet type of a cause ID: 0 with the table's values when
 * it is load-balanced, else 1 with *pulLbType 7 and *pullPktType 12. A null
 * output: 1, nothing written. Any context, lock-free. */
u32 WLAN_LB_IsNeedLBPkt(u16 usCauseId, u32* pulLbType, u64* pullPktType);

/* The vCPUs of a packet by LB type, from the record of that type (pKey).
 * 1 when pKey, pulVcpuNum or pucVcpuIds is null (nothing written); else 0.
 * Types 1-3 write count 1 and pucVcpuIds[0] (0 on a miss); type 4 writes up
 * to 8 ids; other types write nothing. Any context, lock-free. */
u32 WLAN_LB_GetPktVCPUID(const void* pKey, u32 ulLBType, u32* pulVcpuNum, u8* pucVcpuIds);

/* The per-table lookups behind WLAN_LB_GetPktVCPUID. Each answers 1 (not
 * found, output 0) until its table exists. */
u32 WLAN_LB_GetVCPUIDByCAPWAPKey(const WLAN_LB_FIVE_TUPLE_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(const WLAN_LB_SESSION_KEY_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAAccessVcpuID(const WLAN_LB_ACCESS_INFO_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAPortVcpuID(const WLAN_LB_PORT_INFO_S* pstKey, u32* pulVcpuNum, u8* pucVcpuIds);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_WLAN_LB_H */
