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

/* ---- CAPWAP and keep-alive tables ----
 *
 * Two tables of the same shape: the CAPWAP table keyed by (sip, dip, sport,
 * dport, vpn), the keep-alive table by the four session words, one record
 * per key, each with the process (vCPU) that serves it. Each function has a
 * CAPWAP form and a keep-alive (KA) form that behave alike.
 *
 * Locking: the writers (Init*, *AddHashNode, *DeleteHashNode, the
 * PacketDistribute_* functions) take the writer lock themselves and must
 * not be called with it held; process context, nothing sleeps. The lookups
 * take no lock. The Find functions take nothing either: their caller holds
 * the writer lock or stays inside an RCU read-side section for as long as
 * it uses the record returned.
 *
 * RCU: a new record is published whole; a process change rewrites one
 * aligned word in place, so a reader sees the old or the new vCPU; a removed
 * record is freed by kport_call_rcu after a grace period (the module's exit
 * waits for those frees with kport_rcu_barrier). A table, once created,
 * stays until unload. */

/* Create the table if it is absent and publish it; the table, or NULL when
 * memory is short (a later call or entry message tries again). An existing
 * table is returned as it is. Takes the writer lock. */
HASH_TABLE_S* WLAN_LB_InitCAPWAPLBHashTable(void);
HASH_TABLE_S* WLAN_LB_InitCAPWAPKeepAliveLBHashTable(void);

/* The tables' callbacks, pure and lock-free in any context. Hashkey: the
 * sum of the key fields (sport + dport + vpn + sip + dip, or the four
 * session words) modulo 281; 1 for a NULL key. Hashmatch: 1 when every key
 * field is equal (the process is not compared), 0 otherwise or for NULL. */
u64 WLAN_LB_CAPWAP_Hashkey(const void* pKey);
u32 WLAN_LB_CAPWAP_Hashmatch(const void* pData, const void* pKey);
u64 WLAN_LB_CAPWAP_KA_Hashkey(const void* pKey);
u32 WLAN_LB_CAPWAP_KA_Hashmatch(const void* pData, const void* pKey);

/* The stored record with pstKey's key fields, or NULL for a NULL key, when
 * the table does not exist yet, or when no record has that key. Takes no
 * lock; see Locking above for how long the record may be used. Read its
 * process once: a writer may change it meanwhile. */
WLAN_LB_CAPWAP_NODE_S* WLAN_LB_CAPWAP_LB_FindNodeByNode(const WLAN_LB_CAPWAP_NODE_S* pstKey);
WLAN_LB_CAPWAP_KA_NODE_S* WLAN_LB_CAPWAP_KA_LB_FindNodeByNode(
    const WLAN_LB_CAPWAP_KA_NODE_S* pstKey);

/* Add a copy of the record (its padding zeroed), or rewrite the process of
 * the record already stored with its key. Does not create the table.
 *   WLAN_LB_OK      added or updated
 *   WLAN_LB_ERR     NULL record, no table yet, or no memory for the record
 *   HASH_ERR_NOMEM  (101) no memory for the table's list node
 * Takes the writer lock. */
u32 WLAN_LB_CAPWAP_LB_AddHashNode(const WLAN_LB_CAPWAP_NODE_S* pstNode);
u32 WLAN_LB_CAPWAP_KA_LB_AddHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstNode);

/* Remove the record with pstKey's key fields, whatever its process: 0 when
 * one was removed; 1 for a NULL key, no table, or no such record. Takes the
 * writer lock; the record is freed after a grace period. */
u32 WLAN_LB_CAPWAP_LB_DeleteHashNode(const WLAN_LB_CAPWAP_NODE_S* pstKey);
u32 WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(const WLAN_LB_CAPWAP_KA_NODE_S* pstKey);

/* An entry message (set type 0 or 1) applied to an existing table. HashSet
 * adds or updates the record the message carries (results of AddHashNode),
 * HashDelete removes its key (results of DeleteHashNode), HashProc does
 * either by op (2 deletes, anything else sets) and traces the outcome at
 * the packet debug level. A NULL message: 1. None creates the table: the LB
 * message handler does before it applies an entry. Each takes the writer
 * lock. */
