// The TIMNG fragment scan end to end through the fragment tables: which
// packets it claims, and that a datagram's fragments enter, find and leave
// the IPv4 table.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/frag.h"
#include "drv_vane/netlink.h"
#include "drv_vane/timng.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

namespace vfs = kport::user::vfs;

constexpr uint16_t kScanned = 100;

Bytes Fragment(bool mf, uint16_t offset, bool udp = true, uint16_t id = 77) {
  PacketBuilder b;
  b.ethernet(Mac("00:00:00:00:00:02"), Mac("00:11:22:33:44:55"))
      .ipv4({.src = Ipv4Addr("10.0.0.1"),
             .dst = Ipv4Addr("10.0.0.2"),
             .id = id,
             .mf = mf,
             .frag_offset = offset});
  if (udp) {
    b.udp(1000, 2000);
  } else {
    b.tcp(1000, 2000);
  }
  return b.payload(40).build();
}

// Records held by the IPv4 table, as its dump shows them.
uint16_t Held() {
  std::vector<uint8_t> dump = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4");
  if (dump.size() < 2) return 0xFFFF;
  uint16_t n = 0;
  std::memcpy(&n, dump.data(), 2);
  return n;
}

class FragScanTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    Worker w(7100);
    TIMNG_KERNEL_MSG_S m{kScanned, 9, 0, 1};  // scan on, not master
    std::vector<uint8_t> p(sizeof(m));
    std::memcpy(p.data(), &m, sizeof(m));
    ASSERT_EQ(w.Control(NETLINK_MID_TIMNG, p), 0);
  }
  static uint32_t Scan(uint16_t cause, Bytes pkt) {
    return TIMNG_IsIpFragPacket(cause, pkt.data(), static_cast<uint32_t>(pkt.size()), 0);
  }
};

TEST_F(FragScanTest, UdpFragmentsOfAScannedCauseIdWalkThroughTheTable) {
  EXPECT_EQ(Scan(kScanned, Fragment(true, 0)), 1u);
  EXPECT_EQ(Held(), 1u);
  EXPECT_EQ(Scan(kScanned, Fragment(true, 10)), 1u);
  EXPECT_EQ(Held(), 1u);
  EXPECT_EQ(Scan(kScanned, Fragment(false, 20)), 1u);
  EXPECT_EQ(Held(), 0u);
}

TEST_F(FragScanTest, OtherPacketsAreNotScanPackets) {
  EXPECT_EQ(Scan(kScanned, Fragment(false, 0)), 0u);                // not fragmented
  EXPECT_EQ(Scan(kScanned, Fragment(true, 0, /*udp=*/false)), 0u);  // TCP
  EXPECT_EQ(Scan(kScanned + 1, Fragment(true, 0)), 0u);             // not named
  EXPECT_EQ(TIMNG_IsIpFragPacket(kScanned, nullptr, 100, 0), 0u);
  Bytes v6 = PacketBuilder()
                 .ethernet(Mac("00:00:00:00:00:02"), Mac("00:11:22:33:44:55"))
                 .ipv6({.src = Ipv6Addr("1501::1"), .dst = Ipv6Addr("1501::2")})
                 .ipv6_fragment({.more = true, .id = 5})
                 .udp(1, 2)
                 .payload(20)
                 .build();
  EXPECT_EQ(Scan(kScanned, v6), 0u);
  // Cut short inside the UDP header: the parser never reads past the end.
  Bytes first = Fragment(true, 0);
  first.resize(14 + 20 + 2);
  EXPECT_EQ(Scan(kScanned, first), 0u);
  EXPECT_EQ(Held(), 0u);
}

TEST_F(FragScanTest, AFailedTableStepIsLoggedAndStillAScanPacket) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  EXPECT_EQ(Scan(kScanned, Fragment(true, 10)), 1u);  // middle without its first
  EXPECT_NE(DebugText().find("\r\nhandle pkt(ret["), std::string::npos) << DebugText();
}

}  // namespace
}  // namespace vane::test
