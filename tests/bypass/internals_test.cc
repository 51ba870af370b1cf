// What the outside cannot reach of the configuration record, the dispatch
// entry and the steering tables: arguments only another module can pass,
// failed allocations and copies, and a reader of the record racing its
// writers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bypass/config_internal.h"
#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/steering.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;

using BypassInternalsTest = ModuleTest;

TEST_F(BypassInternalsTest, MissingArgumentsAreTracedOrRefusedAndWriteNothing) {
  SetDebugLevel(1);
  uint32_t count = 7;
  uint8_t list[BYPASS_VCPU_LIST_MAX];
  Bytes buf(20);
  bypass_msg_getVCpuId(buf.data(), 20, nullptr, list);
  bypass_msg_getVCpuId(buf.data(), 20, &count, nullptr);
  bypass_msg_getVCpuId(nullptr, 20, &count, list);
  EXPECT_EQ(count, 7u);
  std::string expected;
  for (int i = 0; i < 3; ++i) expected += "\r\n The uiParameterIsInVaild is 0.";
  EXPECT_EQ(DebugText(), expected);

  uint8_t vcpu = 0;
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, nullptr, &vcpu), 100u);
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, &count, nullptr), 100u);

  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
  bypass_set_pktOffsetAndDebugFlag(5, nullptr, 88);  // no payload: nothing
  EXPECT_EQ(bypass_isSupportMulticore(), 1u);
}

TEST_F(BypassInternalsTest, AFirstFragmentTheTableCannotTakeStillGoesToItsVcpu) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Register(kNormal, 12), 0);
  ASSERT_EQ(w.Configure(CascadeConfig()), 0);
  SetDebugLevel(1);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_GT(env().Deliver(1, CascadeVp(1, 12, 0xAB, true, 0)), 0);
  fault::ClearAll();
  EXPECT_NE(DebugText().find("\r\nPacket addInHash fail.ret=101,"), std::string::npos)
      << DebugText();
  EXPECT_EQ(Counters()[12], 1u);
  // Its later fragments have lost their way; nothing was left behind (the
  // fixture checks every allocation is returned).
  EXPECT_GT(env().Deliver(1, CascadeVp(1, 61, 0, true, 3)), 0);
  EXPECT_EQ(Counters()[12], 1u);
}

TEST_F(BypassInternalsTest, AValueThatCannotBeCopiedClearsNoHitCount) {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulVcpuId = 5;
  t.ulCauseIdNum = 1;
  t.ausCauseId[0] = 13;
  bypass_set_ivo_lb_table(11, reinterpret_cast<uint8_t*>(&t), sizeof(t));
  uint32_t count = 0;
  uint8_t vcpu = 0;
  ASSERT_EQ(bypass_msg_get_ivo_vcpuid(13, &count, &vcpu), 0u);
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(env().Write("/proc/bypassDebug/ivo", Bytes(4, 0)), -1);
  EXPECT_TRUE(klog::Contains(1, "\r\nErr: bypass copy from user failed.\r\n"));
  EXPECT_EQ(env().Read("/proc/bypassDebug/ivo").value_or(Bytes(296)).at(120), 1);
}

// Writers keep replacing the record with ones whose slots all carry one
// value; the pipeline's snapshot must always see a single record.
TEST_F(BypassInternalsTest, SnapshotsNeverMixTwoRecords) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < 2; ++t) {
    writers.emplace_back([&, t] {
      for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        BYPASS_PKT_OFFSET_S cfg;
        uint32_t* slots = &cfg.ulHgHdrOffset;
        for (uint32_t k = 0; k < 22; ++k) slots[k] = (t << 24) | (i & 0xFFFFFF);
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
    for (uint32_t k = 1; k < 22; ++k) {
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