u32 WLAN_LB_PacketDistribute_CAPWAPHashSet(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashSet(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPHashDelete(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPHashProc(const WLAN_LB_CAPWAP_MSG_S* pstMsg);
u32 WLAN_LB_PacketDistribute_CAPWAPKAHashProc(const WLAN_LB_CAPWAP_KA_MSG_S* pstMsg);

/* ---- Cause-ID table ----
 *
 * Which cause IDs are load-balanced, by which LB type and packet type. The
 * table only grows: the first setting of a cause ID stays for the life of
 * the module, so a published record never changes. Locking and RCU as for
 * the CAPWAP tables. */

/* As WLAN_LB_InitCAPWAPLBHashTable, for this table. */
HASH_TABLE_S* WLAN_LB_InitLBCauseIDHashTable(void);
/* Pure, any context: the cause ID modulo 100 (1 for NULL); 1 when the cause
 * IDs are equal, else 0 (0 for NULL). */
u64 WLAN_LB_CauseID_Hashkey(const void* pKey);
u32 WLAN_LB_CauseID_Hashmatch(const void* pData, const void* pKey);
/* The record of pstKey's cause ID, or NULL (NULL key, no table, unknown
 * cause ID). Takes no lock: writer lock held or inside an RCU read-side
 * section for as long as the record is used. */
WLAN_LB_CAUSEID_NODE_S* WLAN_LB_CauseID_Table_FindNodeByNode(const WLAN_LB_CAUSEID_NODE_S* pstKey);
/* Add the cause ID unless it is already there (the stored record is then
 * left unchanged). Does not create the table.
 *   WLAN_LB_OK      added, or already present
 *   WLAN_LB_ERR     NULL record, no table yet, or no memory for the record
 *   HASH_ERR_NOMEM  (101) no memory for the table's list node
 * Takes the writer lock. */
u32 WLAN_LB_CauseID_Table_AddHashNode(const WLAN_LB_CAUSEID_NODE_S* pstNode);
/* Create the table if it is absent (unless pstNodes is NULL or ulCount 0),
 * then add ulCount entries read from pstNodes at any alignment, each as
 * WLAN_LB_CauseID_Table_AddHashNode does, dropping the ones that fail; more
 * than 100 entries add none. Takes the writer lock. */
void WLAN_LB_SetCauseIDTable(const WLAN_LB_CAUSEID_NODE_S* pstNodes, u32 ulCount);

/* ---- Socket-port lists, Portal, RADIUS CoA, NAC list ----
 *
 * The socket-port lists (one UDP, one TCP) hold entries identified by
 * (port, SrcPortFlag, isIpv6); an entry never changes once published: a
 * new process replaces it with a new entry linked in front before the old
 * one is unlinked, and unlinked entries are freed after a grace period. The
 * Portal and CoA entries are single aligned words, rewritten in place. A
 * NAC list reload publishes a new copy and frees the old one after a grace
 * period. The writers below take the writer lock themselves (process
 * context, never with it held); the lookups open their own RCU read-side
 * section and take no lock. */

/* The entry with that identity in the UDP (ucTcpFlag 0) or TCP list, or
 * NULL. Takes no lock: writer lock held or inside an RCU read-side section
 * for as long as the entry is used. */
WLAN_LB_SOCKET_PORT_NODE_S* WLAN_LB_FindSocketPortDistributeTblNodeByPort(u16 usPort, u8 ucTcpFlag,
                                                                          u8 ucSrcPortFlag,
                                                                          u32 ulIsIpv6);
/* Set the identity's process, replacing an entry it had: 0; 1 when memory
 * is short (the old entry, if any, stays). */
u32 WLAN_LB_SetSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u32 ulProcess, u8 ucSrcPortFlag,
                                       u32 ulIsIpv6);
/* Remove the identity's entry if there is one: always 0. */
u32 WLAN_LB_DeleteSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u8 ucSrcPortFlag, u32 ulIsIpv6);
/* A set-type-4 body (at any alignment): op 2 deletes, anything else sets;
 * traced at the packet debug level. 1 for NULL, else 0 even when a set
 * found no memory. */
u32 WLAN_LB_ProcSocketPortDistributeTbl(const WLAN_LB_SOCKET_PORT_MSG_S* pstMsg);
/* Lookups, any context. GetDst: always 0; *pullProcess (when not NULL) is
 * the process of the port's destination entry (SrcPortFlag 0), the IPv4 one
 * before the IPv6 one, or 0 without one. CheckIsSrc: 1 when the port has a
 * source entry (SrcPortFlag 1) of either family, else 0. */
u32 WLAN_LB_GetDstSocketPortNodeID(u16 usPort, u8 ucTcpFlag, u64* pullProcess);
u32 WLAN_LB_CheckIsSrcSocketPortNeedDistribute(u16 usPort, u8 ucTcpFlag);
/* Both CoA entries back to port 3799, process 0xFFFFFFFF (every NAC vCPU). */
void WLAN_LB_InitRdsCOADistributeTbl(void);
/* CoA entry ucIndex (0 or 1) set: 0; 1 for another index, which changes
 * nothing and takes no lock. */
u32 WLAN_LB_SetAAARdsCOADistributeTbl(u16 usPort, u32 ulProcess, u8 ucIndex);
/* The Portal entry set: always 0. */
u32 WLAN_LB_SetAAAPortalDistributeTbl(u16 usPort, u32 ulProcess);
/* Load a new NAC list: usCount kept as sent, ids copied from pulIds (any
 * alignment) up to usCount, ulCapacity / 4 and 16. Nothing for a NULL
 * pulIds; when memory is short the old list stays and an error line goes to
 * the debug text. */
void WLAN_LB_InitAAAAccessVcpuIDList(const u32* pulIds, u32 ulCapacity, u16 usCount);
/* The NAC vCPU of a byte string (a client MAC): a djb2 hash of the usLength
 * bytes modulo the list's count. 0 with the id; 1 with *pullVcpu 0 when
 * pucBytes is NULL, usLength is not within 6..128, the list is empty, or the
 * slot lies past the 16 ids held; 1 with nothing written when pullVcpu is
 * NULL. Any context; opens its own RCU read-side section. */
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
 * it is load-balanced, else 1 with *pulLbType 7 and *pullPktType 12; no
 * cause ID is load-balanced before the first LB message or while the board
 * type is not 3. A null output: 1, nothing written. Any context; opens its
 * own RCU read-side section and takes no lock. */
u32 WLAN_LB_IsNeedLBPkt(u16 usCauseId, u32* pulLbType, u64* pullPktType);

/* The vCPUs of a packet by LB type, from the record of that type (pKey).
 * 1 when pKey, pulVcpuNum or pucVcpuIds is null (nothing written); else 0.
 * Types 1-3 write count 1 and pucVcpuIds[0] (0 on a miss); type 4 writes up
 * to 8 ids; other types write nothing. Any context, lock-free. */
u32 WLAN_LB_GetPktVCPUID(const void* pKey, u32 ulLBType, u32* pulVcpuNum, u8* pucVcpuIds);

/* The per-table lookups behind WLAN_LB_GetPktVCPUID. Any context; each
 * opens its own RCU read-side section, takes no lock and allocates nothing.
 * A NULL key or output: 1 with nothing written, except as noted.
 *  - ByCAPWAPKey: the flow's own entry (ports cut to 16 bits, vpn to 8),
 *    then the entry for any address on its destination port, then the one
 *    for any address on its two ports. 0 with the first hit's process; 1
 *    with *pullVcpu untouched when none matches or no table exists.
 *  - ByCAPWAPSessionidKey: the session's entry; results as above.
 *  - GetAAAAccessVcpuID: WLAN_LB_HashAAAAccessVcpuID over smac; 1 with
 *    *pullVcpu 0 for a NULL key.
 *  - GetAAAPortVcpuID: for UDP (ucUDPFlag 1) the Portal port gives its
 *    process, a CoA port the first NAC ids (at most 8, possibly none), both
 *    with 0; a destination socket port with a non-zero process gives that
 *    process with 1. Then, for UDP and TCP alike, a source port without a
 *    source entry gives vCPU 0 with 0, and the destination-port range its
 *    vCPU with 0; outside the range UDP answers 1 and TCP 0, both with
 *    pucVcpuIds[0] unwritten. *pulVcpuNum is 1, or the count of NAC ids
 *    written when a CoA port matched. */
u32 WLAN_LB_GetVCPUIDByCAPWAPKey(const WLAN_LB_FIVE_TUPLE_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(const WLAN_LB_SESSION_KEY_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAAccessVcpuID(const WLAN_LB_ACCESS_INFO_S* pstKey, u64* pullVcpu);
u32 WLAN_LB_GetAAAPortVcpuID(const WLAN_LB_PORT_INFO_S* pstKey, u32* pulVcpuNum, u8* pucVcpuIds);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_WLAN_LB_H */
