// The decision cascade as the switch driver and the workers see it: packets
// through netlink_send_msg, tables through control messages, and what each
// worker receives with the counters each decision raises. The order is the
// point: internal frames beat the steering tables, an ivo hit beats TIMNG,
// TIMNG beats the WLAN step.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_stand_in.h"

namespace vane::test {
namespace {

constexpr uint32_t kHead = kCascadeHead;
constexpr uint32_t kMcEth = 21;
constexpr uint16_t kCause = 300;

// A multi-core packet: IPv4 UDP from 10.1.1.1:5246 to 10.1.1.2:5247.
Bytes Plain(uint16_t cause) {
  return PacketBuilder()
      .prefix(1, 0, kMcEth)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = Ipv4Addr("10.1.1.1"), .dst = Ipv4Addr("10.1.1.2")})
      .udp(5246, 5247)
      .payload(20)
      .build();
}

// An internal VP frame: outer MAC 0A:0B:0B:<vcpu>, the VP EtherType, the
// first-fragment mark, then an inner IPv4 datagram (fragment).
Bytes Vp(uint16_t cause, uint8_t vcpu, uint8_t mark, bool mf, uint16_t off) {
  PacketBuilder b;
  b.prefix(1, 0, kMcEth)
      .bytes(CauseHead(cause))
      .ethernet({0x0A, 0x0B, 0x0B, vcpu, 0, 0}, Mac("00:00:5e:00:01:09"))
      .ether_type(kCascadeVpType)
      .bytes({mark, 0})
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = Ipv4Addr("10.9.9.1"),
             .dst = Ipv4Addr("10.9.9.2"),
             .protocol = 17,
             .id = 0x5151,
             .mf = mf,
             .frag_offset = off});
  return b.payload(24).build();
}

BYPASS_LB_TABLE_S Table(uint32_t type, uint32_t vcpu, std::vector<uint16_t> causes) {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulTableType = type;
  t.ulVcpuId = vcpu;
  t.ulCauseIdNum = static_cast<uint32_t>(causes.size());
  for (size_t i = 0; i < causes.size(); ++i) t.ausCauseId[i] = causes[i];
  return t;
}

class CascadeTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ctl_ = std::make_unique<Worker>(7000);
    ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
    for (uint32_t v : {3u, 7u, 9u, 12u}) {
      workers_[v] = std::make_unique<Worker>(7000 + v);
      ASSERT_EQ(workers_[v]->Register(kNormal, v), 0);
    }
    ASSERT_EQ(ctl_->Configure(CascadeConfig()), 0);
    wlan_.cause_id = kCause;
    wlan_.lb_type = LB_CAPWAP;
    wlan_.pkt_type = 4;
    wlan_.vcpu = 12;
  }
  void TearDown() override {
    workers_.clear();
    ctl_.reset();
    ModuleTest::TearDown();
  }

  // Sends the packet and returns the vCPU whose worker got it (0: the
  // default receiver), checking that exactly one worker got it.
  int SendAndWhere(const Bytes& buf) {
    EXPECT_GT(netlink_send_msg(1, const_cast<uint8_t*>(buf.data()), buf.size()), 0);
    int where = -1;
    if (ctl_->Pending() != 0) {
      ctl_->Next();
      where = 0;
    }
    for (auto& [v, w] : workers_) {
      while (w->Pending() != 0) {
        last_ = w->Next()->data;
        EXPECT_EQ(where, -1) << "delivered twice";
        where = static_cast<int>(v);
      }
    }
    return where;
  }
  void Ivo(uint32_t vcpu, std::vector<uint16_t> causes) {
    ASSERT_EQ(ctl_->Control(NETLINK_MID_IVO_LB, RecordBytes(Table(0, vcpu, causes))), 0);
  }
  void Timng(uint32_t cause, uint32_t node, uint32_t scan = 0) {
    TIMNG_KERNEL_MSG_S m{cause, node, 1, scan};
    ASSERT_EQ(ctl_->Control(NETLINK_MID_TIMNG, RecordBytes(m)), 0);
  }

  std::unique_ptr<Worker> ctl_;
  std::map<uint32_t, std::unique_ptr<Worker>> workers_;
  Bytes last_;
  WlanStandIn wlan_;
  ScopedWlanStandIn scoped_{&wlan_};
};

