// The test packet builder against a capture worked out by hand: if the
// builder were wrong, every parser and dispatch test built on it would be
// too. (Its IPv6 chains are pinned by the parser's expectations.)
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

}  // namespace
}  // namespace vane::test
