// The WLAN tables as the people around the module use them: configured by
// LB messages from a worker, decided on packets the switch driver hands in,
// seen in what each worker receives, in the packet-type stamp and in the
// per-type counters; and all of it at once while the tables change.
#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <map>
#include <optional>
#include <thread>
#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"
#include "wlan_lb/lb_fixture.h"

namespace vane::test {
namespace {

// The byte before the Ethernet header of what a worker receives.
constexpr size_t kStamp = 12 + 24 - 1;
// The WLAN counter of vCPU v and packet type t.
constexpr uint32_t Wlan(uint32_t v, uint32_t t) { return 192 + 12 * v + t; }

enum Cause : uint16_t { kCapwap = 300, kKeepAlive = 301, kMac = 302, kPort = 303 };
enum PktType : uint32_t { kCapwapType = 4, kKaType = 5, kMacType = 6, kPortType = 7 };
const uint32_t kSession[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};

Bytes Fragment(uint16_t id, bool mf, uint16_t off) { return CascadeFragment(kCapwap, id, mf, off); }

CapwapEntry Flow(uint32_t process) {
  return {Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, process};
}

class WlanDispatchTest : public LbModuleTest {
 protected:
  void SetUp() override {
    LbModuleTest::SetUp();
    rx_.emplace(std::initializer_list<uint32_t>{0,  2,  3,  7,  8,  9,  10, 11, 12, 13, 14,
                                                20, 21, 22, 23, 24, 25, 26, 27, 28, 29});
    ASSERT_EQ(ctl_->Configure(CascadeConfig()), 0);
  }
  void TearDown() override {
    rx_.reset();
    LbModuleTest::TearDown();
  }

  // The four cause IDs, one per LB type, on a board that load-balances.
  void CauseIds() {
    ASSERT_EQ(Send(CauseIdMsg({{kCapwap, kCapwapType, 1},
                               {kKeepAlive, kKaType, 2},
                               {kMac, kMacType, 3},
                               {kPort, kPortType, 4}})),
              0);
    ASSERT_EQ(Send(BoardTypeMsg(3)), 0);
  }

  // The vCPUs whose workers got the packet (0: the default receiver), and
  // the stamp of the last copy.
  std::vector<uint32_t> Where(const Bytes& buf, uint8_t* stamp = nullptr) {
    const std::vector<uint32_t> got = rx_->Deliver(buf);
    if (stamp != nullptr) *stamp = rx_->last().at(kStamp);
    return got;
  }
  using V = std::vector<uint32_t>;

