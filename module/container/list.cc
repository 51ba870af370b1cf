// Doubly linked lists of records: the buckets of the hash table.
//
// Context: no lock of their own; every caller holds the exclusion that
// covers the list (a table's lock, or the owner's own rule for the _LB_New
// tables). Node allocation is atomic, so appends work under a spin lock.
#include "drv_vane/container.h"
#include "kport/mem.h"

namespace vane {
namespace {

bool matches(HASH_MATCH_PFN fn, const void* data, const void* key) {
  // Only the low byte of a match result counts.
  return static_cast<u8>(fn(data, key)) != 0;
}

void* take_node(LIST_NODE_S* node) {
  void* data = node->pData;
  kport_kfree(node);
  return data;
}

}  // namespace
}  // namespace vane

extern "C" u32 LIST_InitNew(LIST_HEAD_S* pstList, u16 usElemSize, HASH_MATCH_PFN pfnMatch) {
  if (pstList == nullptr || pfnMatch == nullptr) return HASH_ERR_ARG;
  pstList->pstHead = nullptr;
  pstList->pstTail = nullptr;
  pstList->pfnMatch = pfnMatch;
  pstList->usElemSize = usElemSize;
  pstList->usNodeCnt = 0;
  return HASH_OK;
}

extern "C" u32 LIST_AppendNode(LIST_HEAD_S* pstList, void* pData) {
  if (pstList == nullptr || pData == nullptr) return HASH_ERR_ARG;
  auto* node = static_cast<LIST_NODE_S*>(kport_kmalloc_atomic(sizeof(LIST_NODE_S)));
  if (node == nullptr) return HASH_ERR_NOMEM;
  node->pData = pData;
  node->pstNext = nullptr;
  node->pstPrev = pstList->pstTail;
  if (pstList->pstTail != nullptr) {
    pstList->pstTail->pstNext = node;
  } else {
    pstList->pstHead = node;
  }
  pstList->pstTail = node;
  ++pstList->usNodeCnt;
  return HASH_OK;
}

extern "C" LIST_NODE_S* LIST_FindNodeFromHead(LIST_HEAD_S* pstList, const void* pKey,
                                              HASH_MATCH_PFN pfnMatch) {
  if (pstList == nullptr || pKey == nullptr) return nullptr;
  HASH_MATCH_PFN fn = pfnMatch != nullptr ? pfnMatch : pstList->pfnMatch;
  if (fn == nullptr) return nullptr;
  for (LIST_NODE_S* node = pstList->pstHead; node != nullptr; node = node->pstNext) {
    if (vane::matches(fn, node->pData, pKey)) return node;
  }
  return nullptr;
}

extern "C" void* LIST_RemoveHeadNode(LIST_HEAD_S* pstList) {
  if (pstList == nullptr || pstList->pstHead == nullptr) return nullptr;
  LIST_NODE_S* node = pstList->pstHead;
  pstList->pstHead = node->pstNext;
  if (pstList->pstHead != nullptr) {
    pstList->pstHead->pstPrev = nullptr;
  } else {
    pstList->pstTail = nullptr;
  }
  if (pstList->usNodeCnt > 0) --pstList->usNodeCnt;
  return vane::take_node(node);
}

extern "C" void* LIST_RemoveTailNode(LIST_HEAD_S* pstList) {
  if (pstList == nullptr || pstList->pstTail == nullptr) return nullptr;
  LIST_NODE_S* node = pstList->pstTail;
  pstList->pstTail = node->pstPrev;
  if (pstList->pstTail != nullptr) {
    pstList->pstTail->pstNext = nullptr;
  } else {
    pstList->pstHead = nullptr;
  }
  if (pstList->usNodeCnt > 0) --pstList->usNodeCnt;
  return vane::take_node(node);
}

extern "C" void* LIST_RemoveNodeByKey(LIST_HEAD_S* pstList, const void* pKey,
                                      HASH_MATCH_PFN pfnMatch) {
  LIST_NODE_S* node = LIST_FindNodeFromHead(pstList, pKey, pfnMatch);
  if (node == nullptr) return nullptr;
  if (node == pstList->pstHead) return LIST_RemoveHeadNode(pstList);
  if (node == pstList->pstTail) return LIST_RemoveTailNode(pstList);
  node->pstPrev->pstNext = node->pstNext;
  node->pstNext->pstPrev = node->pstPrev;
  if (pstList->usNodeCnt > 0) --pstList->usNodeCnt;
  return vane::take_node(node);
}
