// Walking an RCU-published table (the _LB_New family) from inside a read-side
// section or under the writers' lock: each link is loaded with an acquire
// load, which pairs with the release store that published the node.
#ifndef VANE_CONTAINER_HASH_LB_H
#define VANE_CONTAINER_HASH_LB_H

#include "base/atomic.h"
#include "drv_vane/container.h"

namespace vane {

inline LIST_NODE_S* lb_first(const LIST_HEAD_S* bucket) { return load_acquire(&bucket->pstHead); }

inline LIST_NODE_S* lb_next(const LIST_NODE_S* node) { return load_acquire(&node->pstNext); }

// Calls fn(record) for every record of the table, bucket by bucket from 0 and
// in chain order within a bucket. The records stay the table's.
template <typename Fn>
inline void lb_for_each(const HASH_TABLE_S* table, Fn&& fn) {
  for (u64 i = 0; i < table->ulBucketNum; ++i) {
    for (LIST_NODE_S* node = lb_first(&table->astBucket[i]); node != nullptr;
         node = lb_next(node)) {
      fn(node->pData);
    }
  }
}

}  // namespace vane

#endif  // VANE_CONTAINER_HASH_LB_H
