// The chip-header stage on its own: the buffer it lays out, how rules match
// frames the sample rules do not exercise, frames cut short anywhere, and
// the messages for configuration mistakes.
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <cstring>
#include <memory>
#include <string>

#include "host/sources/chip_header.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

using host::ChipHeaderStage;

std::unique_ptr<ChipHeaderStage> Stage(const std::string& yaml, std::string* err = nullptr) {
  std::string e;
  auto s = ChipHeaderStage::FromYaml(YAML::Load(yaml), &e);
  if (err != nullptr) *err = e;
  EXPECT_TRUE(s != nullptr || err != nullptr) << e;
  return s;
}

struct Built {
  Bytes buf;
  uint32_t type = 0;
  uint32_t eth() const {
    uint32_t e = 0;
    std::memcpy(&e, buf.data() + 8, 4);
    return e;
  }
};

Built Wrap(const ChipHeaderStage& s, const Bytes& frame, std::optional<uint32_t> eth = {}) {
  Built b;
  b.buf.resize(host::kMaxDeliveryLen);
  const uint32_t n = s.Build(frame.data(), static_cast<uint32_t>(frame.size()), eth, b.buf.data(),
                             static_cast<uint32_t>(b.buf.size()), &b.type);
  b.buf.resize(n);
  return b;
}

// The cause ID at bytes 18..19 of the chip's bytes that start at `chip`.
uint16_t CauseAt(const Bytes& buf, size_t at) {
  return static_cast<uint16_t>(((buf[at] << 8) | buf[at + 1]) >> 3);
}

Bytes UdpFrame(uint16_t sport, uint16_t dport, const Bytes& payload = Bytes(16, 0)) {
  return PacketBuilder()
      .ethernet(Mac("00:00:00:00:00:01"), Mac("00:00:00:00:00:02"))
      .ipv4({.src = Ipv4Addr("192.0.2.1"), .dst = Ipv4Addr("198.51.100.7")})
      .udp(sport, dport)
      .payload(payload)
      .build();
}

TEST(ChipHeaderLayout, PrefixHiGig2CauseAndFrameWhereConfigured) {
  auto s = Stage(R"(
    higig2_offset: 4
    cause_id_offset: 8
    mac_offset: 32
    default: {cause_id: 0x1ABC, eth_num: 21, type: 3}
  )");
  const Bytes frame = UdpFrame(1, 2);
  Built b = Wrap(*s, frame);
  ASSERT_EQ(b.buf.size(), 12 + 32 + frame.size());
  EXPECT_EQ(b.type, 3u);
  EXPECT_EQ(b.eth(), 21u);
  EXPECT_EQ(b.buf[0] | b.buf[1] | b.buf[2] | b.buf[3] | b.buf[4] | b.buf[5] | b.buf[6] | b.buf[7],
            0);
  EXPECT_EQ(b.buf[12 + 4], 0xFB);
  EXPECT_EQ(b.buf[12 + 4 + 2], 0);   // left for the packet-type stamp
  EXPECT_EQ(b.buf[12 + 4 + 5], 21);  // source port
  EXPECT_EQ(CauseAt(b.buf, 12 + 8 + 18), 0x1ABC);
  EXPECT_EQ(b.buf[12 + 8 + 19] & 0x07, 0);
  EXPECT_TRUE(std::equal(frame.begin(), frame.end(), b.buf.begin() + 44));

  // A source's ethNum replaces the default's; the source module follows it.
  b = Wrap(*s, frame, 0x1234);
  EXPECT_EQ(b.eth(), 0x1234u);
  EXPECT_EQ(b.buf[12 + 4 + 4], 0x12);
  EXPECT_EQ(b.buf[12 + 4 + 5], 0x34);
}

