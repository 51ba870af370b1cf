// /proc/bypassDebug/counts and /proc/bypassDebug/debug as operators use
// them: positions and pieces, clearing, short writes and copy faults.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "debug/debug_internal.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

class ProcTest : public ModuleTest {};

TEST_F(ProcTest, CountsReadInAnyPiecesAndClearOnAnyWrite) {
  std::vector<uint32_t> expected(BYPASS_PKT_COUNT_NUM);
  for (uint32_t i = 0; i < BYPASS_PKT_COUNT_NUM; ++i) {
    expected[i] = i % 5;
    for (uint32_t n = 0; n < expected[i]; ++n) count_packet(i);
  }
  count_packet(BYPASS_PKT_COUNT_NUM);  // out of range: dropped
  std::vector<uint8_t> whole = vfs::ProcReadAll("/proc/bypassDebug/counts", 7);
  ASSERT_EQ(whole.size(), 3840u);
  EXPECT_EQ(std::memcmp(whole.data(), expected.data(), 3840), 0);
  // The exported image holds what the read summed.
  EXPECT_EQ(std::memcmp(g_bypassPktCounts, expected.data(), 3840), 0);
  uint8_t byte = 0;
  int64_t pos = 3840;
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/counts", &byte, 1, &pos), 0);
  pos = 3839;
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/counts", &byte, 100, &pos), 1);
  EXPECT_EQ(pos, 3840);

  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/counts", {0x55}), 1);
  EXPECT_EQ(Counters(), std::vector<uint32_t>(BYPASS_PKT_COUNT_NUM, 0));
  count_packet(7);
  EXPECT_EQ(Counters()[7], 1u);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/counts", std::vector<uint8_t>(100, 1)), 100);
  EXPECT_EQ(g_bypassPktCounts[7], 0u);
  EXPECT_EQ(Counters()[7], 0u);

  fault::FailNth(fault::Site::kCopyToUser, 1);
  pos = 0;
  std::vector<uint8_t> buf(64);
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/counts", buf.data(), buf.size(), &pos), -14);
  EXPECT_EQ(pos, 0);
}

TEST_F(ProcTest, DebugWriteClearsTheTextAndSetsTheLevel) {
  SetDebugLevel(1);
  bypass_debug_out(1, "\r\nsomething");
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/debug", {2, 0, 0, 0}), 4);
  EXPECT_EQ(g_ulDebugLevel, 2u);
  EXPECT_EQ(g_ulDebugLen, 0u);
  EXPECT_EQ(vfs::ProcReadAll("/proc/bypassDebug/debug"),
            std::vector<uint8_t>(BYPASS_DEBUG_BUF_TEXT, 0));
  // Only the first four bytes count.
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/debug", {4, 0, 0, 0, 9, 9}), 6);
  EXPECT_EQ(g_ulDebugLevel, 4u);
  bypass_debug_out(4, "\r\nfirst");
  EXPECT_EQ(DebugText(), "\r\nfirst");
}

TEST_F(ProcTest, ShortDebugWritesAreRefusedAndCopyFaultsReported) {
  SetDebugLevel(1);
  bypass_debug_out(1, "\r\nkept");
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/debug", {4, 0}), -22);
  EXPECT_EQ(g_ulDebugLevel, 1u);
  EXPECT_EQ(DebugText(), "\r\nkept");

  klog::Clear();
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/debug", {4, 0, 0, 0}), -1);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass copy from user failed.\r\n"));
  EXPECT_EQ(g_ulDebugLevel, 1u);  // level unchanged, text already cleared
  EXPECT_EQ(DebugText(), "");
}

TEST_F(ProcTest, CountsReadFailsCleanlyWithoutMemory) {
  fault::FailNth(fault::Site::kAlloc, 1);
  uint8_t buf[16];
  int64_t pos = 0;
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/counts", buf, sizeof(buf), &pos), -12);
  EXPECT_EQ(pos, 0);
}

}  // namespace
}  // namespace vane::test
