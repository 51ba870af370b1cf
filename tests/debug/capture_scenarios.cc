// Packet capture as the switch driver and an operator use it: runs armed
// through catchPkt, the refusal rules, each filter alone and together, the
// marks, the time stamps of later events, a full store, the read-and-clear
// of the store, and debug command 19's printout of it all.
#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/capture.h"
#include "support/capture_env.h"
#include "support/env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using CaptureTest = ModuleTest;

// The mark a capture wrote, or -1 when the packet was not captured.
int Mark(const Bytes& pkt, uint16_t event = 7, uint16_t offset = 0) {
  uint8_t mark = 0;
  return env().CatchPkt(pkt, event, &mark, offset) == 1 ? mark : -1;
}
void Event(uint8_t mark, uint16_t value, uint16_t slot = 2) {
  env().TsRecvEvent(2, {}, value, mark, slot);
}

uint64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}
// A time stamp taken between `from` and `to` (wall clock, nanoseconds).
void ExpectStamp(const BYPASS_CATCH_TIME_S& t, uint16_t event, uint64_t from, uint64_t to) {
  EXPECT_EQ(t.ucUsed, 1);
  EXPECT_EQ(t.usEvent, event);
  const uint64_t at = uint64_t{t.ulSec} * 1000000000u + t.ulNsec;
  EXPECT_LE(from, at);
  EXPECT_LE(at, to);
}

TEST_F(CaptureTest, RunsOfOneThreeAndThirtyNumberTheirPacketsAndStopWhenUsedUp) {
  for (uint16_t n : {1, 3, 30}) {
    SCOPED_TRACE(n);
    ASSERT_EQ(ArmCapture(CaptureBlock(n)), 100);
    std::vector<Bytes> frames;
    const uint64_t from = NowNs();
    for (uint16_t i = 0; i < n; ++i) {
      frames.push_back(CaptureFrame(i, 10 + i));
      EXPECT_EQ(Mark(frames.back(), static_cast<uint16_t>(100 + i)), 0x80 + i);
    }
    const uint64_t to = NowNs();
    EXPECT_EQ(Mark(CaptureFrame(99)), -1);

    auto used = UsedEntries(ReadCaptureStore());
    ASSERT_EQ(used.size(), n);
    for (uint16_t i = 0; i < n; ++i) {
      const auto& e = used[i];
      const Bytes& f = frames[i];
      EXPECT_EQ(e.ucNum, i);
      EXPECT_EQ(e.usSlot, 2);
      EXPECT_EQ(e.usLen, f.size());
      const size_t kept = std::min<size_t>(f.size(), 64);
      EXPECT_EQ(Bytes(e.aucData, e.aucData + kept), Bytes(f.begin(), f.begin() + kept));
      EXPECT_EQ(Bytes(e.aucData + kept, e.aucData + 64), Bytes(64 - kept, 0));
      ExpectStamp(e.astTime[0], 100 + i, from, to);
      EXPECT_EQ(e.astTime[1].ucUsed, 0);
    }
  }
}

TEST_F(CaptureTest, EachRefusalRuleCapturesNothing) {
  struct Case {
    const char* what;
    std::function<void(BYPASS_PKT_RECORD_CTRL_S&, uint32_t&, uint32_t&)> edit;
  } const cases[] = {
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
    uint32_t mask = 1u << 2, slot = 2;
    c.edit(b, mask, slot);
    ASSERT_EQ(ArmCapture(b, mask, slot), 100);
    EXPECT_EQ(Mark(CaptureFrame()), -1);
  }
  // Slot numbers are taken modulo 32: slot 34 is bit 2.
  ASSERT_EQ(ArmCapture(CaptureBlock(2), 1u << 2, 34), 100);
  // A frame that would start past the packet is refused and not counted.
  EXPECT_EQ(Mark(Bytes(10, 1), 1, 11), -1);
  EXPECT_EQ(Mark(CaptureFrame()), 0x80);
  EXPECT_EQ(Mark(CaptureFrame()), 0x81);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 2u);
}

