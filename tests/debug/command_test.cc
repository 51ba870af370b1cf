// The debug command switch and the packet printers, as an operator sees
// them in the kernel log and the debug buffer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;

class CommandTest : public ModuleTest {};

struct Settings {
  uint64_t lb, vcpu, sw, mul, send;
  uint8_t pkt;
  int32_t dump;
  bool operator==(const Settings&) const = default;
};
Settings Now() {
  return {g_ulLBType,  g_ulVcpuId,  g_ulSwitchDebug, g_ulMulPid,
          g_ulSendPid, g_ucPktTyep, g_pktprintfcout};
}

TEST_F(CommandTest, UnknownCodesDoNothing) {
  const Settings before = Now();
  klog::Clear();
  for (int cmd : {0, 21, 22, 128, 255}) bypass_debug(static_cast<uint8_t>(cmd));
  EXPECT_EQ(Now(), before);
  EXPECT_TRUE(klog::Lines().empty());
}

TEST_F(CommandTest, SettingsStepAndWrapLikeCounters) {
  std::vector<uint64_t> lb;
  for (int i = 0; i < 5; ++i) {
    bypass_debug(1);
    lb.push_back(g_ulLBType);
  }
  EXPECT_EQ(lb, (std::vector<uint64_t>{1, 2, 3, 4, 0}));
  for (int i = 0; i < 100; ++i) bypass_debug(2);
  EXPECT_EQ(g_ulVcpuId, 0u);
  bypass_debug(2);
  EXPECT_EQ(g_ulVcpuId, 1u);

  bypass_debug(10);
  EXPECT_EQ(g_ulSwitchDebug, 1u);
  bypass_debug(9);
  EXPECT_EQ(g_ulSwitchDebug, 0u);

  bypass_debug(13);
  EXPECT_EQ(g_ucPktTyep, 255);
  bypass_debug(11);
  EXPECT_EQ(g_ucPktTyep, 0);

  bypass_debug(15);
  EXPECT_EQ(g_ulMulPid, 1u);
  bypass_debug(14);
  bypass_debug(14);
  bypass_debug(15);
  EXPECT_EQ(g_ulMulPid, 10u);
  bypass_debug(17);
  EXPECT_EQ(g_ulSendPid, uint64_t(0) - 10);

  bypass_debug(16);
  EXPECT_EQ(g_pktprintfcout, 20);
}

TEST_F(CommandTest, PrintoutsGoToTheKernelLogAtAlertLevel) {
  Worker w(7001);
  ASSERT_EQ(w.Register(kNormal, 1), 0);
  ASSERT_EQ(w.Register(kNormal, 4), 0);
  ASSERT_EQ(w.Register(kFast, 2), 0);
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulBoardType = 65672;
  ASSERT_EQ(w.Configure(cfg), 0);
  SetDebugLevel(5);
  klog::Clear();
  bypass_debug(12);
  bypass_debug(18);
  const auto lines = klog::Lines();
  ASSERT_EQ(lines.size(), 4u);
  for (const auto& l : lines) EXPECT_EQ(l.level, KPORT_LOGLEVEL_ALERT);
  EXPECT_EQ(lines[0].text, "\r\nboard type is 65672\xA3\xACg_ulDebugLevel=5");
  EXPECT_EQ(lines[1].text, "\r\n**bypass_debug_pidInfo****\r\n");
  EXPECT_EQ(lines[2].text, "\r\n**bypass_debug_pidInfo1-4:[7001,0,0,7001]****\r\n");
  EXPECT_EQ(lines[3].text, "\r\n**bypass_debug_pidInfo1-4:[0,7001,0,0]**fast**\r\n");
}

std::vector<uint8_t> Counting(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
  return v;
}

TEST_F(CommandTest, PacketPrinterShowsHeaderAndAtMost64Bytes) {
  SetDebugLevel(4);
  std::vector<uint8_t> pkt = Counting(100);
  bypass_print_pkt(pkt.data(), 100, 20, 0);
  EXPECT_EQ(DebugText(),
            "\r\nHGHDR:\r\n00010203-04050607-08090a0b-0c0d0e0f"
            "\r\nPaket Data Begin[len=80]:\r\n"
            "14151617 18191a1b 1c1d1e1f 20212223 24252627 28292a2b 2c2d2e2f 30313233\r\n"
            "34353637 38393a3b 3c3d3e3f 40414243 44454647 48494a4b 4c4d4e4f 50515253 ");

  // Too short after the offset; header skipped by flag.
  SetDebugLevel(4);
  bypass_print_pkt(pkt.data(), 36, 20, 1);
  EXPECT_EQ(DebugText(), "\r\nData len:36 less than VP packet len:36.");

  // No header when the configuration says there is none, or when it would
  // lie past the packet.
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulIsNoHgHdr = 1;
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
  SetDebugLevel(4);
  bypass_print_pkt(pkt.data(), 40, 20, 0);
  EXPECT_EQ(DebugText().find("HGHDR"), std::string::npos);
  cfg.ulIsNoHgHdr = 0;
  cfg.ulHgHdrOffset = 30;
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
  SetDebugLevel(4);
  std::vector<uint8_t> exact = Counting(45);
  bypass_print_pkt(exact.data(), 45, 0, 0);
  EXPECT_EQ(DebugText().find("HGHDR"), std::string::npos);

  // Level 1 alone: nothing.
  SetDebugLevel(1);
  bypass_print_pkt(pkt.data(), 100, 20, 0);
  bypass_print_All(pkt.data(), 100);
  EXPECT_EQ(DebugText(), "");
}

TEST_F(CommandTest, AllDataPrinterShowsAtMost500Bytes) {
  SetDebugLevel(4);
  std::vector<uint8_t> data = Counting(36);
  bypass_print_All(data.data(), 36);
  EXPECT_EQ(DebugText(),
            "\r\nAll Data Begin[len=36]:\r\n"
            "00 01 02 03  04 05 06 07  08 09 0a 0b  0c 0d 0e 0f  "
            "10 11 12 13  14 15 16 17  18 19 1a 1b  1c 1d 1e 1f \r\n"
            "20 21 22 23  \r\nEnd");
  SetDebugLevel(4);
  std::vector<uint8_t> big(700, 0xAB);
  bypass_print_All(big.data(), 700);
  const std::string text = DebugText();
  size_t bytes = 0;
  for (size_t p = text.find("ab "); p != std::string::npos; p = text.find("ab ", p + 3)) ++bytes;
  EXPECT_EQ(bytes, 500u);
  EXPECT_NE(text.find("[len=700]"), std::string::npos);
}

TEST_F(CommandTest, PacketDumpToTheLogIsBoundedAndSurvivesNoMemory) {
  klog::Clear();
  std::vector<uint8_t> data = Counting(200);
  bypass_print_pkt_data(data.data(), 200);
  const auto lines = klog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::string& t = lines[0].text;
  EXPECT_EQ(t.rfind("\r\n\r\nlen=200,data start:\r\n00010203 ", 0), 0u);
  EXPECT_NE(t.find("3c3d3e3f\r\n40414243"), std::string::npos);            // break after 64
  EXPECT_NE(t.find("54555657 5859\r\ndata end.\r\n"), std::string::npos);  // 90 bytes
  fault::FailNth(fault::Site::kAlloc, 1);
  bypass_print_pkt_data(data.data(), 200);
  EXPECT_EQ(klog::Lines().size(), 1u);
}

}  // namespace
}  // namespace vane::test
