// What the outside cannot reach of the LB messages, the views and the AAA
// tables: tables that another module filled before user space configured
// LB, the handler called directly, a counter about to wrap, every allocation
// and copy that can fail, and readers racing the writers of the exported
// functions.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "kport/printk.h"
#include "kport/sysfs.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"
#include "wlan_lb/lb_fixture.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

using LbInternalsTest = LbModuleTest;

constexpr char kCoa[] =
    "\r\n  3799(D)                      UDP                                 NAC";

TEST_F(LbInternalsTest, TheFirstMessageEmptiesWhatAnotherModuleSetAndNacListsResetTheCoa) {
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), 0u);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(49, 1, 6, 0, 0), 0u);
  ASSERT_NE(View("2"), "");
  // Even with a Len that applies nothing.
  EXPECT_EQ(Send(LbMessage(5, 3), {.len_field = 0}), 0);
  EXPECT_EQ(View("2"), "");
  // Later messages leave the lists alone.
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), 0u);
  EXPECT_EQ(Send(LbMessage(7, 0)), 0);
  EXPECT_EQ(View("2"), "\r\n  1812(D)                      UDP                                 5");

  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1700, 4, 0), 0u);
  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1701, 5, 1), 0u);
  EXPECT_NE(View("2").find("1701(D)"), std::string::npos);
  EXPECT_EQ(Send(NacMsg(3, {1})), 0);
  EXPECT_EQ(
      View("2"),
      std::string("\r\n  1812(D)                      UDP                                 5") +
          kCoa + kCoa);
}

TEST_F(LbInternalsTest, DirectCallsWithoutAHeadOrForAnotherIdAndAWrappingCounter) {
  const uint8_t head[4] = {5, 0, 0, 0};
  const Bytes board = LbMessage(5, 3);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(10, head, sizeof(head)), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(10, nullptr, 8), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(11, board.data(), 8), 0u);
  EXPECT_EQ(Stats(), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 1}));

  g_ulMessageStatistics[5] = 0xFFFFFFFFu;
  EXPECT_EQ(Send(board), 0);
  EXPECT_EQ(Stats(), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 3}));
}