TEST(ChipHeaderLayout, FramesLargerThanADeliveryBufferAreRefused) {
  auto s = Stage("mac_offset: 24");
  EXPECT_EQ(s->MaxFrame(), 10000u - 12 - 24);
  EXPECT_EQ(Wrap(*s, Bytes(s->MaxFrame(), 0)).buf.size(), 10000u);
  EXPECT_TRUE(Wrap(*s, Bytes(s->MaxFrame() + 1, 0)).buf.empty());
  EXPECT_TRUE(Wrap(*s, Bytes()).buf.empty());
  // Without chip bytes the frame may be as long as the buffer allows.
  auto raw = Stage("rules: [{match: {}, chip_bytes: false}]");
  EXPECT_EQ(Wrap(*raw, Bytes(9988, 0)).buf.size(), 10000u);
}

TEST(ChipHeaderRules, FirstMatchWinsAndUnsaidActionsComeFromTheDefault) {
  auto s = Stage(R"(
    default: {cause_id: 1, eth_num: 21, type: 2}
    rules:
      - {match: {ip_proto: udp, dport: [53, 5353]}, cause_id: 10}
      - {match: {ip_proto: udp}, cause_id: 11, eth_num: 22, type: 4}
  )");
  Built b = Wrap(*s, UdpFrame(9, 5353), 25);
  EXPECT_EQ(CauseAt(b.buf, 12 + 18), 10);
  EXPECT_EQ(b.eth(), 25u);
  EXPECT_EQ(b.type, 2u);
  b = Wrap(*s, UdpFrame(9, 54), 25);
  EXPECT_EQ(CauseAt(b.buf, 12 + 18), 11);
  EXPECT_EQ(b.eth(), 22u);
  EXPECT_EQ(b.type, 4u);
}

TEST(ChipHeaderRules, VlanEthertypeAddressesFragmentsAndPayload) {
  auto s = Stage(R"(
    rules:
      - {match: {vlan: 100, ethertype: 0x88F7}, cause_id: 1}
      - {match: {src: "2001:db8:1::/48", ip_proto: udp}, cause_id: 2}
      - {match: {dst: 198.51.100.0/24, fragment: true}, cause_id: 3}
      - {match: {ip_proto: udp, payload: {offset: 2, mask: 0xF0, value: 0x30}}, cause_id: 4}
      - {match: {ip_proto: icmp}, cause_id: 5}
  )");
  auto cause = [&](const Bytes& f) { return CauseAt(Wrap(*s, f).buf, 12 + 18); };
  const MacAddress a = Mac("00:00:00:00:00:01");
  // Outer tag 100, inner tag 7: the outer one counts; EtherType after both.
  EXPECT_EQ(cause(PacketBuilder()
                      .ethernet(a, a)
                      .vlan(100, 0x88A8)
                      .vlan(7)
                      .ether_type(0x88F7)
                      .payload(20)
                      .build()),
            1);
  EXPECT_EQ(
      cause(
          PacketBuilder().ethernet(a, a).vlan(7).vlan(100).ether_type(0x88F7).payload(20).build()),
      0);

  Ipv6Options v6{.src = Ipv6Addr("2001:db8:1:ffff::1"), .dst = Ipv6Addr("2001:db8::2")};
  EXPECT_EQ(
      cause(PacketBuilder().ethernet(a, a).ipv6(v6).hop_by_hop().udp(1, 2).payload(8).build()), 2);
  v6.src = Ipv6Addr("2001:db8:2::1");
  v6.next_header = 58;  // ICMPv6 is what "icmp" means on IPv6
  EXPECT_EQ(cause(PacketBuilder().ethernet(a, a).ipv6(v6).payload(Bytes{128, 0, 0, 0}).build()), 5);

  // A later fragment carries no ports: only the fragment rule can take it,
  // whatever its payload bytes look like.
  const Bytes later = PacketBuilder()
                          .ethernet(a, a)
                          .ipv4({.src = Ipv4Addr("192.0.2.1"),
                                 .dst = Ipv4Addr("198.51.100.7"),
                                 .protocol = 17,
                                 .frag_offset = 10})
                          .payload(Bytes(32, 0x30))
                          .build();
  EXPECT_EQ(cause(later), 3);
  EXPECT_EQ(cause(UdpFrame(1, 2, Bytes{0, 0, 0x3F, 0})), 4);
  EXPECT_EQ(cause(UdpFrame(1, 2, Bytes{0, 0, 0x4F, 0})), 0);
  // The payload byte lies past the frame's end: no match, no read.
  EXPECT_EQ(cause(UdpFrame(1, 2, Bytes{0, 0})), 0);
}

