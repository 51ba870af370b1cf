// Fragment traffic on several threads while the ageing timer sweeps on the
// backend's timer thread and dump readers copy the tables. Run under
// ThreadSanitizer to check that stored records are only touched under the
// table lock; afterwards the count matches what is left and nothing leaks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/frag.h"
#include "kport/lock.h"
#include "kport/timer.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace clk = kport::user::clock;
namespace vfs = kport::user::vfs;

class FragStressTest : public ModuleTest {
 protected:
  void SetUp() override {
    // Real time: the sweeps run on the backend's timer thread.
    clk::UseTimerThread();
    ModuleTest::SetUp();
  }
  void CountMatchesNodes();
};

TEST_F(FragStressTest, TrafficSweepsAndDumpsTogether) {
  constexpr int kSenders = 4;
  constexpr u32 kDatagrams = 3000;
  // A sweep at every tick, so that many sweeps (and removals by age) fall
  // inside the run.
  g_bypass_ipV4FragHash->lTimerPeriod = 1;
  std::atomic<bool> stop{false};
  std::atomic<u64> wrong_vcpu{0};
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      for (u32 i = 0; i < kDatagrams; ++i) {
        BYPASS_PKT_INFO_S p{};
        p.usProtocolType = 0x0800;
        p.ulSrcIp = 0x0A000000u + static_cast<u32>(s);
        p.ulDstIp = 0x0A0000FFu;
        p.ulId = i;
        p.ucVcpuId = static_cast<u8>(s + 1);
        bypass_ipfrag_addInHash(&p);
        u8 vcpu = 0;
        if (bypass_ipfrag_findVcpuInHash(&p, &vcpu) == 0 && vcpu != s + 1) ++wrong_vcpu;
        // Leave every third datagram for the sweep to remove.
        if (i % 3 != 0 && bypass_ipfrag_delInHash(&p, 0x0800, &vcpu) == 0 && vcpu != s + 1) {
          ++wrong_vcpu;
        }
      }
    });
  }
  for (const char* file : {"/proc/bypassDebug/hashInfoIpv4", "/proc/bypassDebug/hashInfoIpv6"}) {
    threads.emplace_back([&, file] {
      while (!stop.load()) {
        std::vector<uint8_t> img = vfs::ProcReadAll(file, 4096);
        EXPECT_EQ(img.size(), std::string(file).ends_with("4") ? BYPASS_FRAG_DUMP_V4_SIZE
                                                               : BYPASS_FRAG_DUMP_V6_SIZE);
      }
    });
  }
  for (int s = 0; s < kSenders; ++s) threads[s].join();
  stop = true;
  for (size_t t = kSenders; t < threads.size(); ++t) threads[t].join();
  EXPECT_EQ(wrong_vcpu.load(), 0u);

  // Stop the sweeps to count what is left against the table's own count.
  ASSERT_EQ(g_bypassTimeInitedV4, 1u);
  kport_timer_del_sync(&g_bypass_ipV4FragHash->stTimer);
  CountMatchesNodes();

  // Every datagram left behind ages out once the sweep runs again.
  kport_timer_mod(&g_bypass_ipV4FragHash->stTimer, kport_jiffies() + 1);
  u64 left = 1;
  for (int wait = 0; wait < 1000 && left != 0; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    kport_read_lock(&g_bypass_ipV4FragHash->stLock);
    left = g_bypass_ipV4FragHash->ulElemCnt;
    kport_read_unlock(&g_bypass_ipV4FragHash->stLock);
  }
  EXPECT_EQ(left, 0u);
  kport_timer_del_sync(&g_bypass_ipV4FragHash->stTimer);
  CountMatchesNodes();
  // TearDown unloads and checks that every record, node and buffer is gone.
}

void FragStressTest::CountMatchesNodes() {
  u64 nodes = 0;
  for (u64 b = 0; b < g_bypass_ipV4FragHash->ulBucketNum; ++b) {
    u16 in_bucket = 0;
    for (LIST_NODE_S* n = g_bypass_ipV4FragHash->astBucket[b].pstHead; n; n = n->pstNext) {
      ++in_bucket;
    }
    EXPECT_EQ(in_bucket, g_bypass_ipV4FragHash->astBucket[b].usNodeCnt);
    nodes += in_bucket;
  }
  EXPECT_EQ(nodes, g_bypass_ipV4FragHash->ulElemCnt);
  EXPECT_LE(nodes, BYPASS_FRAG_MAX_RECORDS);
}

}  // namespace
}  // namespace vane::test