TEST_F(LbInternalsTest, ATableThatCannotBeCreatedIsCreatedByTheNextMessage) {
  // Sent directly: the channel itself needs memory to carry a message.
  const Bytes add = CapwapMsg({10, 20, 30, 40, 0, 1});
  const Bytes causes = CauseIdMsg({{7, 1, 1}});
  fault::FailAlways(fault::Site::kAlloc);
  ApplyLb(add);
  ApplyLb(causes);
  fault::ClearAll();
  EXPECT_EQ(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(Send(add), 0);
  EXPECT_EQ(Send(causes), 0);
  EXPECT_EQ(CapwapRecords(10)[16], 1);
  EXPECT_EQ(View("4"), "7    1    1   ;");
}

TEST_F(LbInternalsTest, ViewFilesThatCannotCopyOrAllocate) {
  ASSERT_EQ(Send(CapwapMsg({5, 1, 1, 1, 1, 77})), 0);
  ASSERT_EQ(Send(CapwapKaMsg({5, 6, 7, 8}, 78)), 0);
  const Bytes capwap = CapwapRecords(5);
  const Bytes ka = KaRecord({5, 6, 7, 8});
  // A fault while copying the key: -1, the selector stays.
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(env().Write(kCapwapFile, Bytes(8, 0)), -1);
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(env().Write(kKaFile, Bytes(16, 0)), -1);
  EXPECT_EQ(env().Read(kCapwapFile), capwap);
  EXPECT_EQ(env().Read(kKaFile), ka);
  // No memory for the image: the end of the file.
  for (const char* path : {kCapwapFile, kKaFile}) {
    fault::FailNth(fault::Site::kAlloc, 1);
    EXPECT_EQ(env().ReadAt(path, 0, 200), Bytes{}) << path;
    EXPECT_EQ(fault::Injected(fault::Site::kAlloc), 1u);
    fault::ClearAll();
  }
  // A fault copying out: the read reports it and the position stays.
  fault::FailNth(fault::Site::kCopyToUser, 1);
  uint8_t buf[20];
  int64_t pos = 0;
  EXPECT_EQ(vfs::ProcRead(kKaFile, buf, sizeof(buf), &pos), -14);
  EXPECT_EQ(pos, 0);
}

bool AnyViewLeft() {
  for (const std::string& path : vfs::List()) {
    if (path.rfind("/sys/class/wlan_lb", 0) == 0 || path.rfind("/proc/wlan_lb", 0) == 0) {
      return true;
    }
  }
  return false;
}

// Each creation step of the views failing in turn at load: the step's
// message, nothing of the views left, a module that works without them and
// unloads leaving nothing.
TEST(WlanViewsLifecycleTest, TheModuleLoadsWhenItsViewsCannotBeCreated) {
  const char* const kMessages[] = {
      "Failed to create wlan lb class.\n",
      "Failed to create wlan lb device.\n",
      "wlan lb: device_create_file return -12\n",
      "\r\nErr: create dir /proc/wlan_lb failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
  };
  fault::ClearAll();
  const size_t live = kport::user::LiveAllocations();
  fault::ResetCounts(fault::Site::kAlloc);
  ASSERT_EQ(vane_entry_init(), 0);
  const unsigned long calls = fault::Calls(fault::Site::kAlloc);
  vane_entry_exit();
  ASSERT_GE(calls, 6u);

  // The views' six creations are the last allocations of the start-up.
  for (unsigned step = 0; step < 6; ++step) {
    SCOPED_TRACE(kMessages[step]);
    klog::Clear();
    fault::ResetCounts(fault::Site::kAlloc);
    fault::FailNth(fault::Site::kAlloc, static_cast<unsigned>(calls - 5 + step));
    ASSERT_EQ(vane_entry_init(), 0);
    fault::ClearAll();
    EXPECT_FALSE(AnyViewLeft());
    EXPECT_TRUE(klog::Contains(1, kMessages[step]));
    EXPECT_EQ(klog::Lines().size(), 1u);
    {
      Worker w;
      EXPECT_EQ(w.Control(10, LbMessage(5, 3)), 0);
    }
    EXPECT_EQ(g_ulKernelLBBoardType, 3u);
    vane_entry_exit();
    EXPECT_FALSE(AnyViewLeft());
    EXPECT_EQ(kport::user::LiveAllocations(), live);
  }

  // A class of that name already there: the same, and it stays someone
  // else's.
  kport_class* other = kport_class_create("wlan_lb");
  ASSERT_NE(other, nullptr);
  klog::Clear();
  ASSERT_EQ(vane_entry_init(), 0);
  EXPECT_TRUE(klog::Contains(1, "Failed to create wlan lb class.\n"));
  EXPECT_FALSE(vfs::Exists("/proc/wlan_lb"));
  vane_entry_exit();
  EXPECT_TRUE(vfs::Exists("/sys/class/wlan_lb"));
  kport_class_destroy(other);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
}

// Readers on several threads read the Portal, RADIUS CoA and NAC entries as
// fast as they can while one writer changes them through the exported
// functions: a port must come with the process of the same setting, a NAC
// list's ids with the count of the same reload. (A reader through packets,
// as the WLAN race scenario is, looks too rarely to catch a torn store.)
TEST_F(LbInternalsTest, AaaReadersSeeOnlyWholeEntries) {
  auto process_of = [](u32 port) { return port * 3 + 1; };
  std::atomic<bool> stop{false};
  std::atomic<u64> torn{0}, rounds{0};
  std::thread writer([&] {
    for (u32 gen = 1; !stop.load(std::memory_order_relaxed); ++gen) {
      const auto portal = static_cast<u16>(100 + gen % 1000);
      WLAN_LB_SetAAAPortalDistributeTbl(portal, process_of(portal));
      WLAN_LB_SetAAARdsCOADistributeTbl(static_cast<u16>(portal + 1), process_of(portal + 1),
                                        static_cast<u8>(gen % 2));
      // gen % 20 + 1 ids (some above the 16 slots), all equal.
      const std::vector<u32> ids(16, gen & 0xFFFFFF);
      if (gen % 4 == 0) WLAN_LB_InitAAAAccessVcpuIDList(ids.data(), 64, gen % 20 + 1);
      ++rounds;
    }
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      u64 bad = 0;
      auto whole = [&](const WLAN_LB_PORT_DISTRIBUTE_S& e) {
        const PortEntry p = port_entry_load(&e);
        bad += (p.port == 0 ? p.process == 0 : p.process == process_of(p.port)) ? 0 : 1;
      };
      while (!stop.load(std::memory_order_relaxed)) {
        kport::RcuReadGuard rcu;
        whole(g_stPortalPktDistribute);
        for (const WLAN_LB_PORT_DISTRIBUTE_S& e : g_stRadiusCOADistribute) whole(e);
        const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
        const u32 n = nac->count < 16 ? nac->count : 16;
        for (u32 k = 1; k < n; ++k) bad += nac->ids[k] == nac->ids[0] ? 0 : 1;
        if (n != 0) bad += nac->ids[0] % 20 + 1 == nac->count ? 0 : 1;
      }
      torn += bad;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  stop = true;
  writer.join();
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0u);
  EXPECT_GT(rounds.load(), 100u);
}

}  // namespace
}  // namespace vane::test
