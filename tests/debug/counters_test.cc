// The packet counters under load: packets decided on many threads at once
// while readers sum them are all counted, and a clear zeroes what readers
// see without losing the increments that follow it.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "drv_vane/dispatch.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace vfs = kport::user::vfs;

class CountersTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    BYPASS_PKT_OFFSET_S cfg = TestRanges();
    bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), sizeof(cfg));
  }

  // Each thread decides `packets` ECM frames for vCPU 1 + its index.
  static void DecideOnThreads(int threads, uint32_t packets) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
      pool.emplace_back([t, packets] {
        Bytes frame = EcmFrame(3, static_cast<uint8_t>(1 + t));
        for (uint32_t i = 0; i < packets; ++i) {
          uint32_t count = 0;
          uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
          bypass_msg_getVCpuId(frame.data(), static_cast<uint32_t>(frame.size()), &count, list);
        }
      });
    }
    for (auto& th : pool) th.join();
  }
};

constexpr int kThreads = 6;
constexpr uint32_t kPackets = 3000;

TEST_F(CountersTest, ConcurrentDecisionsAreCountedExactlyWhileReadersSum) {
  std::atomic<bool> done{false};
  std::thread reader([&done] {
    while (!done.load()) {
      std::vector<uint32_t> c = Counters();
      for (int t = 0; t < kThreads; ++t) ASSERT_LE(c[1 + t], kPackets);
    }
  });
  DecideOnThreads(kThreads, kPackets);
  done = true;
  reader.join();

  std::vector<uint32_t> c = Counters();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(c[1 + t], kPackets) << "vCPU " << 1 + t;
    EXPECT_EQ(c[BYPASS_PKT_COUNT_ECM_BASE + 1 + t], kPackets) << "vCPU " << 1 + t;
  }
  EXPECT_EQ(c[0], 0u);
}

TEST_F(CountersTest, ClearZeroesTheViewAndLaterPacketsCountFromZero) {
  DecideOnThreads(3, 500);
  ASSERT_EQ(Counters()[2], 500u);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/counts", {0}), 1);
  EXPECT_EQ(Counters(), std::vector<uint32_t>(BYPASS_PKT_COUNT_NUM, 0));
  DecideOnThreads(3, 7);
  std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[1], 7u);
  EXPECT_EQ(c[BYPASS_PKT_COUNT_ECM_BASE + 3], 7u);
  EXPECT_EQ(c[4], 0u);
}

}  // namespace
}  // namespace vane::test
