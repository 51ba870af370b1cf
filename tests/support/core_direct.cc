// Set-ups that call the core directly instead of sending control messages:
// for the benchmarks and the unit tests of internals, so user backend only
// (the qemu guest does not link this file).
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "support/frames.h"
#include "support/wlan_msgs.h"

namespace vane::test {

void InstallBenchSteering() {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulVcpuId = 5;
  t.ulCauseIdNum = 4;
  t.ausCauseId[0] = 10;
  t.ausCauseId[1] = 11;
  t.ausCauseId[2] = 12;
  t.ausCauseId[3] = 13;
  t.usCauseIdMin = 100;
  t.usCauseIdMax = 200;
  bypass_set_ivo_lb_table(NETLINK_MID_IVO_LB, reinterpret_cast<u8*>(&t), sizeof(t));
  TIMNG_KERNEL_MSG_S m{300, 7, 1, 0};
  TIMNG_LB_InitKernel(NETLINK_MID_TIMNG, reinterpret_cast<u8*>(&m), sizeof(m));
}

void ApplyLb(const Bytes& msg) {
  WLAN_LB_PacketDistribute_Proc(NETLINK_MID_WLAN_LB, msg.data(), static_cast<u32>(msg.size()));
}

}  // namespace vane::test