TEST_F(CascadeTest, EachDeciderAloneAndTheCountersItRaises) {
  // Nothing decides: the default receiver, counter 0.
  EXPECT_EQ(SendAndWhere(Plain(1)), 0);
  EXPECT_EQ(NonZeroCounters(), (std::map<uint32_t, uint32_t>{{0, 1}}));

  // WLAN: the lookup's vCPU, its per-type counter, and the packet-type stamp
  // in the byte before the Ethernet header of what the worker receives.
  EXPECT_EQ(SendAndWhere(Plain(kCause)), 12);
  EXPECT_EQ(last_[12 + kHead - 1], 4);
  EXPECT_EQ(wlan_.five.dport, 5247u);
  EXPECT_EQ(NonZeroCounters(),
            (std::map<uint32_t, uint32_t>{{0, 1}, {12, 1}, {WlanCounterIndex(12, 4), 1}}));

  // Steering table: counted once in the path and once when counted.
  Ivo(9, {77});
  EXPECT_EQ(SendAndWhere(Plain(77)), 9);
  EXPECT_EQ(Counters()[9], 2u);

  // TIMNG: likewise.
  Timng(88, 3);
  EXPECT_EQ(SendAndWhere(Plain(88)), 3);
  EXPECT_EQ(Counters()[3], 2u);
}

TEST_F(CascadeTest, InternalFramesBeatSteeringTablesWhichBeatTimngWhichBeatsWlan) {
  Ivo(9, {kCause});
  Timng(kCause, 3);
  // An internal frame names its vCPU whatever its cause ID says.
  EXPECT_EQ(SendAndWhere(Vp(kCause, 7, 0, false, 0)), 7);
  EXPECT_EQ(NonZeroCounters(),
            (std::map<uint32_t, uint32_t>{{BYPASS_PKT_COUNT_VP_BASE + 7, 1}, {7, 1}}));

  // The ivo table beats TIMNG for the same cause ID ...
  EXPECT_EQ(SendAndWhere(Plain(kCause)), 9);
  // ... and, switched off, TIMNG beats the WLAN step: no lookup, no stamp.
  BYPASS_LB_TABLE_S off = Table(0, 9, {kCause});
  off.ulEnable = 0;
  ASSERT_EQ(ctl_->Control(NETLINK_MID_IVO_LB, RecordBytes(off)), 0);
  EXPECT_EQ(SendAndWhere(Plain(kCause)), 3);
  EXPECT_EQ(last_[12 + kHead - 1], 0);
  EXPECT_EQ(wlan_.lookups, 0);
  EXPECT_EQ(NonZeroCounters(), (std::map<uint32_t, uint32_t>{
                                   {BYPASS_PKT_COUNT_VP_BASE + 7, 1}, {7, 1}, {9, 2}, {3, 2}}));
}

TEST_F(CascadeTest, VpFramesKeepAFragmentedDatagramTogether) {
  // First fragment, marked, to vCPU 12; the sender leaves the vCPU of the
  // later ones to us (byte 61).
  EXPECT_EQ(SendAndWhere(Vp(1, 12, BYPASS_FIRST_FRAG_MARK, true, 0)), 12);
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, true, 3)), 12);
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, true, 6)), 12);
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, false, 9)), 12);
  // The datagram is finished: its repeated last fragment has nowhere to go.
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, false, 9)), 0);
  EXPECT_EQ(NonZeroCounters(),
            (std::map<uint32_t, uint32_t>{{0, 1}, {12, 4}, {BYPASS_PKT_COUNT_VP_BASE + 12, 4}}));

  // Unmarked first fragments and vCPU bytes 0 and 64 enter and decide nothing.
  EXPECT_EQ(SendAndWhere(Vp(1, 7, 0, true, 0)), 7);
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, true, 3)), 0);
  EXPECT_EQ(SendAndWhere(Vp(1, 0, 0, false, 0)), 0);
  EXPECT_EQ(SendAndWhere(Vp(1, 64, 0, false, 0)), 0);
}

TEST_F(CascadeTest, TruncatedVpFramesFailTheirTestsInsteadOfBeingReadPastTheirEnd) {
  const Bytes full = Vp(1, 61, 0, true, 3);
  // Every cut of the frame after the internal MAC prefix, in a buffer of its
  // exact size.
  for (size_t len = 12 + kHead + 3; len < full.size(); ++len) {
    Bytes cut(full.begin(), full.begin() + static_cast<long>(len));
    EXPECT_EQ(SendAndWhere(cut), 0) << len;
  }
  // Cut before the vCPU byte of a direct frame: no vCPU either.
  Bytes direct = Vp(1, 7, 0, false, 0);
  direct.resize(12 + kHead + 3);
  EXPECT_EQ(SendAndWhere(direct), 0);
  direct = Vp(1, 7, BYPASS_FIRST_FRAG_MARK, true, 0);
  direct.resize(12 + kHead + 15);
  EXPECT_EQ(SendAndWhere(direct), 7);
}