// Each filter alone, with a control value that the frame does not match
// and then one that it does.
TEST_F(CaptureTest, EachFilterAloneRefusesItsMismatchAndPassesItsMatch) {
  const Bytes v4 = CaptureFrame();  // dst 00:11:22:33:44:55, src 00:00:5e:00:01:02
  const Bytes v6 = PacketBuilder()
                       .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
                       .ipv6({.src = Ipv6Addr("2001:db8::1"), .dst = Ipv6Addr("2001:db8::2")})
                       .udp(1, 2)
                       .payload(8)
                       .build();
  using B = BYPASS_PKT_RECORD_CTRL_S;
  const uint16_t len = static_cast<uint16_t>(v4.size());
  auto mac = [](uint8_t* to, bool m, const char* a, const char* b) {
    std::memcpy(to, Mac(m ? a : b).data(), 6);
  };
  auto ip6 = [](uint8_t* to, bool m, const char* a, const char* b) {
    std::memcpy(to, Ipv6Addr(m ? a : b).data(), 16);
  };
  struct Case {
    const char* what;
    uint32_t bit;
    const Bytes* frame;
    std::function<void(B&, bool match)> set;
  } const cases[] = {
      {"source module", 1u << 0, &v4, [](B& b, bool m) { b.usSrcMod = m ? 0 : 1; }},
      {"source port", 1u << 1, &v4, [](B& b, bool m) { b.usSrcPort = m ? 0 : 5; }},
      {"length", 1u << 4, &v4, [&](B& b, bool m) { b.usDataLength = m ? len : len - 1; }},
      {"udf 1", 1u << 5, &v4,
       [&](B& b, bool m) {
         // The frame's last two bytes; one byte later the field runs past
         // the frame and never matches.
         b.usUdfOffset1 = m ? len - 2 : len - 1;
         b.usUdfVaule1 = m ? 0x5A5A : 0x5A00;
       }},
      {"udf 2 (TTL, protocol)", 1u << 6, &v4,
       [](B& b, bool m) {
         b.usUdfOffset2 = 22;
         b.usUdfVaule2 = m ? 0x4011 : 0x4006;
       }},
      {"source MAC", 1u << 7, &v4,
       [&](B& b, bool m) { mac(b.ucSrcMac, m, "00:00:5e:00:01:02", "00:11:22:33:44:55"); }},
      {"destination MAC", 1u << 8, &v4,
       [&](B& b, bool m) { mac(b.ucDstMac, m, "00:11:22:33:44:55", "00:00:5e:00:01:02"); }},
      {"IPv4 source", 1u << 9, &v4,
       [](B& b, bool m) { b.ulSrcIp = Ipv4Addr(m ? "10.0.0.1" : "10.0.0.2"); }},
      {"IPv4 destination", 1u << 10, &v4,
       [](B& b, bool m) { b.ulDstIp = Ipv4Addr(m ? "10.0.0.2" : "10.0.0.1"); }},
      {"IPv6 source", 1u << 11, &v6,
       [&](B& b, bool m) { ip6(b.ip6_stSrcAddr, m, "2001:db8::1", "2001:db8::2"); }},
      {"IPv6 destination", 1u << 12, &v6,
       [&](B& b, bool m) { ip6(b.ip6_stDstAddr, m, "2001:db8::2", "2001:db8::1"); }},
      {"EtherType", 1u << 13, &v6, [](B& b, bool m) { b.usEthType = m ? 0x86DD : 0x0800; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    for (bool match : {false, true}) {
      B b = CaptureBlock(1, c.bit);
      c.set(b, match);
      ASSERT_EQ(ArmCapture(b), 100);
      EXPECT_EQ(Mark(*c.frame) != -1, match);
    }
  }
  // A filtered-out packet does not use up the run.
  B b = CaptureBlock(1, 1u << 4);
  b.usDataLength = len;
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Mark(CaptureFrame(0, 41)), -1);
  EXPECT_EQ(Mark(v4), 0x80);
  // Filters on fields the frame lacks pass: IPv4 addresses on IPv6 and the
  // reverse. Bits 2 and 3 select nothing.
  b = CaptureBlock(1, (1u << 9) | (1u << 10) | 0xC);
  b.ulSrcIp = 1;
  b.ulDstIp = 2;
  b.usDstMod = 9;
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_NE(Mark(v6), -1);
  b = CaptureBlock(1, (1u << 11) | (1u << 12));
  b.ip6_stSrcAddr[0] = 0xFE;
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_NE(Mark(v4), -1);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 15u);
}

