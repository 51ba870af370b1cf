// The fragment tables as the packet path uses them: first, middle and last
// fragments, the bucket functions' worked values, the full table, ageing on
// the manual clock, the dump files byte for byte, and every allocation
// failing with nothing left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/entry.h"
#include "drv_vane/frag.h"
#include "frag/frag_internal.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace clk = kport::user::clock;
namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

BYPASS_PKT_INFO_S Pkt(u32 src, u32 dst, u32 id, u8 vcpu = 5, u16 proto = 0x0800) {
  BYPASS_PKT_INFO_S p{};
  p.usProtocolType = proto;
  p.ulSrcIp = src;
  p.ulDstIp = dst;
  p.ulId = id;
  p.ucVcpuId = vcpu;
  return p;
}

BYPASS_IPV4_FRAG_INFO_S* Stored(const BYPASS_PKT_INFO_S& p) {
  BYPASS_IPV4_FRAG_INFO_S key{};
  key.ulSrcIp = p.ulSrcIp;
  key.ulDstIp = p.ulDstIp;
  key.usId = static_cast<u16>(p.ulId);
  return static_cast<BYPASS_IPV4_FRAG_INFO_S*>(
      HASH_FindElemFromFirstList_LB_New(g_bypass_ipV4FragHash, &key));
}

class FragTest : public ModuleTest {
 protected:
  void SetUp() override {
    clk::UseManual(1000);
    ModuleTest::SetUp();
    SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  }
  void TearDown() override {
    ModuleTest::TearDown();
    EXPECT_EQ(clk::PendingTimers(), 0u) << "ageing timer left armed";
    clk::UseTimerThread();
  }
};

TEST(FragHash, WorkedValuesWithSeedZero) {
  EXPECT_EQ(frag_mix(0, 0x1234u << 16, 0xC0A80001u, 0xC0A80002u), 0xACD8EA43u);
  EXPECT_EQ(frag_mix(0, 1, 231, 232), 0xBFA7095Au);
  ASSERT_EQ(bypass_ipfrag_initHash(), 0u);
  g_bypass_ipV4FragHash->ulSeed = 0;
  g_bypass_ipV6FragHash->ulSeed = 0;
  BYPASS_IPV4_FRAG_INFO_S v4{0xC0A80001u, 0xC0A80002u, 0x1234, 0, 9, 0, 0};
  EXPECT_EQ(bypass_ipv4frag_hashkey(&v4), 3u);
  BYPASS_IPV6_FRAG_INFO_S v6{};
  const u8 a1[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const u8 a2[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
  std::memcpy(v6.aucAddr1, a1, 16);
  std::memcpy(v6.aucAddr2, a2, 16);
  v6.ulId = 1;
  EXPECT_EQ(bypass_ipv6frag_hashkey(&v6), 26u);
  EXPECT_EQ(bypass_ipv6frag_hashmatch(&v6, &v6), 1u);
  BYPASS_IPV6_FRAG_INFO_S other = v6;
  other.aucAddr1[15] = 3;  // same byte sums as a swap would give, different key
  EXPECT_EQ(bypass_ipv6frag_hashmatch(&v6, &other), 0u);
  EXPECT_EQ(bypass_ipv4frag_hashkey(nullptr), ~0ull);
  EXPECT_EQ(bypass_ipv4frag_hashmatch(&v4, nullptr), 0u);
  bypass_ipfrag_exitHash();
  EXPECT_EQ(bypass_ipv4frag_hashkey(&v4), ~0ull);  // no table, no bucket
}

TEST_F(FragTest, FirstMiddleLastFollowTheFirstFragmentsVcpu) {
  BYPASS_PKT_INFO_S first = Pkt(0x0A000001, 0x0A000002, 0x10077, 7);
  EXPECT_EQ(bypass_ipfrag_addInHash(&first), 0u);
  // Only the identification's low 16 bits and the addresses are the key; a
  // later first fragment of the same datagram changes nothing.
  BYPASS_PKT_INFO_S again = Pkt(0x0A000001, 0x0A000002, 0x77, 9);
  Stored(first)->ucAge = 10;
  EXPECT_EQ(bypass_ipfrag_addInHash(&again), 0u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 1u);
  EXPECT_EQ(Stored(first)->ucVcpuId, 7u);
  EXPECT_EQ(Stored(first)->ucAge, 10u);

  u8 vcpu = 0;
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&again, &vcpu), 0u);
  EXPECT_EQ(vcpu, 7u);
  EXPECT_EQ(Stored(first)->ucAge, 0u);

  vcpu = 0;
  EXPECT_EQ(bypass_ipfrag_delInHash(&again, 0x0800, &vcpu), 0u);
  EXPECT_EQ(vcpu, 7u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 0u);

  vcpu = 42;
  klog::Clear();
  EXPECT_EQ(bypass_ipfrag_delInHash(&again, 0x0800, &vcpu), 13u);
  EXPECT_EQ(vcpu, 42u);
  EXPECT_NE(DebugText().find("\r\ndel ipv4 fail in hash."), std::string::npos);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&again, &vcpu), 100u);
}

