// The exported functions of the CAPWAP and keep-alive tables, as another
// module calls them: their hashes and matches, one record per key, life
// without a table, allocation failures, and arguments the messages never
// pass.
#include <gtest/gtest.h>

#include <cstring>

#include "drv_vane/wlan_lb.h"
#include "kport/rcu.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

WLAN_LB_CAPWAP_NODE_S Node(u32 sip, u32 dip, u16 sport, u16 dport, u8 vpn, u32 process) {
  WLAN_LB_CAPWAP_NODE_S n{};
  n.sip = sip;
  n.dip = dip;
  n.sport = sport;
  n.dport = dport;
  n.vpn = vpn;
  n.process = process;
  return n;
}

WLAN_LB_CAPWAP_KA_NODE_S KaNode(u32 w0, u32 w1, u32 w2, u32 w3, u32 process) {
  return WLAN_LB_CAPWAP_KA_NODE_S{{w0, w1, w2, w3}, process};
}

// The two tables behind one interface, so that what they share is tested
// once for both.
struct Capwap {
  using Rec = WLAN_LB_CAPWAP_NODE_S;
  static HASH_TABLE_S* Init() { return WLAN_LB_InitCAPWAPLBHashTable(); }
  static HASH_TABLE_S* Table() { return g_CAPWAP_LB_Table; }
  static Rec Key(u32 i, u32 process) {
    return Node(0x0A000000u + i, 0x0A0000FEu, static_cast<u16>(5246 + i), 5247, 0, process);
  }
  static u32 Add(const Rec* r) { return WLAN_LB_CAPWAP_LB_AddHashNode(r); }
  static u32 Delete(const Rec* r) { return WLAN_LB_CAPWAP_LB_DeleteHashNode(r); }
  static Rec* Find(const Rec* r) { return WLAN_LB_CAPWAP_LB_FindNodeByNode(r); }
  static u32 Lookup(const Rec& r, u64* out) {
    WLAN_LB_FIVE_TUPLE_S k{r.sip, r.dip, r.sport, r.dport, r.vpn, 0};
    return WLAN_LB_GetVCPUIDByCAPWAPKey(&k, out);
  }
};

struct CapwapKa {
  using Rec = WLAN_LB_CAPWAP_KA_NODE_S;
  static HASH_TABLE_S* Init() { return WLAN_LB_InitCAPWAPKeepAliveLBHashTable(); }
  static HASH_TABLE_S* Table() { return g_CAPWAP_KEEP_ALIVE_LB_Table; }
  static Rec Key(u32 i, u32 process) { return KaNode(i, 0xC0DE, 0, 0xFFFFFFFFu - i, process); }
  static u32 Add(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_AddHashNode(r); }
  static u32 Delete(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(r); }
  static Rec* Find(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_FindNodeByNode(r); }
  static u32 Lookup(const Rec& r, u64* out) {
    WLAN_LB_SESSION_KEY_S k{
        {r.ulSessionID[0], r.ulSessionID[1], r.ulSessionID[2], r.ulSessionID[3]}, 0};
    return WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(&k, out);
  }
};

template <typename T>
class CapwapTablesTest : public ModuleTest {};
using Tables = ::testing::Types<Capwap, CapwapKa>;
TYPED_TEST_SUITE(CapwapTablesTest, Tables);

TYPED_TEST(CapwapTablesTest, WithoutATableEverythingFailsHarmlessly) {
  using T = TypeParam;
  const typename T::Rec r = T::Key(1, 7);
  EXPECT_EQ(T::Find(&r), nullptr);
  EXPECT_EQ(T::Add(&r), WLAN_LB_ERR);
  EXPECT_EQ(T::Delete(&r), WLAN_LB_ERR);
  u64 out = 0xDEAD;
  EXPECT_EQ(T::Lookup(r, &out), WLAN_LB_ERR);
  EXPECT_EQ(out, 0xDEADu);
  EXPECT_EQ(T::Table(), nullptr);
}

