// Packet delivery into the module; see packet_out.h.
#include "packet_out.h"

#include "drv_vane/netlink.h"

namespace vane::host {

int ModulePacketOut::Deliver(uint32_t type, uint8_t* buf, uint32_t len) {
  const int rc = netlink_send_msg(type, buf, len);
  const int slot = rc >= 0 ? 0 : (rc < -(kCodes - 1) ? kCodes - 1 : -rc);
  counts_[static_cast<size_t>(slot)].fetch_add(1, std::memory_order_relaxed);
  return rc;
}

std::map<int, uint64_t> ModulePacketOut::Results() const {
  std::map<int, uint64_t> out;
  for (int i = 0; i < kCodes; ++i) {
    const uint64_t n = counts_[static_cast<size_t>(i)].load(std::memory_order_relaxed);
    if (n != 0) out[-i] = n;
  }
  return out;
}

}  // namespace vane::host
