// The chip-header stage of the sample configuration against the real
// dispatcher: the module configured as tools/sample/wlc.yaml describes it,
// Ethernet frames of each kind of the sample network wrapped by the stage
// and handed to netlink_send_msg, and the worker each one reaches. (The
// sample capture as a whole is played by the main job's short run.)
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config.h"
#include "core_sink.h"
#include "drv_vane/netlink.h"
#include "host/sources/chip_header.h"
#include "plan.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

constexpr uint32_t kEth = 21;
// The packet-type stamp: HiGig2 byte 2, the header starting the packet.
constexpr size_t kStamp = 12 + 2;
const MacAddress kApMac = Mac("00:1a:1e:00:00:0b");
const MacAddress kWlcMac = Mac("00:16:3e:00:00:01");

Bytes Udp(const char* src, const char* dst, uint16_t sport, uint16_t dport, const Bytes& payload,
          const MacAddress& smac = kApMac) {
  return PacketBuilder()
      .ethernet(kWlcMac, smac)
      .ipv4({.src = Ipv4Addr(src), .dst = Ipv4Addr(dst)})
      .udp(sport, dport)
      .payload(payload)
      .build();
}

// A keep-alive carrying `session` (16 bytes) in its session-ID element.
Bytes KeepAlive(const Bytes& session) {
  Bytes p = KeepAlivePayload();
  std::copy(session.begin(), session.end(), p.end() - 16);
  return p;
}

// Who received a packet: a vCPU 1..7, or one of these.
constexpr uint32_t kNormalDefault = 0;
constexpr uint32_t kFastDefault = 100;

class SampleChipHeaderTest : public ModuleTest {
 protected:
  // The sample file itself, applied as vanectl applies it, so that the suite
  // tests the configuration the main job runs; a worker for each of its
  // vCPUs, and default receivers on both channels.
  void SetUp() override {
    ModuleTest::SetUp();
    std::string err;
    stage_ = host::ChipHeaderStage::FromYaml(
        YAML::LoadFile(VANE_SAMPLE_CONFIG)["vaned"]["chip_header"], &err);
    ASSERT_NE(stage_, nullptr) << err;
    ASSERT_EQ(workers_[kNormalDefault].Register(kNormal, 0), 0);
    ASSERT_EQ(workers_[kNormalDefault].Register(kFast, 0, kFast), 0);
    for (uint32_t v = 1; v <= 7; ++v) ASSERT_EQ(workers_[v].Register(kNormal, v), 0);
    vanectl::test::CoreSink sink(6999);
    const vane_endpoint ep = sink.Endpoint();
    vane_ctl* ctl = nullptr;
    ASSERT_EQ(vane_ctl_open(&ep, &ctl), 0);
    const int rc = vanectl::ApplyConfig(vanectl::LoadConfig(VANE_SAMPLE_CONFIG), ctl);
    vane_ctl_close(ctl);
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(sink.failures(), 0u) << "first error " << sink.first_error();
  }
  void TearDown() override {
    workers_.clear();
    ModuleTest::TearDown();
  }

  // Wraps the frame, sends it, and returns who got it, in receiver order;
  // the last one's data is kept in last_.
  std::vector<uint32_t> Send(const Bytes& frame) {
    Bytes buf(host::kMaxDeliveryLen);
    uint32_t type = 0;
    const uint32_t n = stage_->Build(frame.data(), static_cast<uint32_t>(frame.size()), kEth,
                                     buf.data(), static_cast<uint32_t>(buf.size()), &type);
    EXPECT_GT(n, 0u);
    EXPECT_GT(netlink_send_msg(type, buf.data(), n), 0);
    std::vector<uint32_t> got;
    for (auto& [who, w] : workers_) {
      for (int ch : {kNormal, kFast}) {
        for (; w.Pending(ch) != 0; got.push_back(ch == kFast ? kFastDefault : who)) {
          last_ = w.Next(ch)->data;
        }
      }
    }
    return got;
  }
  using V = std::vector<uint32_t>;

  std::unique_ptr<host::ChipHeaderStage> stage_;
  std::map<uint32_t, Worker> workers_;
  Bytes last_;
};

