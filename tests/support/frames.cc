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

}  // namespace vane::test