TEST_F(CascadeTest, TimngScanFragmentsGoToTheDefaultReceiverAheadOfTimngAndWlan) {
  Timng(kCause, 3, 1);
  auto frag = [](bool mf, uint16_t off) {
    PacketBuilder b;
    b.prefix(1, 0, kMcEth)
        .bytes(CauseHead(kCause))
        .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
        .ipv4({.src = Ipv4Addr("10.1.1.1"),
               .dst = Ipv4Addr("10.1.1.2"),
               .protocol = 17,
               .id = 9,
               .mf = mf,
               .frag_offset = off});
    return b.payload(24).build();
  };
  EXPECT_EQ(SendAndWhere(frag(true, 0)), 0);
  EXPECT_EQ(SendAndWhere(frag(true, 3)), 0);
  EXPECT_EQ(SendAndWhere(frag(false, 6)), 0);
  EXPECT_EQ(NonZeroCounters(), (std::map<uint32_t, uint32_t>{{0, 6}}));
  EXPECT_EQ(wlan_.lookups, 0);
  // The same cause ID unfragmented is TIMNG's own vCPU.
  EXPECT_EQ(SendAndWhere(Plain(kCause)), 3);
}

TEST_F(CascadeTest, AFirstFragmentTheTableCannotTakeStillGoesToItsVcpu) {
  namespace fault = kport::user::fault;
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(SendAndWhere(Vp(1, 12, BYPASS_FIRST_FRAG_MARK, true, 0)), 12);
  fault::ClearAll();
  EXPECT_NE(DebugText().find("\r\nPacket addInHash fail.ret=101,"), std::string::npos)
      << DebugText();
  // Its later fragments have lost their way; nothing was left behind (the
  // fixture checks every allocation is returned).
  EXPECT_EQ(SendAndWhere(Vp(1, 61, 0, true, 3)), 0);
}

TEST_F(CascadeTest, ConcurrentDecisionsAndTableWritesLoseNoCount) {
  constexpr int kThreads = 3;
  constexpr uint32_t kRounds = 2000;
  Ivo(9, {77});
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const auto vcpu = static_cast<uint8_t>(20 + t);
      Bytes vp = Vp(1, vcpu, 0, false, 0);
      Bytes steered = Plain(77);
      Bytes first = Vp(1, vcpu, BYPASS_FIRST_FRAG_MARK, true, 0);
      Bytes middle = Vp(1, 61, 0, true, 3);
      for (uint32_t i = 0; i < kRounds; ++i) {
        uint32_t count = 0;
        uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
        bypass_msg_getVCpuId(vp.data(), static_cast<uint32_t>(vp.size()), &count, list);
        bypass_msg_getVCpuId(steered.data(), static_cast<uint32_t>(steered.size()), &count, list);
        // Fragment traffic on a datagram every thread shares.
        bypass_msg_getVCpuId(first.data(), static_cast<uint32_t>(first.size()), &count, list);
        bypass_msg_getVCpuId(middle.data(), static_cast<uint32_t>(middle.size()), &count, list);
      }
    });
  }
  // The table is rewritten whole meanwhile (same vCPU, so every hit is 9).
  for (uint32_t i = 0; i < 200; ++i) Ivo(9, {77, static_cast<uint16_t>(i)});
  for (auto& th : threads) th.join();
  const std::vector<uint32_t> c = Counters();
  uint32_t middles = 0;
  for (int t = 0; t < kThreads; ++t) {
    // Direct and first fragment, plus the middle fragments that found this
    // thread's vCPU in the shared datagram's entry: once as VP, once as vCPU.
    EXPECT_EQ(c[BYPASS_PKT_COUNT_VP_BASE + 20 + t], c[20 + t]);
    ASSERT_GE(c[20 + t], 2 * kRounds);
    middles += c[20 + t] - 2 * kRounds;
  }
  EXPECT_EQ(c[9], 2 * kThreads * kRounds);
  EXPECT_EQ(middles, kThreads * kRounds);  // every middle fragment found the datagram
}

}  // namespace
}  // namespace vane::test
