// The delivery entry points' arguments that only another kernel module or
// the module itself can pass: null buffers, channel records without a
// socket, and the ICMP test on buffers cut at every length.
#include <gtest/gtest.h>

#include <vector>

#include "drv_vane/netlink.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

using DeliveryArgsTest = ModuleTest;

TEST_F(DeliveryArgsTest, NullBuffersAndRecordsWithoutASocket) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Register(kNormal, 3), 0);
  EXPECT_EQ(netlink_send_msg(1, nullptr, 20), -22);
  EXPECT_EQ(netlink_fastsend_msg(1, nullptr, 20), -22);
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

TEST(IcmpFilterTest, NeverReadsPastTheBuffer) {
  // Every prefix of a double-tagged echo, each in a buffer of exactly that
  // size: only the complete packet up to the ICMP type byte is recognised.
  const Bytes full = PacketBuilder()
                         .prefix(0, 0, 0)
                         .ethernet(Mac("00:11:22:33:44:55"), Mac("00:11:22:33:44:66"))
                         .vlan(10, 0x8100)
                         .vlan(10, 0x8100)
                         .ipv4({.src = Ipv4Addr("10.0.0.1"), .dst = Ipv4Addr("10.0.0.2")})
                         .icmp(8, 0)
                         .payload(8)
                         .build();
  const size_t type_byte = 12 + 12 + 8 + 2 + 20;
  for (size_t len = 0; len <= full.size(); ++len) {
    Bytes cut(full.begin(), full.begin() + static_cast<long>(len));
    uint8_t* p = cut.empty() ? nullptr : cut.data();
    EXPECT_EQ(netlink_filter_icmp_pkt(p, static_cast<uint32_t>(len)), len > type_byte ? 1 : 0)
        << "length " << len;
  }
  EXPECT_EQ(netlink_filter_icmp_pkt(nullptr, 100), 0);
}

}  // namespace
}  // namespace vane::test
