/* IP fragment tables: the vCPU that each fragmented IPv4 datagram's first
 * fragment went to, so that its middle and last fragments follow it, and
 * the ageing that drops datagrams whose last fragment never comes.
 *
 * Use by the packet path, by fragment position of the parsed record:
 *   first  (ucIpFrag 1): bypass_ipfrag_addInHash, ucVcpuId already chosen;
 *   middle (ucIpFrag 2): bypass_ipfrag_findVcpuInHash, which refreshes it;
 *   last   (ucIpFrag 3): bypass_ipfrag_delInHash, which removes it.
 * Only IPv4 records (usProtocolType 0x0800) are ever entered; the IPv6
 * table exists, ages and dumps, but stays empty.
 *
 * Result codes (u32), each function saying which it gives:
 *   BYPASS_FRAG_OK          0   done
 *   BYPASS_FRAG_ERR_PROTO   1   a delete for another protocol than IPv4
 *   BYPASS_FRAG_NO_ENTRY   13   a last fragment without entry
 *   BYPASS_FRAG_FULL       15   1000 records already held
 *   BYPASS_FRAG_ERR       100   a missing argument or table, not IPv4, a
 *                               wrong record size, a middle fragment
 *                               without entry
 *   HASH_ERR_NOMEM        101   no memory for the record or its node
 *   HASH_ERR_BUCKET       103   the key callback gave no bucket
 *   BYPASS_FRAG_ERR_INIT  104   a table could not be created
 *
 * Locks: each table's stLock is the only lock, taken with bottom halves
 * off by the functions that say so, never two at once; none may be called
 * with a table's stLock held or from hard interrupts. Process, softirq and
 * timer context otherwise. No RCU read-side section is needed anywhere:
 * every reader of a stored record holds stLock. A removed record is freed
 * after a grace period by the removal, or at once by the ageing sweep, which
 * holds stLock for writing. */
#ifndef DRV_VANE_FRAG_H
#define DRV_VANE_FRAG_H

#include "drv_vane/container.h"
#include "drv_vane/parser.h"
#include "kport/compiler.h"
#include "kport/procfs.h"
#include "kport/types.h"

#define BYPASS_FRAG_OK 0u
#define BYPASS_FRAG_ERR_PROTO 1u
#define BYPASS_FRAG_NO_ENTRY 13u
#define BYPASS_FRAG_FULL 15u
#define BYPASS_FRAG_ERR 100u
#define BYPASS_FRAG_ERR_INIT 104u

#define BYPASS_FRAG_V4_BUCKETS 64u
#define BYPASS_FRAG_V6_BUCKETS 32u
#define BYPASS_FRAG_MAX_RECORDS 1000u
#define BYPASS_FRAG_AGE_STEP 5u
#define BYPASS_FRAG_AGE_LIMIT 34u

/* Dump images of /proc/bypassDebug/hashInfoIpv4 and hashInfoIpv6: the
 * record count (low 16 bits) at 0, then up to 1000 record slots from 4. */
#define BYPASS_FRAG_DUMP_V4_SIZE 16004u
#define BYPASS_FRAG_DUMP_V6_SIZE 40004u

typedef struct tagBYPASS_IPV4_FRAG_INFO {
  u32 ulSrcIp; /* host order */
  u32 ulDstIp; /* host order */
  u16 usId;    /* host order */
  u16 usRsv1;
  u8 ucVcpuId;
  u8 ucAge;
  u16 usRsv2;
} BYPASS_IPV4_FRAG_INFO_S;

KPORT_STATIC_ASSERT(sizeof(BYPASS_IPV4_FRAG_INFO_S) == 16, "IPv4 fragment record");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV4_FRAG_INFO_S, ulDstIp) == 4, "dst at 4");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV4_FRAG_INFO_S, usId) == 8, "id at 8");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV4_FRAG_INFO_S, ucVcpuId) == 12, "vcpu at 12");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV4_FRAG_INFO_S, ucAge) == 13, "age at 13");

typedef struct tagBYPASS_IPV6_FRAG_INFO {
  u8 aucAddr1[16]; /* packet byte order */
  u8 aucAddr2[16];
  u32 ulId; /* host order */
  u8 ucRsv1;
  u8 ucAge;
  u8 aucRsv2[2];
} BYPASS_IPV6_FRAG_INFO_S;

KPORT_STATIC_ASSERT(sizeof(BYPASS_IPV6_FRAG_INFO_S) == 40, "IPv6 fragment record");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV6_FRAG_INFO_S, aucAddr2) == 16, "addr2 at 16");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV6_FRAG_INFO_S, ulId) == 32, "id at 32");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IPV6_FRAG_INFO_S, ucAge) == 37, "age at 37");
KPORT_STATIC_ASSERT(4 + 1000 * sizeof(BYPASS_IPV4_FRAG_INFO_S) == BYPASS_FRAG_DUMP_V4_SIZE,
                    "IPv4 dump image");
KPORT_STATIC_ASSERT(4 + 1000 * sizeof(BYPASS_IPV6_FRAG_INFO_S) == BYPASS_FRAG_DUMP_V6_SIZE,
                    "IPv6 dump image");

KPORT_EXTERN_C_BEGIN

extern HASH_TABLE_S* g_bypass_ipV4FragHash;
extern HASH_TABLE_S* g_bypass_ipV6FragHash;
extern u8 g_bypassTimeInitedV4;    /* 1 once the IPv4 ageing timer is armed */
extern u8 g_bypassTimeInitedV6;    /* never set: nothing enters the IPv6 table */
extern u8* g_pBypassIpv4TotalInfo; /* dump buffers, made at their first read */
extern u8* g_pBypassIpv6TotalInfo;
extern const struct kport_proc_ops g_bypass_proc_hashInfoIpv4_fop;
extern const struct kport_proc_ops g_bypass_proc_hashInfoIpv6_fop;

