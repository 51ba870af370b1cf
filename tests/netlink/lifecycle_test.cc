// Start-up and shut-down: what a load creates, that a failed load leaves
// nothing behind at any step, and that unloads give everything back so the
// next load starts from the load-time state.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "kport/netlink.h"
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using kport::user::KernelSocketCount;
using kport::user::KernelSocketExists;
using kport::user::LiveAllocations;
namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

void NoInput(struct sk_buff*) {}

// Nothing of the module is registered or allocated.
void ExpectNothingLeft(size_t live_before) {
  EXPECT_EQ(KernelSocketCount(), 0u);
  EXPECT_FALSE(vfs::Exists("/proc/bypassDebug"));
  EXPECT_EQ(LiveAllocations(), live_before);
  EXPECT_EQ(g_pstDebug, nullptr);
  EXPECT_EQ(g_pstCatchPktData, nullptr);
}

TEST(Lifecycle, LoadCreatesSocketsFilesAndZeroedBuffers) {
  const size_t live = LiveAllocations();
  ASSERT_EQ(vane_entry_init(), 0);
  EXPECT_TRUE(KernelSocketExists(26));
  EXPECT_TRUE(KernelSocketExists(27));
  EXPECT_NE(g_supp_netlink_kernel.pstSock, nullptr);
  EXPECT_NE(g_supp_fast_netlink_kernel.pstSock, nullptr);
  EXPECT_EQ(vfs::Mode("/proc/bypassDebug/counts"), 0666);
  EXPECT_EQ(vfs::Mode("/proc/bypassDebug/debug"), 0666);
  EXPECT_EQ(g_ulDebugLen, 0u);
  std::vector<uint8_t> text = vfs::ProcReadAll("/proc/bypassDebug/debug");
  EXPECT_EQ(text, std::vector<uint8_t>(BYPASS_DEBUG_BUF_TEXT, 0));
  ASSERT_NE(g_pstCatchPktData, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(g_pstCatchPktData, g_pstCatchPktData + BYPASS_CATCH_STORE_LEN),
            std::vector<uint8_t>(BYPASS_CATCH_STORE_LEN, 0));

  vane_entry_exit();
  ExpectNothingLeft(live);
  // Once the module is gone, no user socket of its protocols can be opened.
  EXPECT_EQ(kport::user::UserSocket::Open(26, 100, 100), nullptr);
}

TEST(Lifecycle, EveryLoadStartsFromTheLoadTimeState) {
  const size_t live = LiveAllocations();
  for (int round = 0; round < 25; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(vane_entry_init(), 0);
    EXPECT_EQ(g_supp_netlink_kernel.ulPid, 0u);
    EXPECT_EQ(g_supp_fast_netlink_kernel.aulVcpuPid[7], 0u);
    EXPECT_EQ(bypass_isSupportMulticore(), 0u);
    EXPECT_EQ(bypass_get_boardType(), 0u);
    EXPECT_EQ(g_ulDebugLevel, 0u);
    EXPECT_EQ(g_ulMulPid, 1u);
    EXPECT_EQ(g_ulLBType, 0u);
    EXPECT_EQ(g_pktprintfcout, 0);
    EXPECT_EQ(Counters(), std::vector<uint32_t>(BYPASS_PKT_COUNT_NUM, 0));
    EXPECT_EQ(g_bypass_ivo_lb_table.ulEnable, 0u);
    EXPECT_EQ(g_bypass_deteption_lb_table.ulCauseIdNum, 0u);
    EXPECT_EQ(g_stIvoDebugInfo.ulIvoHitCnt, 0u);
    EXPECT_EQ(g_timngKernelInfoCnt, 0u);
    EXPECT_EQ(g_TimngBoardType, 0u);
    EXPECT_EQ(g_timngKernelInfo[0].causeid, 0u);
    {
      // Leave traces of a busy module behind for the next round.
      Worker worker(4242);
      ASSERT_EQ(worker.Register(kNormal, 0), 0);
      ASSERT_EQ(worker.Register(kFast, 7), 0);
      BYPASS_PKT_OFFSET_S cfg{};
      cfg.ulIsSupportMulticore = 1;
      cfg.ulBoardType = 37;
      ASSERT_EQ(worker.Configure(cfg), 0);
      ASSERT_EQ(worker.Debug(14), 0);
      ASSERT_EQ(worker.Debug(1), 0);
      ASSERT_EQ(worker.Debug(16), 0);
      SetDebugLevel(5);
      BYPASS_LB_TABLE_S table{};
      table.ulEnable = 1;
      table.ulCauseIdNum = 1;
      table.ausCauseId[0] = 9;
      std::vector<uint8_t> bytes(sizeof(table));
      std::memcpy(bytes.data(), &table, sizeof(table));
      ASSERT_EQ(worker.Control(NETLINK_MID_IVO_LB, bytes), 0);
      ASSERT_EQ(worker.Control(NETLINK_MID_TIMNG, std::vector<uint8_t>(16, 3)), 0);
      uint32_t n = 0;
      uint8_t v = 0;
      ASSERT_EQ(bypass_msg_get_ivo_vcpuid(9, &n, &v), 0u);
      ASSERT_EQ(vfs::ProcReadAll("/proc/bypassDebug/ivo").size(), 296u);
      std::vector<uint8_t> pkt(64, 0xEE);
      ASSERT_GT(netlink_send_msg(1, pkt.data(), pkt.size()), 0);
    }
    vane_entry_exit();
    ExpectNothingLeft(live);
  }
}

