// The WLAN tables as the people around the module use them: configured by
// control message 10 from a worker, decided on packets the switch driver
// hands in, seen in what each worker receives, in the packet-type stamp
// and in the per-type counters.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

constexpr uint32_t kHead = kCascadeHead;
constexpr uint32_t kMcEth = 21;
// Where the packet-type stamp lands in what a worker receives.
constexpr size_t kStamp = 12 + kHead - 1;

enum Cause : uint16_t { kCapwap = 300, kKeepAlive = 301, kMac = 302, kPort = 303 };
enum PktType : uint32_t { kCapwapType = 4, kKaType = 5, kMacType = 6, kPortType = 7 };

PacketBuilder Head(uint16_t cause) {
  PacketBuilder b;
  b.prefix(1, 0, kMcEth)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  return b;
}

Bytes Udp(uint16_t cause, uint16_t sport, uint16_t dport, const Bytes& payload = Bytes(20, 0)) {
  return Head(cause)
      .ipv4({.src = Ipv4Addr("10.1.1.1"), .dst = Ipv4Addr("10.1.1.2")})
      .udp(sport, dport)
      .payload(payload)
      .build();
}

Bytes Fragment(uint16_t id, bool mf, uint16_t off) {
  PacketBuilder b = Head(kCapwap);
  b.ipv4({.src = Ipv4Addr("10.1.1.1"),
          .dst = Ipv4Addr("10.1.1.2"),
          .protocol = off != 0 ? std::optional<uint8_t>(17) : std::nullopt,
          .id = id,
          .mf = mf,
          .frag_offset = off});
  if (off == 0) b.udp(5246, 5247);
  return b.payload(24).build();
}

class WlanEndToEndTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ctl_ = std::make_unique<Worker>(8000);
    ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
    for (uint32_t v : {2u, 3u, 7u, 9u, 12u, 20u, 21u, 22u, 23u, 24u, 25u, 26u, 27u, 28u, 29u}) {
      workers_[v] = std::make_unique<Worker>(8000 + v);
      ASSERT_EQ(workers_[v]->Register(kNormal, v), 0);
    }
    ASSERT_EQ(ctl_->Configure(CascadeConfig()), 0);
  }
  void TearDown() override {
    workers_.clear();
    ctl_.reset();
    ModuleTest::TearDown();
  }

  void Lb(const Bytes& msg) { ASSERT_EQ(ctl_->Control(NETLINK_MID_WLAN_LB, msg), 0); }

  // The four cause IDs, one per LB type, on a board that load-balances.
  void CauseIds() {
    Lb(CauseIdMsg({{kCapwap, kCapwapType, LB_CAPWAP},
                   {kKeepAlive, kKaType, LB_CAPWAP_KA},
                   {kMac, kMacType, LB_AAA_MAC},
                   {kPort, kPortType, LB_AAA_PORT}}));
    Lb(BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB));
  }

  // Sends the packet; returns the vCPUs whose workers got it (0: the default
  // receiver), in vCPU order, and keeps the last copy received.
  std::vector<uint32_t> Send(const Bytes& buf) {
    EXPECT_GT(netlink_send_msg(1, const_cast<uint8_t*>(buf.data()), buf.size()), 0);
    std::vector<uint32_t> got;
    while (ctl_->Pending() != 0) {
      last_ = ctl_->Next()->data;
      got.push_back(0);
    }
    for (auto& [v, w] : workers_) {
      while (w->Pending() != 0) {
        last_ = w->Next()->data;
        got.push_back(v);
      }
    }
    return got;
  }
  using V = std::vector<uint32_t>;

  std::unique_ptr<Worker> ctl_;
  std::map<uint32_t, std::unique_ptr<Worker>> workers_;
  Bytes last_;
};

TEST_F(WlanEndToEndTest, NothingIsLoadBalancedUntilTheBoardTypeSaysSo) {
  Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 12}));
  Lb(CauseIdMsg({{kCapwap, kCapwapType, LB_CAPWAP}}));
  EXPECT_EQ(Send(Udp(kCapwap, 5246, 5247)), V{0});
  EXPECT_EQ(last_[kStamp], 0);
  Lb(BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB));
  EXPECT_EQ(Send(Udp(kCapwap, 5246, 5247)), V{12});
  EXPECT_EQ(last_[kStamp], kCapwapType);
  // Any other board type switches it off again.
  Lb(BoardTypeMsg(2));
  EXPECT_EQ(Send(Udp(kCapwap, 5246, 5247)), V{0});
}