TEST_F(FragTest, OnlyIpv4IsEnteredAndArgumentsAreChecked) {
  BYPASS_PKT_INFO_S v6 = Pkt(1, 2, 3, 4, 0x86DD);
  u8 vcpu = 0;
  EXPECT_EQ(bypass_ipfrag_addInHash(&v6), 100u);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&v6, &vcpu), 100u);
  EXPECT_EQ(bypass_ipfrag_delInHash(&v6, 0x86DD, &vcpu), 1u);
  EXPECT_EQ(bypass_ipfrag_addInHash(nullptr), 100u);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&v6, nullptr), 100u);
  EXPECT_EQ(bypass_ipfrag_delInHash(nullptr, 0x0800, &vcpu), 100u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 0u);
  EXPECT_EQ(g_bypass_ipV6FragHash->ulElemCnt, 0u);
  EXPECT_EQ(g_bypassTimeInitedV4, 0u);  // a refused record arms nothing

  BYPASS_IPV4_FRAG_INFO_S rec{};
  EXPECT_EQ(bypass_ipfrag_addInHashPub(nullptr, g_bypass_ipV4FragHash, &rec, 40), 100u);
  EXPECT_EQ(bypass_ipfrag_addInHashPub(nullptr, nullptr, &rec, 16), 100u);
  EXPECT_EQ(bypass_ipfrag_addInHashPub(&rec, nullptr, nullptr, 0), 0u);  // already present
}

TEST_F(FragTest, FullTableRefusesNewKeysButTheTimerIsArmedOnce) {
  fault::FailNth(fault::Site::kAlloc, 1);  // the first add finds no memory
  BYPASS_PKT_INFO_S p = Pkt(1, 2, 0);
  EXPECT_EQ(bypass_ipfrag_addInHash(&p), 101u);
  EXPECT_NE(DebugText().find("\r\nMalloc hash fail."), std::string::npos);
  EXPECT_NE(DebugText().find("\r\nAdd ip fail(usProtocolType=0x0800)."), std::string::npos);
  EXPECT_EQ(g_bypassTimeInitedV4, 1u);
  EXPECT_EQ(clk::PendingTimers(), 1u);

  for (u32 i = 0; i < 1000; ++i) {
    p = Pkt(1, 2, i);
    ASSERT_EQ(bypass_ipfrag_addInHash(&p), 0u) << i;
  }
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  p = Pkt(1, 2, 1000);
  EXPECT_EQ(bypass_ipfrag_addInHash(&p), 15u);
  EXPECT_NE(DebugText().find("\r\nThe hashCout is over(cnt=1000)."), std::string::npos);
  p = Pkt(1, 2, 999);
  EXPECT_EQ(bypass_ipfrag_addInHash(&p), 0u);  // a known key is still fine
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 1000u);
  EXPECT_EQ(clk::PendingTimers(), 1u);

  // The dump holds every record and the count; reading in pieces agrees.
  std::vector<uint8_t> whole = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4", 333);
  ASSERT_EQ(whole.size(), BYPASS_FRAG_DUMP_V4_SIZE);
  EXPECT_EQ(whole[0] | (whole[1] << 8), 1000);
  std::vector<bool> seen(1000);
  for (u32 i = 0; i < 1000; ++i) {
    BYPASS_IPV4_FRAG_INFO_S r;
    std::memcpy(&r, &whole[4 + 16 * i], 16);
    ASSERT_LT(r.usId, 1000u);
    seen[r.usId] = true;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 1000);
}

TEST_F(FragTest, EntriesAgeOutAtTheSeventhSweepUnlessFound) {
  BYPASS_PKT_INFO_S kept = Pkt(1, 2, 1, 3);
  BYPASS_PKT_INFO_S lost = Pkt(1, 2, 2, 4);
  BYPASS_PKT_INFO_S other = Pkt(9, 9, 9, 5);
  ASSERT_EQ(bypass_ipfrag_addInHash(&kept), 0u);
  ASSERT_EQ(bypass_ipfrag_addInHash(&lost), 0u);
  ASSERT_EQ(bypass_ipfrag_addInHash(&other), 0u);
  u8 vcpu = 0;
  for (int sweep = 1; sweep <= 6; ++sweep) clk::Advance(500);
  EXPECT_EQ(Stored(lost)->ucAge, 30u);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&kept, &vcpu), 0u);  // refresh
  clk::Advance(500);                                          // seventh sweep
  EXPECT_EQ(Stored(lost), nullptr);
  EXPECT_EQ(Stored(other), nullptr);
  ASSERT_NE(Stored(kept), nullptr);
  EXPECT_EQ(Stored(kept)->ucAge, 5u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 1u);
  clk::Advance(500 * 6);
  EXPECT_EQ(Stored(kept), nullptr);
  EXPECT_EQ(bypass_ipfrag_delInHash(&kept, 0x0800, &vcpu), 13u);
  // An empty table goes on sweeping: the timer stays armed.
  EXPECT_EQ(clk::PendingTimers(), 1u);
  clk::Advance(500);
  EXPECT_EQ(clk::PendingTimers(), 1u);
}

