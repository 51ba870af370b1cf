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

#include "base/atomic.h"
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

// Readers on several threads look up ports, MACs and cause IDs while one
// writer churns the socket-port lists, the Portal and CoA entries, the NAC
// list and the cause-ID table. Every state a reader sees must be one that a
// writer produced whole: a Portal or CoA port with the process of the same
// setting, a NAC list whose ids all come from one reload, a socket-port
// process that belongs to its port, a cause ID with its own types.
constexpr auto kRunFor = std::chrono::milliseconds(1500);
constexpr int kReaders = 3;
constexpr u16 kFirstPort = 7000;
constexpr u16 kPorts = 16;
constexpr u16 kSrcPort = 2000;

// What each setting stores, so that a reader can tell a torn one.
u32 ProcessOfPort(u32 port) { return port * 3 + 1; }
u32 LbTypeOf(u32 cause) { return cause % 4 + 1; }
u32 PktTypeOf(u32 cause) { return cause % 11 + 1; }

class AaaStressTest : public ModuleTest {};

void Writer(const std::atomic<bool>& stop, std::atomic<u64>& rounds) {
  u32 gen = 0;
  u32 cause = 0;
  while (!stop.load(std::memory_order_relaxed)) {
    ++gen;
    u16 port = static_cast<u16>(kFirstPort + gen % kPorts);
    // Destination entries: both families, replaced and deleted in turn.
    (void)WLAN_LB_SetSocketPortDistributeTbl(port, 0, ProcessOfPort(port), 0, gen % 2);
    if (gen % 3 == 0) (void)WLAN_LB_DeleteSocketPortDistributeTbl(port, 0, 0, (gen / 3) % 2);
    // The source-port entry comes and goes.
    if (gen % 5 == 0) {
      (void)WLAN_LB_SetSocketPortDistributeTbl(kSrcPort, gen % 2, 0, 1, 0);
    } else if (gen % 5 == 2) {
      (void)WLAN_LB_DeleteSocketPortDistributeTbl(kSrcPort, gen % 2, 1, 0);
    }
    u16 portal = static_cast<u16>(100 + gen % 1000);
    (void)WLAN_LB_SetAAAPortalDistributeTbl(portal, ProcessOfPort(portal));
    (void)WLAN_LB_SetAAARdsCOADistributeTbl(static_cast<u16>(portal + 1), ProcessOfPort(portal + 1),
                                            static_cast<u8>(gen % 2));
    // A NAC reload: gen % 20 + 1 ids (some above the 16 slots), all equal.
    if (gen % 4 == 0) {
      u32 id = gen & 0xFFFFFF;
      std::vector<u32> ids(WLAN_LB_NAC_MAX, id);
      WLAN_LB_InitAAAAccessVcpuIDList(ids.data(), 64, static_cast<u16>(gen % 20 + 1));
    }
    if (cause < 8192 && gen % 8 == 0) {
      WLAN_LB_CAUSEID_NODE_S n{cause, PktTypeOf(cause), LbTypeOf(cause)};
      WLAN_LB_SetCauseIDTable(&n, 1);
      ++cause;
    }
    rounds.fetch_add(1, std::memory_order_relaxed);
  }
}

void Reader(const std::atomic<bool>& stop, std::atomic<u64>& faults, std::atomic<u64>& hits,
            u32 seed) {
  u32 i = seed;
  u64 bad = 0;
  u64 seen = 0;
  auto check = [&bad](bool ok) { bad += ok ? 0 : 1; };
  while (!stop.load(std::memory_order_relaxed)) {
    ++i;
    {
      kport::RcuReadGuard rcu;
      PortEntry p = port_entry_load(&g_stPortalPktDistribute);
      check(p.port == 0 ? p.process == 0 : p.process == ProcessOfPort(p.port));
      for (const WLAN_LB_PORT_DISTRIBUTE_S& e : g_stRadiusCOADistribute) {
        PortEntry c = port_entry_load(&e);
        check(c.port == 0 ? c.process == 0 : c.process == ProcessOfPort(c.port));
      }
      const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
      u32 n = nac->count < WLAN_LB_NAC_MAX ? nac->count : WLAN_LB_NAC_MAX;
      for (u32 k = 1; k < n; ++k) check(nac->ids[k] == nac->ids[0]);
      if (n != 0) check((nac->ids[0] % 20) + 1 == nac->count);
    }
    u16 port = static_cast<u16>(kFirstPort + i % kPorts);
    u64 process = 7;
    (void)WLAN_LB_GetDstSocketPortNodeID(port, 0, &process);
    check(process == 0 || process == ProcessOfPort(port));
    seen += process != 0 ? 1 : 0;

    WLAN_LB_PORT_INFO_S key{kSrcPort, 55536 + i % 10000, 0, static_cast<u8>(i % 2)};
    u32 num = 0;
    u8 ids[WLAN_LB_VCPU_IDS_MAX] = {};
    (void)WLAN_LB_GetAAAPortVcpuID(&key, &num, ids);
    check(num == 1 && (ids[0] == 0 || ids[0] == (key.dport - 55536) / 156 + 1));
    key.dport = WLAN_LB_RADIUS_COA_PORT;  // never a Portal or CoA port here
    key.ucUDPFlag = 1;
    (void)WLAN_LB_GetAAAPortVcpuID(&key, &num, ids);
    check(num == 1);

    WLAN_LB_ACCESS_INFO_S access{};
    access.smac[5] = static_cast<u8>(i);
    u64 vcpu = 0;
    if (WLAN_LB_GetAAAAccessVcpuID(&access, &vcpu) == 0u) check(vcpu != 0);

    u32 lb = 0;
    u64 pkt = 0;
    u16 cause = static_cast<u16>(i % 8192);
    if (WLAN_LB_IsNeedLBPkt(cause, &lb, &pkt) == 0u) {
      check(lb == LbTypeOf(cause) && pkt == PktTypeOf(cause));
    } else {
      check(lb == WLAN_LB_TYPE_NONE && pkt == WLAN_LB_PKT_TYPE_NONE);
    }
  }
  faults.fetch_add(bad);
  hits.fetch_add(seen);
}

TEST_F(AaaStressTest, ReadersSeeOnlyWholeStates) {
  store_relaxed(&g_ulIsLBInited, 1);
  store_relaxed(&g_ulKernelLBBoardType, WLAN_LB_BOARD_TYPE_LB);
  std::atomic<bool> stop{false};
  std::atomic<u64> faults{0};
  std::atomic<u64> hits{0};
  std::atomic<u64> rounds{0};
  std::vector<std::thread> threads;
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back(Reader, std::cref(stop), std::ref(faults), std::ref(hits),
                         static_cast<u32>(r * 977));
  }
  threads.emplace_back(Writer, std::cref(stop), std::ref(rounds));
  std::this_thread::sleep_for(kRunFor);
  stop.store(true);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(faults.load(), 0u);
  // The run exercised both sides.
  EXPECT_GT(rounds.load(), 100u);
  EXPECT_GT(hits.load(), 0u);
}

}  // namespace
}  // namespace vane::test
