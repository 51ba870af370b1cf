// Packet capture as the switch driver and an operator use it: runs armed
// through catchPkt, the refusal rules, each filter alone and together, the
// marks, the time stamps of later events, a full store, and the
// read-and-clear of the store.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/capture_env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace clk = kport::user::clock;
namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

constexpr uint16_t kSlot = 2;

class CaptureTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    clk::FixWallClock(1700000000, 123456789);
  }
  void TearDown() override {
    clk::UseRealWallClock();
    ModuleTest::TearDown();
  }

  // 1 and the mark when captured, 0 and 0xFF when not.
  static std::pair<uint32_t, uint8_t> Catch(Bytes pkt, uint16_t event = 7, uint16_t offset = 0) {
    uint8_t mark = 0xFF;
    uint32_t r =
        bypass_IsNeedCatchPkt(pkt.data(), static_cast<uint32_t>(pkt.size()), event, &mark, offset);
    return {r, mark};
  }
  static void Event(uint8_t mark, uint16_t value, uint8_t event = 2, uint16_t slot = kSlot) {
    bypass_TS_RecvPktEvent(event, nullptr, 0, value, mark, slot);
  }
};

TEST_F(CaptureTest, RunsOfOneThreeAndThirtyNumberTheirPacketsAndStopWhenUsedUp) {
  for (uint16_t n : {1, 3, 30}) {
    SCOPED_TRACE(n);
    ASSERT_EQ(ArmCapture(CaptureBlock(n)), BYPASS_CATCH_CTRL_WRITE_LEN);
    std::vector<Bytes> frames;
    for (uint16_t i = 0; i < n; ++i) {
      frames.push_back(CaptureFrame(i, 10 + i));
      auto [r, mark] = Catch(frames.back(), static_cast<uint16_t>(100 + i));
      EXPECT_EQ(r, 1u);
      EXPECT_EQ(mark, 0x80 + i);
    }
    EXPECT_EQ(Catch(CaptureFrame(99)).first, 0u);
    EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, 0);
    EXPECT_EQ(g_stPktRecordCtrlInfo.usTotalCnt, n);

    auto used = UsedEntries(ReadCaptureStore());
    ASSERT_EQ(used.size(), n);
    for (uint16_t i = 0; i < n; ++i) {
      const auto& e = used[i];
      const Bytes& f = frames[i];
      EXPECT_EQ(e.ucNum, i);
      EXPECT_EQ(e.usSlot, kSlot);
      EXPECT_EQ(e.usLen, f.size());
      const size_t kept = std::min<size_t>(f.size(), 64);
      EXPECT_EQ(std::memcmp(e.aucData, f.data(), kept), 0);
      EXPECT_EQ(Bytes(e.aucData + kept, e.aucData + 64), Bytes(64 - kept, 0));
      EXPECT_EQ(e.astTime[0].ucUsed, 1);
      EXPECT_EQ(e.astTime[0].usEvent, 100 + i);
      EXPECT_EQ(e.astTime[0].ulSec, 1700000000u);
      EXPECT_EQ(e.astTime[0].ulNsec, 123456789u);  // nanoseconds, not microseconds
      EXPECT_EQ(e.astTime[1].ucUsed, 0);
    }
  }
}

