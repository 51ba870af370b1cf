/* WLAN load balancing: the LB configuration messages, the CAPWAP, keep-alive,
 * cause-ID, socket-port, RADIUS CoA, Portal and NAC tables, the packet
 * lookup, and the status views.
 *
 * Concurrency contract (the same on both backends):
 *  - Writers (the LB message handler, and every exported function below that
 *    changes a table) are serialised by the subsystem's writer lock, a spin
 *    lock taken with bottom halves off; each takes it itself. Process
 *    context; nothing sleeps under it.
 *  - Readers (the lookups, the views) take no lock and never wait: they run
 *    inside an RCU read-side section (kport/rcu.h) that they open
 *    themselves. They see every table change whole: entries are published
 *    complete with a release store, unlinked entries are freed after a grace
 *    period, and an in-place change (a new process for an existing key, a
 *    Portal or RADIUS CoA entry) is one aligned store; a NAC list reload
 *    publishes a whole new copy.
 *  - A record pointer returned by a *_FindNodeByNode function stays valid
 *    only while its caller holds the writer lock or stays inside its own RCU
 *    read-side section.
 *
 * Results: WLAN_LB_OK (0) and WLAN_LB_ERR (1) unless a function says
 * otherwise. */
#ifndef DRV_VANE_WLAN_LB_H
#define DRV_VANE_WLAN_LB_H

#include "drv_vane/container.h"
#include "kport/compiler.h"
#include "kport/lock.h"
#include "kport/rcu.h"
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

/* Set types of an LB message (control message 10). */
#define WLAN_LB_KERNEL_LB_SET_CAPWAP 0u
#define WLAN_LB_KERNEL_LB_SET_CAPWAP_KA 1u
#define WLAN_LB_KERNEL_LB_SET_NAC_NODELIST 2u
#define WLAN_LB_KERNEL_LB_SET_PORTAL_NODE 3u
#define WLAN_LB_KERNEL_LB_SET_SOCKET_PORT 4u
#define WLAN_LB_KERNEL_LB_SET_BOARD_TYPE 5u
#define WLAN_LB_KERNEL_LB_SET_CAUSEIID 6u
#define WLAN_LB_SET_TYPE_NUM 7u

/* Exact payload lengths of the set types that test one. */
#define WLAN_LB_MSG_HEAD_LEN 8u
#define WLAN_LB_CAPWAP_MSG_LEN 32u
#define WLAN_LB_CAPWAP_KA_MSG_LEN 32u
#define WLAN_LB_NAC_MSG_LEN 76u
#define WLAN_LB_PORTAL_MSG_LEN 20u
#define WLAN_LB_SOCKET_PORT_MSG_LEN 24u

/* The board type on which the cause-ID lookup answers, and the value at load. */
#define WLAN_LB_BOARD_TYPE_LB 3u
#define WLAN_LB_BOARD_TYPE_DEFAULT 1u

/* Table geometry. */
#define WLAN_LB_CAPWAP_BUCKETS 281u
#define WLAN_LB_CAUSEID_BUCKETS 100u
#define WLAN_LB_CAUSEID_MAX 100u
#define WLAN_LB_NAC_MAX 16u
#define WLAN_LB_COA_VCPU_MAX 8u
#define WLAN_LB_VCPU_IDS_MAX 8u

/* Entry ops: 2 deletes, anything else adds or updates. */
#define WLAN_LB_OP_DELETE 2u
/* The RADIUS dynamic-authorisation port and the "every NAC vCPU" process. */
#define WLAN_LB_RADIUS_COA_PORT 3799u
#define WLAN_LB_PROCESS_NAC 0xFFFFFFFFu

/* The AAA destination-port range: vCPU (dport - base) / width + 1 for dport
 * - base at most span. */
#define WLAN_LB_PORT_RANGE_BASE 55536u
#define WLAN_LB_PORT_RANGE_WIDTH 156u
#define WLAN_LB_PORT_RANGE_SPAN 9999u

