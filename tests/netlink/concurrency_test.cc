// The module under concurrent use, as on a multiprocessor: packets from
// several "driver" threads while workers re-register, the configuration is
// rewritten, debug commands run, the trace is on and operators read the
// counters. Run under
// ThreadSanitizer, this finds unsynchronised state; in every build it checks
// that no count and no delivery is lost.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

class ConcurrencyTest : public ModuleTest {};

TEST_F(ConcurrencyTest, PacketsControlMessagesAndReadersTogether) {
  constexpr int kSenders = 3;
  constexpr int kPacketsPerSender = 3000;
  Worker def(8001, /*queue_limit=*/1u << 20);
  Worker vcpu5(8005, /*queue_limit=*/1u << 20);
  ASSERT_EQ(def.Register(kNormal, 0), 0);
  ASSERT_EQ(vcpu5.Register(kNormal, 5), 0);
  const BYPASS_PKT_OFFSET_S cfg = TestRanges();
  ASSERT_EQ(def.Configure(cfg), 0);
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR | BYPASS_DEBUG_LEVEL_PKT);

  std::atomic<bool> stop{false};
  std::atomic<int> failed_sends{0};
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      Bytes ecm = EcmFrame(3, 5, {.word0 = 1});
      Bytes other = EcmFrame(25, 5, {.word0 = 1});
      for (int i = 0; i < kPacketsPerSender; ++i) {
        Bytes& pkt = (i + s) % 2 == 0 ? ecm : other;
        if (netlink_send_msg(1, pkt.data(), static_cast<uint32_t>(pkt.size())) <= 0) ++failed_sends;
      }
    });
  }
  // Control traffic: the same configuration and registrations again and
  // again, and debug commands that touch shared settings.
  threads.emplace_back([&] {
    Worker ctl(8100);
    while (!stop) {
      EXPECT_EQ(ctl.Configure(cfg), 0);
      EXPECT_EQ(ctl.Control(NETLINK_MID_PID, PidPayload(kNormal, 7)), 0);
      EXPECT_EQ(ctl.Debug(11), 0);
      EXPECT_EQ(ctl.Debug(2), 0);
    }
  });
  threads.emplace_back([&] {
    while (!stop) EXPECT_EQ(Counters().size(), size_t{BYPASS_PKT_COUNT_NUM});
  });
  for (int s = 0; s < kSenders; ++s) threads[s].join();
  stop = true;
  for (size_t t = kSenders; t < threads.size(); ++t) threads[t].join();

  EXPECT_EQ(failed_sends, 0);
  const int total = kSenders * kPacketsPerSender;
  const int ecm = total / 2;
  std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[128 + 5], static_cast<uint32_t>(ecm));
  EXPECT_EQ(c[5], static_cast<uint32_t>(ecm));
  EXPECT_EQ(c[0], static_cast<uint32_t>(total - ecm));
  EXPECT_EQ(vcpu5.Pending(), static_cast<size_t>(ecm));
  EXPECT_EQ(def.Pending(), static_cast<size_t>(total - ecm));
}

}  // namespace
}  // namespace vane::test