TEST_F(CaptureTest, EachRefusalRuleCapturesNothingAndCountsNothing) {
  struct Case {
    const char* what;
    std::function<void(BYPASS_PKT_RECORD_CTRL_S&, uint32_t&, uint32_t&)> edit;
  };
  const Case cases[] = {
      {"mask 0", [](auto&, uint32_t& mask, uint32_t&) { mask = 0; }},
      {"slot not in mask", [](auto&, uint32_t&, uint32_t& slot) { slot = 3; }},
      {"usCount 0", [](auto& b, uint32_t&, uint32_t&) { b.usCount = 0; }},
      {"usTotalCnt 31", [](auto& b, uint32_t&, uint32_t&) { b.usTotalCnt = b.usCount = 31; }},
      {"usCount above total", [](auto& b, uint32_t&, uint32_t&) { b.usCount = 4; }},
      {"ucCatchIsOn 0", [](auto& b, uint32_t&, uint32_t&) { b.ucCatchIsOn = 0; }},
      {"ucCatchIsOn 2", [](auto& b, uint32_t&, uint32_t&) { b.ucCatchIsOn = 2; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    BYPASS_PKT_RECORD_CTRL_S b = CaptureBlock(3);
    uint32_t mask = 1u << kSlot, slot = kSlot;
    c.edit(b, mask, slot);
    ASSERT_EQ(ArmCapture(b, mask, slot), 100);
    auto [r, mark] = Catch(CaptureFrame());
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(mark, 0xFF);
    EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, b.usCount);
  }
  // Slot numbers are taken modulo 32: slot 34 is bit 2.
  ASSERT_EQ(ArmCapture(CaptureBlock(3), 1u << 2, 34), 100);
  EXPECT_EQ(Catch(CaptureFrame()).first, 1u);
  // Missing arguments and a frame that would start past the packet.
  uint8_t mark = 0;
  Bytes f = CaptureFrame();
  EXPECT_EQ(bypass_IsNeedCatchPkt(nullptr, 60, 1, &mark, 0), 0u);
  EXPECT_EQ(bypass_IsNeedCatchPkt(f.data(), 60, 1, nullptr, 0), 0u);
  EXPECT_EQ(bypass_IsNeedCatchPkt(f.data(), 10, 1, &mark, 11), 0u);
  EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, 2);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 1u);
}

