// The exported entry points as other kernel modules call them, with
// arguments no user of the module can pass: null buffers, channel records
// without a socket, handler registration, and the EtherType tests.
#include <gtest/gtest.h>

#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

using ExportsTest = ModuleTest;

TEST_F(ExportsTest, NullBuffersAndRecordsWithoutASocket) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Register(kNormal, 3), 0);
  EXPECT_EQ(netlink_send_msg(1, nullptr, 20), -22);
  EXPECT_EQ(netlink_fastsend_msg(1, nullptr, 20), -22);
  EXPECT_EQ(netlink_filter_icmp_pkt(nullptr, 100), 0);
  Bytes buf(20, 1);
  EXPECT_EQ(netlink_send_msg_vcpuid(1, buf.data(), 20, 64, &g_supp_netlink_kernel), -22);
  EXPECT_EQ(netlink_send_msg_vcpuid(16, buf.data(), 20, 3, &g_supp_netlink_kernel), -22);
  EXPECT_EQ(netlink_send_msg_bysock(1, buf.data(), 20, nullptr), -22);
  EXPECT_GT(netlink_send_msg_vcpuid(1, buf.data(), 20, 3, &g_supp_netlink_kernel), 0);
  SUPP_NETLINK_KERNEL_S no_socket{};
  no_socket.ulPid = w.pid();
  no_socket.aulVcpuPid[4] = w.pid();
  EXPECT_EQ(netlink_send_msg_bysock(2, buf.data(), 20, &no_socket), -77);
  EXPECT_EQ(netlink_send_msg_vcpuid(2, buf.data(), 20, 4, &no_socket), -77);
  EXPECT_EQ(w.Pending(kNormal), 1u);
}

int g_calls = 0;
int Count(void*, uint32_t) { return ++g_calls; }

TEST_F(ExportsTest, HandlerRegistrationRulesAndFixedRoutes) {
  g_calls = 0;
  Worker w;
  for (int id : {0, 16, -1}) EXPECT_EQ(netlink_connect(id, Count), -22) << id;
  EXPECT_EQ(netlink_disconnect(0), -22);
  EXPECT_EQ(netlink_disconnect(16), -22);
  EXPECT_EQ(netlink_connect_bysock(4, Count, nullptr), -22);
  // Fixed ids keep their routes: a handler stored for 5 is never called.
  ASSERT_EQ(netlink_connect(5, Count), 0);
  EXPECT_EQ(w.Control(5, Bytes(88, 0)), 0);
  // The receiver consults only the normal record, on both sockets.
  ASSERT_EQ(netlink_connect_bysock(4, Count, &g_supp_fast_netlink_kernel), 0);
  EXPECT_EQ(w.Control(4, {1}, kFast), 0);
  EXPECT_EQ(g_calls, 0);
  ASSERT_EQ(netlink_connect(4, Count), 0);
  EXPECT_EQ(w.Control(4, {1}, kFast), 0);
  EXPECT_EQ(g_calls, 1);
  ASSERT_EQ(netlink_disconnect(4), 0);
  EXPECT_EQ(w.Control(4, {1}), 0);
  EXPECT_EQ(g_calls, 1);
}

// Untagged: EtherType at 12. Tagged: a tag at 12, EtherType at 16.
Bytes Frame(uint16_t type, bool tagged) {
  PacketBuilder b;
  b.ethernet(Mac("0a:0b:0c:00:00:01"), Mac("00:00:00:00:00:02"));
  if (tagged) b.vlan(5);
  return b.ether_type(type).payload(8).build();
}

TEST_F(ExportsTest, ConfiguredEtherTypesMatchAtTheFlaggedPosition) {
  using Check = int (*)(u8*, u8);
  const Check ipc = netlink_check_if_data_ipc, vp = netlink_check_if_data_vp,
              ecm = netlink_check_if_data_ecm_vcpu;
  auto run = [](Check c, uint16_t type, bool tagged, uint8_t untagged) {
    Bytes f = Frame(type, tagged);
    return c(f.data(), untagged);
  };
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulIpcEthType = 0x0640;
  cfg.ulVpEthType = 0x5101;
  cfg.ulEcmVcpuEthType = 0x06A4;
  Worker w;
  ASSERT_EQ(w.Configure(cfg), 0);
  const struct {
    Check check;
    uint16_t type;
    int want;
  } cases[] = {{ipc, 0x0640, 0},   {vp, 0x5101, 0},   {ecm, 0x06A4, 0},
               {ipc, 0x5101, -22}, {vp, 0x06A4, -22}, {ecm, 0x0640, -22}};
  for (bool tagged : {false, true}) {
    for (const auto& c : cases) EXPECT_EQ(run(c.check, c.type, tagged, !tagged), c.want) << tagged;
    // Reading at the other position sees the tag or the payload instead.
    EXPECT_EQ(run(ipc, 0x0640, tagged, tagged), -22);
  }
  EXPECT_EQ(ipc(nullptr, 1), -22);
  // The whole 32-bit slot is compared: above 0xFFFF nothing matches.
  cfg.ulIpcEthType = 0x10640;
  ASSERT_EQ(w.Configure(cfg), 0);
  EXPECT_EQ(run(ipc, 0x0640, false, 1), -22);
  // The board without ECM has fixed VP types and no ECM vCPU type.
  cfg.ulBoardType = 0x10088;
  cfg.ulVpEthType = 0x5103;
  ASSERT_EQ(w.Configure(cfg), 0);
  for (uint16_t t : {0x5102, 0x5107, 0x510A, 0x510D}) EXPECT_EQ(run(vp, t, false, 1), 0) << t;
  for (uint16_t t : {0x5101, 0x5103, 0x5106, 0x510E}) EXPECT_EQ(run(vp, t, false, 1), -22) << t;
  EXPECT_EQ(run(ecm, 0x06A4, false, 1), -22);
}

}  // namespace
}  // namespace vane::test
