// The bytes of a packet: what the parser reads of each header, the HiGig2
// header helpers, and the test packet builder against a capture worked out
// by hand (if it were wrong, every test built on it would be too; its IPv6
// chains are pinned by the parser's expectations).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <tuple>

#include "drv_vane/config.h"
#include "drv_vane/higig2.h"
#include "drv_vane/parser.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

// Results, the bits of the parsed-field map, and fragment positions.
constexpr u32 kOk = 0, kNotIp = 1, kNotUdpTcp = 3, kIpv4Short = 4, kEsp = 5, kOther = 6, kErr = 100;
constexpr u32 kBmpFrame = 0x7, kBmpMacs = 0x3, kBmpFrag = 0x8, kBmpId = 0x20;  // MACs, EtherType
constexpr u32 kBmpIpv4 = 0x13E0, kBmpIpv6 = 0xC00, kBmpL4 = 0x1300;  // addresses, id, ports
enum : u8 { kWhole = 0, kFirst = 1, kMiddle = 2, kLast = 3 };

struct Parsed {
  u32 rc;
  BYPASS_PKT_INFO_S info;
};

// Parses the first `len` bytes (all by default) from an allocation of exactly
// that size, so that a sanitizer build catches any read past the end.
Parsed Parse(const Bytes& pkt, u16 mac_off = 0, size_t len = SIZE_MAX) {
  len = std::min(len, pkt.size());
  std::unique_ptr<u8[]> buf(new u8[len]);
  std::copy_n(pkt.begin(), len, buf.get());
  Parsed out{};
  out.rc = bypass_parse_pkt_multicore(buf.get(), static_cast<u32>(len), &out.info, mac_off);
  return out;
}

PacketBuilder Eth() {
  return PacketBuilder().ethernet(Mac("0a:0b:0c:00:00:05"), Mac("00:00:03:00:06:00"));
}

Ipv4Options V4() { return {.src = Ipv4Addr("29.12.12.12"), .dst = Ipv4Addr("29.13.13.13")}; }
Ipv6Options V6() { return {.src = Ipv6Addr("1501::2"), .dst = Ipv6Addr("1501::1")}; }

TEST(ParserFrameTest, Ipv4UdpBehindAnOffset) {
  PacketBuilder b = PacketBuilder().filler(30, 0xEE);
  b.ethernet(Mac("0a:0b:0c:00:00:05"), Mac("00:00:03:00:06:00"))
      .ipv4({.src = Ipv4Addr("29.12.12.12"), .dst = Ipv4Addr("29.13.13.13"), .id = 0x1234})
      .udp(5246, 65534)
      .payload(10);
  const Parsed p = Parse(b.build(), 30);
  ASSERT_EQ(p.rc, kOk);
  EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame | kBmpIpv4 | kBmpFrag);
  EXPECT_EQ(0, std::memcmp(p.info.ucDstMac, Mac("0a:0b:0c:00:00:05").data(), 6));
  EXPECT_EQ(0, std::memcmp(p.info.ucSrcMac, Mac("00:00:03:00:06:00").data(), 6));
  const auto& i = p.info;
  EXPECT_EQ(std::make_tuple(i.usProtocolType, i.usDataLength, i.ulSrcIp, i.ulDstIp, i.ulId),
            std::make_tuple(u16{0x0800}, static_cast<u16>(b.size() - 30), 0x1D0C0C0Cu, 0x1D0D0D0Du,
                            0x1234u));
  EXPECT_EQ(std::make_tuple(i.usSrcPort, i.usDstPort, i.ucIsUdpPkt, i.ucIpFrag),
            std::make_tuple(u16{5246}, u16{65534}, u8{1}, u8{kWhole}));
  EXPECT_EQ(i.ulOffSetUdpLen, b.offset_of(Layer::kUdp));  // from the packet, not the frame
}

TEST(ParserFrameTest, VlanWalk) {
  struct Case {
    std::vector<uint16_t> tpids;
    u32 rc;
    u16 ether_type;
  };
  const Case cases[] = {
      {{0x8100, 0x8100}, kOk, 0x0800},
      {{0x9100, 0x8100}, kOk, 0x0800},
      {{0x8100, 0x8100, 0x8100, 0x8100}, kOk, 0x0800},
      // After four tags the fifth TPID is the EtherType.
      {{0x8100, 0x8100, 0x8100, 0x8100, 0x8100}, kNotIp, 0x8100},
      {{0x88A8}, kNotIp, 0x88A8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.tpids));
    PacketBuilder b = Eth();
    for (uint16_t tpid : c.tpids) b.vlan(29, tpid);
    b.ether_type(0x0800).ipv4(V4()).udp(1, 2);
    const Parsed p = Parse(b.build());
    EXPECT_EQ(p.rc, c.rc);
    EXPECT_EQ(p.info.usProtocolType, c.ether_type);
    if (c.rc == kOk) {
      EXPECT_EQ(p.info.ulOffSetUdpLen, b.offset_of(Layer::kUdp));
    }
  }
}