TEST(ChipHeaderRules, FramesCutAnywhereGetAnAnswerWithoutReadingPastTheirEnd) {
  auto s = Stage(R"(
    default: {cause_id: 9}
    rules:
      - {match: {vlan: 5, src: 10.0.0.0/8, ip_proto: tcp, dport: 80,
                 payload: {offset: 0, value: 0x47}}, cause_id: 1}
  )");
  const Bytes full = PacketBuilder()
                         .ethernet(Mac("00:00:00:00:00:01"), Mac("00:00:00:00:00:02"))
                         .vlan(5)
                         .ipv4({.src = Ipv4Addr("10.1.2.3"), .dst = Ipv4Addr("10.3.2.1")})
                         .tcp(4000, 80)
                         .payload(Bytes{0x47, 0x45, 0x54})
                         .build();
  const size_t kPayloadAt = 14 + 4 + 20 + 20;
  for (size_t len = 1; len <= full.size(); ++len) {
    // An exact-size copy, so that the sanitizer sees any read past it.
    const auto cut = std::make_unique<uint8_t[]>(len);
    std::memcpy(cut.get(), full.data(), len);
    Bytes out(host::kMaxDeliveryLen);
    uint32_t type = 0;
    const uint32_t n = s->Build(cut.get(), static_cast<uint32_t>(len), std::nullopt, out.data(),
                                static_cast<uint32_t>(out.size()), &type);
    ASSERT_EQ(n, 12 + 24 + len);
    // The rule needs every header and the payload's first byte, nothing more.
    EXPECT_EQ(CauseAt(out, 12 + 18), len > kPayloadAt ? 1 : 9) << len;
  }
}

TEST(ChipHeaderConfig, MistakesAreNamed) {
  const struct {
    const char* yaml;
    const char* says;
  } cases[] = {
      {"bogus: 1", "chip_header: unknown key 'bogus'"},
      {"mac_offset: 10", "runs into the frame"},
      {"{higig2_offset: 0, cause_id_offset: 0, mac_offset: 19}", "runs into the frame"},
      {"{higig2_offset: 18, cause_id_offset: 0, mac_offset: 40}", "inside the HiGig2 header"},
      {"mac_offset: 0x10000", "chip_header.mac_offset"},
      {"default: {cause_id: 8192}", "chip_header.default.cause_id: '8192'"},
      {"default: {type: 0}", "chip_header.default.type"},
      {"rules: {a: 1}", "chip_header.rules: expected a list"},
      {"rules: [{match: {dport: http}}]", "chip_header.rules[0].match.dport: 'http'"},
      {"rules: [{cause_id: 1}, {match: {sport: [1, 70000]}}]", "rules[1].match.sport[1]"},
      {"rules: [{match: {src: 10.0.0.300}}]", "'10.0.0.300' is not an IPv4 or IPv6 address"},
      {"rules: [{match: {dst: 10.0.0.0/33}}]", "bad prefix length"},
      {"rules: [{match: {ip_proto: sctpp}}]", "match.ip_proto"},
      {"rules: [{match: {fragment: maybe}}]", "expected true or false"},
      {"rules: [{match: {payload: {offset: 1}}}]", "needs offset and value"},
      {"rules: [{match: {payload: {offset: 1, mask: 0x0F, value: 0x10}}}]", "outside the mask"},
      {"rules: [{match: {ethertype: 0x806}, eth: 3}]", "rules[0]: unknown key 'eth'"},
      {"rules: [{match: {vlan: 4096}}]", "match.vlan"},
  };
  for (const auto& c : cases) {
    std::string err;
    EXPECT_EQ(Stage(c.yaml, &err), nullptr) << c.yaml;
    EXPECT_NE(err.find(c.says), std::string::npos) << c.yaml << " said: " << err;
  }
}

}  // namespace
}  // namespace vane::test