TEST_F(CaptureTest, FiltersTogetherNeedEveryOneAndTheFrameStartsAtTheOffset) {
  Bytes pkt(24, 0xEE);  // bytes before the Ethernet header
  const Bytes frame = CaptureFrame(0x01020304);
  pkt.insert(pkt.end(), frame.begin(), frame.end());
  BYPASS_PKT_RECORD_CTRL_S b =
      CaptureBlock(3, (1u << 4) | (1u << 5) | (1u << 7) | (1u << 13) | (1u << 9) | (1u << 10));
  b.usDataLength = static_cast<uint16_t>(frame.size());
  b.usUdfOffset1 = 12;
  b.usUdfVaule1 = 0x0800;
  std::memcpy(b.ucSrcMac, frame.data() + 6, 6);
  b.usEthType = 0x0800;
  b.ulSrcIp = Ipv4Addr("10.0.0.1");
  b.ulDstIp = Ipv4Addr("10.0.0.9");  // the last filter fails
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_EQ(Mark(pkt, 1, 24), -1);
  b.ulDstIp = Ipv4Addr("10.0.0.2");
  ASSERT_EQ(ArmCapture(b), 100);
  EXPECT_NE(Mark(pkt, 1, 24), -1);
  // Read at offset 0 the same bytes are no frame of this length.
  EXPECT_EQ(Mark(pkt, 1, 0), -1);
  auto used = UsedEntries(ReadCaptureStore());
  ASSERT_EQ(used.size(), 1u);
  EXPECT_EQ(used[0].usLen, frame.size());
  EXPECT_EQ(Bytes(used[0].aucData, used[0].aucData + 64), Bytes(frame.begin(), frame.begin() + 64));
}

TEST_F(CaptureTest, ShortFramesAreMarkedButOnlyTwelveBytesOrMoreAreStored) {
  ASSERT_EQ(ArmCapture(CaptureBlock(3)), 100);
  Bytes big(100);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Mark(Bytes(11, 0x11)), 0x80);
  EXPECT_EQ(Mark(Bytes(12, 0x12)), 0x81);
  EXPECT_EQ(Mark(big), 0x82);
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
  const uint8_t m0 = static_cast<uint8_t>(Mark(CaptureFrame(0), 11));
  const uint8_t m1 = static_cast<uint8_t>(Mark(CaptureFrame(1), 12));
  const uint64_t from = NowNs();
  Event(m1, 21);
  const uint64_t to = NowNs();
  Event(m1, 22);         // both stamps used: dropped
  Event(0x80 | 5, 23);   // no such capture
  Event(m0 & 0x3F, 24);  // bit 7 clear: not a mark
  Event(m0 | 0x40, 25);  // bit 6 set: not a mark
  Event(m0, 26, 3);      // a slot that does not capture

  auto used = UsedEntries(ReadCaptureStore());
  ASSERT_EQ(used.size(), 2u);
  EXPECT_EQ(used[0].astTime[1].ucUsed, 0);
  EXPECT_EQ(used[1].astTime[0].usEvent, 12);
  ExpectStamp(used[1].astTime[1], 21, from, to);
  // The entry is gone with the read: a late event finds nothing.
  Event(m0, 27);
  EXPECT_TRUE(UsedEntries(ReadCaptureStore()).empty());
}

