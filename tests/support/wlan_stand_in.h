// Stand-ins for the WLAN tables in dispatch tests: a cause-ID table of one
// entry and table lookups that answer what the test set, recording the key
// each lookup was given.
#ifndef VANE_TESTS_SUPPORT_WLAN_STAND_IN_H
#define VANE_TESTS_SUPPORT_WLAN_STAND_IN_H

#include <cstdint>
#include <functional>
#include <vector>

#include "drv_vane/wlan_lb.h"

namespace vane::test {

struct WlanStandIn {
  // The one load-balanced cause ID and what the cause-ID table holds for it.
  uint16_t cause_id = 0;
  uint32_t lb_type = 0;
  u64 pkt_type = 0;
  // What a lookup of types 1-3 answers: its code and vCPU.
  uint32_t ret = 0;
  u64 vcpu = 0;
  // What the port lookup (type 4) writes.
  std::vector<uint8_t> port_vcpus;
  // Lookups made, and the last key of each kind.
  int lookups = 0;
  // Called after each lookup with the count so far, when set.
  std::function<void(int)> on_lookup;
  WLAN_LB_FIVE_TUPLE_S five{};
  WLAN_LB_SESSION_KEY_S session{};
  WLAN_LB_ACCESS_INFO_S access{};
  WLAN_LB_PORT_INFO_S port{};
};

// Installs `s` for the lifetime of this object (one at a time).
class ScopedWlanStandIn {
 public:
  explicit ScopedWlanStandIn(WlanStandIn* s);
  ~ScopedWlanStandIn();
  ScopedWlanStandIn(const ScopedWlanStandIn&) = delete;
  ScopedWlanStandIn& operator=(const ScopedWlanStandIn&) = delete;
};

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_WLAN_STAND_IN_H
