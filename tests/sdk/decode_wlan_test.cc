// The WLAN view decoders against the attribute and the two proc files as
// the module shows them after real LB messages.
#include <gtest/gtest.h>

#include <string>

#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/wlan_msgs.h"
#include "vane/decode.h"
#include "wlan_lb/lb_fixture.h"

namespace vane::test {
namespace {

namespace vfs = kport::user::vfs;

constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";

class DecodeWlanTest : public LbModuleTest {
 protected:
  std::string View(int view) {
    EXPECT_GT(vfs::SysfsStore(kAttr, std::to_string(view)), 0);
    return vfs::SysfsShow(kAttr).value_or("");
  }
};

TEST_F(DecodeWlanTest, TextViewsDecodeToTheTablesConfigured) {
  ASSERT_EQ(
      Send(CauseIdMsg({{300, 4, LB_CAPWAP}, {301, 5, LB_CAPWAP_KA}, {4000, 11, LB_AAA_PORT}})), 0);
  ASSERT_EQ(Send(NacMsg(WLAN_LB_BOARD_TYPE_LB, {20, 21, 4294967295u})), 0);
  ASSERT_EQ(Send(PortalMsg(8080, 3)), 0);
  ASSERT_EQ(Send(SocketPortMsg(1812, false, 1, 7)), 0);
  ASSERT_EQ(Send(SocketPortMsg(2001, false, 0, WLAN_LB_PROCESS_NAC)), 0);
  ASSERT_EQ(Send(SocketPortMsg(443, true, 0, 9)), 0);

  const std::string stats = View(VANE_WLAN_VIEW_STATS);
  vane_wlan_stats s{};
  ASSERT_EQ(vane_decode_wlan_stats(stats.data(), stats.size(), &s), 0) << stats;
  EXPECT_EQ(s.messages[WLAN_LB_KERNEL_LB_SET_CAUSEIID], 1u);
  EXPECT_EQ(s.messages[WLAN_LB_KERNEL_LB_SET_NAC_NODELIST], 1u);
  EXPECT_EQ(s.messages[WLAN_LB_KERNEL_LB_SET_PORTAL_NODE], 1u);
  EXPECT_EQ(s.messages[WLAN_LB_KERNEL_LB_SET_SOCKET_PORT], 3u);
  EXPECT_EQ(s.messages[WLAN_LB_KERNEL_LB_SET_CAPWAP], 0u);
  EXPECT_EQ(s.board_type, WLAN_LB_BOARD_TYPE_LB);

  const std::string causes = View(VANE_WLAN_VIEW_CAUSEID);
  vane_wlan_causeids c{};
  ASSERT_EQ(vane_decode_wlan_causeids(causes.data(), causes.size(), &c), 0) << causes;
  ASSERT_EQ(c.count, 3u);
  bool seen = false;
  for (uint32_t i = 0; i < c.count; ++i) {
    if (c.entries[i].cause_id == 4000) {
      seen = true;
      EXPECT_EQ(c.entries[i].pkt_type, 11u);
      EXPECT_EQ(c.entries[i].lb_type, LB_AAA_PORT);
    }
  }
  EXPECT_TRUE(seen) << causes;

  const std::string nac = View(VANE_WLAN_VIEW_NAC);
  vane_wlan_nac n{};
  ASSERT_EQ(vane_decode_wlan_nac(nac.data(), nac.size(), &n), 0) << nac;
  ASSERT_EQ(n.count, 3u);
  EXPECT_EQ(n.ids[0], 20u);
  EXPECT_EQ(n.ids[2], 4294967295u);

  const std::string ports = View(VANE_WLAN_VIEW_PORTS);
  vane_wlan_ports p{};
  ASSERT_EQ(vane_decode_wlan_ports(ports.data(), ports.size(), &p), 0) << ports;
  // UDP list newest first, the TCP list, then RADIUS CoA 0 and 1, Portal.
  ASSERT_EQ(p.count, 6u) << ports;
  EXPECT_EQ(p.ports[0].port, 2001u);
  EXPECT_EQ(p.ports[0].target, VANE_WLAN_TARGET_NAC);
  EXPECT_EQ(p.ports[1].port, 1812u);
  EXPECT_EQ(p.ports[1].src_port, 1u);
  EXPECT_EQ(p.ports[1].target, VANE_WLAN_TARGET_RANGE);
  EXPECT_EQ(p.ports[2].port, 443u);
  EXPECT_EQ(p.ports[2].tcp, 1u);
  EXPECT_EQ(p.ports[2].process, 9u);
  EXPECT_EQ(p.ports[3].port, WLAN_LB_RADIUS_COA_PORT);
  EXPECT_EQ(p.ports[5].port, 8080u);
  EXPECT_EQ(p.ports[5].target, VANE_WLAN_TARGET_PROCESS);
  EXPECT_EQ(p.ports[5].process, 3u);
}

TEST_F(DecodeWlanTest, CapwapRecordsForAKeyAndKeepAliveSession) {
  for (uint16_t i = 0; i < 12; ++i) {
    ASSERT_EQ(Send(CapwapMsg({0x0A010101, 0x0A010102u + i, static_cast<uint16_t>(5000 + i), 5247,
                              static_cast<uint8_t>(i), 20u + i})),
              0);
  }
  ASSERT_EQ(Send(CapwapMsg({0x0A020202, 1, 2, 3, 0, 4})), 0);
  uint8_t key[VANE_CAPWAP_KEY_SIZE];
  vane_build_capwap_key(0x0A010101, key);
  ASSERT_EQ(vfs::ProcWriteAll("/proc/wlan_lb/capwap", Bytes(key, key + sizeof key)), 8);
  const auto img = vfs::ProcReadAll("/proc/wlan_lb/capwap");
  vane_capwap_view v{};
  ASSERT_EQ(vane_decode_capwap(img.data(), img.size(), &v), 0);
  ASSERT_EQ(v.count, VANE_CAPWAP_VIEW_RECORDS) << "the file holds ten of the twelve";
  for (uint32_t i = 0; i < v.count; ++i) {
    const vane_capwap_entry& e = v.records[i];
    EXPECT_EQ(e.sip, 0x0A010101u);
    EXPECT_EQ(e.dip - 0x0A010102u, e.sport - 5000u);
    EXPECT_EQ(e.vpn, e.sport - 5000u);
    EXPECT_EQ(e.process, 20u + e.vpn);
  }

  const uint32_t session[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};
  ASSERT_EQ(Send(CapwapKaMsg(session, 7)), 0);
  uint8_t ka_key[VANE_CAPWAP_KA_KEY_SIZE];
  vane_build_capwap_ka_key(session, ka_key);
  ASSERT_EQ(vfs::ProcWriteAll("/proc/wlan_lb/capwap_ka", Bytes(ka_key, ka_key + 16)), 16);
  auto ka_img = vfs::ProcReadAll("/proc/wlan_lb/capwap_ka");
  vane_capwap_ka_view ka{};
  ASSERT_EQ(vane_decode_capwap_ka(ka_img.data(), ka_img.size(), &ka), 0);
  EXPECT_EQ(ka.found, 1);
  EXPECT_EQ(ka.session[3], session[3]);
  EXPECT_EQ(ka.process, 7u);

  const uint32_t other[4] = {9, 9, 9, 9};
  vane_build_capwap_ka_key(other, ka_key);
  ASSERT_EQ(vfs::ProcWriteAll("/proc/wlan_lb/capwap_ka", Bytes(ka_key, ka_key + 16)), 16);
  ka_img = vfs::ProcReadAll("/proc/wlan_lb/capwap_ka");
  ASSERT_EQ(vane_decode_capwap_ka(ka_img.data(), ka_img.size(), &ka), 0);
  EXPECT_EQ(ka.found, 0);
}

}  // namespace
}  // namespace vane::test