TEST_F(CaptureTest, TheThirtyFirstCaptureFindsTheStoreFullButStillGetsItsMark) {
  ASSERT_EQ(ArmCapture(CaptureBlock(30)), 100);
  for (int i = 0; i < 30; ++i) ASSERT_NE(Mark(CaptureFrame(i)), -1);
  // A second run numbers from 0 again; its packet gets a mark, no entry.
  ASSERT_EQ(ArmCapture(CaptureBlock(1)), 100);
  EXPECT_EQ(Mark(CaptureFrame(30)), 0x80);
  EXPECT_EQ(Mark(CaptureFrame(30)), -1);
  // Its later event meets the first entry numbered 0, from the first run.
  Event(0x80, 40);
  auto store = ReadCaptureStore();
  EXPECT_EQ(UsedEntries(store).size(), 30u);
  EXPECT_EQ(store[0].astTime[1].usEvent, 40);
  EXPECT_EQ(store[29].ucNum, 29);
  // After the read entries are taken from index 0 again.
  ASSERT_EQ(ArmCapture(CaptureBlock(1)), 100);
  Mark(CaptureFrame(31));
  EXPECT_EQ(ReadCaptureStore()[0].ucUsed, 1);
}

TEST_F(CaptureTest, CatchPktReadsEmptyTheStoreAndWritesTakeOneWholeBlock) {
  const std::string file = "/proc/bypassDebug/catchPkt";
  ASSERT_EQ(ArmCapture(CaptureBlock(3), 0x10, 4), 100);
  Mark(CaptureFrame(1));
  // The first piece empties the store: the rest of the file reads as zeros.
  auto piece = env().ReadAt(file, 0, 1000);
  ASSERT_TRUE(piece.has_value());
  ASSERT_EQ(piece->size(), 1000u);
  EXPECT_EQ((*piece)[66], 1);  // entry 0 used
  EXPECT_EQ(env().ReadAt(file, 1000, 1000), Bytes(1000, 0));
  EXPECT_EQ(env().ReadAt(file, 0, 4096), Bytes(2880, 0));

  // Fewer than 100 bytes are refused and change nothing; a longer write
  // takes its first 100 and reports them all.
  EXPECT_EQ(env().Write(file, Bytes(99, 0xAB)), -22);
  EXPECT_EQ(Mark(CaptureFrame(2)), 0x81);
  Bytes block(100);
  std::memcpy(block.data(), "\x01\0\0\0\0\0\0\0", 8);  // mask bit 0, slot 0
  const BYPASS_PKT_RECORD_CTRL_S run = CaptureBlock(1);
  std::memcpy(block.data() + 8, &run, sizeof(run));
  block.resize(150, 0xCD);
  EXPECT_EQ(env().Write(file, block), 150);
  EXPECT_EQ(Mark(CaptureFrame(3)), 0x80);
}