// Each filter alone, with a control value that matches the frame and one
// that does not.
TEST_F(CaptureTest, EachFilterAlonePassesItsMatchAndRefusesItsMismatch) {
  const Bytes v4 = CaptureFrame();  // dst 00:11:22:33:44:55, src 00:00:5e:00:01:02
  const Bytes v6 = PacketBuilder()
                       .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
                       .ipv6({.src = Ipv6Addr("2001:db8::1"), .dst = Ipv6Addr("2001:db8::2")})
                       .udp(1, 2)
                       .payload(8)
                       .build();
  using Edit = std::function<void(BYPASS_PKT_RECORD_CTRL_S&)>;
  struct Case {
    const char* what;
    uint32_t bit;
    const Bytes* frame;
    Edit match;
    Edit mismatch;
  };
  auto mac = [](uint8_t* to, const char* text) {
    auto m = Mac(text);
    std::memcpy(to, m.data(), 6);
  };
  auto ip6 = [](uint8_t* to, const char* text) {
    auto a = Ipv6Addr(text);
    std::memcpy(to, a.data(), 16);
  };
  const Case cases[] = {
      {"source module", BYPASS_CATCH_FLT_SRCMOD, &v4, [](auto& b) { b.usSrcMod = 0; },
       [](auto& b) { b.usSrcMod = 1; }},
      {"source port", BYPASS_CATCH_FLT_SRCPORT, &v4, [](auto& b) { b.usSrcPort = 0; },
       [](auto& b) { b.usSrcPort = 5; }},
      {"length", BYPASS_CATCH_FLT_LEN, &v4,
       [&](auto& b) { b.usDataLength = static_cast<uint16_t>(v4.size()); },
       [&](auto& b) { b.usDataLength = static_cast<uint16_t>(v4.size() - 1); }},
      {"udf 1", BYPASS_CATCH_FLT_UDF1, &v4,
       [](auto& b) {
         b.usUdfOffset1 = 12;
         b.usUdfVaule1 = 0x0800;
       },
       [&](auto& b) {
         b.usUdfOffset1 = static_cast<uint16_t>(v4.size() - 1);
         b.usUdfVaule1 = static_cast<uint16_t>(v4.back() << 8);
       }},
      {"udf 2", BYPASS_CATCH_FLT_UDF2, &v4,
       [](auto& b) {
         b.usUdfOffset2 = 22;  // IPv4 TTL and protocol
         b.usUdfVaule2 = 0x4011;
       },
       [](auto& b) {
         b.usUdfOffset2 = 22;
         b.usUdfVaule2 = 0x4006;
       }},
      {"source MAC", BYPASS_CATCH_FLT_SMAC, &v4,
       [&](auto& b) { mac(b.ucSrcMac, "00:00:5e:00:01:02"); },
       [&](auto& b) { mac(b.ucSrcMac, "00:11:22:33:44:55"); }},
      {"destination MAC", BYPASS_CATCH_FLT_DMAC, &v4,
       [&](auto& b) { mac(b.ucDstMac, "00:11:22:33:44:55"); },
       [&](auto& b) { mac(b.ucDstMac, "00:00:5e:00:01:02"); }},
      {"EtherType", BYPASS_CATCH_FLT_ETHTYPE, &v6, [](auto& b) { b.usEthType = 0x86DD; },
       [](auto& b) { b.usEthType = 0x0800; }},
      {"IPv4 source", BYPASS_CATCH_FLT_SIP, &v4, [](auto& b) { b.ulSrcIp = Ipv4Addr("10.0.0.1"); },
       [](auto& b) { b.ulSrcIp = Ipv4Addr("10.0.0.2"); }},
      {"IPv4 destination", BYPASS_CATCH_FLT_DIP, &v4,
       [](auto& b) { b.ulDstIp = Ipv4Addr("10.0.0.2"); },
       [](auto& b) { b.ulDstIp = Ipv4Addr("10.0.0.1"); }},
      {"IPv6 source", BYPASS_CATCH_FLT_SIP6, &v6,
       [&](auto& b) { ip6(b.ip6_stSrcAddr, "2001:db8::1"); },
       [&](auto& b) { ip6(b.ip6_stSrcAddr, "2001:db8::2"); }},
      {"IPv6 destination", BYPASS_CATCH_FLT_DIP6, &v6,
       [&](auto& b) { ip6(b.ip6_stDstAddr, "2001:db8::2"); },
       [&](auto& b) { ip6(b.ip6_stDstAddr, "2001:db8::1"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    BYPASS_PKT_RECORD_CTRL_S b = CaptureBlock(2, c.bit);
    c.mismatch(b);
    ASSERT_EQ(ArmCapture(b), 100);
    EXPECT_EQ(Catch(*c.frame).first, 0u);
    EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, 2);
    c.match(b);
    ASSERT_EQ(ArmCapture(b), 100);
    EXPECT_EQ(Catch(*c.frame).first, 1u);
  }
  // Filters on fields the frame lacks pass: IPv4 addresses on IPv6 and the
  // reverse. Bits 2 and 3 select nothing.
  BYPASS_PKT_RECORD_CTRL_S b = CaptureBlock(3, BYPASS_CATCH_FLT_SIP | BYPASS_CATCH_FLT_DIP | 0xC);
  b.ulSrcIp = 1;
  b.ulDstIp = 2;
  b.usDstMod = 9;
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Catch(v6).first, 1u);
  b = CaptureBlock(3, BYPASS_CATCH_FLT_SIP6 | BYPASS_CATCH_FLT_DIP6);
  b.ip6_stSrcAddr[0] = 0xFE;
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Catch(v4).first, 1u);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 14u);
}

