// Ethernet facts shared by the parser, the ICMP test and the dispatch tests.
#ifndef VANE_BASE_ETHER_H
#define VANE_BASE_ETHER_H

#include "kport/types.h"

namespace vane {

// A VLAN tag's TPID: 0x8100, and 0x9100 (bit 0x1000 set) alike.
constexpr bool is_vlan_tpid(u16 v) { return (v & 0xEFFF) == 0x8100; }
static_assert(is_vlan_tpid(0x8100) && is_vlan_tpid(0x9100) && !is_vlan_tpid(0x88A8), "");

}  // namespace vane

#endif  // VANE_BASE_ETHER_H
