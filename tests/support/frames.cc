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
