// The cause-ID table: when a cause ID answers at all, first setting wins, the
// count rules of a message, and allocation failures that leave the table as
// it was for the next message to retry.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

class CauseIdTest : public ModuleTest {
 protected:
  static void Configure(u32 board_type) {
    store_relaxed(&g_ulIsLBInited, 1);
    store_relaxed(&g_ulKernelLBBoardType, board_type);
  }
  static const WLAN_LB_CAUSEID_NODE_S* Find(u32 cause) {
    WLAN_LB_CAUSEID_NODE_S key{cause, 0, 0};
    return WLAN_LB_CauseID_Table_FindNodeByNode(&key);
  }
  static u64 Count() { return load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table)->ulElemCnt; }
};

TEST_F(CauseIdTest, AnswersOnlyOnceConfiguredOnTheBalancingBoard) {
  const WLAN_LB_CAUSEID_NODE_S nodes[] = {{100, 5, LB_AAA_PORT}, {8191, 11, LB_CAPWAP}};
  WLAN_LB_SetCauseIDTable(nodes, 2);
  auto ask = [](u16 cause, u32* lb, u64* pkt) { return WLAN_LB_IsNeedLBPkt(cause, lb, pkt); };
  u32 lb = 0;
  u64 pkt = 0;
  // Not configured yet on the balancing board, then configured on the
  // load-time board.
  store_relaxed(&g_ulKernelLBBoardType, WLAN_LB_BOARD_TYPE_LB);
  for (int step = 0; step < 2; ++step) {
    if (step == 1) Configure(WLAN_LB_BOARD_TYPE_DEFAULT);
    EXPECT_EQ(ask(100, &lb, &pkt), WLAN_LB_ERR) << step;
    EXPECT_EQ(lb, WLAN_LB_TYPE_NONE);
    EXPECT_EQ(pkt, WLAN_LB_PKT_TYPE_NONE);
  }
  Configure(WLAN_LB_BOARD_TYPE_LB);
  EXPECT_EQ(ask(100, &lb, &pkt), WLAN_LB_OK);
  EXPECT_EQ(lb, LB_AAA_PORT);
  EXPECT_EQ(pkt, 5u);
  EXPECT_EQ(ask(8191, &lb, &pkt), WLAN_LB_OK);
  EXPECT_EQ(lb, LB_CAPWAP);
  EXPECT_EQ(pkt, 11u);
  // Same bucket as 100, not in the table.
  EXPECT_EQ(ask(200, &lb, &pkt), WLAN_LB_ERR);
  EXPECT_EQ(lb, WLAN_LB_TYPE_NONE);
  EXPECT_EQ(pkt, WLAN_LB_PKT_TYPE_NONE);
  EXPECT_EQ(ask(100, nullptr, &pkt), WLAN_LB_ERR);
  EXPECT_EQ(ask(100, &lb, nullptr), WLAN_LB_ERR);
}

TEST_F(CauseIdTest, FirstSettingWinsAndEachRecordIsLogged) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  const WLAN_LB_CAUSEID_NODE_S first[] = {{7, 2, LB_AAA_MAC}};
  const WLAN_LB_CAUSEID_NODE_S second[] = {{7, 9, LB_CAPWAP_KA}, {107, 3, LB_CAPWAP}};
  WLAN_LB_SetCauseIDTable(first, 1);
  WLAN_LB_SetCauseIDTable(second, 2);
  EXPECT_EQ(DebugText(),
            "WLAN_LB_SetCauseIDTable  causeid 7 lbtype 3 pkttype 2\n"
            "WLAN_LB_SetCauseIDTable  causeid 7 lbtype 2 pkttype 9\n"
            "WLAN_LB_SetCauseIDTable  causeid 107 lbtype 1 pkttype 3\n");
  ASSERT_NE(Find(7), nullptr);
  EXPECT_EQ(Find(7)->lbtype, LB_AAA_MAC);
  EXPECT_EQ(Find(7)->pkttype, 2u);
  ASSERT_NE(Find(107), nullptr);
  EXPECT_EQ(Count(), 2u);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&second[0]), WLAN_LB_OK);
  EXPECT_EQ(Count(), 2u);
}

