// The AAA lookups over the Portal, RADIUS CoA, socket-port and NAC tables:
// the UDP and TCP port rules, the destination-port range, the MAC hash and
// its slots, NAC lists longer than their 16 slots, and a NAC reload that
// cannot get memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

constexpr u8 kUntouched = 0xEE;

struct PortResult {
  u32 ret;
  u32 num;
  std::vector<u8> ids;  // all 8 slots
};

PortResult Port(u32 sport, u32 dport, u8 udp) {
  WLAN_LB_PORT_INFO_S key{};
  key.sport = sport;
  key.dport = dport;
  key.ucUDPFlag = udp;
  PortResult r{0, 99, std::vector<u8>(WLAN_LB_VCPU_IDS_MAX, kUntouched)};
  r.ret = WLAN_LB_GetAAAPortVcpuID(&key, &r.num, r.ids.data());
  return r;
}

void LoadNac(const std::vector<u32>& ids, u16 count, u32 capacity = 64) {
  WLAN_LB_InitAAAAccessVcpuIDList(ids.data(), capacity, count);
}

std::vector<u32> Ids(u32 first, u32 n) {
  std::vector<u32> v(WLAN_LB_NAC_MAX, 0);
  for (u32 i = 0; i < n && i < WLAN_LB_NAC_MAX; ++i) v[i] = first + i;
  return v;
}

u64 MacVcpu(const u8 (&mac)[6], u32* ret) {
  WLAN_LB_ACCESS_INFO_S key{};
  std::copy(mac, mac + 6, key.smac);
  u64 vcpu = 77;
  *ret = WLAN_LB_GetAAAAccessVcpuID(&key, &vcpu);
  return vcpu;
}

constexpr u8 kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

class AaaTest : public ModuleTest {};

TEST_F(AaaTest, UdpPortalThenCoaThenDestinationEntry) {
  // Nothing set: every entry's port is 0, so destination port 0 is Portal.
  PortResult r = Port(1, 0, 1);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 1u);
  EXPECT_EQ(r.ids[0], 0);

  // The reserved word after port and process is not the module's to write.
  g_stPortalPktDistribute.ulReserved = 0xA5A5A5A5;
  EXPECT_EQ(WLAN_LB_SetAAAPortalDistributeTbl(8080, 0x10C), WLAN_LB_OK);
  EXPECT_EQ(g_stPortalPktDistribute.ulReserved, 0xA5A5A5A5u);
  WLAN_LB_InitRdsCOADistributeTbl();
  LoadNac(Ids(1, 10), 10);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(8080, 0, 9, 0, 0), WLAN_LB_OK);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(3799, 0, 9, 0, 0), WLAN_LB_OK);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(5000, 0, 300, 0, 0), WLAN_LB_OK);

  r = Port(1, 8080, 1);  // Portal beats the destination entry
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 1u);
  EXPECT_EQ(r.ids[0], 0x0C);

  r = Port(1, WLAN_LB_RADIUS_COA_PORT, 1);  // CoA: the first 8 NAC ids
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 8u);
  EXPECT_EQ(r.ids, (std::vector<u8>{1, 2, 3, 4, 5, 6, 7, 8}));

  r = Port(1, 5000, 1);  // destination entry: result 1, low byte
  EXPECT_EQ(r.ret, WLAN_LB_ERR);
  EXPECT_EQ(r.num, 1u);
  EXPECT_EQ(r.ids[0], 44);

  // A port that does not fit 16 bits matches no table.
  r = Port(1, 0x10000 + 5000, 1);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.ids[0], 0);

  // The second CoA entry, and an index that does not exist.
  EXPECT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1700, 5, 1), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1800, 5, 2), WLAN_LB_ERR);
  EXPECT_EQ(Port(1, 1700, 1).num, 8u);
  EXPECT_EQ(Port(1, WLAN_LB_RADIUS_COA_PORT, 1).num, 8u);
  EXPECT_EQ(Port(1, 1800, 1).num, 1u);

  // Three NAC ids: three vCPUs in list order; none: a count of 0.
  LoadNac({30, 20, 10}, 3);
  r = Port(1, WLAN_LB_RADIUS_COA_PORT, 1);
  EXPECT_EQ(r.num, 3u);
  EXPECT_EQ(r.ids, (std::vector<u8>{30, 20, 10, kUntouched, kUntouched, kUntouched, kUntouched,
                                    kUntouched}));
  LoadNac({0}, 0);
  r = Port(1, WLAN_LB_RADIUS_COA_PORT, 1);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 0u);
  EXPECT_EQ(r.ids[0], kUntouched);

  WLAN_LB_PORT_INFO_S key{};
  u32 num = 0;
  u8 ids[8] = {};
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(nullptr, &num, ids), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(&key, nullptr, ids), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(&key, &num, nullptr), WLAN_LB_ERR);
}

TEST_F(AaaTest, UdpSourcePortSpreadsByDestinationRange) {
  // Without a source-port entry: vCPU 0.
  PortResult r = Port(2000, 55536, 1);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.ids[0], 0);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 0, 0, 1, 1), WLAN_LB_OK);
  struct Case {
    u32 dport;
    u8 vcpu;
  };
  for (Case c : {Case{55536, 1}, Case{55691, 1}, Case{55692, 2}, Case{65519, 64}, Case{65520, 65},
                 Case{65535, 65}}) {
    r = Port(2000, c.dport, 1);
    EXPECT_EQ(r.ret, WLAN_LB_OK) << c.dport;
    EXPECT_EQ(r.num, 1u);
    EXPECT_EQ(r.ids[0], c.vcpu) << c.dport;
  }
  for (u32 dport : {55535u, 65536u, 0x10000u + 55536}) {
    r = Port(2000, dport, 1);
    EXPECT_EQ(r.ret, WLAN_LB_ERR) << dport;
    EXPECT_EQ(r.num, 1u);
    EXPECT_EQ(r.ids[0], kUntouched) << dport;
  }
  // A source-port entry of the TCP list does not count for UDP.
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2001, 1, 0, 1, 0), WLAN_LB_OK);
  EXPECT_EQ(Port(2001, 55536, 1).ids[0], 0);
}

