// ICMP echo recognition and the EtherType tests of the board's internal
// packet kinds. Pure functions of the packet and the configuration record.
#include "base/atomic.h"
#include "base/bytes.h"
#include "base/ether.h"
#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "kport/errno.h"

namespace vane {
namespace {

constexpr u32 kEthOffset = 12;  // the Ethernet header follows the delivery prefix
constexpr u16 kEthTypeIpv4 = 0x0800;
constexpr u8 kIpProtoIcmp = 1;
constexpr u8 kIcmpEchoReply = 0;
constexpr u8 kIcmpEchoRequest = 8;

// The fixed VP EtherTypes of the board without ECM.
bool is_fixed_vp_ethertype(u32 v) { return v == 0x5102 || (v >= 0x5107 && v <= 0x510D); }

u32 ethertype_of(const u8* eth, u8 untagged) { return load_be16(eth + (untagged ? 12 : 16)); }

u32 slot(const u32* field) { return load_relaxed(field); }

}  // namespace
}  // namespace vane

extern "C" int netlink_filter_icmp_pkt(u8* pucBuf, u32 ulLen) {
  using namespace vane;
  if (pucBuf == nullptr) return 0;
  ByteView pkt(pucBuf, ulLen);
  u32 type_at = kEthOffset + 12;
  u16 v = 0;
  if (!pkt.be16(type_at, &v)) return 0;
  if (is_vlan_tpid(v)) {
    type_at += 4;
    if (!pkt.be16(type_at, &v)) return 0;
    if (is_vlan_tpid(v)) {
      type_at += 4;
      if (!pkt.be16(type_at, &v)) return 0;
    }
  }
  if (v != kEthTypeIpv4) return 0;
  const u32 ip = type_at + 2;
  u8 ver_ihl = 0;
  u8 proto = 0;
  if (!pkt.u8_at(ip, &ver_ihl) || !pkt.u8_at(ip + 9, &proto) || proto != kIpProtoIcmp) return 0;
  u8 icmp_type = 0;
  if (!pkt.u8_at(ip + 4u * (ver_ihl & 0x0F), &icmp_type)) return 0;
  return icmp_type == kIcmpEchoReply || icmp_type == kIcmpEchoRequest ? 1 : 0;
}

extern "C" int netlink_check_if_data_ipc(u8* pucEthHdr, u8 ucUntagged) {
  if (pucEthHdr == nullptr) return -KPORT_EINVAL;
  return vane::ethertype_of(pucEthHdr, ucUntagged) == vane::slot(&bypass_pkt_offset.ulIpcEthType)
             ? 0
             : -KPORT_EINVAL;
}

extern "C" int netlink_check_if_data_vp(u8* pucEthHdr, u8 ucUntagged) {
  if (pucEthHdr == nullptr) return -KPORT_EINVAL;
  const u32 v = vane::ethertype_of(pucEthHdr, ucUntagged);
  if (bypass_get_boardType() == BYPASS_BOARD_TYPE_NO_ECM) {
    return vane::is_fixed_vp_ethertype(v) ? 0 : -KPORT_EINVAL;
  }
  return v == vane::slot(&bypass_pkt_offset.ulVpEthType) ? 0 : -KPORT_EINVAL;
}

extern "C" int netlink_check_if_data_ecm_vcpu(u8* pucEthHdr, u8 ucUntagged) {
  if (pucEthHdr == nullptr || bypass_get_boardType() == BYPASS_BOARD_TYPE_NO_ECM) {
    return -KPORT_EINVAL;
  }
  return vane::ethertype_of(pucEthHdr, ucUntagged) ==
                 vane::slot(&bypass_pkt_offset.ulEcmVcpuEthType)
             ? 0
             : -KPORT_EINVAL;
}
