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
 * Lock context:
 *  - LIST_* operations, HASH_RemoveNodeByAddress and the _LB_New operations
 *    take no lock; their caller provides the exclusion.
 *  - HASH_AddNode, HASH_FindElemFromFirstList and HASH_RemoveElmtByKey take
 *    the table's reader-writer lock with bottom halves disabled, so that the
 *    ageing timer or the packet path arriving on a processor that holds the
 *    lock cannot spin on it there. Callable from process context, softirq
 *    and timers, never from hard interrupts, never with stLock held.
 *  - The key callback always runs outside the lock, the match callback
 *    inside it.
 *  - Nothing sleeps: allocations are atomic and may fail. */
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

/* Lists (no lock). */
u32 LIST_InitNew(LIST_HEAD_S* pstList, u16 usElemSize, HASH_MATCH_PFN pfnMatch);
u32 LIST_AppendNode(LIST_HEAD_S* pstList, void* pData);
LIST_NODE_S* LIST_FindNodeFromHead(LIST_HEAD_S* pstList, const void* pKey, HASH_MATCH_PFN pfnMatch);
void* LIST_RemoveHeadNode(LIST_HEAD_S* pstList);
void* LIST_RemoveTailNode(LIST_HEAD_S* pstList);
void* LIST_RemoveNodeByKey(LIST_HEAD_S* pstList, const void* pKey, HASH_MATCH_PFN pfnMatch);

/* Tables. HASH_CreateNew: NULL when ulBucketNum > 1000, usElemSize is 0, a
 * callback is missing or memory is short. The seed is T ^ (T >> 6), T the
 * tick count at creation; the period 500 ticks; the timer not armed. */
HASH_TABLE_S* HASH_CreateNew(u16 usElemSize, u64 ulBucketNum, HASH_KEY_PFN pfnHashKey,
                             HASH_MATCH_PFN pfnMatch);
/* Frees every record and node, then the table. The owner has already
 * stopped the table's timer (kport_timer_del_sync) if it ever armed it, and
 * nothing else uses the table any more. Process context. */
void HASH_Destroy(HASH_TABLE_S* pstTable);
void* HASH_NewData(HASH_TABLE_S* pstTable);
u32 HASH_FreeData(HASH_TABLE_S* pstTable, void* pData);

u32 HASH_AddNode(HASH_TABLE_S* pstTable, const void* pKey, void* pData);
u32 HASH_AddNode_LB_New(HASH_TABLE_S* pstTable, const void* pKey, void* pData);
/* The returned record still belongs to the table: with the plain form, a
 * concurrent removal may free it as soon as the lock is dropped, so callers
 * that read it must hold an exclusion of their own. */
void* HASH_FindElemFromFirstList(HASH_TABLE_S* pstTable, const void* pKey);
void* HASH_FindElemFromFirstList_LB_New(HASH_TABLE_S* pstTable, const void* pKey);
u32 HASH_RemoveElmtByKey(HASH_TABLE_S* pstTable, const void* pKey);
u32 HASH_RemoveElmtByKey_LB_New(HASH_TABLE_S* pstTable, const void* pKey);
/* Caller holds the write lock (or otherwise excludes every other user). */
void HASH_RemoveNodeByAddress(HASH_TABLE_S* pstTable, LIST_HEAD_S* pstList, LIST_NODE_S* pstNode);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_CONTAINER_H */
