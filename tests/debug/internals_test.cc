// What the outside cannot reach of the debug support: the counters'
// exported image and bounds, texts longer than any the module writes
// itself, the packet printers with arguments only their callers choose, and
// the capture entry points as the switch driver's own code calls them (null
// pointers, the time-stamp slot query, the field tests).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "debug/debug_internal.h"
#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "support/capture_env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using InternalsTest = ModuleTest;

TEST_F(InternalsTest, CountsOutOfRangeAreDroppedAndTheImageHoldsTheLastRead) {
  count_packet(960);
  count_packet(959);
  EXPECT_EQ(g_bypassPktCounts[959], 0u);
  EXPECT_EQ(Counters()[959], 1u);
  EXPECT_EQ(g_bypassPktCounts[959], 1u);
  ASSERT_EQ(env().Write("/proc/bypassDebug/counts", {0}), 1);
  EXPECT_EQ(g_bypassPktCounts[959], 0u);
  // A reload starts with an empty image, whatever the last read left.
  count_packet(959);
  ASSERT_EQ(Counters()[959], 1u);
  env().Unload();
  ASSERT_EQ(env().Load(), 0);
  EXPECT_EQ(g_bypassPktCounts[959], 0u);
}

TEST_F(InternalsTest, TextsThatDoNotFitAreCutShortWithinTheTextArea) {
  SetDebugLevel(1);
  const std::string huge(2000, 'h');
  bypass_debug_out(1, "%s", huge.c_str());
  EXPECT_EQ(g_ulDebugLen, 511u);
  // 500 bytes of room at the mark: a 511-byte text is cut to 500.
  g_ulDebugLen = 32268;
  bypass_debug_out(1, "%s", huge.c_str());
  EXPECT_EQ(g_ulDebugLen, 32768u);
  // No room at all: the full line is not written past the text area.
  bypass_debug_out(1, "x");
  EXPECT_EQ(g_ulDebugLen, 32768u);
  EXPECT_EQ(g_ulDebugLevel, 0u);
  EXPECT_EQ(g_pstDebug[32768], 0);
}

Bytes Counting(size_t n) {
  Bytes v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
  return v;
}

// The header and the 64-byte cut are seen from outside in the trace of a
// self-test packet; these are the branches no packet of the module takes.
TEST_F(InternalsTest, PacketPrinterLeavesOutWhatIsNotThere) {
  Bytes pkt = Counting(100);
  // Too short after the offset; header skipped by flag.
  SetDebugLevel(4);
  bypass_print_pkt(pkt.data(), 36, 20, 1);
  EXPECT_EQ(DebugText(), "\r\nData len:36 less than VP packet len:36.");
  // No header when the configuration says there is none, or when it would
  // lie past the packet.
  Worker w;
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulIsNoHgHdr = 1;
  ASSERT_EQ(w.Configure(cfg), 0);
  SetDebugLevel(4);
  bypass_print_pkt(pkt.data(), 40, 20, 0);
  EXPECT_EQ(DebugText().find("HGHDR"), std::string::npos);
  cfg.ulIsNoHgHdr = 0;
  cfg.ulHgHdrOffset = 30;
  ASSERT_EQ(w.Configure(cfg), 0);
  SetDebugLevel(4);
  bypass_print_pkt(pkt.data(), 45, 0, 0);
  EXPECT_EQ(DebugText().find("HGHDR"), std::string::npos);
  // Level 1 alone: nothing.
  SetDebugLevel(1);
  bypass_print_pkt(pkt.data(), 100, 20, 0);
  bypass_print_All(pkt.data(), 100);
  EXPECT_EQ(DebugText(), "");
}

TEST_F(InternalsTest, AllDataPrinterShowsAtMost500Bytes) {
  SetDebugLevel(4);
  Bytes data = Counting(36);
  bypass_print_All(data.data(), 36);
  EXPECT_EQ(DebugText(),
            "\r\nAll Data Begin[len=36]:\r\n"
            "00 01 02 03  04 05 06 07  08 09 0a 0b  0c 0d 0e 0f  "
            "10 11 12 13  14 15 16 17  18 19 1a 1b  1c 1d 1e 1f \r\n"
            "20 21 22 23  \r\nEnd");
  SetDebugLevel(4);
  Bytes big(700, 0xAB);
  bypass_print_All(big.data(), 700);
  const std::string text = DebugText();
  size_t bytes = 0;
  for (size_t p = text.find("ab "); p != std::string::npos; p = text.find("ab ", p + 3)) ++bytes;
  EXPECT_EQ(bytes, 500u);
  EXPECT_NE(text.find("[len=700]"), std::string::npos);
}

TEST_F(InternalsTest, NullArgumentsAndTheTimeStampSlotQuery) {
  ASSERT_EQ(ArmCapture(CaptureBlock(3)), 100);
  uint8_t mark = 0;
  Bytes f = CaptureFrame();
  EXPECT_EQ(bypass_IsNeedCatchPkt(nullptr, 60, 1, &mark, 0), 0u);
  EXPECT_EQ(bypass_IsNeedCatchPkt(f.data(), 60, 1, nullptr, 0), 0u);
  EXPECT_EQ(bypass_IsNeedCatchPkt(f.data(), 60, 1, &mark, 0), 1u);
  bypass_TS_RecvPktEvent(2, nullptr, 0, 5, mark, 2);
  // The capture's entry 0 has used both stamps; entry 1 is free.
  uint32_t index = 9, stamp = 9;
  EXPECT_EQ(bypass_TS_GetNum(2, 0, 2, &index, &stamp), 100u);
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, &index, &stamp), 0u);
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(stamp, 0u);
  EXPECT_EQ(bypass_IsNeedCatchPkt(f.data(), 60, 1, &mark, 0), 1u);
  EXPECT_EQ(bypass_TS_GetNum(2, 1, 2, &index, &stamp), 0u);
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(stamp, 1u);
  EXPECT_EQ(bypass_TS_GetNum(2, 1, 3, &index, &stamp), 100u);  // another slot
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, nullptr, &stamp), 100u);
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, &index, nullptr), 100u);
}

TEST_F(InternalsTest, IpcFramesByBoardAndANullField) {
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(nullptr, 20, 0, 0), 1u);
  Bytes ipc(21, 0);
  ipc[0] = 0x0A, ipc[1] = 0x0B, ipc[2] = 0x0C;
  ipc[16] = 0x06, ipc[17] = 0x40;
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 1u);
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 20), 0u);
  EXPECT_EQ(bypass_TS_IsIpcPkt(nullptr, 21), 0u);
  ipc[2] = 0x0D;
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 0u);
  ipc[2] = 0x0C;
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulBoardType = 0x10088;
  Worker w;
  ASSERT_EQ(w.Configure(cfg), 0);
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 0u);
  ipc[16] = 0x51, ipc[17] = 0x01;
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 1u);
}

}  // namespace
}  // namespace vane::test