/* Status views: the attribute's page bound and the proc files' sizes. */
#define WLAN_LB_CAPWAP_VIEW_RECORDS 10u
#define WLAN_LB_CAPWAP_VIEW_LEN 200u
#define WLAN_LB_CAPWAP_KA_VIEW_LEN 20u

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

/* ---- Table records ---- */

/* CAPWAP table record; key (sip, dip, sport, dport, vpn), value process.
 * Also the 20-byte record of /proc/wlan_lb/capwap (bytes 13 to 15 zero). */
typedef struct tagWLAN_LB_CAPWAP_NODE {
  u32 sip;
  u32 dip;
  u16 sport;
  u16 dport;
  u8 vpn;
  u32 process;
} WLAN_LB_CAPWAP_NODE_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_CAPWAP_NODE_S) == 20, "CAPWAP record");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAPWAP_NODE_S, vpn) == 12, "vpn at 12");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAPWAP_NODE_S, process) == 16, "process at 16");

/* Keep-alive table record; key the four session words. Also the 20-byte
 * record of /proc/wlan_lb/capwap_ka. */
typedef struct tagWLAN_LB_CAPWAP_KA_NODE {
  u32 ulSessionID[4];
  u32 process;
} WLAN_LB_CAPWAP_KA_NODE_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_CAPWAP_KA_NODE_S) == 20, "keep-alive record");

/* Cause-ID table record; also the 12-byte entry of set type 6. */
typedef struct tagWLAN_LB_CAUSEID_NODE {
  u32 causeid;
  u32 pkttype;
  u32 lbtype;
} WLAN_LB_CAUSEID_NODE_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_CAUSEID_NODE_S) == 12, "cause-ID record");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAUSEID_NODE_S, lbtype) == 8, "lbtype at 8");

/* Linkage of the socket-port lists: circular, doubly linked, with a head. */
typedef struct tagWLAN_LB_LIST {
  struct tagWLAN_LB_LIST* next;
  struct tagWLAN_LB_LIST* prev;
} WLAN_LB_LIST_S;

/* A socket-port entry, identified by its list, port, SrcPortFlag and
 * isIpv6. The RCU head after the fields carries its deferred free. */
typedef struct tagWLAN_LB_SOCKET_PORT_NODE {
  WLAN_LB_LIST_S stLink;
  u16 port;
  u8 SrcPortFlag;
  u32 process;
  u32 isIpv6;
  kport_rcu_head_t stRcu;
} WLAN_LB_SOCKET_PORT_NODE_S;

/* A Portal or RADIUS CoA entry. Port and process share one aligned 8-byte
 * word, so that a change is one store and a reader never sees the port of
 * one setting with the process of another. */
typedef struct tagWLAN_LB_PORT_DISTRIBUTE {
  u16 port;
  u32 process;
  u32 ulReserved;
} KPORT_ALIGNED(8) WLAN_LB_PORT_DISTRIBUTE_S;
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_PORT_DISTRIBUTE_S, process) == 4, "process at 4");

/* The NAC vCPU list: the first count of ids are valid (count may exceed 16
 * as sent; readers stay within the 16 slots). */
typedef struct tagWLAN_LB_NAC_NODE_TBL {
  u16 count;
  u32 ids[WLAN_LB_NAC_MAX];
} WLAN_LB_NAC_NODE_TBL_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_NAC_NODE_TBL_S) == 68, "NAC list");

/* ---- Wire formats of the LB message bodies (host byte order) ---- */

/* The 8-byte head of every LB message. */
typedef struct tagWLAN_LB_MSG_HEAD {
  u32 SetType;
  u32 ulHeadWord; /* board type (2, 5), entry count (6), else not read */
} WLAN_LB_MSG_HEAD_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_MSG_HEAD_S) == WLAN_LB_MSG_HEAD_LEN, "LB head");