  std::optional<Receivers> rx_;
};

TEST_F(WlanDispatchTest, NothingIsLoadBalancedUntilTheBoardTypeSaysSo) {
  ASSERT_EQ(Send(CapwapMsg(Flow(12))), 0);
  ASSERT_EQ(Send(CauseIdMsg({{kCapwap, kCapwapType, 1}})), 0);
  uint8_t stamp = 0;
  EXPECT_EQ(Where(CascadeUdp(kCapwap, 5246, 5247), &stamp), V{0});
  EXPECT_EQ(stamp, 0);
  ASSERT_EQ(Send(BoardTypeMsg(3)), 0);
  EXPECT_EQ(Where(CascadeUdp(kCapwap, 5246, 5247), &stamp), V{12});
  EXPECT_EQ(stamp, kCapwapType);
  // Any other board type switches it off again.
  ASSERT_EQ(Send(BoardTypeMsg(2)), 0);
  EXPECT_EQ(Where(CascadeUdp(kCapwap, 5246, 5247)), V{0});
}

TEST_F(WlanDispatchTest, EachLbTypeReachesItsVcpusStampedAndCounted) {
  CauseIds();
  uint8_t stamp = 0;
  // CAPWAP: the flow's entry.
  ASSERT_EQ(Send(CapwapMsg(Flow(12))), 0);
  EXPECT_EQ(Where(CascadeUdp(kCapwap, 5246, 5247), &stamp), V{12});
  EXPECT_EQ(stamp, kCapwapType);
  // Keep-alive: the session words of the packet.
  ASSERT_EQ(Send(CapwapKaMsg(kSession, 7)), 0);
  EXPECT_EQ(Where(CascadeUdp(kKeepAlive, 5247, 5247, KeepAlivePayload()), &stamp), V{7});
  EXPECT_EQ(stamp, kKaType);
  // AAA by MAC: the source MAC 00:00:5e:00:01:02 hashes to slot 4 of five
  // NAC vCPUs.
  ASSERT_EQ(Send(NacMsg(3, {20, 21, 22, 23, 9})), 0);
  EXPECT_EQ(Where(CascadeUdp(kMac, 68, 67), &stamp), V{9});
  EXPECT_EQ(stamp, kMacType);
  // AAA by port: the Portal entry, then a source-port entry spreading by
  // destination port (55692 is the second range vCPU).
  ASSERT_EQ(Send(PortalMsg(8080, 3)), 0);
  EXPECT_EQ(Where(CascadeUdp(kPort, 40000, 8080), &stamp), V{3});
  EXPECT_EQ(stamp, kPortType);
  ASSERT_EQ(Send(SocketPortMsg(1812, false, 1, 0)), 0);
  EXPECT_EQ(Where(CascadeUdp(kPort, 1812, 55692)), V{2});
  std::map<uint32_t, uint32_t> counted;
  for (auto [v, t] : {std::pair<uint32_t, uint32_t>{2, kPortType},
                      {3, kPortType},
                      {7, kKaType},
                      {9, kMacType},
                      {12, kCapwapType}}) {
    counted[v] = counted[Wlan(v, t)] = 1;
  }
  EXPECT_EQ(NonZeroCounters(), counted);

  // RADIUS CoA: a copy to each NAC vCPU, each counted for its vCPU and type.
  ASSERT_EQ(Send(NacMsg(3, {20, 21, 22})), 0);
  EXPECT_EQ(Where(CascadeUdp(kPort, 40000, 3799), &stamp), (V{20, 21, 22}));
  EXPECT_EQ(stamp, kPortType);
  for (uint32_t v : {20u, 21u, 22u}) {
    EXPECT_EQ(Counters()[v], 1u) << v;
    EXPECT_EQ(Counters()[Wlan(v, kPortType)], 1u) << v;
  }
  // Ten: the first eight get a copy; a decision of eight counts under 0.
  ASSERT_EQ(Send(NacMsg(3, {20, 21, 22, 23, 24, 25, 26, 27, 28, 29})), 0);
  EXPECT_EQ(Where(CascadeUdp(kPort, 40000, 3799), &stamp), (V{20, 21, 22, 23, 24, 25, 26, 27}));
  EXPECT_EQ(stamp, kPortType);
  EXPECT_EQ(Counters()[0], 1u);
  EXPECT_EQ(Counters()[Wlan(23, kPortType)], 0u);
  // No NAC vCPU at all: nothing decided, the default receiver.
  ASSERT_EQ(Send(NacMsg(3, {})), 0);
  EXPECT_EQ(Where(CascadeUdp(kPort, 40000, 3799)), V{0});
}

TEST_F(WlanDispatchTest, CapwapTriesTheExactEntryThenDestinationPortThenBothPorts) {
  CauseIds();
  const CapwapEntry both_ports{0xFFFFFFFF, 0xFFFFFFFF, 40000, 5247, 0xFF, 3};
  const CapwapEntry dport_only{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 5247, 0xFF, 9};
  // A process is taken by its low byte.
  const CapwapEntry exact{Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 40000, 5247, 0, 0x10C};
  const Bytes flow = CascadeUdp(kCapwap, 40000, 5247);
  const Bytes other_sport = CascadeUdp(kCapwap, 1234, 5247, Bytes(20, 0), Ipv4Addr("10.9.9.9"));

  ASSERT_EQ(Send(CapwapMsg(both_ports)), 0);
  EXPECT_EQ(Where(flow), V{3});
  EXPECT_EQ(Where(other_sport), V{0});
  ASSERT_EQ(Send(CapwapMsg(dport_only)), 0);
  EXPECT_EQ(Where(flow), V{9});
  EXPECT_EQ(Where(other_sport), V{9});
  ASSERT_EQ(Send(CapwapMsg(exact)), 0);
  EXPECT_EQ(Where(flow), V{12});
  ASSERT_EQ(Send(CapwapMsg(exact, 2)), 0);
  ASSERT_EQ(Send(CapwapMsg(dport_only, 2)), 0);
  EXPECT_EQ(Where(flow), V{3});
}

TEST_F(WlanDispatchTest, CapwapFragmentsFollowTheirFirstFragment) {
  CauseIds();
  ASSERT_EQ(Send(CapwapMsg(Flow(12))), 0);
  EXPECT_EQ(Where(Fragment(0x77, true, 0)), V{12});
  // The entry changes its vCPU: the datagram under way keeps the old one.
  ASSERT_EQ(Send(CapwapMsg(Flow(9))), 0);
  EXPECT_EQ(Where(Fragment(0x77, true, 3)), V{12});
  EXPECT_EQ(Where(Fragment(0x77, false, 6)), V{12});
  // Finished: a repeated last fragment has nowhere to go.
  EXPECT_EQ(Where(Fragment(0x77, false, 6)), V{0});
  // A new datagram follows the new vCPU; once the entry is deleted, the next
  // one has no vCPU and nothing is entered for its later fragments.
  EXPECT_EQ(Where(Fragment(0x78, true, 0)), V{9});
  EXPECT_EQ(Where(Fragment(0x78, false, 3)), V{9});
  ASSERT_EQ(Send(CapwapMsg(Flow(9), 2)), 0);
  EXPECT_EQ(Where(Fragment(0x79, true, 0)), V{0});
  EXPECT_EQ(Where(Fragment(0x79, false, 3)), V{0});
}

// One worker changes every WLAN table without pause while packets are
// handed in on several threads and another thread reads every view. Each
// entry the packets use only ever moves between two whole settings, and a
// reader that saw half of one would send a packet where neither setting
// does: every decision lands on one of its two vCPUs and is counted once.
// The packets also look up entries that come and go (to vCPUs without
// workers), walking what the writer unlinks and frees.
TEST_F(WlanDispatchTest, DecisionsSeeOnlyWholeSettingsWhileEveryTableChanges) {
  constexpr uint16_t kPort2 = 304;  // AAA by port too, packet type 8
  CauseIds();
  ASSERT_EQ(Send(CauseIdMsg({{kPort2, 8, 4}})), 0);
  const std::vector<uint32_t> nac_a(5, 9), nac_b(9, 8);  // the MAC's slot: 4 of 5, 6 of 9
  for (uint32_t t = 0; t < 2; ++t) {
    ASSERT_EQ(Send(CapwapMsg(
                  {Ipv4Addr("10.1.1.1") + t, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 10 + 2 * t})),
              0);
  }
  ASSERT_EQ(Send(CapwapKaMsg(kSession, 7)), 0);
  ASSERT_EQ(Send(NacMsg(3, nac_a)), 0);
  ASSERT_EQ(Send(PortalMsg(8080, 3)), 0);
  ASSERT_EQ(Send(SocketPortMsg(1812, false, 1, 0)), 0);  // source port 1812: by range
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> changes{0};
  std::thread writer([&] {
    Worker w;
    auto lb = [&w](const Bytes& m) { EXPECT_EQ(w.Control(10, m), 0); };
    for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); changes = ++i) {
      // Which of its two settings each entry takes: a sequence without a
      // period, so that no reader falls into step with the changes.
      const uint32_t odd = std::popcount(i) % 2;
      // The packets' entries: CAPWAP flows 10.1.1.1 to vCPU 10 or 11 and
      // 10.1.1.2 to 12 or 13, the session to 7 or 14, the MAC to 9 or 8, the
      // Portal port 8080 to 3 or 8081 to 2.
      lb(CapwapMsg({Ipv4Addr("10.1.1.1") + odd, Ipv4Addr("10.1.1.2"), 5246, 5247, 0,
                    10 + 2 * odd + (i / 2) % 2}));
      lb(CapwapKaMsg(kSession, odd ? 14 : 7));
      lb(NacMsg(3, odd ? nac_b : nac_a));
      lb(PortalMsg(odd ? 8081 : 8080, odd ? 2 : 3));
      // Everything else comes and goes.
      const uint32_t sip = Ipv4Addr("10.2.0.0") + i % 64;
      const uint32_t other[4] = {i % 16, 1, 2, 3};
      const auto port = static_cast<uint16_t>(30000 + i % 16);
      lb(CapwapMsg({sip, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 30 + i % 30}));
      lb(CapwapMsg({sip ^ 32, Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 0}, 2));
      lb(CapwapKaMsg(other, 30 + i % 30, i % 3 == 2 ? 2 : 1));
      lb(SocketPortMsg(port, i & 1, i & 2, 30 + i % 30));
      lb(SocketPortMsg(static_cast<uint16_t>(port ^ 8), i & 1, i & 2, 0, 0, 2));
      lb(CauseIdMsg({{1000 + i % 200, 1 + i % 11, 1 + i % 4}, {kCapwap, 11, 3}}));
    }
  });
  std::thread views([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      EXPECT_EQ(CapwapRecords(Ipv4Addr("10.1.1.1")).size(), 200u);
      EXPECT_EQ(KaRecord(kSession).size(), 20u);
      for (const char* sel : {"1", "2", "3", "4"}) View(sel);
    }
  });
  // Each packet thread goes on until the writer has been through every
  // change many times meanwhile, however the threads are scheduled.
  uint32_t rounds[2] = {};
  std::vector<std::thread> packets;
  for (uint32_t t = 0; t < 2; ++t) {
    packets.emplace_back([t, &rounds, &changes] {
      const Bytes frames[] = {
          CascadeUdp(kCapwap, 5246, 5247, Bytes(20, 0), Ipv4Addr("10.1.1.1") + t),
          CascadeUdp(kKeepAlive, 5247, 5247, KeepAlivePayload()),
          CascadeUdp(kMac, 68, 67),
          CascadeUdp(kPort, 40000, 8080),
          CascadeUdp(kPort2, 40000, 8081),
          CascadeUdp(kPort, 1812, 58500)};  // the range's vCPU 20
      // A full receive queue fails the delivery, not the decision.
      uint32_t& i = rounds[t];
      const uint32_t from = changes.load();
      for (; i < 1000 || changes.load() < from + 500; ++i) {
        // A changing order keeps the threads from falling into step.
        for (size_t k = 0; k < 6; ++k) env().Deliver(1, frames[(k + i) % 6]);
        env().Deliver(1,
                      CascadeUdp(kCapwap, 5246, 5247, Bytes(20, 0), Ipv4Addr("10.2.0.0") + i % 64));
      }
    });
  }
  for (auto& th : packets) th.join();
  stop = true;
  writer.join();
  views.join();

  const std::vector<uint32_t> c = Counters();
  const uint32_t all = rounds[0] + rounds[1];
  for (uint32_t t = 0; t < 2; ++t) {
    EXPECT_EQ(c[10 + 2 * t] + c[11 + 2 * t], rounds[t]) << t;
    EXPECT_EQ(c[Wlan(10 + 2 * t, kCapwapType)] + c[Wlan(11 + 2 * t, kCapwapType)], rounds[t]);
  }
  EXPECT_EQ(c[Wlan(7, kKaType)] + c[Wlan(14, kKaType)], all);
  EXPECT_EQ(c[Wlan(9, kMacType)] + c[Wlan(8, kMacType)], all);
  EXPECT_EQ(c[Wlan(2, kPortType)], 0u);
  EXPECT_EQ(c[Wlan(3, 8)], 0u);
  EXPECT_EQ(c[Wlan(20, kPortType)], all);
}

}  // namespace
}  // namespace vane::test