// Captures from several threads at once, with later events and store
// reads beside them, as the driver captures on every processor: each packet
// gets a number of its own, every entry is read back once and whole, and a
// later event stamps only its own capture's entry.
TEST_F(CaptureTest, ConcurrentCapturesEventsAndReadsFindEveryPacketOnce) {
  for (uint32_t round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(ArmCapture(CaptureBlock(30)), 100);
    std::atomic<bool> busy{true};
    std::vector<BYPASS_CATCH_PKT_S> read;
    std::vector<std::thread> catchers;
    for (uint32_t t = 0; t < 4; ++t) {
      catchers.emplace_back([t, round] {  // 80 tries for a run of 30
        for (uint32_t i = 0; i < 20; ++i)
          env().CatchPkt(CaptureFrame(round << 16 | t << 8 | i), 1, nullptr, 0);
      });
    }
    std::thread events([&busy] {
      for (uint8_t n = 0; busy; n = (n + 1) % 30) env().TsRecvEvent(2, {}, 1000 + n, 0x80 | n, 2);
    });
    std::thread reader([&] {
      while (busy) {
        const auto used = UsedEntries(ReadCaptureStore());
        read.insert(read.end(), used.begin(), used.end());
      }
    });
    for (auto& th : catchers) th.join();
    busy = false;
    events.join();
    reader.join();
    const auto rest = UsedEntries(ReadCaptureStore());
    read.insert(read.end(), rest.begin(), rest.end());
    std::set<uint8_t> numbers;
    std::set<uint32_t> tags;
    for (const auto& e : read) {
      numbers.insert(e.ucNum);
      const uint8_t* tag = e.aucData + 42;  // the frame's first payload bytes
      tags.insert(uint32_t{tag[0]} << 24 | tag[1] << 16 | tag[2] << 8 | tag[3]);
      EXPECT_EQ(tag[1], round);
      EXPECT_EQ(e.usLen, CaptureFrame().size());
      EXPECT_EQ(e.astTime[0].usEvent, 1);
      if (e.astTime[1].ucUsed != 0) {
        EXPECT_EQ(e.astTime[1].usEvent, 1000 + e.ucNum);
      }
    }
    EXPECT_EQ(read.size(), 30u);
    EXPECT_EQ(numbers.size(), 30u);
    EXPECT_EQ(tags.size(), 30u);
  }
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
  Mark(CaptureFrame(), 9);
  Event(0x80, 10);
  Worker w;
  env().ClearLog();
  ASSERT_EQ(w.Debug(19), 0);
  const auto lines = env().Log();
  // The printout leaves the store as it was.
  const auto store = ReadCaptureStore();
  EXPECT_EQ(UsedEntries(store).size(), 1u);
  ASSERT_EQ(lines.size(), 32u);
  for (const auto& l : lines) EXPECT_EQ(l.level, 1);
  EXPECT_EQ(lines[0].text, "\r\n**bypass_catch_info  g_ulPktAllSlotIsOn[0x00000004] slot[2]****\r");
  EXPECT_EQ(
      lines[1].text,
      "\r\nucCmdEvent[1] ucSource[0] usSlot[0]    usTotalCnt[3] usCount[2]   usSrcMod[0] "
      "\r\nusSrcPort[0] usDstMod[0]  usDstPort[0] usUdfOffset1[0] usUdfVaule1[0] "
      "usUdfOffset2[0] \r\nusUdfVaule2[0]  usDataLength[0] usEthType[0]    "
      "ucSrcMac[ab00-0000-0000] ucDstMac[0000-0000-0000]\r\nulSrcIp[167772161]   ulDstIp[0]   "
      "ip6_stSrcAddr[00000000-00000000-00000000-00000000]\r\n"
      "ip6_stDstAddr[00000000-00000000-00000000-00000001] ulVauleBmp[513] "
      "ulCatchTime[60]  ucReceiveSendFlag[2]");
  const BYPASS_CATCH_TIME_S* t = store[0].astTime;
  EXPECT_EQ(lines[2].text, "\r\nii=0,len=82,slot=2,num=0,used=1\r\n0:used=1, even=9,sec=" +
                               std::to_string(t[0].ulSec) + ",usec=" + std::to_string(t[0].ulNsec) +
                               "\r\n1:used=1, even=10,sec=" + std::to_string(t[1].ulSec) +
                               ",usec=" + std::to_string(t[1].ulNsec));
  EXPECT_EQ(lines[31].text,
            "\r\nii=29,len=0,slot=0,num=0,used=0\r\n0:used=0, even=0,sec=0,usec=0"
            "\r\n1:used=0, even=0,sec=0,usec=0");
}

}  // namespace
}  // namespace vane::test
