// Pieces shared by the locked table operations and the RCU-published _LB_New
// family. Callers hold whatever exclusion covers the table's counters.
#ifndef VANE_CONTAINER_HASH_INTERNAL_H
#define VANE_CONTAINER_HASH_INTERNAL_H

#include "drv_vane/container.h"

namespace vane {

// Bucket of a key, or nullptr when the key callback gives none.
inline LIST_HEAD_S* bucket_of(HASH_TABLE_S* table, const void* key) {
  u64 index = table->pfnHashKey(key);
  if (index >= table->ulBucketNum) return nullptr;
  return &table->astBucket[index];
}

inline void count_up(HASH_TABLE_S* table) {
  if (table->ulElemCnt < HASH_ELEM_CNT_MAX) ++table->ulElemCnt;
}

inline void count_down(HASH_TABLE_S* table) {
  if (table->ulElemCnt > 0) --table->ulElemCnt;
}

}  // namespace vane

#endif  // VANE_CONTAINER_HASH_INTERNAL_H
