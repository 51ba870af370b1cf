// The chip-header stage of the sample configuration against the real
// dispatcher: the module configured as tools/sample/wlc.yaml describes it,
// Ethernet frames of each kind of the sample network wrapped by the stage
// and handed to netlink_send_msg, and the worker each one reaches. (IP
// fragments are followed in the replay of the sample capture.)
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "drv_vane/netlink.h"
#include "host/sources/chip_header.h"
#include "sample_module.h"
#include "support/frames.h"
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

class SampleChipHeaderTest : public SampleModuleTest {
 protected:
  // Wraps the frame, sends it, and returns who got it.
  std::vector<uint32_t> Send(const Bytes& frame) {
    Bytes buf(host::kMaxDeliveryLen);
    uint32_t type = 0;
    const uint32_t n = stage_->Build(frame.data(), static_cast<uint32_t>(frame.size()), kEth,
                                     buf.data(), static_cast<uint32_t>(buf.size()), &type);
    EXPECT_GT(n, 0u);
    EXPECT_GT(netlink_send_msg(type, buf.data(), n), 0);
    return Drain();
  }
  using V = std::vector<uint32_t>;
};

TEST_F(SampleChipHeaderTest, CapwapGoesByAccessPointInBothTunnels) {
  EXPECT_EQ(Send(Udp("10.1.0.12", "10.0.0.1", 12222, 5246, Bytes(40, 0))), V{2});
  EXPECT_EQ(last_[kStamp], 1);  // control
  EXPECT_EQ(Send(Udp("10.1.0.13", "10.0.0.1", 12223, 5247, Bytes(60, 0))), V{1});
  EXPECT_EQ(last_[kStamp], 2);  // data
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
