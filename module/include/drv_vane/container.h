/* Doubly linked lists and the chained hash table built on them.
 *
 * A table stores opaque fixed-size records; what a key is and when a record
 * matches it are decided by the table's two callbacks. Keys are not unique:
 * an add never looks for an existing record. A record handed to a successful
 * add belongs to the table and is freed by the removal that takes it out;
 * the caller frees it (HASH_FreeData) only when the add fails.
 *
 * Result codes (u32):
 *   HASH_OK            0   done
 *   HASH_NOT_FOUND     1   removal: no record matches the key;
 *                          HASH_AddNode_LB_New: an argument is missing
 *   HASH_ERR_ARG     100   an argument is missing
 *   HASH_ERR_NOMEM   101   no memory for a list node
 *   HASH_ERR_BUCKET  103   the key callback gave an index not below the
 *                          bucket count (the key has no bucket)
 *
 * Locks:
 *  - HASH_AddNode, HASH_FindElemFromFirstList and HASH_RemoveElmtByKey take
 *    the table's reader-writer lock (stLock) with bottom halves off, so
 *    that a timer or the packet path arriving on a processor that holds it
 *    cannot spin on it there.
 *  - The _LB_New operations take no lock: one writer at a time, serialised
 *    by the caller (with a lock of its own, or with stLock held for
 *    writing, alongside the locked operations), while readers walk the
 *    buckets inside an RCU read-side section or under the same lock.
 * The key callback always runs outside any lock the table takes, the match
 * callback inside it. Nothing sleeps: allocations are atomic and may fail.
 * No function may be called from hard-interrupt context. */
#ifndef DRV_VANE_CONTAINER_H
#define DRV_VANE_CONTAINER_H

#include "kport/compiler.h"
#include "kport/lock.h"
#include "kport/timer.h"
#include "kport/types.h"

#define HASH_OK 0u
#define HASH_NOT_FOUND 1u
#define HASH_ERR_ARG 100u
#define HASH_ERR_NOMEM 101u
#define HASH_ERR_BUCKET 103u

#define HASH_MAX_BUCKETS 1000u
#define HASH_TIMER_PERIOD 500
#define HASH_ELEM_CNT_MAX 0xFFFFFFFFu

/* (stored record, key) -> match; only the low 8 bits of the result count. */
typedef u32 (*HASH_MATCH_PFN)(const void* pData, const void* pKey);
/* (key) -> bucket index; an index not below ulBucketNum means no bucket. */
typedef u64 (*HASH_KEY_PFN)(const void* pKey);

typedef struct tagLIST_NODE {
  void* pData;
  struct tagLIST_NODE* pstNext;
  struct tagLIST_NODE* pstPrev;
} LIST_NODE_S;

typedef struct tagLIST_HEAD {
  LIST_NODE_S* pstHead;
  LIST_NODE_S* pstTail;
  HASH_MATCH_PFN pfnMatch;
  u16 usElemSize;
  u16 usNodeCnt;
} LIST_HEAD_S;

/* Allocated in one piece with its buckets, which follow it in memory. The
 * timer comes first so that a timer callback can take its argument as the
 * table. */
typedef struct tagHASH_TABLE {
  kport_timer_t stTimer;
  HASH_MATCH_PFN pfnMatch;
  HASH_KEY_PFN pfnHashKey;
  u64 ulBucketNum;
  u64 ulElemCnt;
  u16 usElemSize;
  kport_rwlock_t stLock;
  s32 lTimerPeriod;
  u64 ulSeed;
  LIST_HEAD_S* astBucket; /* ulBucketNum buckets, right after the table */
} HASH_TABLE_S;

KPORT_STATIC_ASSERT(KPORT_OFFSETOF(HASH_TABLE_S, stTimer) == 0, "timer first");

KPORT_EXTERN_C_BEGIN

/* ---- Lists ----
 * No lock and no RCU: the caller holds whatever excludes every other user
 * of the list (the table's stLock for writing, for a bucket). A match
 * callback argument of NULL means the list's own. */

/* Empty list with the record size and match callback: HASH_OK;
 * HASH_ERR_ARG for a NULL list or callback. */
u32 LIST_InitNew(LIST_HEAD_S* pstList, u16 usElemSize, HASH_MATCH_PFN pfnMatch);
/* Append pData in a new node: HASH_OK; HASH_ERR_ARG for a NULL list or
 * record; HASH_ERR_NOMEM when the node cannot be had. */
u32 LIST_AppendNode(LIST_HEAD_S* pstList, void* pData);
/* The first node whose record matches pKey, or NULL (also for a NULL list
 * or key, or when neither callback exists). */
LIST_NODE_S* LIST_FindNodeFromHead(LIST_HEAD_S* pstList, const void* pKey, HASH_MATCH_PFN pfnMatch);
/* Unlink and free the head, the tail or the first matching node; the record
 * it held, which is now the caller's, or NULL when there is none. */
