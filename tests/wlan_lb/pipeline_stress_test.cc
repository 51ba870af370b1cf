// The whole WLAN path under concurrency: packet threads deciding through the
// dispatch entry, one writer churning every WLAN table by LB messages, and a
// reader walking every view. The decisions whose entries the writer never
// removes must all land where they belong, and count exactly; under
// ThreadSanitizer nothing may be reported.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

namespace vfs = kport::user::vfs;

constexpr uint32_t kMcEth = 21;
constexpr int kPacketThreads = 2;
constexpr uint32_t kRounds = 3000;
enum Cause : uint16_t { kCapwap = 300, kKeepAlive = 301, kMac = 302, kPort = 303 };
constexpr uint32_t kType[4] = {4, 5, 6, 7};

Bytes Udp(uint16_t cause, uint32_t src, uint16_t sport, uint16_t dport,
          const Bytes& payload = Bytes(20, 0)) {
  return PacketBuilder()
      .prefix(1, 0, kMcEth)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = src, .dst = Ipv4Addr("10.1.1.2")})
      .udp(sport, dport)
      .payload(payload)
      .build();
}

class WlanPipelineStressTest : public ModuleTest {};

TEST_F(WlanPipelineStressTest, StableDecisionsCountExactlyWhileEveryTableChurns) {
  const BYPASS_PKT_OFFSET_S cfg = CascadeConfig();
  bypass_set_pktOffsetAndDebugFlag(NETLINK_MID_OFFSET,
                                   const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(&cfg)),
                                   sizeof(cfg));
  ApplyLb(CauseIdMsg({{kCapwap, kType[0], LB_CAPWAP},
                      {kKeepAlive, kType[1], LB_CAPWAP_KA},
                      {kMac, kType[2], LB_AAA_MAC},
                      {kPort, kType[3], LB_AAA_PORT}}));
  // Stable answers: a CAPWAP flow per packet thread (vCPU 10 + t), one
  // keep-alive session (7), the source MAC's NAC slot (4 of 5: always 9),
  // the Portal port (3).
  for (uint32_t t = 0; t < kPacketThreads; ++t) {
    ApplyLb(CapwapMsg({Ipv4Addr("10.1.1.1") + t, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 10 + t}));
  }
  const uint32_t session[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};
  ApplyLb(CapwapKaMsg(session, 7));
  ApplyLb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20, 21, 22, 23, 9}));
  ApplyLb(PortalMsg(8080, 3));

  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
      const uint32_t sip = Ipv4Addr("10.2.0.0") + i % 64;
      const uint32_t other[4] = {i % 16, 1, 2, 3};
      const auto port = static_cast<uint16_t>(30000 + i % 16);
      ApplyLb(CapwapMsg({sip, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, i % 60}));
      ApplyLb(CapwapMsg({sip, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, (i + 1) % 60}));
      ApplyLb(
          CapwapMsg({Ipv4Addr("10.2.0.0") + (i + 32) % 64, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 0},
                    WLAN_LB_OP_DELETE));
      ApplyLb(CapwapKaMsg(other, i % 60, i % 3 == 2 ? WLAN_LB_OP_DELETE : 1));
      ApplyLb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20 + i % 3, 21, 22, 23 + i % 5, 9}));
      ApplyLb(PortalMsg(8080, 3));
      ApplyLb(SocketPortMsg(port, i & 1, i & 2, i % 60));
      ApplyLb(
          SocketPortMsg(static_cast<uint16_t>(port ^ 8), i & 1, i & 2, 0, 0, WLAN_LB_OP_DELETE));
      ApplyLb(CauseIdMsg({{kCapwap, 11, LB_AAA_MAC}}));  // the first setting stands
    }
  });
  std::thread views([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      uint64_t ip = Ipv4Addr("10.1.1.1");
      vfs::ProcWriteAll("/proc/wlan_lb/capwap", Bytes(reinterpret_cast<uint8_t*>(&ip),
                                                      reinterpret_cast<uint8_t*>(&ip + 1)));
      EXPECT_EQ(vfs::ProcReadAll("/proc/wlan_lb/capwap").size(), WLAN_LB_CAPWAP_VIEW_LEN);
      EXPECT_EQ(vfs::ProcReadAll("/proc/wlan_lb/capwap_ka").size(), WLAN_LB_CAPWAP_KA_VIEW_LEN);
      for (const char* sel : {"1", "2", "3", "4"}) {
        vfs::SysfsStore("/sys/class/wlan_lb/wlan_lb/wlan_lb", sel);
        EXPECT_TRUE(vfs::SysfsShow("/sys/class/wlan_lb/wlan_lb/wlan_lb").has_value());
      }
    }
  });
  std::vector<std::thread> packets;
  for (uint32_t t = 0; t < kPacketThreads; ++t) {
    packets.emplace_back([t] {
      Bytes frames[4] = {Udp(kCapwap, Ipv4Addr("10.1.1.1") + t, 5246, 5247),
                         Udp(kKeepAlive, Ipv4Addr("10.1.1.1"), 5247, 5247, KeepAlivePayload()),
                         Udp(kMac, Ipv4Addr("10.1.1.1"), 68, 67),
                         Udp(kPort, Ipv4Addr("10.1.1.1"), 40000, 8080)};
      for (uint32_t i = 0; i < kRounds; ++i) {
        for (Bytes& f : frames) {
          uint32_t count = 0;
          uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
          bypass_msg_getVCpuId(f.data(), static_cast<uint32_t>(f.size()), &count, list);
        }
      }
    });
  }
  for (auto& th : packets) th.join();
  stop.store(true);
  writer.join();
  views.join();

  const std::vector<uint32_t> c = Counters();
  for (uint32_t t = 0; t < kPacketThreads; ++t) {
    EXPECT_EQ(c[10 + t], kRounds) << t;
    EXPECT_EQ(c[WlanCounterIndex(10 + t, kType[0])], kRounds) << t;
  }
  EXPECT_EQ(c[7], kPacketThreads * kRounds);
  EXPECT_EQ(c[WlanCounterIndex(7, kType[1])], kPacketThreads * kRounds);
  EXPECT_EQ(c[9], kPacketThreads * kRounds);
  EXPECT_EQ(c[WlanCounterIndex(9, kType[2])], kPacketThreads * kRounds);
  EXPECT_EQ(c[3], kPacketThreads * kRounds);
  EXPECT_EQ(c[WlanCounterIndex(3, kType[3])], kPacketThreads * kRounds);
  EXPECT_EQ(c[0], 0u);
}

}  // namespace
}  // namespace vane::test
