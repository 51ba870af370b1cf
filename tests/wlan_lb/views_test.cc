// The WLAN status views read back as an operator sees them: the four text
// views of the attribute and its selector, the binary CAPWAP and keep-alive
// files, their bounds and failures, and the views' creation and removal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/entry.h"
#include "drv_vane/wlan_lb.h"
#include "kport/printk.h"
#include "kport/sysfs.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "wlan_lb/lb_fixture.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
constexpr char kCapwap[] = "/proc/wlan_lb/capwap";
constexpr char kCapwapKa[] = "/proc/wlan_lb/capwap_ka";

std::string Line(uint32_t port, const char* dir, const char* proto, const std::string& target) {
  char buf[128];
  std::snprintf(buf, sizeof(buf), "\r\n%6u(%s)                      %3s%33s%s", port, dir, proto,
                "", target.c_str());
  return buf;
}

template <typename T>
std::vector<uint8_t> Bytes(const T& value) {
  std::vector<uint8_t> b(sizeof(T));
  std::memcpy(b.data(), &value, sizeof(T));
  return b;
}

// Whether anything of the views is registered.
bool AnyViewLeft() {
  for (const std::string& path : vfs::List()) {
    if (path.rfind("/sys/class/wlan_lb", 0) == 0 || path.rfind("/proc/wlan_lb", 0) == 0) {
      return true;
    }
  }
  return false;
}

std::string Stats(const std::vector<uint32_t>& c, uint32_t board) {
  const char* const kLabels[] = {"CAPWAP      ", "CAPWAP KA   ", "NAC NODELIST", "PORTAL NODE ",
                                 "SOCKET PORT ", "BOARD TYPE  ", "CAUSEIID    "};
  std::string out;
  for (size_t i = 0; i < 7; ++i) {
    out += "\r\nWLAN LB KERNEL LB SET " + std::string(kLabels[i]) + ":" +
           std::to_string(i < c.size() ? c[i] : 0) + " ";
  }
  return out + "\r\nWLAN LB BOARD TYPE                :" + std::to_string(board) + " \r\n";
}

bool AllViewsThere() {
  return vfs::Exists(kAttr) && vfs::Mode(kAttr) == 0644 && vfs::Mode(kCapwap) == 0666 &&
         vfs::Mode(kCapwapKa) == 0666;
}

class WlanViewsTest : public LbModuleTest {
 protected:
  static std::string Show(const char* selector) {
    EXPECT_EQ(vfs::SysfsStore(kAttr, selector), static_cast<long>(std::strlen(selector)));
    return vfs::SysfsShow(kAttr).value_or("<none>");
  }
};

TEST_F(WlanViewsTest, StatisticsViewAndTheSelector) {
  EXPECT_EQ(vfs::SysfsShow(kAttr), "");  // no view at load
  EXPECT_EQ(Send(LbMessage(5, 3)), 0);
  EXPECT_EQ(Send(CapwapMsg({1, 2, 3, 4, 5, 6})), 0);
  EXPECT_EQ(Send(Resized(PortalMsg(1, 2), 19)), 0);
  EXPECT_EQ(Show("3"), Stats({1, 0, 0, 1, 0, 1, 0}, 3));

  // 0 clears the counters and keeps the view; so does text without digits.
  EXPECT_EQ(Show("0"), Stats({}, 3));
  EXPECT_EQ(g_ulShowType, 3);
  EXPECT_EQ(Send(LbMessage(5, 3)), 0);
  EXPECT_EQ(Show("none"), Show("0x100000000"));  // low 32 bits 0: a clear too
  EXPECT_EQ(g_ulMessageStatistics[5], 0u);
  EXPECT_EQ(g_ulShowType, 3);

  // Base 0 parsing, and the number taken as a signed 32-bit value.
  Show("0x4");
  EXPECT_EQ(g_ulShowType, 4);
  EXPECT_EQ(Show("-1"), "");
  EXPECT_EQ(g_ulShowType, -1);
  Show("010");
  EXPECT_EQ(g_ulShowType, 8);
  Show("0xFFFFFFFE");
  EXPECT_EQ(g_ulShowType, -2);
  EXPECT_EQ(Show("3 trailing"), Show("3"));
  // A write is consumed whole, however long; only its leading number counts.
  EXPECT_EQ(vfs::SysfsStore(kAttr, std::string(300, '1')), 300);
}

TEST_F(WlanViewsTest, NacView) {
  EXPECT_EQ(Show("1"), "");
  EXPECT_EQ(Send(NacMsg(3, {})), 0);
  EXPECT_EQ(Show("1"), "");
  EXPECT_EQ(Send(NacMsg(3, {4, 17, 63})), 0);
  EXPECT_EQ(Show("1"), "\r\nNAC process list :4 17 63 ");
  // A count above the 16 slots shows the 16.
  std::vector<uint32_t> ids(16);
  for (uint32_t i = 0; i < 16; ++i) ids[i] = i + 1;
  EXPECT_EQ(Send(NacMsg(3, ids, 0xFFFF)), 0);
  EXPECT_EQ(Show("1"), "\r\nNAC process list :1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 ");
}

