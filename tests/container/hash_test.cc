// The list and the chained hash table, driven through their own records:
// bucket range, duplicate keys, removal from any position, both families.
#include <gtest/gtest.h>

#include <cstring>

#include "drv_vane/container.h"
#include "kport/mem.h"
#include "kport/rcu.h"
#include "kport/user/testing.h"

namespace {

namespace fault = kport::user::fault;
namespace clk = kport::user::clock;

struct Rec {
  u32 key;
  u32 tag;
};

u64 g_buckets_for_key = 8;
u64 KeyMod(const void* key) { return static_cast<const Rec*>(key)->key % g_buckets_for_key; }
u64 KeyNone(const void*) { return ~0ull; }
u32 Match(const void* data, const void* key) {
  // A high bit that the table must ignore: only the low byte counts.
  return static_cast<const Rec*>(data)->key == static_cast<const Rec*>(key)->key ? 1 : 0x100;
}

class HashTest : public ::testing::Test {
 protected:
  void SetUp() override { live_ = kport::user::LiveAllocations(); }
  void TearDown() override {
    HASH_Destroy(table_);
    // An _LB_New removal frees its record after a grace period.
    kport_rcu_barrier();
    fault::ClearAll();
    EXPECT_EQ(kport::user::LiveAllocations(), live_);
  }
  Rec* Add(u32 key, u32 tag, bool locked = true) {
    auto* r = static_cast<Rec*>(HASH_NewData(table_));
    r->key = key;
    r->tag = tag;
    u32 ret = locked ? HASH_AddNode(table_, r, r) : HASH_AddNode_LB_New(table_, r, r);
    EXPECT_EQ(ret, 0u);
    return r;
  }
  u32 TagOf(u32 key) {
    Rec k{key, 0};
    auto* r = static_cast<Rec*>(HASH_FindElemFromFirstList(table_, &k));
    return r == nullptr ? 0 : r->tag;
  }

