// The WLAN lookup entry on a module whose WLAN tables are not loaded: what a
// cause ID answers, and how the entry dispatches by LB type and writes its
// outputs.
#include <gtest/gtest.h>

#include <string>

#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "support/module_env.h"
#include "support/wlan_stand_in.h"

namespace vane::test {
namespace {

class WlanLookupTest : public ModuleTest {};

TEST_F(WlanLookupTest, NoCauseIdIsLoadBalancedOnAFreshModule) {
  u32 type = 0;
  u64 pkt_type = 0;
  for (uint16_t cause : {0, 1, 8191}) {
    EXPECT_EQ(WLAN_LB_IsNeedLBPkt(cause, &type, &pkt_type), WLAN_LB_ERR);
    EXPECT_EQ(type, WLAN_LB_TYPE_NONE);
    EXPECT_EQ(pkt_type, WLAN_LB_PKT_TYPE_NONE);
  }
  EXPECT_EQ(WLAN_LB_IsNeedLBPkt(1, nullptr, &pkt_type), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_IsNeedLBPkt(1, &type, nullptr), WLAN_LB_ERR);
}

TEST_F(WlanLookupTest, EveryTypeFindsNothingAndOtherTypesWriteNothing) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  WLAN_LB_FIVE_TUPLE_S key{};  // the largest record that types 1, 2 and 4 read
  WLAN_LB_ACCESS_INFO_S access{};
  for (u32 type : {LB_CAPWAP, LB_CAPWAP_KA, LB_AAA_MAC, LB_AAA_PORT}) {
    u32 count = 99;
    u8 ids[8] = {0xEE};
    const void* k = type == LB_AAA_MAC ? static_cast<const void*>(&access) : &key;
    EXPECT_EQ(WLAN_LB_GetPktVCPUID(k, type, &count, ids), WLAN_LB_OK);
    EXPECT_EQ(count, 1u) << type;
    EXPECT_EQ(ids[0], 0) << type;
  }
  EXPECT_EQ(DebugText(),
            "\r\nGet nac&wlan packet vcpuid.(LBType 1 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 2 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 3 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 4 VcpuNum 1 VcpuID 0 Ret 0).");

  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  for (u32 type : {0u, 5u, 7u}) {
    u32 count = 99;
    u8 ids[8] = {0xEE};
    EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, type, &count, ids), WLAN_LB_OK);
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(ids[0], 0xEE);
  }
  u32 count = 99;
  u8 ids[8] = {};
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(nullptr, 1, &count, ids), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, 1, nullptr, ids), WLAN_LB_ERR);
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, 1, &count, nullptr), WLAN_LB_ERR);
  EXPECT_EQ(count, 99u);
  EXPECT_EQ(DebugText(), "");
}

TEST_F(WlanLookupTest, TableVcpusAreTakenByTheirLowByte) {
  WlanStandIn s;
  s.vcpu = 300;
  ScopedWlanStandIn scoped(&s);
  WLAN_LB_FIVE_TUPLE_S key{};
  u32 count = 0;
  u8 ids[8] = {};
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, LB_CAPWAP, &count, ids), WLAN_LB_OK);
  EXPECT_EQ(ids[0], 44);
}

}  // namespace
}  // namespace vane::test
