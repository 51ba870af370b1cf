// The chained hash table: a bucket array of lists under one reader-writer
// lock, plus the seed, timer and period its owners use for ageing.
//
// Context: the plain operations take stLock through kport, which disables
// bottom halves while it is held; a timer or packet that interrupted a
// holder on the same processor would otherwise spin on the lock for ever.
// The table takes no other lock, so no lock order exists to get wrong. The
// key callback runs before the lock, the match callback under it.
#include "container/hash_internal.h"
#include "drv_vane/container.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/mem.h"
#include "kport/timer.h"

namespace vane {
namespace {

u32 add_unlocked(HASH_TABLE_S* table, LIST_HEAD_S* bucket, void* data) {
  u32 ret = LIST_AppendNode(bucket, data);
  if (ret == HASH_OK) count_up(table);
  return ret;
}

u32 remove_unlocked(HASH_TABLE_S* table, LIST_HEAD_S* bucket, const void* key) {
  void* data = LIST_RemoveNodeByKey(bucket, key, table->pfnMatch);
  if (data == nullptr) return HASH_NOT_FOUND;
  kport_kfree(data);
  count_down(table);
  return HASH_OK;
}

void* find_unlocked(HASH_TABLE_S* table, LIST_HEAD_S* bucket, const void* key) {
  LIST_NODE_S* node = LIST_FindNodeFromHead(bucket, key, table->pfnMatch);
  return node != nullptr ? node->pData : nullptr;
}

}  // namespace
}  // namespace vane

extern "C" HASH_TABLE_S* HASH_CreateNew(u16 usElemSize, u64 ulBucketNum, HASH_KEY_PFN pfnHashKey,
                                        HASH_MATCH_PFN pfnMatch) {
  if (ulBucketNum > HASH_MAX_BUCKETS || usElemSize == 0 || pfnHashKey == nullptr ||
      pfnMatch == nullptr) {
    return nullptr;
  }
  size_t size = sizeof(HASH_TABLE_S) + ulBucketNum * sizeof(LIST_HEAD_S);
  auto* table = static_cast<HASH_TABLE_S*>(kport_kmalloc_atomic(size));
  if (table == nullptr) return nullptr;
  memset_s(table, size, 0, size);
  table->lTimerPeriod = HASH_TIMER_PERIOD;
  table->usElemSize = usElemSize;
  u64 ticks = kport_jiffies();
  table->ulSeed = ticks ^ (ticks >> 6);
  table->pfnMatch = pfnMatch;
  table->pfnHashKey = pfnHashKey;
  table->ulBucketNum = ulBucketNum;
  table->ulElemCnt = 0;
  kport_rwlock_init(&table->stLock);
  table->astBucket = reinterpret_cast<LIST_HEAD_S*>(table + 1);
  for (u64 i = 0; i < ulBucketNum; ++i) LIST_InitNew(&table->astBucket[i], usElemSize, pfnMatch);
  return table;
}

extern "C" void HASH_Destroy(HASH_TABLE_S* pstTable) {
  if (pstTable == nullptr) return;
  for (u64 i = 0; i < pstTable->ulBucketNum; ++i) {
    LIST_HEAD_S* bucket = &pstTable->astBucket[i];
    while (bucket->pstHead != nullptr) kport_kfree(LIST_RemoveHeadNode(bucket));
  }
  kport_rwlock_destroy(&pstTable->stLock);
  kport_kfree(pstTable);
}

extern "C" void* HASH_NewData(HASH_TABLE_S* pstTable) {
  if (pstTable == nullptr) return nullptr;
  return kport_kzalloc_atomic(pstTable->usElemSize);
}

extern "C" u32 HASH_FreeData(HASH_TABLE_S* pstTable, void* pData) {
  (void)pstTable;
  if (pData == nullptr) return HASH_ERR_ARG;
  kport_kfree(pData);
  return HASH_OK;
}

extern "C" u32 HASH_AddNode(HASH_TABLE_S* pstTable, const void* pKey, void* pData) {
  if (pstTable == nullptr || pKey == nullptr || pData == nullptr) return HASH_ERR_ARG;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return HASH_ERR_BUCKET;
  kport::WriteGuard guard(&pstTable->stLock);
  return vane::add_unlocked(pstTable, bucket, pData);
}

extern "C" void* HASH_FindElemFromFirstList(HASH_TABLE_S* pstTable, const void* pKey) {
  if (pstTable == nullptr || pKey == nullptr) return nullptr;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return nullptr;
  kport::ReadGuard guard(&pstTable->stLock);
  return vane::find_unlocked(pstTable, bucket, pKey);
}

extern "C" u32 HASH_RemoveElmtByKey(HASH_TABLE_S* pstTable, const void* pKey) {
  if (pstTable == nullptr || pKey == nullptr) return HASH_ERR_ARG;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return HASH_ERR_BUCKET;
  kport::WriteGuard guard(&pstTable->stLock);
  return vane::remove_unlocked(pstTable, bucket, pKey);
}

extern "C" void HASH_RemoveNodeByAddress(HASH_TABLE_S* pstTable, LIST_HEAD_S* pstList,
                                         LIST_NODE_S* pstNode) {
  if (pstTable == nullptr || pstList == nullptr || pstNode == nullptr) return;
  if (pstTable->pfnHashKey(pstNode->pData) >= pstTable->ulBucketNum) return;
  if (pstNode == pstList->pstHead) {
    kport_kfree(LIST_RemoveHeadNode(pstList));
  } else if (pstNode == pstList->pstTail) {
    kport_kfree(LIST_RemoveTailNode(pstList));
  } else {
    pstNode->pstPrev->pstNext = pstNode->pstNext;
    pstNode->pstNext->pstPrev = pstNode->pstPrev;
    if (pstList->usNodeCnt > 0) --pstList->usNodeCnt;
    kport_kfree(pstNode->pData);
    kport_kfree(pstNode);
  }
  vane::count_down(pstTable);
}