/* Body of set type 0. */
typedef struct tagWLAN_LB_CAPWAP_MSG {
  u32 sip;
  u32 dip;
  u16 sport;
  u16 dport;
  u8 vpn;
  u8 aucRsv1[3];
  u32 process;
  u8 op;
  u8 aucRsv2[3];
} WLAN_LB_CAPWAP_MSG_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_CAPWAP_MSG_S) == 24, "CAPWAP entry message");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAPWAP_MSG_S, process) == 16, "process at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAPWAP_MSG_S, op) == 20, "op at 20");

/* Body of set type 1. */
typedef struct tagWLAN_LB_CAPWAP_KA_MSG {
  u32 ulSessionID[4];
  u32 process;
  u8 op;
  u8 aucRsv[3];
} WLAN_LB_CAPWAP_KA_MSG_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_CAPWAP_KA_MSG_S) == 24, "keep-alive entry message");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_CAPWAP_KA_MSG_S, op) == 20, "op at 20");

/* Body of set type 2 (after the head). */
typedef struct tagWLAN_LB_NAC_MSG {
  u16 count;
  u8 aucRsv[2];
  u32 ids[WLAN_LB_NAC_MAX];
} WLAN_LB_NAC_MSG_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_NAC_MSG_S) == WLAN_LB_NAC_MSG_LEN - 8, "NAC body");

/* Body of set type 3 (after the head). */
typedef struct tagWLAN_LB_PORTAL_MSG {
  u16 port;
  u8 aucRsv1[2];
  u32 process;
  u8 aucRsv2[4];
} WLAN_LB_PORTAL_MSG_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_PORTAL_MSG_S) == WLAN_LB_PORTAL_MSG_LEN - 8, "Portal body");

/* Body of set type 4. */
typedef struct tagWLAN_LB_SOCKET_PORT_MSG {
  u16 op;
  u8 aucRsv[2];
  u16 port;
  u8 TcpFlag;
  u8 SrcPortFlag;
  u32 process;
  u32 isIpv6;
} WLAN_LB_SOCKET_PORT_MSG_S;
KPORT_STATIC_ASSERT(sizeof(WLAN_LB_SOCKET_PORT_MSG_S) == 16, "socket-port entry message");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_SOCKET_PORT_MSG_S, port) == 4, "port at 4");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(WLAN_LB_SOCKET_PORT_MSG_S, isIpv6) == 12, "isIpv6 at 12");

KPORT_EXTERN_C_BEGIN

/* ---- State (zero at load unless noted) ---- */

extern u64 g_ulIsLBInited;        /* 1 from the first LB message on */
extern u32 g_ulKernelLBBoardType; /* 1 at load */
extern u32 g_ulMessageStatistics[WLAN_LB_SET_TYPE_NUM];
extern HASH_TABLE_S* g_CAPWAP_LB_Table;
extern HASH_TABLE_S* g_CAPWAP_KEEP_ALIVE_LB_Table;
extern HASH_TABLE_S* g_WLAN_LB_CAUSEID_HASH_Table;
extern WLAN_LB_LIST_S g_stSocketUdpPortDistribute;
extern WLAN_LB_LIST_S g_stSocketTcpPortDistribute;
extern WLAN_LB_PORT_DISTRIBUTE_S g_stRadiusCOADistribute[2];
extern WLAN_LB_PORT_DISTRIBUTE_S g_stPortalPktDistribute;
/* The published NAC list; a reload replaces the whole copy. */
extern WLAN_LB_NAC_NODE_TBL_S* g_pstNACNodidTbl;

/* ---- LB messages ---- */

/* Applies one LB message (control message 10) from a buffer of ulLen
 * readable bytes, taking ulLen as its Len field too. Drops a null payload,
 * another message id and a buffer without the 8-byte head. Always returns
 * WLAN_LB_OK: the outcome shows in the message counters and the debug text.
 * Process context; takes the writer lock. The control receiver goes through
 * an entry of its own that tells the Len field from the bytes received. */
u32 WLAN_LB_PacketDistribute_Proc(u32 ulMsgId, const void* pMsg, u32 ulLen);

/* ---- CAPWAP and keep-alive tables ---- */