TEST_F(CaptureTest, FiltersTogetherNeedEveryOneAndTheFrameStartsAtTheOffset) {
  Bytes pkt(24, 0xEE);  // bytes before the Ethernet header
  const Bytes frame = CaptureFrame(0x01020304);
  pkt.insert(pkt.end(), frame.begin(), frame.end());
  BYPASS_PKT_RECORD_CTRL_S b =
      CaptureBlock(3, BYPASS_CATCH_FLT_LEN | BYPASS_CATCH_FLT_UDF1 | BYPASS_CATCH_FLT_SMAC |
                          BYPASS_CATCH_FLT_ETHTYPE | BYPASS_CATCH_FLT_SIP | BYPASS_CATCH_FLT_DIP);
  b.usDataLength = static_cast<uint16_t>(frame.size());
  b.usUdfOffset1 = 12;
  b.usUdfVaule1 = 0x0800;
  std::memcpy(b.ucSrcMac, frame.data() + 6, 6);
  b.usEthType = 0x0800;
  b.ulSrcIp = Ipv4Addr("10.0.0.1");
  b.ulDstIp = Ipv4Addr("10.0.0.9");  // the last filter fails
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Catch(pkt, 1, 24).first, 0u);
  EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, 3);
  b.ulDstIp = Ipv4Addr("10.0.0.2");
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Catch(pkt, 1, 24).first, 1u);
  // Read at offset 0 the same bytes are no frame of this length.
  EXPECT_EQ(Catch(pkt, 1, 0).first, 0u);
  auto used = UsedEntries(ReadCaptureStore());
  ASSERT_EQ(used.size(), 1u);
  EXPECT_EQ(used[0].usLen, frame.size());
  EXPECT_EQ(std::memcmp(used[0].aucData, frame.data(), 64), 0);
}

TEST_F(CaptureTest, ShortFramesAreMarkedButOnlyTwelveBytesOrMoreAreStored) {
  ASSERT_EQ(ArmCapture(CaptureBlock(3)), 100);
  Bytes eleven(11, 0x11), twelve(12, 0x12);
  EXPECT_EQ(Catch(eleven), std::make_pair(1u, uint8_t{0x80}));
  EXPECT_EQ(Catch(twelve), std::make_pair(1u, uint8_t{0x81}));
  Bytes big(100);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Catch(big), std::make_pair(1u, uint8_t{0x82}));
  auto used = UsedEntries(ReadCaptureStore());
  ASSERT_EQ(used.size(), 2u);
  EXPECT_EQ(used[0].ucNum, 1);
  EXPECT_EQ(used[0].usLen, 12);
  EXPECT_EQ(used[1].ucNum, 2);
  EXPECT_EQ(used[1].usLen, 100);
  EXPECT_EQ(Bytes(used[1].aucData, used[1].aucData + 64), Bytes(big.begin(), big.begin() + 64));
}

TEST_F(CaptureTest, LaterEventsFillTheSecondStampOnceAndStrayEventsAreDropped) {
  ASSERT_EQ(ArmCapture(CaptureBlock(2)), 100);
  const uint8_t m0 = Catch(CaptureFrame(0), 11).second;
  const uint8_t m1 = Catch(CaptureFrame(1), 12).second;
  clk::FixWallClock(1700000001, 5);
  Event(m1, 21);
  clk::FixWallClock(1700000002, 6);
  Event(m1, 22);                // both stamps used: dropped
  Event(0x80 | 5, 23);          // no such capture
  Event(m0 & 0x3F, 24);         // bit 7 clear: not a mark
  Event(m0 | 0x40, 25);         // bit 6 set: not a mark
  Event(m0, 26, 2, kSlot + 1);  // a slot that does not capture
  uint32_t index = 0, stamp = 0;
  EXPECT_EQ(bypass_TS_GetNum(2, 0, kSlot, &index, &stamp), 0u);
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(stamp, 1u);
  EXPECT_EQ(bypass_TS_GetNum(2, 1, kSlot, &index, &stamp), 100u);  // both used
  EXPECT_EQ(bypass_TS_GetNum(2, 0, kSlot + 1, &index, &stamp), 100u);
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, &index, &stamp), 0u);
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(stamp, 0u);
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, nullptr, &stamp), 100u);
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, &index, nullptr), 100u);

  auto used = UsedEntries(ReadCaptureStore());
  ASSERT_EQ(used.size(), 2u);
  EXPECT_EQ(used[0].astTime[1].ucUsed, 0);
  const BYPASS_CATCH_TIME_S& t = used[1].astTime[1];
  EXPECT_EQ(t.ucUsed, 1);
  EXPECT_EQ(t.usEvent, 21);
  EXPECT_EQ(t.ulSec, 1700000001u);
  EXPECT_EQ(t.ulNsec, 5u);
  EXPECT_EQ(used[1].astTime[0].usEvent, 12);
  // The entry is gone with the read: a late event finds nothing.
  Event(m0, 27);
  EXPECT_TRUE(UsedEntries(ReadCaptureStore()).empty());
}