TYPED_TEST(CapwapTablesTest, OneRecordPerKeyAndDeleteIgnoresProcess) {
  using T = TypeParam;
  HASH_TABLE_S* table = T::Init();
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(T::Init(), table) << "a second init must keep the table";
  EXPECT_EQ(table->ulBucketNum, WLAN_LB_CAPWAP_BUCKETS);
  EXPECT_EQ(table->usElemSize, sizeof(typename T::Rec));

  const typename T::Rec a = T::Key(1, 5);
  const typename T::Rec a2 = T::Key(1, 300);
  const typename T::Rec b = T::Key(2, 6);
  EXPECT_EQ(T::Add(&a), WLAN_LB_OK);
  EXPECT_EQ(T::Add(&b), WLAN_LB_OK);
  EXPECT_EQ(T::Add(&a2), WLAN_LB_OK);
  EXPECT_EQ(table->ulElemCnt, 2u);
  ASSERT_NE(T::Find(&a), nullptr);
  EXPECT_EQ(T::Find(&a)->process, 300u);
  // The whole process reaches the 64-bit output; cutting it to a vCPU id is
  // the caller's business.
  u64 out = 0;
  EXPECT_EQ(T::Lookup(a, &out), WLAN_LB_OK);
  EXPECT_EQ(out, 300u);

  const typename T::Rec other_process = T::Key(1, 99);
  EXPECT_EQ(T::Delete(&other_process), WLAN_LB_OK);
  EXPECT_EQ(T::Find(&a), nullptr);
  EXPECT_EQ(T::Delete(&a), WLAN_LB_ERR);
  EXPECT_EQ(table->ulElemCnt, 1u);
  out = 0xDEAD;
  EXPECT_EQ(T::Lookup(a, &out), WLAN_LB_ERR);
  EXPECT_EQ(out, 0xDEADu);
  EXPECT_EQ(T::Lookup(b, &out), WLAN_LB_OK);
  EXPECT_EQ(out, 6u);

  EXPECT_EQ(T::Add(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(T::Delete(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(T::Find(nullptr), nullptr);
}

TYPED_TEST(CapwapTablesTest, AllocationFailuresLeaveTheTableAsItWas) {
  using T = TypeParam;
  const size_t live = kport::user::LiveAllocations();
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(T::Init(), nullptr);
  EXPECT_EQ(T::Table(), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
  HASH_TABLE_S* table = T::Init();  // the next call tries again
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(T::Table(), table);

  const typename T::Rec kept = T::Key(1, 1);
  ASSERT_EQ(T::Add(&kept), WLAN_LB_OK);
  const size_t with_one = kport::user::LiveAllocations();
  const typename T::Rec r = T::Key(2, 2);
  fault::FailNth(fault::Site::kAlloc, 1);  // the record
  EXPECT_EQ(T::Add(&r), WLAN_LB_ERR);
  fault::FailNth(fault::Site::kAlloc, 2);  // the list node
  EXPECT_EQ(T::Add(&r), HASH_ERR_NOMEM);
  fault::ClearAll();
  EXPECT_EQ(table->ulElemCnt, 1u);
  EXPECT_EQ(T::Find(&r), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), with_one);

  // An update allocates nothing, so it cannot fail for memory.
  fault::FailAlways(fault::Site::kAlloc);
  const typename T::Rec kept2 = T::Key(1, 11);
  EXPECT_EQ(T::Add(&kept2), WLAN_LB_OK);
  fault::ClearAll();
  EXPECT_EQ(T::Find(&kept)->process, 11u);

  ASSERT_EQ(T::Delete(&kept), WLAN_LB_OK);
  kport_rcu_barrier();
  EXPECT_EQ(kport::user::LiveAllocations(), with_one - 2);
}

class CapwapTest : public ModuleTest {};

TEST_F(CapwapTest, HashesSumTheKeyWithWrapAndIgnoreProcess) {
  WLAN_LB_CAPWAP_NODE_S n = Node(1, 2, 3, 4, 5, 0);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), 15u);
  n.process = 0xFFFFFFFF;
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), 15u);
  n = Node(0xFFFFFFFFu, 1, 0, 0, 0, 0);  // sip + dip wraps to 0
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), 0u);
  n = Node(0x80000000u, 0x80000000u, 0xFFFF, 0xFFFF, 0xFF, 0);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), (0x1FFFEu + 0xFFu) % 281u);
  n = Node(0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0, 0, 0);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), 0xFFFFFFFEu % 281u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(nullptr), 1u);

  WLAN_LB_CAPWAP_KA_NODE_S k = KaNode(1, 2, 3, 4, 9);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(&k), 10u);
  k = KaNode(0xFFFFFFFFu, 1, 0, 0, 0);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(&k), 0u);
  k = KaNode(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(&k), 0xFFFFFFFCu % 281u);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(nullptr), 1u);
}

