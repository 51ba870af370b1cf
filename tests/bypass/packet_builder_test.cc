// Sanity checks of the test packet builder against independently known bytes:
// if the builder is wrong, every parser and dispatch test built on it is too.
#include "support/packet_builder.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vane::test {
namespace {

uint16_t Be16(const Bytes& b, size_t at) { return static_cast<uint16_t>(b[at] << 8 | b[at + 1]); }

TEST(PacketBuilderTest, Ipv4FragmentMatchesAKnownCapture) {
  // The expected bytes, checksum 0x276A included, were worked out by hand,
  // not with the builder.
  PacketBuilder b;
  b.prefix(0, 158, 1)
      .higig2()
      .hg_byte(0, 0xFB)
      .filler(34)
      .ethernet(Mac("02:00:00:00:00:00"), Mac("00:00:03:00:06:00"))
      .vlan(29)
      .ipv4({.src = Ipv4Addr("29.12.12.12"), .dst = Ipv4Addr("29.13.13.13"), .ttl = 32, .mf = true})
      .udp(5246, 65534)
      .payload(50)
      .payload({0x30, 0x0A, 0x81, 0x1A})
      .trailer({0xEE, 0xEE});
  const Bytes pkt = b.build();

  ASSERT_EQ(pkt.size(), 164u);
  uint32_t word1 = 0, eth_num = 0;
  std::memcpy(&word1, &pkt[4], 4);
  std::memcpy(&eth_num, &pkt[8], 4);
  EXPECT_EQ(word1, 158u);
  EXPECT_EQ(eth_num, 1u);
  EXPECT_EQ(pkt[12], 0xFB);
  EXPECT_EQ(b.offset_of(Layer::kEthernet), 62u);
  EXPECT_EQ(Be16(pkt, 74), 0x8100);
  EXPECT_EQ(Be16(pkt, 76), 29);
  EXPECT_EQ(Be16(pkt, 78), 0x0800);  // added for ipv4()
  const Bytes ip_hdr(pkt.begin() + 80, pkt.begin() + 100);
  EXPECT_EQ(ip_hdr, (Bytes{0x45, 0x00, 0x00, 0x52, 0x00, 0x00, 0x20, 0x00, 0x20, 0x11,
                           0x27, 0x6A, 0x1D, 0x0C, 0x0C, 0x0C, 0x1D, 0x0D, 0x0D, 0x0D}));
  EXPECT_EQ(Be16(pkt, 104), 62);  // UDP length: the trailer is not counted
  EXPECT_EQ(pkt[158], 0x30);
  EXPECT_EQ(b.offset_of(Layer::kTrailer), 162u);
}

TEST(PacketBuilderTest, Ipv6ChainNamesEachNextHeader) {
  PacketBuilder b;
  b.ethernet(Mac("00:00:00:00:00:01"), Mac("00:00:00:00:00:02"))
      .ipv6({.src = Ipv6Addr("1501::2"), .dst = Ipv6Addr("1501::1")})
      .hop_by_hop(1)
      .ipv6_fragment({.frag_offset = 185, .more = true, .id = 0x01020304})
      .auth_header(1)
      .tcp(23, 49153);
  const Bytes pkt = b.build();
  const size_t ip = b.offset_of(Layer::kIpv6);
  EXPECT_EQ(Be16(pkt, ip - 2), 0x86DD);
  EXPECT_EQ(Be16(pkt, ip + 4), 16 + 8 + 12 + 20);  // payload length
  EXPECT_EQ(pkt[ip + 6], 0);                       // hop-by-hop
  EXPECT_EQ(pkt[ip + 23], 2);                      // ...::2
  EXPECT_EQ(pkt[b.offset_of(Layer::kIpv6Ext, 0)], 44);
  const size_t frag = b.offset_of(Layer::kIpv6Ext, 1);
  EXPECT_EQ(pkt[frag], 51);
  EXPECT_EQ(Be16(pkt, frag + 2), 185 * 8 + 1);
  EXPECT_EQ(pkt[b.offset_of(Layer::kIpv6Ext, 2)], 6);
  EXPECT_EQ(b.offset_of(Layer::kTcp) - frag, 8u + 12u);
}

TEST(PacketBuilderTest, IcmpChecksumVerifiesAndBadTextIsRejected) {
  PacketBuilder b;
  b.ethernet({}, {}).ipv4({}).icmp(8, 0, 0x00010002).payload(5, 0xA5);
  const Bytes pkt = b.build();
  const size_t icmp = b.offset_of(Layer::kIcmp);
  EXPECT_EQ(pkt[b.offset_of(Layer::kIpv4) + 9], 1);
  EXPECT_EQ(InternetChecksum(&pkt[icmp], pkt.size() - icmp), 0);  // odd length too
  EXPECT_EQ(InternetChecksum(&pkt[14], 20), 0);

  EXPECT_THROW(Mac("0a:0b:0c:00:00"), std::invalid_argument);
  EXPECT_THROW(Ipv4Addr("1.2.3"), std::invalid_argument);
  EXPECT_THROW(Ipv6Addr("1501:::2"), std::invalid_argument);
  EXPECT_THROW(PacketBuilder().hg_byte(0, 1), std::invalid_argument);
}

}  // namespace
}  // namespace vane::test