TEST_F(CauseIdTest, CountRulesAndCallbacks) {
  const std::vector<WLAN_LB_CAUSEID_NODE_S> many(101, WLAN_LB_CAUSEID_NODE_S{1, 1, 1});
  // Nothing to add: no table either.
  WLAN_LB_SetCauseIDTable(many.data(), 0);
  WLAN_LB_SetCauseIDTable(nullptr, 3);
  EXPECT_EQ(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&many[0]), WLAN_LB_ERR);
  EXPECT_EQ(Find(1), nullptr);
  // Too many: the table comes, the records do not.
  WLAN_LB_SetCauseIDTable(many.data(), 101);
  ASSERT_NE(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  EXPECT_EQ(Count(), 0u);
  EXPECT_EQ(WLAN_LB_InitLBCauseIDHashTable(), load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table));

  std::vector<WLAN_LB_CAUSEID_NODE_S> hundred;
  for (u32 i = 0; i < 100; ++i) hundred.push_back({i * 37, i, LB_AAA_PORT});
  WLAN_LB_SetCauseIDTable(hundred.data(), 100);
  EXPECT_EQ(Count(), 100u);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(nullptr), WLAN_LB_ERR);

  const WLAN_LB_CAUSEID_NODE_S key{1234, 0, 0};
  EXPECT_EQ(WLAN_LB_CauseID_Hashkey(&key), 34u);
  EXPECT_EQ(WLAN_LB_CauseID_Hashkey(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_CauseID_Hashmatch(nullptr, &key), 0u);
}

// Records in the message body need not be aligned.
TEST_F(CauseIdTest, ReadsRecordsAtAnyAlignment) {
  std::vector<u8> body(1 + 2 * sizeof(WLAN_LB_CAUSEID_NODE_S));
  const WLAN_LB_CAUSEID_NODE_S nodes[] = {{40, 6, LB_AAA_MAC}, {41, 7, LB_AAA_PORT}};
  std::memcpy(body.data() + 1, nodes, sizeof(nodes));
  WLAN_LB_SetCauseIDTable(reinterpret_cast<const WLAN_LB_CAUSEID_NODE_S*>(body.data() + 1), 2);
  ASSERT_NE(Find(41), nullptr);
  EXPECT_EQ(Find(41)->pkttype, 7u);
}

TEST_F(CauseIdTest, FailedAllocationsLeaveTheTableForTheNextMessage) {
  const WLAN_LB_CAUSEID_NODE_S nodes[] = {{1, 1, LB_CAPWAP}, {2, 2, LB_CAPWAP}, {3, 3, LB_CAPWAP}};
  // The table itself.
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(nodes, 3);
  EXPECT_EQ(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  // The first record's data, then the second record's list node: those two
  // are missing, the third goes in.
  ASSERT_NE(WLAN_LB_InitLBCauseIDHashTable(), nullptr);
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(nodes, 1);
  EXPECT_EQ(Find(1), nullptr);
  fault::FailNth(fault::Site::kAlloc, 2);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&nodes[1]), HASH_ERR_NOMEM);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&nodes[1]), WLAN_LB_ERR);
  EXPECT_EQ(Count(), 0u);
  // One message: the first record fails, the others still go in.
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(nodes, 3);
  EXPECT_EQ(Find(1), nullptr);
  EXPECT_NE(Find(2), nullptr);
  EXPECT_NE(Find(3), nullptr);
  // Retried.
  WLAN_LB_SetCauseIDTable(nodes, 3);
  EXPECT_EQ(Count(), 3u);
}

}  // namespace
}  // namespace vane::test
