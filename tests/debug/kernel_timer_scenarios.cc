// The fragment record of an unfinished datagram ages out on the module's own
// timer. On a kernel that is the real timer in real time, which no other
// scenario waits for; where the clock can be moved, it is moved instead.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

using KernelTimerTest = ModuleTest;

// An internal VP frame on multi-core interface 21 carrying a fragment of
// one IPv4 datagram; byte 61 lets the module choose the vCPU.
Bytes VpFragment(uint8_t vcpu, uint8_t mark, bool more, uint16_t offset) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(1))
      .ethernet({0x0A, 0x0B, 0x0B, vcpu, 0, 0}, Mac("00:00:5e:00:01:09"))
      .ether_type(0x8899)
      .bytes({mark, 0})
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = Ipv4Addr("10.9.9.1"),
             .dst = Ipv4Addr("10.9.9.2"),
             .protocol = 17,
             .id = 0x5151,
             .mf = more,
             .frag_offset = offset});
  return b.payload(24).build();
}

// The record count at the head of the IPv4 fragment table's dump.
int Records() {
  const Bytes head = env().ReadAt("/proc/bypassDebug/hashInfoIpv4", 0, 2).value_or(Bytes{});
  return head.size() == 2 ? head[0] | head[1] << 8 : -1;
}

TEST_F(KernelTimerTest, AnUnfinishedDatagramAgesOut) {
  const bool manual = env().Has(Power::kManualClock);
  if (manual) env().UseManualClock();
  Worker def;
  Worker vcpu12;
  ASSERT_EQ(def.Register(kNormal, 0), 0);
  ASSERT_EQ(vcpu12.Register(kNormal, 12), 0);
  ASSERT_EQ(def.Configure(CascadeConfig()), 0);

  ASSERT_GT(env().Deliver(1, VpFragment(12, 0xAB, true, 0)), 0);
  ASSERT_GT(env().Deliver(1, VpFragment(61, 0, true, 3)), 0);
  EXPECT_EQ(vcpu12.Pending(), 2u);
  EXPECT_EQ(Records(), 1);

  // No last fragment comes: the record goes at the seventh sweep of 500
  // ticks after the middle fragment refreshed it, within 35 seconds at the
  // slowest kernel clock (100 Hz).
  if (manual) {
    for (int sweep = 1; sweep <= 7; ++sweep) env().AdvanceClock(500);
  } else {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (Records() == 1 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
  }
  EXPECT_EQ(Records(), 0);

  // Its last fragment no longer finds the datagram's vCPU.
  ASSERT_GT(env().Deliver(1, VpFragment(61, 0, false, 6)), 0);
  EXPECT_EQ(vcpu12.Pending(), 2u);
  EXPECT_EQ(def.Pending(), 1u);
}

}  // namespace
}  // namespace vane::test