TEST_F(CaptureTest, TheThirtyFirstCaptureFindsTheStoreFullButStillGetsItsMark) {
  ASSERT_EQ(ArmCapture(CaptureBlock(30)), 100);
  for (int i = 0; i < 30; ++i) ASSERT_EQ(Catch(CaptureFrame(i)).first, 1u);
  uint32_t index = 0, stamp = 0;
  EXPECT_EQ(bypass_TS_GetNum(1, 0, 0, &index, &stamp), 100u);
  // A second run numbers from 0 again; its packet gets a mark, no entry.
  ASSERT_EQ(ArmCapture(CaptureBlock(1)), 100);
  EXPECT_EQ(Catch(CaptureFrame(30)), std::make_pair(1u, uint8_t{0x80}));
  EXPECT_EQ(g_stPktRecordCtrlInfo.usCount, 0);
  // Its later event meets the first entry numbered 0, from the first run.
  Event(0x80, 40);
  auto store = ReadCaptureStore();
  EXPECT_EQ(UsedEntries(store).size(), 30u);
  EXPECT_EQ(store[0].astTime[1].usEvent, 40);
  EXPECT_EQ(store[29].ucNum, 29);
  // After the read entries are taken from index 0 again.
  ASSERT_EQ(ArmCapture(CaptureBlock(1)), 100);
  Catch(CaptureFrame(31));
  EXPECT_EQ(ReadCaptureStore()[0].ucUsed, 1);
}

TEST_F(CaptureTest, CatchPktReadEmptiesTheStoreAndShortWritesChangeNothing) {
  ASSERT_EQ(ArmCapture(CaptureBlock(2)), 100);
  Catch(CaptureFrame(1));
  // The first piece empties the store: the rest of the file reads as zeros.
  std::vector<uint8_t> piece(1000);
  int64_t pos = 0;
  ASSERT_EQ(vfs::ProcRead("/proc/bypassDebug/catchPkt", piece.data(), piece.size(), &pos), 1000);
  EXPECT_EQ(piece[66], 1);  // entry 0 used
  ASSERT_EQ(vfs::ProcRead("/proc/bypassDebug/catchPkt", piece.data(), piece.size(), &pos), 1000);
  EXPECT_EQ(piece, std::vector<uint8_t>(1000, 0));
  EXPECT_EQ(vfs::ProcReadAll("/proc/bypassDebug/catchPkt"),
            std::vector<uint8_t>(BYPASS_CATCH_STORE_LEN, 0));

  // No buffer for the copy: nothing read, nothing lost.
  Catch(CaptureFrame(2));
  fault::FailNth(fault::Site::kAlloc, 1);
  pos = 0;
  EXPECT_EQ(vfs::ProcRead("/proc/bypassDebug/catchPkt", piece.data(), piece.size(), &pos), -12);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 1u);

  // Writes: fewer than 100 bytes are refused, a copy fault is reported, and
  // neither touches the control values.
  BYPASS_PKT_RECORD_CTRL_S b = CaptureBlock(5);
  ASSERT_EQ(ArmCapture(b, 0x10, 4), 100);
  std::vector<uint8_t> block(100, 0xAB);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/catchPkt", Bytes(block.begin(), block.end() - 1)),
            -22);
  klog::Clear();
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/catchPkt", block), -1);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass copy from user failed.\r\n"));
  EXPECT_EQ(g_ulPktAllSlotIsOn, 0x10u);
  EXPECT_EQ(g_ulCurrSlotId, 4u);
  EXPECT_EQ(std::memcmp(&g_stPktRecordCtrlInfo, &b, sizeof(b)), 0);
  // A longer write takes its first 100 bytes and reports them all.
  block.resize(150, 0xCD);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/bypassDebug/catchPkt", block), 150);
  EXPECT_EQ(g_ulPktAllSlotIsOn, 0xABABABABu);
  EXPECT_EQ(g_stPktRecordCtrlInfo.ucReceiveSendFlag, 0xAB);
}