// Fails each allocation of start-up in turn (sockets, proc entries, debug
// buffer, capture store): every failure returns the step's code and leaves
// nothing behind; the first attempt that is not failed loads normally.
TEST(Lifecycle, EachFailedStartUpStepIsUndone) {
  const size_t live = LiveAllocations();
  std::vector<int> codes;
  for (unsigned n = 1; n < 100; ++n) {
    SCOPED_TRACE(n);
    klog::Clear();
    fault::ClearAll();
    fault::FailNth(fault::Site::kAlloc, n);
    int ret = vane_entry_init();
    fault::ClearAll();
    if (ret == 0) {
      vane_entry_exit();
      break;
    }
    codes.push_back(ret);
    ExpectNothingLeft(live);
    if (ret == -22 && klog::ContainsFragment("/proc/bypassDebug")) {
      EXPECT_TRUE(
          klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass_proc_init inits failed.\r\n"));
    }
  }
  // Both sockets come first and fail with -ENOMEM; the steps after them
  // (directory, two files, debug buffer, capture store) with -EINVAL.
  ASSERT_GE(codes.size(), 7u);
  size_t first_later = 0;
  while (first_later < codes.size() && codes[first_later] == -12) ++first_later;
  EXPECT_GE(first_later, 2u);
  for (size_t i = first_later; i < codes.size(); ++i) EXPECT_EQ(codes[i], -22) << "attempt " << i;
  EXPECT_GE(codes.size() - first_later, 5u);
  ExpectNothingLeft(live);
}

TEST(Lifecycle, TakenProtocolFailsWithoutLeavingTheOtherSocket) {
  const size_t live = LiveAllocations();
  for (int proto : {26, 27}) {
    SCOPED_TRACE(proto);
    struct sock* other = kport_netlink_kernel_create(proto, NoInput);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(vane_entry_init(), -12);
    EXPECT_EQ(KernelSocketCount(), 1u);
    EXPECT_FALSE(vfs::Exists("/proc/bypassDebug"));
    kport_netlink_kernel_release(other);
    ExpectNothingLeft(live);
  }
}

TEST(Lifecycle, ProcDirectoryTakenFailsWithAlertAndReleasesSockets) {
  const size_t live = LiveAllocations();
  klog::Clear();
  struct proc_dir_entry* other = kport_proc_mkdir("bypassDebug", nullptr);
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(vane_entry_init(), -22);
  EXPECT_TRUE(
      klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: create dir /proc/bypassDebug failed."));
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass_proc_init inits failed.\r\n"));
  EXPECT_EQ(KernelSocketCount(), 0u);
  kport_remove_proc_entry("bypassDebug", nullptr);
  ExpectNothingLeft(live);
}

}  // namespace
}  // namespace vane::test
