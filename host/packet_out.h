// The door every packet source goes through: the module's netlink_send_msg,
// with its results counted by code for the stats.
//
// Thread context: Deliver is called by every source thread at once; the
// counters are per-result atomics, so it takes no lock.
#ifndef VANE_HOST_PACKET_OUT_H
#define VANE_HOST_PACKET_OUT_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>

#include "source.h"

namespace vane::host {

class ModulePacketOut : public PacketOut {
 public:
  int Deliver(uint32_t type, uint8_t* buf, uint32_t len) override;

  // Counts by result: 0 for the successful ones, -errno for errors; any
  // code beyond -255 is counted under -256.
  std::map<int, uint64_t> Results() const;
  uint64_t delivered() const { return counts_[0].load(std::memory_order_relaxed); }

 private:
  static constexpr int kCodes = 257;
  std::array<std::atomic<uint64_t>, kCodes> counts_{};
};

}  // namespace vane::host

#endif  // VANE_HOST_PACKET_OUT_H
