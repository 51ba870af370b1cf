#include "support/frames.h"

namespace vane::test {

Bytes EcmFrame(uint32_t eth_num, uint8_t vcpu, const EcmFrameOptions& opt) {
  return PacketBuilder()
      .prefix(opt.word0, 0, eth_num)
      .ethernet(Mac(opt.dst), Mac("00:00:00:00:00:02"))
      .vlan(1)
      .ether_type(opt.ether_type)
      .bytes({0x0A, 0x0B, opt.inner2, vcpu})
      .payload(opt.payload)
      .build();
}

BYPASS_PKT_OFFSET_S TestRanges() {
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulMultiCoreEthNumMin = 20;
  cfg.ulMultiCoreEthNumMax = 29;
  cfg.ulEcmEthNum = 3;
  cfg.ulVpEthNumMin = 40;
  cfg.ulVpEthNumMax = 49;
  cfg.ulIsSupportMulticore = 1;
  return cfg;
}

Bytes CauseHead(uint16_t cause) {
  Bytes b(kCascadeHead, 0);
  b[18] = static_cast<uint8_t>(cause >> 5);
  b[19] = static_cast<uint8_t>((cause << 3) & 0xFF);
  return b;
}

BYPASS_PKT_OFFSET_S CascadeConfig() {
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  cfg.ulMacOffset = kCascadeHead;
  cfg.ulIsNoHgHdr = 1;
  cfg.ulVpEthType = kCascadeVpType;
  cfg.ulFirstFragFlagOffset = 14;
  cfg.ulVpInnerOffset = 16;
  cfg.ulVpFragInnerOffset = 16;
  return cfg;
}

namespace {

PacketBuilder CascadeHeadOf(uint16_t cause) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  return b;
}

}  // namespace

Bytes CascadeUdp(uint16_t cause, uint16_t sport, uint16_t dport, const Bytes& payload,
                 uint32_t src) {
  return CascadeHeadOf(cause)
      .ipv4({.src = src, .dst = Ipv4Addr("10.1.1.2")})
      .udp(sport, dport)
      .payload(payload)
      .build();
}

Bytes CascadeFragment(uint16_t cause, uint16_t id, bool mf, uint16_t off) {
  PacketBuilder b = CascadeHeadOf(cause);
  b.ipv4({.src = Ipv4Addr("10.1.1.1"),
          .dst = Ipv4Addr("10.1.1.2"),
          .protocol = off != 0 ? std::optional<uint8_t>(17) : std::nullopt,
          .id = id,
          .mf = mf,
          .frag_offset = off});
  if (off == 0) b.udp(5246, 5247);
  return b.payload(24).build();
}

Bytes CascadeVp(uint16_t cause, uint8_t vcpu, uint8_t mark, bool mf, uint16_t off) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
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

Bytes KeepAlivePayload(uint32_t flags, uint16_t elen, uint16_t type, uint16_t len) {
  Bytes b = {0x00, 0x10, 0x00, static_cast<uint8_t>(flags), 0, 0, 0, 0};  // HLEN 2 at bits 19-23
  b.push_back(static_cast<uint8_t>(elen >> 8));
  b.push_back(static_cast<uint8_t>(elen));
  b.push_back(static_cast<uint8_t>(type >> 8));
  b.push_back(static_cast<uint8_t>(type));
  b.push_back(static_cast<uint8_t>(len >> 8));
  b.push_back(static_cast<uint8_t>(len));
  for (uint8_t i = 1; i <= 16; ++i) b.push_back(i);
  return b;
}

}  // namespace vane::test
