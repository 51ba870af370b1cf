// The module's files read and written through vaned's socket, and decoded:
// the debug text, every fixed-size image, positioned reads and writes,
// unknown paths, and the C++ wrapper. (The WLAN views and records are
// decoded and shown against golden files in vanectl's suite.)
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
  VanedControl v_;
  vane_ctl* ctl_ = v_.ctl;
};

TEST_F(FilesTest, DebugTextComesBackAsTheLinesTheModuleWroteUntilItIsFull) {
  v_.Read("/proc/bypassDebug/debug", std::string("\x01\0\0\0", 4));  // level 1
  ASSERT_EQ(vane_ctl_debug_command(ctl_, 3), 0);
  ASSERT_EQ(vane_ctl_lb_board_type(ctl_, 3), 0);
  decode::DebugText d;
  std::string img = v_.Read("/proc/bypassDebug/debug");
  ASSERT_EQ(img.size(), 32768u);
  ASSERT_EQ(decode::Debug(reinterpret_cast<const uint8_t*>(img.data()), img.size(), &d), 0);
  EXPECT_EQ(d.lines, (std::vector<std::string>{"NETLINK_MID_OFFSET.", "NETLINK_MID_WLAN_LB."}));
  EXPECT_FALSE(d.full);
  // Filled up, the module ends the text with its full line.
  for (int i = 0; i < 1600; ++i) ASSERT_EQ(vane_ctl_debug_command(ctl_, 3), 0);
  img = v_.Read("/proc/bypassDebug/debug");
  ASSERT_EQ(decode::Debug(reinterpret_cast<const uint8_t*>(img.data()), img.size(), &d), 0);
  EXPECT_TRUE(d.full);
  EXPECT_EQ(d.lines.front(), "NETLINK_MID_OFFSET.");
  EXPECT_EQ(d.lines.back(), "********Buff is full********");
}

template <typename T>
int Decode(int (*fn)(const uint8_t*, size_t, T*), const std::string& img) {
  auto out = std::make_unique<T>();
  return fn(reinterpret_cast<const uint8_t*>(img.data()), img.size(), out.get());
}

TEST_F(FilesTest, EveryFixedImageTheModuleServesDecodes) {
  EXPECT_EQ(Decode(vane_decode_counters, v_.Read("/proc/bypassDebug/counts")), 0);
  EXPECT_EQ(Decode(vane_decode_frag4, v_.Read("/proc/bypassDebug/hashInfoIpv4")), 0);
  EXPECT_EQ(Decode(vane_decode_frag6, v_.Read("/proc/bypassDebug/hashInfoIpv6")), 0);
  EXPECT_EQ(Decode(vane_decode_ivo, v_.Read("/proc/bypassDebug/ivo")), 0);
  EXPECT_EQ(Decode(vane_decode_capture_store, v_.Read("/proc/bypassDebug/catchPkt")), 0);
  EXPECT_EQ(Decode(vane_decode_capwap, v_.Read("/proc/wlan_lb/capwap")), 0);
  EXPECT_EQ(Decode(vane_decode_capwap_ka, v_.Read("/proc/wlan_lb/capwap_ka")), 0);
}

TEST_F(FilesTest, ReadsAndWritesFollowThePosition) {
  const std::string stats = v_.Read(kAttr, "3");
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
  EXPECT_EQ(v_.Read(kAttr), "") << "the NAC list, empty";
  ASSERT_EQ(vane_file_write(ctl_, kAttr, "3", 1, nullptr), 1);  // no position: at 0
  EXPECT_EQ(v_.Read(kAttr), stats);
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
  const vane_endpoint ep = UnixEndpoint(v_.d.run_dir());
  vane::Control ctl;
  ASSERT_EQ(ctl.Open(&ep), 0);
  int err = 0;
  EXPECT_EQ(ctl.ReadAll("/proc/bypassDebug/counts", &err).size(), 3840u);
  EXPECT_EQ(err, 0);
  EXPECT_TRUE(ctl.ReadAll("/none", &err).empty());
  EXPECT_EQ(err, -ENOENT);
  EXPECT_EQ(ctl.LbBoardType(3), 0);
}

}  // namespace
}  // namespace vane::test
