// The exported functions of the CAPWAP and keep-alive tables, as another
// module calls them: their hashes and matches, one record per key, life
// without a table, allocation failures, and arguments the messages never
// pass.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "drv_vane/wlan_lb.h"
#include "kport/rcu.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

WLAN_LB_CAPWAP_NODE_S Node(u32 sip, u32 dip, u16 sport, u16 dport, u8 vpn, u32 process) {
  return WLAN_LB_CAPWAP_NODE_S{sip, dip, sport, dport, vpn, process};
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

TYPED_TEST(CapwapTablesTest, LifeWithoutATableThenOneRecordPerKey) {
  using T = TypeParam;
  const typename T::Rec a = T::Key(1, 5), a2 = T::Key(1, 300), b = T::Key(2, 6);
  u64 out = 0xDEAD;
  EXPECT_EQ(T::Find(&a), nullptr);
  EXPECT_EQ(T::Add(&a), 1u);
  EXPECT_EQ(T::Delete(&a), 1u);
  EXPECT_EQ(T::Lookup(a, &out), 1u);
  EXPECT_EQ(out, 0xDEADu);
  EXPECT_EQ(T::Table(), nullptr);

  HASH_TABLE_S* table = T::Init();
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(T::Init(), table) << "a second init must keep the table";
  EXPECT_EQ(T::Add(&a), 0u);
  EXPECT_EQ(T::Add(&b), 0u);
  EXPECT_EQ(T::Add(&a2), 0u);
  EXPECT_EQ(table->ulElemCnt, 2u);
  // The whole process reaches the 64-bit output; cutting it to a vCPU id is
  // the caller's business.
  EXPECT_EQ(T::Lookup(a, &out), 0u);
  EXPECT_EQ(out, 300u);
  const typename T::Rec other_process = T::Key(1, 99);
  EXPECT_EQ(T::Delete(&other_process), 0u);
  EXPECT_EQ(T::Delete(&a), 1u);
  EXPECT_EQ(table->ulElemCnt, 1u);
  EXPECT_EQ(T::Add(nullptr), 1u);
  EXPECT_EQ(T::Delete(nullptr), 1u);
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

  const typename T::Rec kept = T::Key(1, 1);
  ASSERT_EQ(T::Add(&kept), 0u);
  const size_t with_one = kport::user::LiveAllocations();
  const typename T::Rec r = T::Key(2, 2);
  fault::FailNth(fault::Site::kAlloc, 1);  // the record
  EXPECT_EQ(T::Add(&r), 1u);
  fault::FailNth(fault::Site::kAlloc, 2);  // the list node
  EXPECT_EQ(T::Add(&r), 101u);
  fault::ClearAll();
  EXPECT_EQ(table->ulElemCnt, 1u);
  EXPECT_EQ(T::Find(&r), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), with_one);

  // An update allocates nothing, so it cannot fail for memory.
  fault::FailAlways(fault::Site::kAlloc);
  const typename T::Rec kept2 = T::Key(1, 11);
  EXPECT_EQ(T::Add(&kept2), 0u);
  fault::ClearAll();
  EXPECT_EQ(T::Find(&kept)->process, 11u);
  ASSERT_EQ(T::Delete(&kept), 0u);
  kport_rcu_barrier();
  EXPECT_EQ(kport::user::LiveAllocations(), with_one - 2);
}

using CapwapTest = ModuleTest;

TEST_F(CapwapTest, HashesSumTheKeyWithWrapAndMatchesCompareOnlyTheKey) {
  const std::pair<WLAN_LB_CAPWAP_NODE_S, u64> capwap[] = {
      {Node(1, 2, 3, 4, 5, 0xFFFFFFFF), 15},
      {Node(0xFFFFFFFFu, 1, 0, 0, 0, 0), 0},  // sip + dip wraps to 0
      {Node(0x80000000u, 0x80000000u, 0xFFFF, 0xFFFF, 0xFF, 0), 98},
      {Node(0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0, 0, 0), 33}};
  for (const auto& [n, h] : capwap) EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), h) << n.sip;
  const std::pair<WLAN_LB_CAPWAP_KA_NODE_S, u64> ka[] = {
      {KaNode(1, 2, 3, 4, 9), 10},
      {KaNode(0xFFFFFFFFu, 1, 0, 0, 0), 0},
      {KaNode(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0), 31}};
  for (const auto& [k, h] : ka) EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(&k), h) << k.ulSessionID[1];
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(nullptr), 1u);

  const WLAN_LB_CAPWAP_NODE_S a = Node(1, 2, 3, 4, 5, 6);
  WLAN_LB_CAPWAP_NODE_S b = Node(1, 2, 3, 4, 5, 7);
  std::memset(reinterpret_cast<unsigned char*>(&b) + 13, 0xAB, 3);  // padding after vpn
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &b), 1u);
  const WLAN_LB_CAPWAP_NODE_S differ[] = {Node(0, 2, 3, 4, 5, 6), Node(1, 0, 3, 4, 5, 6),
                                          Node(1, 2, 0, 4, 5, 6), Node(1, 2, 3, 0, 5, 6),
                                          Node(1, 2, 3, 4, 0, 6)};
  for (const auto& c : differ) EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &c), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(nullptr, &a), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, nullptr), 0u);
  const WLAN_LB_CAPWAP_KA_NODE_S s = KaNode(1, 2, 3, 4, 5);
  const WLAN_LB_CAPWAP_KA_NODE_S other_process = KaNode(1, 2, 3, 4, 6);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &other_process), 1u);
  const WLAN_LB_CAPWAP_KA_NODE_S ka_differ[] = {KaNode(0, 2, 3, 4, 5), KaNode(1, 0, 3, 4, 5),
                                                KaNode(1, 2, 0, 4, 5), KaNode(1, 2, 3, 0, 5)};
  for (const auto& t : ka_differ) EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &t), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, nullptr), 0u);
}

TEST_F(CapwapTest, LookupsTakeTheLowBitsOfTheirWordsAndTheFormsWithoutAnOpByte) {
  ASSERT_NE(WLAN_LB_InitCAPWAPLBHashTable(), nullptr);
  ASSERT_NE(WLAN_LB_InitCAPWAPKeepAliveLBHashTable(), nullptr);
  const WLAN_LB_CAPWAP_NODE_S entry = Node(0x0A000001u, 0x0A000002u, 40000, 5247, 5, 40);
  ASSERT_EQ(WLAN_LB_CAPWAP_LB_AddHashNode(&entry), 0u);
  // Ports and vpn arrive as 32-bit words; only their low 16 and 8 bits count.
  const WLAN_LB_FIVE_TUPLE_S flow{0x0A000001u,     0x0A000002u, 0x10000u + 40000,
                                  0x30000u + 5247, 0x105,       77};
  u64 out = 0;
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, &out), 0u);
  EXPECT_EQ(out, 40u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(nullptr, &out), 1u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, nullptr), 1u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(nullptr, &out), 1u);

  // The set form ignores the op byte; the delete form finds by key.
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = 1;
  m.process = 99;
  m.op = WLAN_LB_OP_DELETE;
  const WLAN_LB_CAPWAP_NODE_S key = Node(1, 0, 0, 0, 0, 0);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(&m), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_LB_FindNodeByNode(&key)->process, 99u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), 1u);
  WLAN_LB_CAPWAP_KA_MSG_S k{{10, 11, 12, 13}, 14, WLAN_LB_OP_DELETE, {}};
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashSet(&k), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashProc(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashProc(nullptr), 1u);
}

}  // namespace
}  // namespace vane::test