TEST_F(CaptureTest, FieldTestsReadOnlyInsideTheFrame) {
  Bytes f = CaptureFrame();
  const auto len = static_cast<uint32_t>(f.size());
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(f.data(), len, 12, 0x0800), 0u);
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(f.data(), len, 12, 0x0008), 1u);
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(f.data(), len, static_cast<uint16_t>(len - 2),
                                          static_cast<uint16_t>(f[len - 2] << 8 | f[len - 1])),
            0u);
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(f.data(), len, static_cast<uint16_t>(len - 1), 0), 1u);
  EXPECT_EQ(bypass_TS_IsNeedCatchPktByUdf(f.data(), 1, 0, f[0] << 8), 1u);
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
  cfg.ulBoardType = BYPASS_CATCH_IPC_BOARD;
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), sizeof(cfg));
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 0u);
  ipc[16] = 0x51, ipc[17] = 0x01;
  EXPECT_EQ(bypass_TS_IsIpcPkt(ipc.data(), 21), 1u);
}

TEST_F(CaptureTest, CommandNineteenPrintsTheControlValuesAndEveryEntry) {
  BYPASS_PKT_RECORD_CTRL_S b = CaptureBlock(3, 0x201);
  b.ucCmdEvent = 1;
  b.ulSrcIp = Ipv4Addr("10.0.0.1");
  b.ucSrcMac[0] = 0xAB;
  b.ip6_stDstAddr[15] = 0x01;
  b.ulCatchTime = 60;
  b.ucReceiveSendFlag = 2;
  ASSERT_EQ(ArmCapture(b, 0x4, 2), 100);
  Catch(CaptureFrame(), 9);
  Event(0x80, 10);
  klog::Clear();
  bypass_debug(19);
  auto lines = klog::Lines();
  ASSERT_EQ(lines.size(), 32u);
  for (const auto& l : lines) EXPECT_EQ(l.level, KPORT_LOGLEVEL_ALERT);
  EXPECT_EQ(lines[0].text,
            "\r\n**bypass_catch_info  g_ulPktAllSlotIsOn[0x00000004] slot[2]****\r\n");
  EXPECT_EQ(
      lines[1].text,
      "\r\nucCmdEvent[1] ucSource[0] usSlot[0]    usTotalCnt[3] usCount[2]   usSrcMod[0] "
      "\r\nusSrcPort[0] usDstMod[0]  usDstPort[0] usUdfOffset1[0] usUdfVaule1[0] "
      "usUdfOffset2[0] \r\nusUdfVaule2[0]  usDataLength[0] usEthType[0]    "
      "ucSrcMac[ab00-0000-0000] ucDstMac[0000-0000-0000]\r\nulSrcIp[167772161]   ulDstIp[0]   "
      "ip6_stSrcAddr[00000000-00000000-00000000-00000000]\r\n"
      "ip6_stDstAddr[00000000-00000000-00000000-00000001] ulVauleBmp[513] "
      "ulCatchTime[60]  ucReceiveSendFlag[2]");
  EXPECT_EQ(lines[2].text,
            "\r\nii=0,len=82,slot=2,num=0,used=1\r\n0:used=1, even=9,sec=1700000000,"
            "usec=123456789\r\n1:used=1, even=10,sec=1700000000,usec=123456789");
  EXPECT_EQ(lines[31].text,
            "\r\nii=29,len=0,slot=0,num=0,used=0\r\n0:used=0, even=0,sec=0,usec=0"
            "\r\n1:used=0, even=0,sec=0,usec=0");
  // The printout leaves the store as it was.
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 1u);
}

}  // namespace
}  // namespace vane::test