  HASH_TABLE_S* table_ = nullptr;
  size_t live_ = 0;
};

TEST_F(HashTest, CreationLimitsAndSeed) {
  EXPECT_EQ(HASH_CreateNew(sizeof(Rec), 1001, KeyMod, Match), nullptr);
  EXPECT_EQ(HASH_CreateNew(0, 8, KeyMod, Match), nullptr);
  EXPECT_EQ(HASH_CreateNew(sizeof(Rec), 8, nullptr, Match), nullptr);
  EXPECT_EQ(HASH_CreateNew(sizeof(Rec), 8, KeyMod, nullptr), nullptr);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(HASH_CreateNew(sizeof(Rec), 8, KeyMod, Match), nullptr);

  clk::UseManual(0x12345678);
  table_ = HASH_CreateNew(sizeof(Rec), 1000, KeyMod, Match);
  clk::UseTimerThread();
  ASSERT_NE(table_, nullptr);
  EXPECT_EQ(table_->ulSeed, 0x12345678ull ^ (0x12345678ull >> 6));
  EXPECT_EQ(table_->lTimerPeriod, 500);
  EXPECT_EQ(table_->usElemSize, sizeof(Rec));
  EXPECT_EQ(kport_timer_pending(&table_->stTimer), 0);
}

TEST_F(HashTest, KeysWithoutBucketChangeNothing) {
  table_ = HASH_CreateNew(sizeof(Rec), 0, KeyMod, Match);
  ASSERT_NE(table_, nullptr);
  Rec r{1, 1};
  g_buckets_for_key = 8;
  for (u32 ret : {HASH_AddNode(table_, &r, &r), HASH_AddNode_LB_New(table_, &r, &r),
                  HASH_RemoveElmtByKey(table_, &r), HASH_RemoveElmtByKey_LB_New(table_, &r)}) {
    EXPECT_EQ(ret, 103u);
  }
  EXPECT_EQ(HASH_FindElemFromFirstList(table_, &r), nullptr);
  EXPECT_EQ(table_->ulElemCnt, 0u);
  HASH_Destroy(table_);

  table_ = HASH_CreateNew(sizeof(Rec), 8, KeyNone, Match);
  EXPECT_EQ(HASH_AddNode(table_, &r, &r), 103u);
  EXPECT_EQ(HASH_FindElemFromFirstList_LB_New(table_, &r), nullptr);
}

TEST_F(HashTest, DuplicateKeysKeepInsertionOrderInBothFamilies) {
  g_buckets_for_key = 8;
  table_ = HASH_CreateNew(sizeof(Rec), 8, KeyMod, Match);
  Add(3, 100);
  Add(3, 200, /*locked=*/false);
  EXPECT_EQ(table_->ulElemCnt, 2u);
  EXPECT_EQ(TagOf(3), 100u);
  Rec k{3, 0};
  EXPECT_EQ(HASH_RemoveElmtByKey(table_, &k), 0u);
  EXPECT_EQ(TagOf(3), 200u);
  EXPECT_EQ(HASH_RemoveElmtByKey_LB_New(table_, &k), 0u);
  EXPECT_EQ(HASH_RemoveElmtByKey(table_, &k), 1u);
  EXPECT_EQ(table_->ulElemCnt, 0u);
  EXPECT_EQ(table_->astBucket[3].usNodeCnt, 0u);
}

TEST_F(HashTest, NodeAllocationFailureLeavesTableUnchanged) {
  table_ = HASH_CreateNew(sizeof(Rec), 8, KeyMod, Match);
  auto* r = static_cast<Rec*>(HASH_NewData(table_));
  r->key = 5;
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(HASH_AddNode(table_, r, r), 101u);
  EXPECT_EQ(table_->ulElemCnt, 0u);
  // The two families answer a missing record differently.
  EXPECT_EQ(HASH_AddNode(table_, r, nullptr), 100u);
  EXPECT_EQ(HASH_AddNode_LB_New(table_, r, nullptr), 1u);
  EXPECT_EQ(table_->astBucket[5].pstHead, nullptr);
  EXPECT_EQ(HASH_FreeData(table_, r), 0u);
}

TEST_F(HashTest, RemovalAtHeadMiddleAndTailKeepsTheListLinked) {
  g_buckets_for_key = 1;  // one bucket, so the nodes share a list
  table_ = HASH_CreateNew(sizeof(Rec), 4, KeyMod, Match);
  Add(10, 1);
  Add(11, 2);
  Add(12, 3);
  LIST_HEAD_S* list = &table_->astBucket[0];
  LIST_NODE_S* middle = list->pstHead->pstNext;
  HASH_RemoveNodeByAddress(table_, list, middle);
  EXPECT_EQ(list->usNodeCnt, 2u);
  EXPECT_EQ(table_->ulElemCnt, 2u);
  EXPECT_EQ(list->pstHead->pstNext, list->pstTail);
  EXPECT_EQ(list->pstTail->pstPrev, list->pstHead);

  Add(13, 4);
  Rec k{13, 0};
  EXPECT_EQ(HASH_RemoveElmtByKey(table_, &k), 0u);  // tail
  EXPECT_EQ(static_cast<Rec*>(list->pstTail->pData)->key, 12u);
  EXPECT_EQ(list->pstTail->pstNext, nullptr);
  HASH_RemoveNodeByAddress(table_, list, list->pstHead);  // head
  EXPECT_EQ(list->pstHead, list->pstTail);
  EXPECT_EQ(list->pstHead->pstPrev, nullptr);
  HASH_RemoveNodeByAddress(table_, list, list->pstTail);
  EXPECT_EQ(list->pstHead, nullptr);
  EXPECT_EQ(list->pstTail, nullptr);
  EXPECT_EQ(table_->ulElemCnt, 0u);
  // A count already at zero stays there.
  EXPECT_EQ(HASH_RemoveElmtByKey(table_, &k), 1u);
  EXPECT_EQ(table_->ulElemCnt, 0u);
  // Whatever is still held goes with the table (TearDown counts).
  for (u32 i = 0; i < 50; ++i) Add(i, i);
  g_buckets_for_key = 8;
}

}  // namespace