TEST_F(WlanViewsTest, SocketPortView) {
  EXPECT_EQ(Show("2"), "");
  EXPECT_EQ(Send(SocketPortMsg(1812, false, 0, 5)), 0);
  EXPECT_EQ(Send(SocketPortMsg(2000, false, 1, 7)), 0);
  EXPECT_EQ(Send(SocketPortMsg(2001, false, 1, WLAN_LB_PROCESS_NAC)), 0);
  EXPECT_EQ(Send(SocketPortMsg(49, true, 0, 12, 1)), 0);
  EXPECT_EQ(Send(SocketPortMsg(65535, true, 1, 3)), 0);
  // Replacing an entry moves it to the front.
  EXPECT_EQ(Send(SocketPortMsg(1812, false, 0, 6)), 0);
  const std::string lists = Line(1812, "D", "UDP", "6") + Line(2001, "S", "UDP", "NAC") +
                            Line(2000, "S", "UDP", "RANGE") + Line(65535, "S", "TCP", "RANGE") +
                            Line(49, "D", "TCP", "12");
  EXPECT_EQ(Show("2"), lists);

  // The CoA lines come with the first NAC list, the Portal line with a port.
  EXPECT_EQ(Send(NacMsg(3, {1})), 0);
  EXPECT_EQ(Send(PortalMsg(8443, 4000000000u)), 0);
  const std::string coa = Line(3799, "D", "UDP", "NAC");
  EXPECT_EQ(Show("2"), lists + coa + coa + Line(8443, "D", "UDP", "4000000000"));
  EXPECT_EQ(Send(PortalMsg(0, 9)), 0);
  EXPECT_EQ(Show("2"), lists + coa + coa);
}

TEST_F(WlanViewsTest, TextThatDoesNotFitThePageIsCut) {
  std::string full;
  for (uint32_t port = 1; port <= 100; ++port) {
    ASSERT_EQ(Send(SocketPortMsg(static_cast<uint16_t>(port), false, 0, 100000 + port)), 0);
    full = Line(port, "D", "UDP", std::to_string(100000 + port)) + full;
  }
  ASSERT_GT(full.size(), 4095u);
  const std::string shown = Show("2");
  EXPECT_EQ(shown.size(), 4095u);
  EXPECT_EQ(shown, full.substr(0, 4095));
}

TEST_F(WlanViewsTest, CauseIdViewInBucketOrder) {
  EXPECT_EQ(Show("4"), "");  // no table yet
  EXPECT_EQ(Send(CauseIdMsg({{99, 11, 4}, {1, 12, 1}, {1050, 3, 2}})), 0);
  EXPECT_EQ(Show("4"), "1    1    12  ;1050 2    3   ;99   4    11  ;");
}

class WlanCapwapFileTest : public WlanViewsTest {
 protected:
  static constexpr uint32_t kSip = 0x0A000001;

  static std::vector<uint8_t> Record(uint32_t sip, uint32_t dip, uint16_t sport, uint16_t dport,
                                     uint8_t vpn, uint32_t process) {
    std::vector<uint8_t> r(20, 0);
    std::memcpy(&r[0], &sip, 4);
    std::memcpy(&r[4], &dip, 4);
    std::memcpy(&r[8], &sport, 2);
    std::memcpy(&r[10], &dport, 2);
    r[12] = vpn;
    std::memcpy(&r[16], &process, 4);
    return r;
  }
};