TEST_F(AaaTest, TcpUsesOnlyItsSourcePortEntries) {
  EXPECT_EQ(WLAN_LB_SetAAAPortalDistributeTbl(55536, 9), WLAN_LB_OK);
  WLAN_LB_InitRdsCOADistributeTbl();
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(55692, 1, 9, 0, 0), WLAN_LB_OK);
  PortResult r = Port(2000, 55536, 0);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 1u);
  EXPECT_EQ(r.ids[0], 0);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 0, 0, 1, 0), WLAN_LB_OK);  // UDP only
  EXPECT_EQ(Port(2000, 55536, 0).ids[0], 0);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 1, 0, 1, 0), WLAN_LB_OK);
  EXPECT_EQ(Port(2000, 55536, 0).ids[0], 1);
  EXPECT_EQ(Port(2000, 55692, 0).ids[0], 2);
  // Any flag but 1 is TCP.
  EXPECT_EQ(Port(2000, 65535, 2).ids[0], 65);
  // Outside the range: still result 0, nothing written.
  r = Port(2000, WLAN_LB_RADIUS_COA_PORT, 0);
  EXPECT_EQ(r.ret, WLAN_LB_OK);
  EXPECT_EQ(r.num, 1u);
  EXPECT_EQ(r.ids[0], kUntouched);
}

TEST_F(AaaTest, MacHashPicksTheDjb2Slot) {
  u32 ret = 0;
  EXPECT_EQ(MacVcpu(kMac, &ret), 0u);  // empty list
  EXPECT_EQ(ret, WLAN_LB_ERR);
  LoadNac(Ids(100, 5), 5);  // 0x09262C44 mod 5 = 4
  EXPECT_EQ(MacVcpu(kMac, &ret), 104u);
  EXPECT_EQ(ret, WLAN_LB_OK);
  LoadNac(Ids(100, 9), 9);  // mod 9 = 6
  EXPECT_EQ(MacVcpu(kMac, &ret), 106u);

  // Lengths: 6 to 128 hash, 5 and 129 do not.
  std::vector<u8> bytes(129, 0);
  u64 vcpu = 77;
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 5, &vcpu), WLAN_LB_ERR);
  EXPECT_EQ(vcpu, 0u);
  vcpu = 77;
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 129, &vcpu), WLAN_LB_ERR);
  EXPECT_EQ(vcpu, 0u);
  for (u32 i = 0; i < 128; ++i) bytes[i] = static_cast<u8>(i);
  LoadNac(Ids(200, 7), 7);  // the 128 bytes 0..127 hash to slot 1 of 7
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 128, &vcpu), WLAN_LB_OK);
  EXPECT_EQ(vcpu, 201u);
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(nullptr, 6, &vcpu), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 6, nullptr), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetAAAAccessVcpuID(nullptr, &vcpu), WLAN_LB_ERR);
  EXPECT_EQ(vcpu, 0u);
}

TEST_F(AaaTest, NacCountAboveSixteenKeepsReadersInTheSlots) {
  std::vector<u32> ids = Ids(1, 16);
  LoadNac(ids, 20);
  {
    kport::RcuReadGuard rcu;
    const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
    EXPECT_EQ(nac->count, 20);
    EXPECT_EQ(nac->ids[15], 16u);
  }
  u32 ret = 0;
  EXPECT_EQ(MacVcpu(kMac, &ret), 5u);  // slot 4 of 20
  LoadNac(ids, 1000);                  // slot (h mod 1000) & 0xFF = 132: none
  EXPECT_EQ(MacVcpu(kMac, &ret), 0u);
  EXPECT_EQ(ret, WLAN_LB_ERR);
  WLAN_LB_InitRdsCOADistributeTbl();
  EXPECT_EQ(Port(1, WLAN_LB_RADIUS_COA_PORT, 1).num, 8u);

  // The copy also stops at the sender's capacity.
  LoadNac(ids, 5, 8);
  {
    kport::RcuReadGuard rcu;
    const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
    EXPECT_EQ(nac->count, 5);
    EXPECT_EQ(nac->ids[1], 2u);
    EXPECT_EQ(nac->ids[2], 0u);
  }
  // No ids: nothing changes.
  WLAN_LB_InitAAAAccessVcpuIDList(nullptr, 64, 3);
  kport::RcuReadGuard rcu;
  EXPECT_EQ(nac_list()->count, 5);
}

TEST_F(AaaTest, NacReloadWithoutMemoryKeepsTheOldList) {
  LoadNac({7, 8}, 2);
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  fault::FailNth(fault::Site::kAlloc, 1);
  LoadNac({1, 2, 3}, 3);
  EXPECT_EQ(DebugText(), "\r\nWLAN LB NAC list kept: no memory for 3 ids.");
  {
    kport::RcuReadGuard rcu;
    EXPECT_EQ(nac_list()->count, 2);
    EXPECT_EQ(nac_list()->ids[1], 8u);
  }
  LoadNac({1, 2, 3}, 3);
  kport::RcuReadGuard rcu;
  EXPECT_EQ(nac_list()->count, 3);
}

}  // namespace
}  // namespace vane::test
