// The configuration record: messages 5 and 6, and the guarantee that a
// packet never sees a mixture of two records while one is being replaced.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "bypass/config_internal.h"
#include "drv_vane/config.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace klog = kport::user::klog;

class ConfigTest : public ModuleTest {};

BYPASS_PKT_OFFSET_S Filled(uint32_t base) {
  BYPASS_PKT_OFFSET_S cfg;
  uint32_t* slots = &cfg.ulHgHdrOffset;
  for (uint32_t i = 0; i < BYPASS_PKT_OFFSET_SLOTS; ++i) slots[i] = base + i;
  return cfg;
}

TEST_F(ConfigTest, MessageFiveReplacesTheWholeRecord) {
  EXPECT_EQ(bypass_isSupportMulticore(), 0u);
  EXPECT_EQ(bypass_get_boardType(), 0u);
  Worker w(6001);
  BYPASS_PKT_OFFSET_S cfg = Filled(1000);
  ASSERT_EQ(w.Configure(cfg), 0);
  EXPECT_EQ(std::memcmp(&bypass_pkt_offset, &cfg, sizeof(cfg)), 0);
  EXPECT_EQ(bypass_isSupportMulticore(), 1010u);
  EXPECT_EQ(bypass_get_boardType(), 1011u);
  // Bytes beyond the 88th are ignored.
  std::vector<uint8_t> longer = ConfigPayload(Filled(7));
  longer.resize(120, 0xFF);
  ASSERT_EQ(w.Control(5, longer), 0);
  EXPECT_EQ(bypass_pkt_offset.ulInnerMacOffset, 28u);
  // Dispatch off again.
  cfg.ulIsSupportMulticore = 0;
  ASSERT_EQ(w.Configure(cfg), 0);
  EXPECT_EQ(bypass_isSupportMulticore(), 0u);
  bypass_set_pktOffsetAndDebugFlag(5, nullptr, 88);  // no payload: nothing
  EXPECT_EQ(bypass_get_boardType(), 1011u);
}

TEST_F(ConfigTest, MessageSixRunsADebugCommandAndKeepsTheRecord) {
  Worker w(6002);
  BYPASS_PKT_OFFSET_S cfg = Filled(0);
  cfg.ulBoardType = 242;
  ASSERT_EQ(w.Configure(cfg), 0);
  klog::Clear();
  ASSERT_EQ(w.Control(6, {3, 99, 99}), 0);
  EXPECT_EQ(std::memcmp(&bypass_pkt_offset, &cfg, sizeof(cfg)), 0);
  const auto lines = klog::Lines();
  ASSERT_EQ(lines.size(), 22u);
  EXPECT_EQ(lines[0].text, "\r\n Netlink packet offset[0] :    0\r\n");
  EXPECT_EQ(lines[11].text, "\r\n Netlink packet offset[11] :  242\r\n");
  EXPECT_EQ(lines[21].text, "\r\n Netlink packet offset[21] :   21\r\n");
  for (const auto& l : lines) EXPECT_EQ(l.level, KPORT_LOGLEVEL_ALERT);
}

// Writers keep replacing the record with ones whose slots all carry one
// value; the pipeline's snapshot must always see a single record.
TEST_F(ConfigTest, SnapshotsNeverMixTwoRecords) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < 2; ++t) {
    writers.emplace_back([&, t] {
      for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        BYPASS_PKT_OFFSET_S cfg;
        uint32_t* slots = &cfg.ulHgHdrOffset;
        for (uint32_t k = 0; k < BYPASS_PKT_OFFSET_SLOTS; ++k)
          slots[k] = (t << 24) | (i & 0xFFFFFF);
        bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
      }
    });
  }
  long torn = 0;
  std::set<uint32_t> seen;
  // Runs until the writers have replaced the record under the reader many
  // times; the deadline only bounds a machine that never schedules them.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int n = 0; (n < 1000 || seen.size() < 100) && std::chrono::steady_clock::now() < deadline;
       ++n) {
    BYPASS_PKT_OFFSET_S snap;
    config_snapshot(&snap);
    const uint32_t* slots = &snap.ulHgHdrOffset;
    for (uint32_t k = 1; k < BYPASS_PKT_OFFSET_SLOTS; ++k) {
      if (slots[k] != slots[0]) {
        ++torn;
        break;
      }
    }
    seen.insert(slots[0]);
  }
  stop = true;
  for (auto& t : writers) t.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GT(seen.size(), 1u) << "the writers never overlapped the reader";
}

}  // namespace
}  // namespace vane::test