TEST(ParserFrameTest, ShortFramesAndMissingArguments) {
  const Bytes arp = Eth().ether_type(0x0806).payload(28).build();
  EXPECT_EQ(Parse(arp, 4, 28).rc, kNotIp);  // exactly offset + 24 passes

  Parsed p = Parse(arp, 4, 27);
  EXPECT_EQ(p.rc, kErr);
  EXPECT_EQ(p.info.ulBmpInfo, 0u);
  EXPECT_EQ(p.info.usDataLength, 0);

  // Three tags fill the 24 bytes; the next TPID-or-EtherType is not there.
  const Bytes tagged = Eth().vlan(1).vlan(2).vlan(3).ether_type(0x0800).build();
  p = Parse(tagged, 0, 24);
  EXPECT_EQ(p.rc, kErr);
  EXPECT_EQ(p.info.ulBmpInfo, kBmpMacs);

  p = Parse(Eth().ether_type(0x0800).payload(19, 0x45).build());
  EXPECT_EQ(p.rc, kErr);  // IPv4 header cut short
  EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame);

  BYPASS_PKT_INFO_S info{};
  u8 byte = 0;
  EXPECT_EQ(bypass_parse_pkt_multicore(nullptr, 64, &info, 0), kErr);
  EXPECT_EQ(bypass_parse_pkt_multicore(&byte, 1, nullptr, 0), kErr);
  EXPECT_EQ(bypass_parse_pkt_ipv4(nullptr, 64, &info, 0), kErr);
  EXPECT_EQ(bypass_parse_pkt_ipv6(nullptr, 64, &info, 0), kErr);
}

TEST(ParserIpv4Test, FragmentPosition) {
  struct Case {
    bool df, mf;
    uint16_t offset;
    u8 want;
  };
  for (const Case c :
       {Case{false, false, 0, kWhole}, Case{true, false, 0, 0}, Case{false, true, 0, kFirst},
        Case{false, true, 185, kMiddle}, Case{false, false, 185, kLast}}) {
    SCOPED_TRACE(::testing::Message() << c.df << c.mf << " " << c.offset);
    Ipv4Options o = V4();
    o.df = c.df;
    o.mf = c.mf;
    o.frag_offset = c.offset;
    const Parsed p = Parse(Eth().ipv4(o).tcp(80, 8080).build());
    EXPECT_EQ(p.rc, kOk);
    EXPECT_EQ(p.info.ucIpFrag, c.want);
    EXPECT_NE(p.info.ulBmpInfo & kBmpFrag, 0u);
    EXPECT_EQ(p.info.ucIsUdpPkt, 0);  // TCP
    EXPECT_EQ(p.info.usDstPort, 8080);
  }
}

TEST(ParserIpv4Test, HeaderLengthAndProtocol) {
  Ipv4Options o = V4();
  o.options = Bytes(4, 1);  // IHL 6: the ports move 4 bytes further
  PacketBuilder b = Eth().ipv4(o).udp(67, 68);
  Parsed p = Parse(b.build());
  EXPECT_EQ(p.rc, kOk);
  EXPECT_EQ(p.info.ulOffSetUdpLen, b.offset_of(Layer::kUdp));
  EXPECT_EQ(p.info.usSrcPort, 67);

  o = V4();
  o.protocol = 1;
  p = Parse(Eth().ipv4(o).icmp(8, 0).build());
  EXPECT_EQ(p.rc, kNotUdpTcp);
  EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame);

  // IHL 15 claims 60 bytes; the ports need 4 more.
  o = V4();
  o.options = Bytes(40, 1);
  const Bytes full = Eth().ipv4(o).udp(1, 2).build();
  p = Parse(full, 0, 14 + 60 + 3);
  EXPECT_EQ(p.rc, kIpv4Short);
  EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame);
  p = Parse(full, 0, 14 + 60 + 4);
  EXPECT_EQ(p.rc, kOk);
  EXPECT_EQ(p.info.usDstPort, 2);
}