/* Start-up: creates both tables (no timer armed) and prepares the dumps:
 * BYPASS_FRAG_OK, or BYPASS_FRAG_ERR_INIT leaving nothing behind. Process
 * context, before the proc files and the packet path. */
u32 bypass_ipfrag_initHash(void);
/* Shut-down: stops the ageing timers and waits for a running sweep, then
 * frees the tables with their records and the dump buffers, and returns to
 * the load-time state (g_bypassTimeInitedV4 0). Process context, after the
 * proc files and every packet path caller are gone. Records that a last
 * fragment removed may still wait for their grace period: the module's exit
 * waits for them (kport_rcu_barrier) before its code goes. */
void bypass_ipfrag_exitHash(void);

/* First fragment: enters (source, destination, IP id) with the record's
 * ucVcpuId and age 0 unless the datagram is already entered, and arms the
 * IPv4 ageing timer the first time. BYPASS_FRAG_OK (also when already
 * entered); BYPASS_FRAG_ERR (NULL record, not IPv4, no table);
 * BYPASS_FRAG_FULL; HASH_ERR_NOMEM. Takes stLock for reading, then for
 * writing, through bypass_ipfrag_addInHashPub; failures are traced at the
 * error debug level. */
u32 bypass_ipfrag_addInHash(BYPASS_PKT_INFO_S* pstPktInfo);
/* Enters a copy of the ulSize-byte record pNew unless pExist is not NULL
 * (an entry found before: BYPASS_FRAG_OK, nothing done). BYPASS_FRAG_OK
 * (also when the same datagram was entered meanwhile: the copy is dropped);
 * BYPASS_FRAG_ERR (NULL table or record, ulSize not the table's);
 * BYPASS_FRAG_FULL (checked before the copy is made and again under the
 * lock); HASH_ERR_NOMEM; HASH_ERR_BUCKET (103, the key callback gave no
 * bucket). Takes stLock for reading, then for writing. */
u32 bypass_ipfrag_addInHashPub(void* pExist, HASH_TABLE_S* pstTable, void* pNew, u32 ulSize);
/* Middle fragment: the entered vCPU into *pucVcpuId, and the entry's age
 * back to 0. BYPASS_FRAG_OK; BYPASS_FRAG_ERR (a NULL argument, not IPv4, no
 * table, no entry: *pucVcpuId untouched). Takes stLock for writing. */
u32 bypass_ipfrag_findVcpuInHash(BYPASS_PKT_INFO_S* pstPktInfo, u8* pucVcpuId);
/* Last fragment: the entered vCPU into *pucVcpuId, and the entry removed.
 * usProtocolType, not the record's, says whether it is IPv4.
 * BYPASS_FRAG_OK; BYPASS_FRAG_ERR_PROTO (not IPv4); BYPASS_FRAG_ERR (a NULL
 * argument, no table); BYPASS_FRAG_NO_ENTRY (traced at the error debug
 * level, *pucVcpuId untouched). Takes stLock for writing; the record is
 * freed after a grace period. */
u32 bypass_ipfrag_delInHash(BYPASS_PKT_INFO_S* pstPktInfo, u16 usProtocolType, u8* pucVcpuId);
/* HASH_FindElemFromFirstList with the key first: takes stLock for reading,
 * and the record may be freed (ageing, a last fragment) as soon as it
 * returns, so callers only compare the result with NULL. */
void* bypass_ipfrag_findInHash(void* pKey, HASH_TABLE_S* pstTable);

/* The tables' callbacks: pure, lock-free, any context. hashkey: the jhash
 * mix of the key with the table's seed, modulo its bucket count; ~0 (no
 * bucket) for a NULL key or while the table does not exist. The IPv4 one
 * always uses the IPv4 table's seed and size, the IPv6 one the IPv6
 * table's. hashmatch: 1 when addresses and id are equal, else 0 (0 for
 * NULL). */
u64 bypass_ipv4frag_hashkey(const void* pKey);
u64 bypass_ipv6frag_hashkey(const void* pKey);
u32 bypass_ipv4frag_hashmatch(const void* pData, const void* pKey);
u32 bypass_ipv6frag_hashmatch(const void* pData, const void* pKey);

/* Ageing sweeps, run by the tables' timers only (timer context): under
 * stLock for writing, every record ages by 5 and one past 34 is freed at
 * once; then the timer is re-armed for the table's period. */
void bypass_ipv4frag_timer_callback(kport_timer_t* pstTimer);
void bypass_ipv6frag_timer_callback(kport_timer_t* pstTimer);

/* hashInfoIpv4 / hashInfoIpv6 readers (reader's process context): the bytes
 * of the dump image copied from *pos, 0 at its end, without a table, or
 * when the shared image cannot be had (logged), -ENOMEM when the reader's
 * copy cannot, -EINVAL for a negative *pos, -EFAULT when nothing could be
 * copied out. The image is made
 * under the dumps' spin lock (bottom halves off), taken before the table's
 * stLock for reading. */
ssize_t bypass_proc_readHashInfoIpv4(struct file* file, char* ubuf, size_t count,
                                     kport_loff_t* pos);
ssize_t bypass_proc_readHashInfoIpv6(struct file* file, char* ubuf, size_t count,
                                     kport_loff_t* pos);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_FRAG_H */