TEST_F(CapwapTest, MatchComparesKeyFieldsOnly) {
  const WLAN_LB_CAPWAP_NODE_S a = Node(1, 2, 3, 4, 5, 6);
  WLAN_LB_CAPWAP_NODE_S b = Node(1, 2, 3, 4, 5, 7);
  std::memset(reinterpret_cast<unsigned char*>(&b) + 13, 0xAB, 3);  // padding after vpn
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &b), 1u);
  for (int field = 0; field < 5; ++field) {
    WLAN_LB_CAPWAP_NODE_S c = a;
    switch (field) {
      case 0:
        c.sip ^= 1;
        break;
      case 1:
        c.dip ^= 1;
        break;
      case 2:
        c.sport ^= 1;
        break;
      case 3:
        c.dport ^= 1;
        break;
      default:
        c.vpn ^= 1;
        break;
    }
    EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &c), 0u) << field;
  }
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(nullptr, &a), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, nullptr), 0u);

  const WLAN_LB_CAPWAP_KA_NODE_S s = KaNode(1, 2, 3, 4, 5);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &s), 1u);
  const WLAN_LB_CAPWAP_KA_NODE_S other_process = KaNode(1, 2, 3, 4, 6);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &other_process), 1u);
  for (int w = 0; w < 4; ++w) {
    WLAN_LB_CAPWAP_KA_NODE_S t = s;
    t.ulSessionID[w] += 0x100;
    EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &t), 0u) << w;
  }
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, nullptr), 0u);
}

TEST_F(CapwapTest, LookupsTakeTheLowBitsOfTheirWordsAndTheFormsWithoutAnOpByte) {
  ASSERT_NE(WLAN_LB_InitCAPWAPLBHashTable(), nullptr);
  ASSERT_NE(WLAN_LB_InitCAPWAPKeepAliveLBHashTable(), nullptr);
  const WLAN_LB_CAPWAP_NODE_S entry = Node(0x0A000001u, 0x0A000002u, 40000, 5247, 5, 40);
  ASSERT_EQ(WLAN_LB_CAPWAP_LB_AddHashNode(&entry), WLAN_LB_OK);
  // Ports and vpn arrive as 32-bit words; only their low 16 and 8 bits count.
  const WLAN_LB_FIVE_TUPLE_S flow{0x0A000001u,     0x0A000002u, 0x10000u + 40000,
                                  0x30000u + 5247, 0x105,       77};
  u64 out = 0;
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, &out), WLAN_LB_OK);
  EXPECT_EQ(out, 40u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(nullptr, &out), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, nullptr), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(nullptr, &out), WLAN_LB_ERR);

  // The set form ignores the op byte; the delete form finds by key.
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = 1;
  m.process = 99;
  m.op = WLAN_LB_OP_DELETE;
  const WLAN_LB_CAPWAP_NODE_S key = Node(1, 0, 0, 0, 0, 0);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(&m), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_CAPWAP_LB_FindNodeByNode(&key)->process, 99u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), WLAN_LB_ERR);
  WLAN_LB_CAPWAP_KA_MSG_S k{{10, 11, 12, 13}, 14, WLAN_LB_OP_DELETE, {}};
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashSet(&k), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashProc(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashProc(nullptr), WLAN_LB_ERR);
}

}  // namespace
}  // namespace vane::test