TEST_F(FragTest, DumpsAreByteImagesOfTheTables) {
  std::vector<uint8_t> v6 = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv6");
  EXPECT_EQ(v6, std::vector<uint8_t>(BYPASS_FRAG_DUMP_V6_SIZE, 0));
  EXPECT_EQ(vfs::Mode("/proc/bypassDebug/hashInfoIpv4"), 0444);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/hashInfoIpv4", {1}), -5);

  BYPASS_PKT_INFO_S a = Pkt(0x01020304, 0x05060708, 0xABCD, 17);
  BYPASS_PKT_INFO_S b = Pkt(0x11121314, 0x15161718, 0x0102, 18);
  ASSERT_EQ(bypass_ipfrag_addInHash(&a), 0u);
  ASSERT_EQ(bypass_ipfrag_addInHash(&b), 0u);
  std::vector<uint8_t> img = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4");
  ASSERT_EQ(img.size(), BYPASS_FRAG_DUMP_V4_SIZE);
  // Records in bucket order, as they are stored.
  bool a_first = bypass_ipv4frag_hashkey(Stored(a)) <= bypass_ipv4frag_hashkey(Stored(b));
  const uint8_t rec_a[16] = {4, 3, 2, 1, 8, 7, 6, 5, 0xCD, 0xAB, 0, 0, 17, 0, 0, 0};
  const uint8_t rec_b[16] = {0x14, 0x13, 0x12, 0x11, 0x18, 0x17, 0x16, 0x15,
                             2,    1,    0,    0,    18,   0,    0,    0};
  EXPECT_EQ(img[0], 2);
  EXPECT_EQ(img[1], 0);
  EXPECT_EQ(std::memcmp(&img[4], a_first ? rec_a : rec_b, 16), 0);
  EXPECT_EQ(std::memcmp(&img[20], a_first ? rec_b : rec_a, 16), 0);

  // Slots past the count keep what an earlier dump left there.
  u8 vcpu;
  ASSERT_EQ(bypass_ipfrag_delInHash(&a, 0x0800, &vcpu), 0u);
  std::vector<uint8_t> later = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4");
  EXPECT_EQ(later[0], 1);
  EXPECT_EQ(std::memcmp(&later[4], rec_b, 16), 0);
  EXPECT_EQ(std::memcmp(&later[20], &img[20], 16), 0);
}

TEST_F(FragTest, DumpAndRecordAllocationFailuresLoseNothing) {
  klog::Clear();
  fault::FailNth(fault::Site::kAlloc, 2);  // the shared image, after the reader's copy
  std::vector<uint8_t> buf(64);
  int64_t pos = 0;
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/hashInfoIpv4", buf.data(), buf.size(), &pos), 0);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n***bypass_proc_readHashInfoIpv4  ***\r\n"));
  EXPECT_EQ(g_pBypassIpv4TotalInfo, nullptr);
  fault::FailNth(fault::Site::kAlloc, 2);
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/hashInfoIpv6", buf.data(), buf.size(), &pos), 0);
  EXPECT_TRUE(
      klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n***bypass_proc_readHashInfoIpv6  1***\r\n"));
  fault::FailNth(fault::Site::kAlloc, 1);  // the reader's copy
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/hashInfoIpv6", buf.data(), buf.size(), &pos), -12);
  // The next read allocates and works.
  EXPECT_EQ(vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4").size(), BYPASS_FRAG_DUMP_V4_SIZE);

  // A record whose node cannot be allocated: nothing stays in the table.
  BYPASS_PKT_INFO_S p = Pkt(1, 2, 3);
  fault::FailNth(fault::Site::kAlloc, 2);
  EXPECT_EQ(bypass_ipfrag_addInHash(&p), 101u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 0u);
  // Records and armed timer are given back at unload (TearDown checks).
  EXPECT_EQ(bypass_ipfrag_addInHash(&p), 0u);
}

TEST(FragLifecycle, EveryLoadStartsUnarmedAndEmpty) {
  clk::UseManual(5000);
  const size_t live = kport::user::LiveAllocations();
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(vane_entry_init(), 0);
    EXPECT_EQ(g_bypassTimeInitedV4, 0u);
    EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt, 0u);
    EXPECT_EQ(g_pBypassIpv4TotalInfo, nullptr);
    EXPECT_EQ(clk::PendingTimers(), 0u);
    BYPASS_PKT_INFO_S p = Pkt(1, 2, 3);
    ASSERT_EQ(bypass_ipfrag_addInHash(&p), 0u);
    vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4");
    vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv6");
    clk::Advance(400);
    vane_entry_exit();
    EXPECT_EQ(clk::PendingTimers(), 0u);
    EXPECT_EQ(g_bypass_ipV4FragHash, nullptr);
    EXPECT_EQ(kport::user::LiveAllocations(), live);
    clk::Advance(1000);  // a stopped timer never fires on a freed table
  }
  clk::UseTimerThread();
}

}  // namespace
}  // namespace vane::test
