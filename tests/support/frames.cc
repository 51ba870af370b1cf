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

}  // namespace vane::test
