// The module's files read and written through vaned's socket, and decoded:
// the debug text, positioned reads and writes, the WLAN views and records
// after tables configured through the library, unknown paths, and the C++
// wrapper.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <memory>
#include <string>

#include "host_support.h"
#include "vane/decode.h"
#include "vane/vane.h"
#include "vane/vane.hpp"

namespace vane::test {
namespace {

constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const vane_endpoint ep = UnixEndpoint(d_.run_dir());
    ASSERT_EQ(vane_ctl_open(&ep, &ctl_), 0);
  }
  void TearDown() override {
    vane_ctl_close(ctl_);
    EXPECT_EQ(d_.Stop(), 0);
  }
  std::string ReadAll(const char* path) {
    uint8_t* out = nullptr;
    size_t len = 0;
    EXPECT_EQ(vane_file_read_all(ctl_, path, &out, &len), 0) << path;
    std::string s(reinterpret_cast<char*>(out), len);
    free(out);
    return s;
  }
  void Write(const char* path, const void* data, size_t len) {
    int64_t pos = 0;
    EXPECT_EQ(vane_file_write(ctl_, path, data, len, &pos), static_cast<ssize_t>(len)) << path;
  }
  std::string View(const char* which) {
    Write(kAttr, which, 1);
    return ReadAll(kAttr);
  }

  InProcessDaemon d_;
  vane_ctl* ctl_ = nullptr;
};

TEST_F(FilesTest, DebugTextComesBackAsTheLinesTheModuleWrote) {
  const uint32_t level = 1;
  Write("/proc/bypassDebug/debug", &level, sizeof level);
  ASSERT_EQ(vane_ctl_debug_command(ctl_, 3), 0);
  ASSERT_EQ(vane_ctl_lb_board_type(ctl_, 3), 0);
  const std::string img = ReadAll("/proc/bypassDebug/debug");
  ASSERT_EQ(img.size(), 32768u);
  decode::DebugText d;
  ASSERT_EQ(decode::Debug(reinterpret_cast<const uint8_t*>(img.data()), img.size(), &d), 0);
  EXPECT_EQ(d.lines, (std::vector<std::string>{"NETLINK_MID_OFFSET.", "NETLINK_MID_WLAN_LB."}));
  EXPECT_FALSE(d.full);
}

template <typename T>
int Decode(int (*fn)(const uint8_t*, size_t, T*), const std::string& img) {
  auto out = std::make_unique<T>();
  return fn(reinterpret_cast<const uint8_t*>(img.data()), img.size(), out.get());
}

TEST_F(FilesTest, EveryFixedImageTheModuleServesDecodes) {
  EXPECT_EQ(Decode(vane_decode_counters, ReadAll("/proc/bypassDebug/counts")), 0);
  EXPECT_EQ(Decode(vane_decode_frag4, ReadAll("/proc/bypassDebug/hashInfoIpv4")), 0);
  EXPECT_EQ(Decode(vane_decode_frag6, ReadAll("/proc/bypassDebug/hashInfoIpv6")), 0);
  EXPECT_EQ(Decode(vane_decode_ivo, ReadAll("/proc/bypassDebug/ivo")), 0);
  EXPECT_EQ(Decode(vane_decode_capture_store, ReadAll("/proc/bypassDebug/catchPkt")), 0);
  EXPECT_EQ(Decode(vane_decode_capwap, ReadAll("/proc/wlan_lb/capwap")), 0);
  EXPECT_EQ(Decode(vane_decode_capwap_ka, ReadAll("/proc/wlan_lb/capwap_ka")), 0);
}

TEST_F(FilesTest, ReadsAndWritesFollowThePosition) {
  const std::string stats = View("3");
  ASSERT_GT(stats.size(), 20u);
  char buf[4];
  int64_t pos = 3;
  ASSERT_EQ(vane_file_read(ctl_, kAttr, buf, sizeof buf, &pos), 4);
  EXPECT_EQ(std::string(buf, 4), stats.substr(3, 4));
  EXPECT_EQ(pos, 7);
  pos = static_cast<int64_t>(stats.size());
  EXPECT_EQ(vane_file_read(ctl_, kAttr, buf, sizeof buf, &pos), 0);
  // An attribute takes a whole value wherever it is written.
  pos = 8;
  ASSERT_EQ(vane_file_write(ctl_, kAttr, "1", 1, &pos), 1);
  EXPECT_EQ(pos, 9);
  EXPECT_EQ(ReadAll(kAttr), "") << "the NAC list, empty";
  ASSERT_EQ(vane_file_write(ctl_, kAttr, "3", 1, nullptr), 1);  // no position: at 0
  EXPECT_EQ(ReadAll(kAttr), stats);
}