void* LIST_RemoveHeadNode(LIST_HEAD_S* pstList);
void* LIST_RemoveTailNode(LIST_HEAD_S* pstList);
void* LIST_RemoveNodeByKey(LIST_HEAD_S* pstList, const void* pKey, HASH_MATCH_PFN pfnMatch);

/* ---- Tables: life and records ---- */

/* A new empty table, or NULL when ulBucketNum > 1000, usElemSize is 0, a
 * callback is missing or memory is short. The seed is T ^ (T >> 6), T the
 * tick count at creation; the period 500 ticks; the timer zeroed, neither
 * set up nor armed. Takes no lock. */
HASH_TABLE_S* HASH_CreateNew(u16 usElemSize, u64 ulBucketNum, HASH_KEY_PFN pfnHashKey,
                             HASH_MATCH_PFN pfnMatch);
/* Frees every record and node still linked, then the table (NULL: nothing).
 * The owner has stopped the table's timer (kport_timer_del_sync) if it ever
 * armed it, and nothing else can reach the table, no reader of the _LB_New
 * family included. Records removed earlier by the _LB_New removal are freed
 * by their own RCU callbacks, which do not need the table. Process context;
 * takes no lock. */
void HASH_Destroy(HASH_TABLE_S* pstTable);
/* A zeroed record of the table's size, or NULL (NULL table, no memory).
 * Takes no lock. */
void* HASH_NewData(HASH_TABLE_S* pstTable);
/* Frees a record that no table holds (one whose add failed): HASH_OK;
 * HASH_ERR_ARG for NULL. */
u32 HASH_FreeData(HASH_TABLE_S* pstTable, void* pData);

/* ---- Locked tables ----
 * Each takes stLock itself (bottom halves off) and must not be called with
 * it held: the lock is not recursive. Process, softirq or timer context. No
 * RCU involved: a record is freed as soon as it is removed. */

/* Append pData in pKey's bucket: HASH_OK; HASH_ERR_ARG (a NULL argument),
 * HASH_ERR_BUCKET, HASH_ERR_NOMEM. Takes stLock for writing. */
u32 HASH_AddNode(HASH_TABLE_S* pstTable, const void* pKey, void* pData);
/* The first record of pKey's bucket that matches, or NULL (a NULL
 * argument, no bucket, no match). Takes stLock for reading. The record
 * still belongs to the table and a concurrent removal may free it as soon
 * as the lock is dropped: a caller that reads it needs an exclusion of its
 * own. */
void* HASH_FindElemFromFirstList(HASH_TABLE_S* pstTable, const void* pKey);
/* Unlink and free the first matching record: HASH_OK; HASH_NOT_FOUND;
 * HASH_ERR_ARG (a NULL argument); HASH_ERR_BUCKET. Takes stLock for
 * writing. */
u32 HASH_RemoveElmtByKey(HASH_TABLE_S* pstTable, const void* pKey);
/* Unlink and free pstNode, which lies in pstList, a bucket of the table; the
 * key callback applied to its record must give a bucket, else nothing
 * happens (as for a NULL argument). The caller holds stLock for writing (or
 * otherwise excludes every other user, readers included: the node is freed
 * at once). Takes no lock. */
void HASH_RemoveNodeByAddress(HASH_TABLE_S* pstTable, LIST_HEAD_S* pstList, LIST_NODE_S* pstNode);

/* ---- RCU-published tables (the _LB_New family) ----
 * They take no lock. Writers (add, remove) are serialised by the caller's
 * lock; finds run inside an RCU read-side section or under that lock, at
 * the same time as a writer, on any processor. */

/* Publish pData, complete, at the tail of pKey's bucket (one release store,
 * so a concurrent reader sees it whole or not at all): HASH_OK;
 * HASH_NOT_FOUND (a NULL argument); HASH_ERR_BUCKET; HASH_ERR_NOMEM. Writer
 * serialised by the caller. */
u32 HASH_AddNode_LB_New(HASH_TABLE_S* pstTable, const void* pKey, void* pData);
/* The first matching record of pKey's bucket, or NULL (also for a NULL
 * argument or a key without bucket). The caller is inside
 * an RCU read-side section or holds the writers' lock, and uses the record
 * only until it leaves that section or drops that lock. */
void* HASH_FindElemFromFirstList_LB_New(HASH_TABLE_S* pstTable, const void* pKey);
/* Unlink the first matching record (a reader standing on it walks on):
 * HASH_OK; HASH_NOT_FOUND; HASH_ERR_ARG (a NULL argument); HASH_ERR_BUCKET.
 * The node and record are freed by kport_call_rcu after a grace period, so
 * the module's exit must wait for them with kport_rcu_barrier. Writer
 * serialised by the caller; any context but hard interrupts. */
u32 HASH_RemoveElmtByKey_LB_New(HASH_TABLE_S* pstTable, const void* pKey);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_CONTAINER_H */