TEST(ParserIpv6Test, UdpThroughExtensionHeaders) {
  struct Case {
    const char* name;
    PacketBuilder b;
  };
  Case cases[] = {
      {"plain", Eth().ipv6(V6())},
      {"hop-by-hop", Eth().ipv6(V6()).hop_by_hop(0)},
      {"chain", Eth().ipv6(V6()).hop_by_hop(1).routing(2).dest_opts(0).auth_header(4)},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.b.udp(546, 547).payload(4);
    const Parsed p = Parse(c.b.build());
    EXPECT_EQ(p.rc, kOk);
    EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame | kBmpIpv6 | kBmpL4 | kBmpFrag);
    EXPECT_EQ(p.info.ulOffSetUdpLen, c.b.offset_of(Layer::kUdp));
    EXPECT_EQ(p.info.usSrcPort, 546);
    EXPECT_EQ(p.info.usDstPort, 547);
    EXPECT_EQ(p.info.ucIsUdpPkt, 0);
    EXPECT_EQ(p.info.ucIpFrag, kWhole);
    EXPECT_EQ(0, std::memcmp(p.info.ip6_stSrcAddr, Ipv6Addr("1501::2").data(), 16));
    EXPECT_EQ(0, std::memcmp(p.info.ip6_stDstAddr, Ipv6Addr("1501::1").data(), 16));
  }
  EXPECT_EQ(cases[1].b.offset_of(Layer::kUdp) - cases[1].b.offset_of(Layer::kIpv6), 48u);
}

TEST(ParserIpv6Test, FragmentHeader) {
  struct Case {
    uint16_t offset;
    bool more;
    u8 want;
  };
  for (const Case c : {Case{0, true, kFirst}, Case{185, true, kMiddle}, Case{185, false, kLast}}) {
    SCOPED_TRACE(::testing::Message() << c.offset << (c.more ? " M" : ""));
    const Parsed p =
        Parse(Eth()
                  .ipv6(V6())
                  .ipv6_fragment({.frag_offset = 7, .more = true, .id = 1})
                  .ipv6_fragment({.frag_offset = c.offset, .more = c.more, .id = 0xA1B2C3D4})
                  .udp(1, 2)
                  .build());
    EXPECT_EQ(p.rc, kOk);
    EXPECT_EQ(p.info.ucIpFrag, c.want);  // the later header wins
    EXPECT_EQ(p.info.ulId, 0xA1B2C3D4u);
    EXPECT_NE(p.info.ulBmpInfo & kBmpId, 0u);
  }
}

TEST(ParserIpv6Test, OtherNextHeadersStopWithoutFragmentPosition) {
  struct Case {
    uint8_t nh;
    u32 rc;
  };
  for (const Case c : {Case{6, kOther}, Case{58, kOther}, Case{50, kEsp}}) {
    SCOPED_TRACE(c.nh);
    Ipv6Options o = V6();
    o.next_header = c.nh;
    const Parsed p = Parse(
        Eth().ipv6(V6()).ipv6_fragment({.more = true, .next_header = c.nh}).payload(20).build());
    EXPECT_EQ(p.rc, c.rc);
    EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame | kBmpIpv6 | kBmpId);
    EXPECT_EQ(Parse(Eth().ipv6(o).payload(20).build()).rc, c.rc);
  }
}

// The data may end anywhere inside the chain; the walk must stop there.
TEST(ParserIpv6Test, DataEndingInsideTheChain) {
  const Bytes pkt =
      Eth().ipv6(V6()).ipv6_fragment({.more = true, .id = 9}).hop_by_hop(1).udp(1, 2).build();
  const size_t ip = 14, frag = ip + 40, hbh = frag + 8, udp = hbh + 16;
  for (size_t len = 24; len < udp + 4; ++len) {
    SCOPED_TRACE(len);
    const Parsed p = Parse(pkt, 0, len);
    EXPECT_EQ(p.rc, kErr);
    if (len < frag) {
      EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame);  // addresses need the whole header
    } else if (len < hbh) {
      EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame | kBmpIpv6 | kBmpFrag);
      EXPECT_EQ(p.info.ucIpFrag, kWhole);
    } else {
      EXPECT_EQ(p.info.ulBmpInfo, kBmpFrame | kBmpIpv6 | kBmpId | kBmpFrag);
      EXPECT_EQ(p.info.ucIpFrag, kFirst);
    }
  }
  EXPECT_EQ(Parse(pkt, 0, udp + 4).rc, kOk);

  // Even a header we would not parse is an error when it would start at the end.
  Ipv6Options o = V6();
  o.next_header = 6;
  EXPECT_EQ(Parse(Eth().ipv6(o).build()).rc, kErr);
}

TEST(ParserMiscTest, DhcpFlag) {
  EXPECT_EQ(bypass_getDhcpFlag(67, 68), 1u);
  EXPECT_EQ(bypass_getDhcpFlag(68, 67), 3u);
  EXPECT_EQ(bypass_getDhcpFlag(547, 546), 2u);
  EXPECT_EQ(bypass_getDhcpFlag(546, 547), 3u);
}