TEST_F(SampleChipHeaderTest, CapwapGoesByAccessPointInBothTunnels) {
  EXPECT_EQ(Send(Udp("10.1.0.12", "10.0.0.1", 12222, 5246, Bytes(40, 0))), V{2});
  EXPECT_EQ(last_[kStamp], 1);  // control
  EXPECT_EQ(Send(Udp("10.1.0.13", "10.0.0.1", 12223, 5247, Bytes(60, 0))), V{1});
  EXPECT_EQ(last_[kStamp], 2);  // data
  // A datagram in fragments: the first goes by its ports, the later ones,
  // which carry none, by the fragment rule and the fragment it follows.
  Ipv4Options ip{.src = Ipv4Addr("10.1.0.12"), .dst = Ipv4Addr("10.0.0.1"), .id = 77, .mf = true};
  EXPECT_EQ(
      Send(PacketBuilder().ethernet(kWlcMac, kApMac).ipv4(ip).udp(12223, 5247).payload(40).build()),
      V{2});
  ip = {.src = ip.src, .dst = ip.dst, .protocol = 17, .id = 77, .frag_offset = 6};
  EXPECT_EQ(
      Send(PacketBuilder().ethernet(kWlcMac, kApMac).ipv4(ip).payload(Bytes(30, 0x30)).build()),
      V{2});
  // An access point the file does not name has no tunnel.
  EXPECT_EQ(Send(Udp("10.1.0.99", "10.0.0.1", 12222, 5246, Bytes(40, 0))), V{kNormalDefault});
}

TEST_F(SampleChipHeaderTest, KeepAlivesGoBySessionNotByTunnel) {
  // From AP .11 (whose tunnels are on vCPU 1), carrying AP .12's session.
  const Bytes session = {0x0a, 0x01, 0x00, 0x0c, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
  EXPECT_EQ(Send(Udp("10.1.0.11", "10.0.0.1", 12223, 5247, KeepAlive(session))), V{2});
  EXPECT_EQ(last_[kStamp], 3);
}

TEST_F(SampleChipHeaderTest, AaaTrafficReachesItsWorkers) {
  EXPECT_EQ(Send(Udp("10.0.0.1", "10.0.0.2", 40000, 1812, Bytes(40, 1))), V{3});
  EXPECT_EQ(last_[kStamp], 4);
  EXPECT_EQ(Send(Udp("10.0.0.1", "10.0.0.2", 40001, 1813, Bytes(40, 1))), V{4});
  // CoA goes to every NAC worker.
  EXPECT_EQ(Send(Udp("10.0.0.2", "10.0.0.1", 50000, 3799, Bytes(40, 1))), (V{3, 4}));
  EXPECT_EQ(last_[kStamp], 5);
  EXPECT_EQ(Send(Udp("10.0.0.3", "10.0.0.1", 40002, 2000, Bytes(40, 1))), V{5});
  EXPECT_EQ(last_[kStamp], 6);
}

TEST_F(SampleChipHeaderTest, DhcpIsSpreadByClientMacAndStaysPut) {
  std::set<uint32_t> seen;
  for (uint8_t c = 1; c <= 16; ++c) {
    const MacAddress client = {0x02, 0x00, 0x00, 0x00, 0x00, c};
    const Bytes discover = Udp("0.0.0.0", "255.255.255.255", 68, 67, Bytes(240, 0), client);
    const V first = Send(discover);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_TRUE(first[0] == 3 || first[0] == 4) << first[0];
    EXPECT_EQ(last_[kStamp], 7);
    EXPECT_EQ(Send(discover), first);
    seen.insert(first[0]);
  }
  EXPECT_EQ(seen, (std::set<uint32_t>{3, 4}));
}

TEST_F(SampleChipHeaderTest, SteeredTimingInternalAndIcmpTraffic) {
  const Bytes arp = PacketBuilder()
                        .ethernet(Mac("ff:ff:ff:ff:ff:ff"), kApMac)
                        .ether_type(0x0806)
                        .payload(28, 1)
                        .build();
  EXPECT_EQ(Send(arp), V{7});
  EXPECT_EQ(Send(Udp("10.0.0.9", "10.0.0.1", 319, 319, Bytes(44, 0))), V{6});

  // An ECM frame on the ECM interface, without chip bytes: its vCPU byte.
  const Bytes ecm = PacketBuilder()
                        .ethernet(Mac("0a:0b:0b:00:00:01"), Mac("00:00:00:00:00:02"))
                        .vlan(1)
                        .ether_type(0x06A4)
                        .bytes({0x0A, 0x0B, 0x0C, 5})
                        .payload(30)
                        .build();
  EXPECT_EQ(Send(ecm), V{5});
  EXPECT_EQ(Counters()[128 + 5], 1u);

  const Bytes ping = PacketBuilder()
                         .ethernet(kWlcMac, kApMac)
                         .ipv4({.src = Ipv4Addr("10.1.0.11"), .dst = Ipv4Addr("10.0.0.1")})
                         .icmp(8, 0, 0x00010001)
                         .payload(32)
                         .build();
  // Echo comes in bare, the Ethernet header first, which is where the
  // delivery looks for what it sends down the fast channel.
  EXPECT_EQ(Send(ping), V{kFastDefault});
  EXPECT_EQ(last_.size(), 12 + ping.size());
}

}  // namespace
}  // namespace vane::test
