// Diagnostic files over the daemon's socket: chunked reads, positioned
// writes, and unknown paths.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <string>

#include "fake_daemon.h"
#include "vane/vane.h"
#include "vane/vane.hpp"
#include "vane/wire.h"

namespace vane::test {
namespace {

class FilesTest : public FakeDaemonControl {};

TEST_F(FilesTest, ReadAllSpansSeveralChunks) {
  std::string big(VANE_WIRE_FILE_CHUNK * 2 + 123, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  daemon_.SetFile("/proc/bypassDebug/counts", big);
  uint8_t* out = nullptr;
  size_t len = 0;
  ASSERT_EQ(vane_file_read_all(ctl_, "/proc/bypassDebug/counts", &out, &len), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), len), big);
  free(out);
  // The empty file is a buffer of length 0, not an error.
  daemon_.SetFile("/proc/wlan_lb/capwap", "");
  ASSERT_EQ(vane_file_read_all(ctl_, "/proc/wlan_lb/capwap", &out, &len), 0);
  EXPECT_EQ(len, 0u);
  free(out);
}

TEST_F(FilesTest, ReadAndWriteFollowThePosition) {
  const char* path = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
  daemon_.SetFile(path, "0123456789");
  char buf[4];
  int64_t pos = 3;
  ASSERT_EQ(vane_file_read(ctl_, path, buf, sizeof buf, &pos), 4);
  EXPECT_EQ(std::string(buf, 4), "3456");
  EXPECT_EQ(pos, 7);
  pos = 8;
  ASSERT_EQ(vane_file_write(ctl_, path, "abcd", 4, &pos), 4);
  EXPECT_EQ(pos, 12);
  EXPECT_EQ(daemon_.File(path), "01234567abcd");
  ASSERT_EQ(vane_file_write(ctl_, path, "Z", 1, nullptr), 1);  // no position: 0
  EXPECT_EQ(daemon_.File(path), "Z1234567abcd");
  pos = 12;
  EXPECT_EQ(vane_file_read(ctl_, path, buf, sizeof buf, &pos), 0);
}

TEST_F(FilesTest, UnknownPathAndBadArguments) {
  char buf[8];
  int64_t pos = 0;
  EXPECT_EQ(vane_file_read(ctl_, "/proc/bypassDebug/nothing", buf, sizeof buf, &pos), -ENOENT);
  EXPECT_EQ(vane_file_write(ctl_, "/proc/bypassDebug/nothing", "x", 1, &pos), -ENOENT);
  uint8_t* out = reinterpret_cast<uint8_t*>(buf);
  size_t len = 5;
  EXPECT_EQ(vane_file_read_all(ctl_, "/proc/bypassDebug/nothing", &out, &len), -ENOENT);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(vane_file_read(ctl_, "", buf, sizeof buf, &pos), -EINVAL);
  EXPECT_EQ(vane_file_read(ctl_, std::string(256, 'a').c_str(), buf, sizeof buf, &pos), -EINVAL);
}

TEST_F(FilesTest, CppWrapperReadsAndSends) {
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_UNIX;
  ep.run_dir = daemon_.dir().c_str();
  vane::Control ctl;
  ASSERT_EQ(ctl.Open(&ep), 0);
  daemon_.SetFile("/proc/bypassDebug/ivo", "abc");
  int err = 0;
  EXPECT_EQ(ctl.ReadAll("/proc/bypassDebug/ivo", &err), (std::vector<uint8_t>{'a', 'b', 'c'}));
  EXPECT_EQ(err, 0);
  EXPECT_TRUE(ctl.ReadAll("/none", &err).empty());
  EXPECT_EQ(err, -ENOENT);
  EXPECT_EQ(ctl.LbBoardType(3), 0);
}

}  // namespace
}  // namespace vane::test