class FirstFragMarkTest : public ::testing::Test {
 protected:
  void TearDown() override { bypass_pkt_offset.ulFirstFragFlagOffset = 0; }
};

TEST_F(FirstFragMarkTest, ReadsTheMarkOnlyInsideThePacket) {
  std::unique_ptr<u8[]> pkt(new u8[64]());
  pkt[50] = 0xABu;
  pkt[63] = 7;
  bypass_pkt_offset.ulFirstFragFlagOffset = 20;
  EXPECT_EQ(bypass_proc_check_is_first_ipfrag(pkt.get(), 64, 30), 0xABu);
  EXPECT_EQ(bypass_proc_check_is_first_ipfrag(pkt.get(), 64, 43), 7u);
  EXPECT_EQ(bypass_proc_check_is_first_ipfrag(pkt.get(), 64, 44), 0u);
  EXPECT_EQ(bypass_proc_check_is_first_ipfrag(nullptr, 64, 30), 100u);

  // The sum must not wrap back into the packet.
  bypass_pkt_offset.ulFirstFragFlagOffset = 0xFFFFFFFFu;
  EXPECT_EQ(bypass_proc_check_is_first_ipfrag(pkt.get(), 64, 51), 0u);
}

// Each known HiGig2 field is one byte (or three bits) of the header; unknown
// ids read 0 and write nothing; a missing header answers 100.
using Header = std::array<u8, 16>;

Header Ascending() {
  Header h;
  std::iota(h.begin(), h.end(), 0x10);  // every byte distinct and nonzero
  return h;
}

TEST(HiGig2Test, FieldsReadAndWriteTheirOwnBitsOnly) {
  for (const auto& [field, byte] : {std::pair<s32, size_t>{6, 4}, {9, 5}, {10, 3}, {14, 2}}) {
    Header h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), field), h[byte]) << field;
    bypass_higig2_field_set(h.data(), field, 0xC3);
    Header want = Ascending();
    want[byte] = 0xC3;
    EXPECT_EQ(h, want) << field;
  }
  // Field 7: the low three bits of byte 14, the rest of the byte kept.
  Header h{};
  h[14] = 0xFD;
  EXPECT_EQ(bypass_higig2_field_get(h.data(), 7), 5u);
  bypass_higig2_field_set(h.data(), 7, 0x0A);
  EXPECT_EQ(h[14], 0xFA);

  for (s32 field : {-1, 0, 5, 8, 11, 12, 13, 15, 0x7FFFFFFF}) {
    h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), field), 0u) << field;
    bypass_higig2_field_set(h.data(), field, 0xEE);
    EXPECT_EQ(h, Ascending()) << field;
  }
  for (s32 field : {0, 6, 7, 8, 14, 15}) EXPECT_EQ(bypass_higig2_field_get(nullptr, field), 100u);
  bypass_higig2_field_set(nullptr, 14, 1);  // must not crash
}

TEST(HiGig2Test, SwapReversesInPlaceAndDecodeFillsOnlyTheTwoByteFields) {
  Header h;
  std::iota(h.begin(), h.end(), 0);
  EXPECT_EQ(bypass_swapHgHdrOrder(h.data(), h.size()), 0u);
  for (size_t i = 0; i < h.size(); ++i) EXPECT_EQ(h[i], 15 - i);
  std::array<u8, 3> odd{0x0A, 0x0B, 0x0C};
  EXPECT_EQ(bypass_swapHgHdrOrder(odd.data(), odd.size()), 0u);
  EXPECT_EQ(odd, (std::array<u8, 3>{0x0C, 0x0B, 0x0A}));
  u8 one = 0x42;
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 1), 0u);
  EXPECT_EQ(one, 0x42);
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 0), 100u);
  EXPECT_EQ(bypass_swapHgHdrOrder(nullptr, 16), 100u);

  h = Header{};
  h[2] = 0x81;
  h[3] = 0x07;
  BYPASS_HG_DECODE_S d;
  std::memset(&d, 0x5A, sizeof(d));
  EXPECT_EQ(bypass_higDecode(h.data(), &d), 0u);
  EXPECT_EQ(d.usHgByte2, 129);
  EXPECT_EQ(d.usHgByte3, 7);
  for (u8 b : d.aucCaller) EXPECT_EQ(b, 0x5A);
  EXPECT_EQ(bypass_higDecode(nullptr, &d), 100u);
  EXPECT_EQ(bypass_higDecode(h.data(), nullptr), 100u);
}

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