TEST_F(WlanEndToEndTest, EachLbTypeReachesItsVcpuStampedAndCounted) {
  CauseIds();
  // CAPWAP: the exact entry, then the destination-port wildcard.
  Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 12}));
  Lb(CapwapMsg({0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 5249, 0xFF, 3}));
  EXPECT_EQ(Send(Udp(kCapwap, 5246, 5247)), V{12});
  EXPECT_EQ(last_[kStamp], kCapwapType);
  EXPECT_EQ(Send(Udp(kCapwap, 1111, 5249)), V{3});

  // Keep-alive: the session words of the packet.
  const uint32_t session[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};
  Lb(CapwapKaMsg(session, 7));
  EXPECT_EQ(Send(Udp(kKeepAlive, 5247, 5247, KeepAlivePayload())), V{7});
  EXPECT_EQ(last_[kStamp], kKaType);

  // AAA by MAC: the source MAC 00:00:5e:00:01:02 hashes to slot 4 of five
  // NAC vCPUs.
  Lb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20, 21, 22, 23, 9}));
  EXPECT_EQ(Send(Udp(kMac, 68, 67)), V{9});
  EXPECT_EQ(last_[kStamp], kMacType);

  // AAA by port: the Portal entry, then a source-port entry spreading by
  // destination port (55692 is the second range vCPU).
  Lb(PortalMsg(8080, 3));
  EXPECT_EQ(Send(Udp(kPort, 40000, 8080)), V{3});
  EXPECT_EQ(last_[kStamp], kPortType);
  Lb(SocketPortMsg(1812, false, true, 0));
  EXPECT_EQ(Send(Udp(kPort, 1812, 55692)), V{2});

  EXPECT_EQ(NonZeroCounters(),
            (std::map<uint32_t, uint32_t>{{2, 1},
                                          {3, 2},
                                          {7, 1},
                                          {9, 1},
                                          {12, 1},
                                          {WlanCounterIndex(2, kPortType), 1},
                                          {WlanCounterIndex(3, kCapwapType), 1},
                                          {WlanCounterIndex(3, kPortType), 1},
                                          {WlanCounterIndex(7, kKaType), 1},
                                          {WlanCounterIndex(9, kMacType), 1},
                                          {WlanCounterIndex(12, kCapwapType), 1}}));
}

TEST_F(WlanEndToEndTest, RadiusCoaReachesEveryNacVcpuUpToEight) {
  CauseIds();
  // Three NAC vCPUs: three copies, each counted for its vCPU and type.
  Lb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20, 21, 22}));
  EXPECT_EQ(Send(Udp(kPort, 40000, WLAN_LB_RADIUS_COA_PORT)), (V{20, 21, 22}));
  EXPECT_EQ(last_[kStamp], kPortType);
  EXPECT_EQ(NonZeroCounters(),
            (std::map<uint32_t, uint32_t>{{20, 1},
                                          {21, 1},
                                          {22, 1},
                                          {WlanCounterIndex(20, kPortType), 1},
                                          {WlanCounterIndex(21, kPortType), 1},
                                          {WlanCounterIndex(22, kPortType), 1}}));
  // Ten: the first eight get a copy; a decision of eight counts under 0.
  Lb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20, 21, 22, 23, 24, 25, 26, 27, 28, 29}));
  EXPECT_EQ(Send(Udp(kPort, 40000, WLAN_LB_RADIUS_COA_PORT)), (V{20, 21, 22, 23, 24, 25, 26, 27}));
  EXPECT_EQ(last_[kStamp], kPortType);
  EXPECT_EQ(Counters()[0], 1u);
  EXPECT_EQ(Counters()[WlanCounterIndex(23, kPortType)], 0u);
  // No NAC vCPU at all: nothing decided, the default receiver.
  Lb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {}));
  EXPECT_EQ(Send(Udp(kPort, 40000, WLAN_LB_RADIUS_COA_PORT)), V{0});
}

TEST_F(WlanEndToEndTest, CapwapFragmentsFollowTheirFirstFragment) {
  CauseIds();
  Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 12}));
  EXPECT_EQ(Send(Fragment(0x77, true, 0)), V{12});
  // The entry changes its vCPU: the datagram under way keeps the old one.
  Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 9}));
  EXPECT_EQ(Send(Fragment(0x77, true, 3)), V{12});
  EXPECT_EQ(Send(Fragment(0x77, false, 6)), V{12});
  // Finished: a repeated last fragment has nowhere to go.
  EXPECT_EQ(Send(Fragment(0x77, false, 6)), V{0});
  // A new datagram follows the new vCPU; once the entry is deleted, the next
  // one has no vCPU and nothing is entered for its later fragments.
  EXPECT_EQ(Send(Fragment(0x78, true, 0)), V{9});
  EXPECT_EQ(Send(Fragment(0x78, false, 3)), V{9});
  Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 9}, WLAN_LB_OP_DELETE));
  EXPECT_EQ(Send(Fragment(0x79, true, 0)), V{0});
  EXPECT_EQ(Send(Fragment(0x79, false, 3)), V{0});
}

}  // namespace
}  // namespace vane::test