TEST_F(WlanCapwapFileTest, FirstTenMatchingRecordsInBucketOrder) {
  EXPECT_EQ(vfs::ProcReadAll(kCapwap), std::vector<uint8_t>(200, 0));  // no table yet
  // Twelve records of one address in twelve buckets, sent in an order
  // unlike the buckets', and one record of another address among them.
  struct Sent {
    uint32_t bucket;
    std::vector<uint8_t> record;
  };
  std::vector<Sent> sent;
  for (uint16_t i = 0; i < 12; ++i) {
    const uint16_t dport = static_cast<uint16_t>(5000 + (i * 37) % 200);
    ASSERT_EQ(Send(CapwapMsg({kSip, 7, 1, dport, 2, 40u + i})), 0);
    sent.push_back({(kSip + 7 + 1 + dport + 2) % 281, Record(kSip, 7, 1, dport, 2, 40 + i)});
  }
  ASSERT_EQ(Send(CapwapMsg({kSip + 1, 6, 1, 5000, 2, 99})), 0);
  std::sort(sent.begin(), sent.end(),
            [](const Sent& a, const Sent& b) { return a.bucket < b.bucket; });
  std::vector<uint8_t> expect;
  for (size_t i = 0; i < 10; ++i)
    expect.insert(expect.end(), sent[i].record.begin(), sent[i].record.end());

  ASSERT_EQ(vfs::ProcWriteAll(kCapwap, Bytes(uint64_t{kSip})), 8);
  std::vector<uint8_t> got;
  int64_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    uint8_t buf[50];
    ASSERT_EQ(vfs::ProcRead(kCapwap, buf, sizeof(buf), &pos), 50);
    got.insert(got.end(), buf, buf + 50);
  }
  uint8_t buf[50];
  EXPECT_EQ(vfs::ProcRead(kCapwap, buf, sizeof(buf), &pos), 0);
  EXPECT_EQ(got, expect);

  // The upper half of the selector takes part: nothing has such an address.
  ASSERT_EQ(vfs::ProcWriteAll(kCapwap, Bytes(uint64_t{kSip} | (uint64_t{1} << 32))), 8);
  EXPECT_EQ(vfs::ProcReadAll(kCapwap), std::vector<uint8_t>(200, 0));
}

TEST_F(WlanCapwapFileTest, KeepAliveRecordOfTheWrittenSession) {
  EXPECT_EQ(vfs::ProcReadAll(kCapwapKa), std::vector<uint8_t>(20, 0));
  ASSERT_EQ(Send(CapwapKaMsg({1, 2, 3, 4}, 9)), 0);
  ASSERT_EQ(Send(CapwapKaMsg({1, 2, 3, 5}, 10)), 0);
  const uint32_t key[4] = {1, 2, 3, 4};
  // A longer write takes its first 16 bytes.
  std::vector<uint8_t> w = Bytes(key);
  w.push_back(0xAA);
  ASSERT_EQ(vfs::ProcWriteAll(kCapwapKa, w), 17);
  const uint32_t expect[5] = {1, 2, 3, 4, 9};
  EXPECT_EQ(vfs::ProcReadAll(kCapwapKa, 7), Bytes(expect));
  const uint32_t other[4] = {1, 2, 4, 4};
  ASSERT_EQ(vfs::ProcWriteAll(kCapwapKa, Bytes(other)), 16);
  EXPECT_EQ(vfs::ProcReadAll(kCapwapKa), std::vector<uint8_t>(20, 0));
}

TEST_F(WlanCapwapFileTest, BadWritesAndAllocationFailures) {
  ASSERT_EQ(Send(CapwapMsg({kSip, 1, 1, 1, 1, 77})), 0);
  ASSERT_EQ(Send(CapwapKaMsg({5, 6, 7, 8}, 78)), 0);
  const uint32_t key[4] = {5, 6, 7, 8};
  ASSERT_EQ(vfs::ProcWriteAll(kCapwap, Bytes(uint64_t{kSip})), 8);
  ASSERT_EQ(vfs::ProcWriteAll(kCapwapKa, Bytes(key)), 16);
  const std::vector<uint8_t> capwap = vfs::ProcReadAll(kCapwap);
  const std::vector<uint8_t> ka = vfs::ProcReadAll(kCapwapKa);
  ASSERT_EQ(capwap, [] {
    std::vector<uint8_t> v = Record(kSip, 1, 1, 1, 1, 77);
    v.resize(200, 0);
    return v;
  }());

  // Shorter than the key: refused, the selector stays.
  EXPECT_EQ(vfs::ProcWriteAll(kCapwap, std::vector<uint8_t>(7, 0)), -22);
  EXPECT_EQ(vfs::ProcWriteAll(kCapwapKa, std::vector<uint8_t>(15, 0)), -22);
  EXPECT_EQ(vfs::ProcWriteAll(kCapwapKa, {}), -22);
  // A fault while copying the key: -1, the selector stays.
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(vfs::ProcWriteAll(kCapwap, std::vector<uint8_t>(8, 0)), -1);
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(vfs::ProcWriteAll(kCapwapKa, std::vector<uint8_t>(16, 0)), -1);
  EXPECT_EQ(vfs::ProcReadAll(kCapwap), capwap);
  EXPECT_EQ(vfs::ProcReadAll(kCapwapKa), ka);

  // No memory for the image: end of file.
  for (const char* path : {kCapwap, kCapwapKa}) {
    uint8_t buf[200];
    fault::FailNth(fault::Site::kAlloc, 1);
    EXPECT_EQ(vfs::ProcRead(path, buf, sizeof(buf), nullptr), 0) << path;
    EXPECT_EQ(fault::Injected(fault::Site::kAlloc), 1u);
    fault::ClearAll();
  }
  // A fault copying out: the read reports it and the position stays.
  fault::FailNth(fault::Site::kCopyToUser, 1);
  uint8_t buf[20];
  int64_t pos = 0;
  EXPECT_EQ(vfs::ProcRead(kCapwapKa, buf, sizeof(buf), &pos), -14);
  EXPECT_EQ(pos, 0);
}

