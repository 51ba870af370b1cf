// The _LB_New family: the table operations without the table's lock, for
// tables whose readers walk under RCU while one writer at a time changes
// them.
//
// Context: the caller serialises writers (add, remove) by a lock of its own;
// finds may run at the same time on any processor, inside an RCU read-side
// section (kport/rcu.h) or under the writers' lock. Nothing sleeps.
//
// What keeps a concurrent reader safe:
//  - an add fills its node (record, forward pointer) before one release
//    store links it behind the bucket's tail, so a reader either misses the
//    node or sees it whole;
//  - a removal unlinks the node with single stores and leaves its forward
//    pointer as it was, so a reader standing on it walks on; the node and
//    its record are freed by an RCU callback, after every reader that might
//    hold them has left;
//  - readers load each link with an acquire load (walk_lb below).
#include "container/hash_lb.h"
#include "base/atomic.h"
#include "container/hash_internal.h"
#include "drv_vane/container.h"
#include "kport/mem.h"
#include "kport/rcu.h"

namespace vane {
namespace {

// A node of an RCU-published bucket carries the head of its deferred free.
// The list sees only the LIST_NODE_S at its start, so every other list
// operation (and HASH_Destroy's plain free) handles it as any node.
struct LbNode {
  LIST_NODE_S node;
  kport_rcu_head_t rcu;
};

void free_lb_node(kport_rcu_head_t* head) {
  auto* lb =
      reinterpret_cast<LbNode*>(reinterpret_cast<char*>(head) - __builtin_offsetof(LbNode, rcu));
  kport_kfree(lb->node.pData);
  kport_kfree(lb);
}

bool matches(HASH_MATCH_PFN fn, const void* data, const void* key) {
  return static_cast<u8>(fn(data, key)) != 0;
}

LIST_NODE_S* find_node(const LIST_HEAD_S* bucket, HASH_MATCH_PFN match, const void* key,
                       LIST_NODE_S** prev_out) {
  LIST_NODE_S* prev = nullptr;
  for (LIST_NODE_S* node = lb_first(bucket); node != nullptr; node = lb_next(node)) {
    if (matches(match, node->pData, key)) {
      if (prev_out != nullptr) *prev_out = prev;
      return node;
    }
    prev = node;
  }
  return nullptr;
}

}  // namespace
}  // namespace vane

extern "C" u32 HASH_AddNode_LB_New(HASH_TABLE_S* pstTable, const void* pKey, void* pData) {
  if (pstTable == nullptr || pKey == nullptr || pData == nullptr) return HASH_NOT_FOUND;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return HASH_ERR_BUCKET;
  auto* lb = static_cast<vane::LbNode*>(kport_kmalloc_atomic(sizeof(vane::LbNode)));
  if (lb == nullptr) return HASH_ERR_NOMEM;
  LIST_NODE_S* node = &lb->node;
  node->pData = pData;
  node->pstNext = nullptr;
  node->pstPrev = bucket->pstTail;
  // Publication: the node and the record it points to are complete.
  if (bucket->pstTail != nullptr) {
    vane::store_release(&bucket->pstTail->pstNext, node);
  } else {
    vane::store_release(&bucket->pstHead, node);
  }
  bucket->pstTail = node;
  ++bucket->usNodeCnt;
  vane::count_up(pstTable);
  return HASH_OK;
}

extern "C" void* HASH_FindElemFromFirstList_LB_New(HASH_TABLE_S* pstTable, const void* pKey) {
  if (pstTable == nullptr || pKey == nullptr) return nullptr;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return nullptr;
  LIST_NODE_S* node = vane::find_node(bucket, pstTable->pfnMatch, pKey, nullptr);
  return node != nullptr ? node->pData : nullptr;
}

extern "C" u32 HASH_RemoveElmtByKey_LB_New(HASH_TABLE_S* pstTable, const void* pKey) {
  if (pstTable == nullptr || pKey == nullptr) return HASH_ERR_ARG;
  LIST_HEAD_S* bucket = vane::bucket_of(pstTable, pKey);
  if (bucket == nullptr) return HASH_ERR_BUCKET;
  LIST_NODE_S* prev = nullptr;
  LIST_NODE_S* node = vane::find_node(bucket, pstTable->pfnMatch, pKey, &prev);
  if (node == nullptr) return HASH_NOT_FOUND;
  // Readers follow only the forward links: those change by single stores,
  // and the unlinked node keeps its own, so a reader on it walks on.
  LIST_NODE_S* next = node->pstNext;
  // A release store, although the node behind it was published long ago:
  // a reader that arrives through the new link must see that node whole,
  // and the checkers order it by this store, not by the old publication.
  if (prev != nullptr) {
    vane::store_release(&prev->pstNext, next);
  } else {
    vane::store_release(&bucket->pstHead, next);
  }
  if (next != nullptr) {
    next->pstPrev = prev;
  } else {
    bucket->pstTail = prev;
  }
  if (bucket->usNodeCnt > 0) --bucket->usNodeCnt;
  vane::count_down(pstTable);
  auto* lb = reinterpret_cast<vane::LbNode*>(node);
  kport_call_rcu(&lb->rcu, vane::free_lb_node);
  return HASH_OK;
}