TEST_F(FilesTest, UnknownPathsAndBadArguments) {
  char buf[8];
  int64_t pos = 0;
  EXPECT_EQ(vane_file_read(ctl_, "/proc/bypassDebug/nothing", buf, sizeof buf, &pos), -ENOENT);
  EXPECT_EQ(vane_file_write(ctl_, "/sys/class/nothing", "x", 1, &pos), -ENOENT);
  uint8_t* out = reinterpret_cast<uint8_t*>(buf);
  size_t len = 5;
  EXPECT_EQ(vane_file_read_all(ctl_, "/etc/passwd", &out, &len), -ENOENT);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(vane_file_read(ctl_, "", buf, sizeof buf, &pos), -EINVAL);
  EXPECT_EQ(vane_file_read(ctl_, std::string(256, 'a').c_str(), buf, sizeof buf, &pos), -EINVAL);
}

TEST_F(FilesTest, CppWrapperReadsAndSends) {
  const vane_endpoint ep = UnixEndpoint(d_.run_dir());
  vane::Control ctl;
  ASSERT_EQ(ctl.Open(&ep), 0);
  int err = 0;
  EXPECT_EQ(ctl.ReadAll("/proc/bypassDebug/counts", &err).size(), 3840u);
  EXPECT_EQ(err, 0);
  EXPECT_TRUE(ctl.ReadAll("/none", &err).empty());
  EXPECT_EQ(err, -ENOENT);
  EXPECT_EQ(ctl.LbBoardType(3), 0);
}

TEST_F(FilesTest, WlanViewsDecodeToTheTablesConfigured) {
  const vane_cause_id_entry causes[] = {{300, 4, 1}, {301, 5, 2}, {4000, 11, 4}};
  ASSERT_EQ(vane_ctl_lb_cause_ids(ctl_, causes, 3), 0);
  const uint32_t nac[] = {20, 21, 63};
  ASSERT_EQ(vane_ctl_lb_nac(ctl_, 3, nac, 3), 0);
  ASSERT_EQ(vane_ctl_lb_portal(ctl_, 8080, 3), 0);
  for (const vane_socket_port& p :
       {vane_socket_port{1812, 0, 1, 7, 0}, vane_socket_port{2001, 0, 0, 0xFFFFFFFFu, 0},
        vane_socket_port{443, 1, 0, 9, 0}}) {
    ASSERT_EQ(vane_ctl_lb_socket_port(ctl_, &p, 1), 0);
  }

  const std::string stats = View("3");
  vane_wlan_stats s{};
  ASSERT_EQ(vane_decode_wlan_stats(stats.data(), stats.size(), &s), 0) << stats;
  // By set type: CAPWAP 0, NAC list 2, Portal 3, socket ports 4, cause IDs 6.
  EXPECT_EQ(s.messages[0], 0u);
  EXPECT_EQ(s.messages[2], 1u);
  EXPECT_EQ(s.messages[3], 1u);
  EXPECT_EQ(s.messages[4], 3u);
  EXPECT_EQ(s.messages[6], 1u);
  EXPECT_EQ(s.board_type, 3u);

  const std::string cause_view = View("4");
  vane_wlan_causeids c{};
  ASSERT_EQ(vane_decode_wlan_causeids(cause_view.data(), cause_view.size(), &c), 0) << cause_view;
  ASSERT_EQ(c.count, 3u);
  bool seen = false;
  for (uint32_t i = 0; i < c.count; ++i) {
    if (c.entries[i].cause_id != 4000) continue;
    seen = true;
    EXPECT_EQ(c.entries[i].pkt_type, 11u);
    EXPECT_EQ(c.entries[i].lb_type, 4u);
  }
  EXPECT_TRUE(seen) << cause_view;

  const std::string nac_view = View("1");
  vane_wlan_nac n{};
  ASSERT_EQ(vane_decode_wlan_nac(nac_view.data(), nac_view.size(), &n), 0) << nac_view;
  EXPECT_EQ(std::vector<uint32_t>(n.ids, n.ids + n.count), (std::vector<uint32_t>{20, 21, 63}));

  const std::string ports = View("2");
  vane_wlan_ports p{};
  ASSERT_EQ(vane_decode_wlan_ports(ports.data(), ports.size(), &p), 0) << ports;
  // The UDP list newest first, the TCP list, RADIUS CoA 0 and 1, Portal.
  ASSERT_EQ(p.count, 6u) << ports;
  const struct {
    uint32_t port, tcp, src_port, target, process;
  } want[] = {{2001, 0, 0, 1, 0}, {1812, 0, 1, 2, 0}, {443, 1, 0, 0, 9},
              {3799, 0, 0, 1, 0}, {3799, 0, 0, 1, 0}, {8080, 0, 0, 0, 3}};
  for (size_t i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(p.ports[i].port, want[i].port);
    EXPECT_EQ(p.ports[i].tcp, want[i].tcp);
    EXPECT_EQ(p.ports[i].src_port, want[i].src_port);
    EXPECT_EQ(p.ports[i].target, want[i].target);
    if (want[i].target == 0) {
      EXPECT_EQ(p.ports[i].process, want[i].process);
    }
  }
}