TEST_F(WlanViewsTest, ReadersRunWhileMessagesChangeTheTables) {
  constexpr int kRounds = 200;
  std::thread reader([] {
    for (int i = 0; i < kRounds; ++i) {
      (void)vfs::SysfsShow(kAttr);
      (void)vfs::ProcReadAll(kCapwap);
      (void)vfs::ProcReadAll(kCapwapKa);
    }
  });
  ASSERT_EQ(vfs::ProcWriteAll(kCapwap, Bytes(uint64_t{9})), 8);
  for (int i = 0; i < kRounds; ++i) {
    const uint8_t op = (i % 2 == 0) ? 1 : WLAN_LB_OP_DELETE;
    EXPECT_EQ(Send(CapwapMsg({9, 1, 2, static_cast<uint16_t>(i / 2), 0, 5}, op)), 0);
    EXPECT_EQ(Send(CapwapKaMsg({9, 9, 9, 9}, static_cast<uint32_t>(i), op)), 0);
    EXPECT_EQ(Send(SocketPortMsg(static_cast<uint16_t>(i % 7), i % 3 == 0, 0, 1, 0, op)), 0);
    EXPECT_EQ(Send(NacMsg(3, {static_cast<uint32_t>(i)})), 0);
    EXPECT_EQ(vfs::SysfsStore(kAttr, std::to_string(1 + i % 4)), 1);
  }
  reader.join();
}

TEST_F(WlanViewsTest, EachFailedCreationStepLeavesNoViewBehind) {
  const char* const kMessages[] = {
      "Failed to create wlan lb class.\n",
      "Failed to create wlan lb device.\n",
      "wlan lb: device_create_file return -12\n",
      "\r\nErr: create dir /proc/wlan_lb failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
  };
  ASSERT_TRUE(AllViewsThere());
  for (unsigned step = 1; step <= 6; ++step) {
    WLAN_LB_ExitSysfs();
    EXPECT_FALSE(AnyViewLeft());
    klog::Clear();
    fault::FailNth(fault::Site::kAlloc, step);
    WLAN_LB_InitSysfs();
    fault::ClearAll();
    EXPECT_FALSE(AnyViewLeft()) << step;
    EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, kMessages[step - 1])) << step;
    EXPECT_EQ(klog::Lines().size(), 1u) << step;
    // Removing what is not there is harmless.
    WLAN_LB_ExitSysfs();
    WLAN_LB_InitSysfs();
    ASSERT_TRUE(AllViewsThere()) << step;
  }
}

// Loading with each creation step of the views failing: the module loads,
// works without its views, and unloads leaving nothing.
TEST(WlanViewsLifecycleTest, ModuleLoadsWhenItsViewsCannotBeCreated) {
  fault::ClearAll();
  const size_t live = kport::user::LiveAllocations();
  fault::ResetCounts(fault::Site::kAlloc);
  ASSERT_EQ(vane_entry_init(), 0);
  const unsigned long calls = fault::Calls(fault::Site::kAlloc);
  vane_entry_exit();
  ASSERT_GE(calls, 6u);

  // The views' six creations are the last allocations of the start-up.
  for (unsigned long step = calls - 5; step <= calls; ++step) {
    klog::Clear();
    fault::ResetCounts(fault::Site::kAlloc);
    fault::FailNth(fault::Site::kAlloc, static_cast<unsigned>(step));
    ASSERT_EQ(vane_entry_init(), 0) << step;
    fault::ClearAll();
    EXPECT_FALSE(AnyViewLeft()) << step;
    EXPECT_TRUE(vfs::Exists("/proc/bypassDebug"));
    {
      LbSender lb;
      EXPECT_EQ(lb.Send(LbMessage(5, 3)), 0);
    }
    EXPECT_EQ(g_ulKernelLBBoardType, 3u);
    vane_entry_exit();
    EXPECT_FALSE(AnyViewLeft());
    EXPECT_EQ(kport::user::LiveAllocations(), live) << step;
  }

  // A class of that name already there: the same, and it stays someone
  // else's.
  kport_class* other = kport_class_create("wlan_lb");
  ASSERT_NE(other, nullptr);
  klog::Clear();
  ASSERT_EQ(vane_entry_init(), 0);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "Failed to create wlan lb class.\n"));
  EXPECT_FALSE(vfs::Exists("/proc/wlan_lb"));
  vane_entry_exit();
  EXPECT_TRUE(vfs::Exists("/sys/class/wlan_lb"));
  kport_class_destroy(other);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
}

}  // namespace
}  // namespace vane::test