HASH_TABLE_S* WLAN_LB_InitCAPWAPLBHashTable(void);
HASH_TABLE_S* WLAN_LB_InitCAPWAPKeepAliveLBHashTable(void);
u64 WLAN_LB_CAPWAP_Hashkey(const void* pKey);
u32 WLAN_LB_CAPWAP_Hashmatch(const void* pData, const void* pKey);
u64 WLAN_LB_CAPWAP_KA_Hashkey(const void* pKey);
u32 WLAN_LB_CAPWAP_KA_Hashmatch(const void* pData, const void* pKey);
WLAN_LB_CAPWAP_NODE_S* WLAN_LB_CAPWAP_LB_FindNodeByNode(const WLAN_LB_CAPWAP_NODE_S* pstKey);
WLAN_LB_CAPWAP_KA_NODE_S* WLAN_LB_CAPWAP_KA_LB_FindNodeByNode(
    const WLAN_LB_CAPWAP_KA_NODE_S* pstKey);
u32 WLAN_LB_CAPWAP_LB_AddHashNode(const WLAN_LB_CAPWAP_NODE_S* pstNode);
u32 WLAN_LB_CAPWAP_KA_LB_AddHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstNode);
u32 WLAN_LB_CAPWAP_LB_DeleteHashNode(const WLAN_LB_CAPWAP_NODE_S* pstKey);
u32 WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstKey);
u32 WLAN_LB_PacketDistribute_CAPWAPHashSet(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashSet(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPHashDelete(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPHashProc(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashProc(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);

/* ---- Cause-ID table ---- */

HASH_TABLE_S* WLAN_LB_InitLBCauseIDHashTable(void);
u64 WLAN_LB_CauseID_Hashkey(const void* pKey);
u32 WLAN_LB_CauseID_Hashmatch(const void* pData, const void* pKey);
WLAN_LB_CAUSEID_NODE_S* WLAN_LB_CauseID_Table_FindNodeByNode(const WLAN_LB_CAUSEID_NODE_S* pstKey);
u32 WLAN_LB_CauseID_Table_AddHashNode(const WLAN_LB_CAUSEID_NODE_S* pstNode);
void WLAN_LB_SetCauseIDTable(const WLAN_LB_CAUSEID_NODE_S* pstNodes, u32 ulCount);

/* ---- Socket-port lists, Portal, RADIUS CoA, NAC list ---- */

WLAN_LB_SOCKET_PORT_NODE_S* WLAN_LB_FindSocketPortDistributeTblNodeByPort(u16 usPort, u8 ucTcpFlag,
                                                                          u8 ucSrcPortFlag,
                                                                          u32 ulIsIpv6);
u32 WLAN_LB_SetSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u32 ulProcess, u8 ucSrcPortFlag,
                                       u32 ulIsIpv6);
u32 WLAN_LB_DeleteSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u8 ucSrcPortFlag, u32 ulIsIpv6);
u32 WLAN_LB_ProcSocketPortDistributeTbl(const WLAN_LB_SOCKET_PORT_MSG_S* pstMsg);
u32 WLAN_LB_GetDstSocketPortNodeID(u16 usPort, u8 ucTcpFlag, u64* pullProcess);
u32 WLAN_LB_CheckIsSrcSocketPortNeedDistribute(u16 usPort, u8 ucTcpFlag);
void WLAN_LB_InitRdsCOADistributeTbl(void);
u32 WLAN_LB_SetAAARdsCOADistributeTbl(u16 usPort, u32 ulProcess, u8 ucIndex);
u32 WLAN_LB_SetAAAPortalDistributeTbl(u16 usPort, u32 ulProcess);
void WLAN_LB_InitAAAAccessVcpuIDList(const u32* pulIds, u32 ulCapacity, u16 usCount);
u32 WLAN_LB_HashAAAAccessVcpuID(const u8* pucBytes, u16 usLength, u64* pullVcpu);

/* ---- Status views ---- */

struct kport_class;
struct kport_device_attr;
struct kport_proc_ops;
struct proc_dir_entry;
struct file;

/* View selectors: the attribute's view (1 NAC list, 2 socket ports,
 * 3 statistics, 4 cause IDs, else nothing), the address whose CAPWAP records
 * /proc/wlan_lb/capwap returns, the session whose keep-alive record
 * /proc/wlan_lb/capwap_ka returns. Single words, written and read with
 * relaxed atomics. */
extern s64 g_ulShowType;
extern u64 g_ulShowCapwapIP;
extern u32 g_stCapwapKAShowKey[4];
/* Serialise the readers of each proc file (taken with interrupts masked). */
extern kport_spinlock_t g_wlan_lb_capwap_show_lock;
extern kport_spinlock_t g_wlan_lb_capwap_ka_show_lock;
/* What WLAN_LB_InitSysfs registered (null or 0 when absent). */
extern struct kport_class* g_wlanlbSysvfs_class;
extern u32 g_wlanlbDev_t;
extern struct proc_dir_entry* wlan_lb_proc_dir;
extern struct kport_device_attr dev_attr_wlan_lb;
extern const struct kport_proc_ops g_wlan_lb_capwap_fop;
extern const struct kport_proc_ops g_wlan_lb_capwap_ka_fop;

/* The proc files' handlers: process context. A read returns the bytes copied
 * (0 at the end, or when no buffer could be had); a write takes the 8- or
 * 16-byte key and returns count, -22 when count is shorter than the key
 * (nothing changes) and -1 when the key cannot be copied in. */
ssize_t wlan_lb_proc_read_capwap_distribute_info(struct file* file, char* ubuf, size_t count,
                                                 kport_loff_t* pos);
ssize_t wlan_lb_proc_write_capwap_distribute_info(struct file* file, const char* ubuf, size_t count,
                                                  kport_loff_t* pos);
ssize_t wlan_lb_proc_read_capwap_ka_distribute_info(struct file* file, char* ubuf, size_t count,
                                                    kport_loff_t* pos);
ssize_t wlan_lb_proc_write_capwap_ka_distribute_info(struct file* file, const char* ubuf,
                                                     size_t count, kport_loff_t* pos);

/* Creates the sysfs class, device and attribute and /proc/wlan_lb with its
 * two files; logs its failures and leaves nothing half registered. */
void WLAN_LB_InitSysfs(void);
/* Removes whatever WLAN_LB_InitSysfs created; waits for running handlers. */
void WLAN_LB_ExitSysfs(void);

/* ---- Packet path ---- */

/* The LB type and packet type of a cause ID: 0 with the table's values when
 * it is load-balanced, else 1 with *pulLbType 7 and *pullPktType 12. A null
 * output: 1, nothing written. Any context, lock-free. */
u32 WLAN_LB_IsNeedLBPkt(u16 usCauseId, u32* pulLbType, u64* pullPktType);

/* The vCPUs of a packet by LB type, from the record of that type (pKey).
 * 1 when pKey, pulVcpuNum or pucVcpuIds is null (nothing written); else 0.
 * Types 1-3 write count 1 and pucVcpuIds[0] (0 on a miss); type 4 writes up
 * to 8 ids; other types write nothing. Any context, lock-free. */
u32 WLAN_LB_GetPktVCPUID(const void* pKey, u32 ulLBType, u32* pulVcpuNum, u8* pucVcpuIds);

/* The per-table lookups behind WLAN_LB_GetPktVCPUID (results as documented
 * per lookup type). Any context; each opens its own RCU read-side section. */
u32 WLAN_LB_GetVCPUIDByCAPWAPKey(const WLAN_LB_FIVE_TUPLE_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(const WLAN_LB_SESSION_KEY_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAAccessVcpuID(const WLAN_LB_ACCESS_INFO_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAPortVcpuID(const WLAN_LB_PORT_INFO_S* pstKey, u32* pulVcpuNum, u8* pucVcpuIds);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_WLAN_LB_H */
