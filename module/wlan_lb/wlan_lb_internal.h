// Seams of the WLAN lookup inside the module.
#ifndef VANE_WLAN_LB_WLAN_LB_INTERNAL_H
#define VANE_WLAN_LB_WLAN_LB_INTERNAL_H

#include "drv_vane/wlan_lb.h"

namespace vane {

#ifndef __KERNEL__
// User backend only, for tests of the dispatch pipeline before the WLAN
// tables exist: each non-null entry answers in place of the cause-ID table
// or of one table lookup, with the signature of the function it replaces.
// The kernel build has neither the hooks nor their checks on the packet path.
struct WlanLbTestHooks {
  u32 (*is_need_lb)(u16 cause_id, u32* lb_type, u64* pkt_type);
  u32 (*capwap)(const WLAN_LB_FIVE_TUPLE_S* key, u64* vcpu);
  u32 (*capwap_ka)(const WLAN_LB_SESSION_KEY_S* key, u64* vcpu);
  u32 (*aaa_mac)(const WLAN_LB_ACCESS_INFO_S* key, u64* vcpu);
  u32 (*aaa_port)(const WLAN_LB_PORT_INFO_S* key, u32* vcpu_num, u8* vcpu_ids);
};
// Installs hooks (null: none). The hooks object must outlive its use; set it
// while no packet is in flight.
void wlan_lb_set_test_hooks(const WlanLbTestHooks* hooks);
const WlanLbTestHooks* wlan_lb_test_hooks();
#endif

}  // namespace vane

#endif  // VANE_WLAN_LB_WLAN_LB_INTERNAL_H