TEST_F(FilesTest, CapwapRecordsForAKeyAndAKeepAliveSession) {
  for (uint16_t i = 0; i < 12; ++i) {
    const vane_capwap_entry e{0x0A010101, 0x0A010102u + i,         static_cast<uint16_t>(5000 + i),
                              5247,       static_cast<uint8_t>(i), 20u + i};
    ASSERT_EQ(vane_ctl_lb_capwap(ctl_, &e, 1), 0);
  }
  const vane_capwap_entry other{0x0A020202, 1, 2, 3, 0, 4};
  ASSERT_EQ(vane_ctl_lb_capwap(ctl_, &other, 1), 0);
  uint8_t key[8];
  vane_build_capwap_key(0x0A010101, key);
  Write("/proc/wlan_lb/capwap", key, sizeof key);
  const std::string img = ReadAll("/proc/wlan_lb/capwap");
  vane_capwap_view v{};
  ASSERT_EQ(vane_decode_capwap(reinterpret_cast<const uint8_t*>(img.data()), img.size(), &v), 0);
  ASSERT_EQ(v.count, 10u) << "the file holds ten of the twelve";
  for (uint32_t i = 0; i < v.count; ++i) {
    const vane_capwap_entry& e = v.records[i];
    EXPECT_EQ(e.sip, 0x0A010101u);
    EXPECT_EQ(e.dip - 0x0A010102u, e.sport - 5000u);
    EXPECT_EQ(e.vpn, e.sport - 5000u);
    EXPECT_EQ(e.process, 20u + e.vpn);
  }

  const uint32_t session[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};
  ASSERT_EQ(vane_ctl_lb_capwap_ka(ctl_, session, 7, 1), 0);
  const uint32_t unknown[4] = {9, 9, 9, 9};
  for (const uint32_t* s : {session, unknown}) {
    uint8_t ka_key[16];
    vane_build_capwap_ka_key(s, ka_key);
    Write("/proc/wlan_lb/capwap_ka", ka_key, sizeof ka_key);
    const std::string ka_img = ReadAll("/proc/wlan_lb/capwap_ka");
    vane_capwap_ka_view ka{};
    ASSERT_EQ(
        vane_decode_capwap_ka(reinterpret_cast<const uint8_t*>(ka_img.data()), ka_img.size(), &ka),
        0);
    EXPECT_EQ(ka.found, s == session ? 1 : 0);
    if (s == session) {
      EXPECT_EQ(ka.session[3], 0x0D0E0F10u);
      EXPECT_EQ(ka.process, 7u);
    }
  }
}

}  // namespace
}  // namespace vane::test
