// Dispatch as a worker and the switch driver see it: the configuration
// record (messages 5 and 6, debug command 3), ECM and VP frames, packet
// dumps, the decision cascade, and the steering tables (message 11, the ivo
// file, debug command 20), judged by which worker gets each packet and by
// the counters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/steering.h"
#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

using Counts = std::map<uint32_t, uint32_t>;
constexpr uint32_t kEcm = 128;  // the ECM counters
constexpr uint32_t kVp = 64;    // the VP counters

BYPASS_PKT_OFFSET_S Filled(uint32_t base) {
  BYPASS_PKT_OFFSET_S cfg;
  uint32_t* slots = &cfg.ulHgHdrOffset;
  for (uint32_t i = 0; i < 22; ++i) slots[i] = base + i;
  return cfg;
}

std::vector<std::string> LogTexts() {
  std::vector<std::string> out;
  for (const LogLine& l : env().Log()) {
    EXPECT_EQ(l.level, 1) << l.text;
    out.push_back(l.text);
  }
  return out;
}

using ConfigRecordTest = ModuleTest;

TEST_F(ConfigRecordTest, MessageFiveReplacesTheWholeRecordAndMessageSixKeepsIt) {
  Worker w;
  ASSERT_EQ(w.Configure(Filled(1000)), 0);
  env().ClearLog();
  ASSERT_EQ(w.Control(6, {3, 99, 99}), 0);  // command 3; the bytes after it are not read
  std::vector<std::string> lines = LogTexts();
  ASSERT_EQ(lines.size(), 22u);
  EXPECT_EQ(lines[0] + lines[11] + lines[21],
            "\r\n Netlink packet offset[0] :  1000\r\r\n Netlink packet offset[11] :  1011\r"
            "\r\n Netlink packet offset[21] :  1021\r");
  // Bytes beyond the 88th are ignored.
  Bytes longer = ConfigPayload(Filled(7));
  longer.resize(120, 0xFF);
  ASSERT_EQ(w.Control(5, longer), 0);
  env().ClearLog();
  ASSERT_EQ(w.Debug(3), 0);
  lines = LogTexts();
  ASSERT_EQ(lines.size(), 22u);
  EXPECT_EQ(lines[0] + lines[21],
            "\r\n Netlink packet offset[0] :    7\r\r\n Netlink packet offset[21] :   28\r");
}

class DispatchTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    rx_.emplace(std::initializer_list<uint32_t>{0, 1, 2, 3, 5, 7, 9, 12, 63});
    Apply(TestRanges());
  }
  void TearDown() override {
    rx_.reset();
    ModuleTest::TearDown();
  }
  void Apply(const BYPASS_PKT_OFFSET_S& cfg) { ASSERT_EQ((*rx_)[0].Configure(cfg), 0); }
  int Where(const Bytes& buf) { return rx_->Only(buf); }  // 0: the default receiver
  static Bytes Ecm(uint32_t eth, uint8_t vcpu, const char* dst = "0a:0b:0b:00:00:01",
                   uint16_t type = 0x06A4, uint8_t inner2 = 0x0C) {
    return EcmFrame(eth, vcpu, {.dst = dst, .ether_type = type, .inner2 = inner2});
  }

  std::optional<Receivers> rx_;
};

TEST_F(DispatchTest, BuffersTooShortToDispatchAreTracedAndCountNothing) {
  SetDebugLevel(1);
  EXPECT_EQ(Where(Bytes(11, 0)), 0);
  EXPECT_EQ(DebugText(), "\r\n The uiParameterIsInVaild is 0.");
  EXPECT_EQ(Counters()[0], 0u);
  // The bounds themselves pass, and count as undecided.
  EXPECT_EQ(Where(Bytes(12, 0)), 0);
  EXPECT_EQ(Where(Bytes(10000, 0)), 0);
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 2}}));
}

TEST_F(DispatchTest, EcmFramesGoToTheVcpuInTheirInnerMac) {
  SetDebugLevel(4);
  EXPECT_EQ(Where(Ecm(3, 5)), 5);
  EXPECT_EQ(NonZeroCounters(), (Counts{{5, 1}, {kEcm + 5, 1}}));
  const std::string text = DebugText();
  EXPECT_EQ(text.rfind("\r\nBypass dispatch ecm packet to vcpuid:5,ethNum=3", 0), 0u) << text;
  EXPECT_NE(text.find("\r\nPaket Data Begin[len=52]:\r\n0a0b0b00 00010000"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("HGHDR"), std::string::npos);

  // Anything else about the frame, and it is undecided.
  Bytes cut = Ecm(3, 5);
  cut.resize(12 + 21);  // before the vCPU byte
  const Bytes not_ecm[] = {
      Ecm(3, 5, "0a:0b:0d:00:00:01"),                // outer MAC
      Ecm(3, 5, "0a:0b:0b:00:00:01", 0x0800),        // EtherType behind the tag
      Ecm(3, 5, "0a:0b:0b:00:00:01", 0x06A4, 0x0D),  // inner MAC
      Ecm(3, 0),                                     // vCPU 0
      Ecm(3, 64),                                    // vCPU out of range
      cut,
  };
  for (const Bytes& b : not_ecm) EXPECT_EQ(Where(b), 0);
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 6}, {5, 1}, {kEcm + 5, 1}}));

  // VP-range interfaces take the same path on ordinary boards.
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  cfg.ulBoardType = 5;
  Apply(cfg);
  EXPECT_EQ(Where(Ecm(44, 63, "0a:0b:0c:00:00:09", 0x06A4, 0x0B)), 63);
  EXPECT_EQ(Counters()[kEcm + 63], 1u);
}

TEST_F(DispatchTest, TheMultiCoreRangeWinsAndABoardWithoutEcmDispatchesNothing) {
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  cfg.ulEcmEthNum = 25;  // also inside the multi-core range 20..29
  Apply(cfg);
  for (uint32_t eth : {20u, 25u, 29u}) EXPECT_EQ(Where(Ecm(eth, 5)), 0) << eth;
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 3}}));
  // An empty range (min above max) holds nothing: 25 is now the ECM port.
  cfg.ulMultiCoreEthNumMin = 30;
  cfg.ulMultiCoreEthNumMax = 29;
  Apply(cfg);
  EXPECT_EQ(Where(Ecm(25, 5)), 5);

  cfg = TestRanges();
  cfg.ulBoardType = 0x10088;  // no ECM
  Apply(cfg);
  const std::vector<uint32_t> before = Counters();
  EXPECT_EQ(Where(Ecm(3, 5)), 0);
  EXPECT_EQ(Where(Ecm(41, 5)), 0);
  EXPECT_EQ(Counters(), before);
}

TEST_F(DispatchTest, VpRangeFramesOnBoards37And242GoToTheVpDispatch) {
  // An ECM-format frame whose bytes 30-31 hold a tag, so the VP test reads
  // the EtherType behind the first tag (0x06A4). The VP dispatch takes the
  // vCPU from the outer MAC's fourth byte and counts it as VP only.
  auto frame = [](uint32_t eth, const char* dst) {
    return PacketBuilder()
        .prefix(0, 0, eth)
        .ethernet(Mac(dst), Mac("00:00:00:00:00:02"))
        .vlan(1)
        .ether_type(0x06A4)
        .bytes({0x0A, 0x0B, 0x0C, 7})
        .filler(8)
        .bytes({0x81, 0x00})
        .payload(20)
        .build();
  };
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  cfg.ulVpEthType = 0x06A4;
  for (uint32_t board : {37u, 242u}) {
    cfg.ulBoardType = board;
    Apply(cfg);
    EXPECT_EQ(Where(frame(45, "0a:0b:0b:00:00:01")), 0) << board;
    EXPECT_EQ(Where(frame(45, "0a:0b:0b:05:00:01")), 5) << board;
  }
  EXPECT_EQ(NonZeroCounters(), (Counts{{kVp + 5, 2}}));
  // The same frame on the ECM interface, or on another board, is ECM.
  EXPECT_EQ(Where(frame(3, "0a:0b:0b:00:00:01")), 7);
  cfg.ulBoardType = 5;
  Apply(cfg);
  EXPECT_EQ(Where(frame(45, "0a:0b:0b:05:00:01")), 7);
}

TEST_F(DispatchTest, CommandSixteenDumpsTheNextTwentyPackets) {
  Bytes pkt(40);
  for (size_t i = 0; i < pkt.size(); ++i) pkt[i] = static_cast<uint8_t>(i);
  pkt[0] = 1;  // not eligible for the ICMP diversion
  ASSERT_EQ((*rx_)[0].Debug(16), 0);
  for (int i = 0; i < 5; ++i) env().Deliver(1, pkt);
  ASSERT_EQ((*rx_)[0].Debug(16), 0);  // re-arming restarts the count
  env().ClearLog();
  for (int i = 0; i < 25; ++i) env().Deliver(1, pkt);
  const std::vector<std::string> lines = LogTexts();
  EXPECT_EQ(lines.size(), 20u);
  EXPECT_EQ(lines.at(0),
            "\r\n\r\nlen=40,data start:\r\n"
            "01010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f\r\n"
            "20212223 24252627 \r\ndata end.\r");
}

// ---- The decision cascade: internal frames beat the steering tables, which
// beat TIMNG, which beats the WLAN step ----
constexpr uint16_t kCause = 300;  // the WLAN cause ID: CAPWAP, packet type 4
constexpr uint32_t kStamp = 12 + 24 - 1;
constexpr char kIvoFile[] = "/proc/bypassDebug/ivo";

// A multi-core packet of the cause ID: IPv4 UDP 10.1.1.1:5246 to 10.1.1.2:5247.
Bytes Plain(uint16_t cause) { return CascadeUdp(cause, 5246, 5247); }
constexpr auto Vp = CascadeVp;
constexpr uint8_t kFirst = 0xAB;
constexpr uint8_t kLater = 61;  // the vCPU byte the sender leaves to us

BYPASS_LB_TABLE_S Table(uint32_t type, uint32_t vcpu, std::vector<uint16_t> causes, uint16_t lo = 0,
                        uint16_t hi = 0) {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulTableType = type;
  t.ulVcpuId = vcpu;
  t.ulCauseIdNum = static_cast<uint32_t>(causes.size());
  for (size_t i = 0; i < causes.size(); ++i) t.ausCauseId[i] = causes[i];
  t.usCauseIdMin = lo;
  t.usCauseIdMax = hi;
  return t;
}

BYPASS_IVO_DEBUG_INFO_S ReadIvo() {
  const Bytes bytes = env().Read(kIvoFile, 100).value_or(Bytes{});
  BYPASS_IVO_DEBUG_INFO_S info{};
  EXPECT_EQ(bytes.size(), 296u);
  std::memcpy(&info, bytes.data(), std::min(bytes.size(), sizeof(info)));
  return info;
}

class CascadeTest : public DispatchTest {
 protected:
  void SetUp() override {
    DispatchTest::SetUp();
    Apply(CascadeConfig());
  }
  Worker& ctl() { return (*rx_)[0]; }
  void Lb(const Bytes& msg) { ASSERT_EQ(ctl().Control(10, msg), 0); }
  int Steering(const BYPASS_LB_TABLE_S& t, size_t len = 60) {
    return ctl().Control(11, RecordBytes(t, len)).value_or(-9999);
  }
  void Timng(uint32_t cause, uint32_t node, uint32_t scan = 0) {
    const uint32_t m[4] = {cause, node, 1, scan};
    ASSERT_EQ(ctl().Control(14, RecordBytes(m)), 0);
  }
  // Cause ID 300 is CAPWAP, and the test's flow goes to vCPU 12.
  void WlanToTwelve() {
    Lb(CauseIdMsg({{kCause, 4, 1}}));
    Lb(CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 12}));
    Lb(BoardTypeMsg(3));
  }
};

TEST_F(CascadeTest, EachDeciderAloneAndTheCountersItRaises) {
  WlanToTwelve();
  // Nothing decides: the default receiver, counter 0; WLAN: the table's
  // vCPU, counted once, with the packet type's counter and stamp.
  EXPECT_EQ(Where(Plain(1)), 0);
  EXPECT_EQ(Where(Plain(kCause)), 12);
  EXPECT_EQ(rx_->last()[kStamp], 4);
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 1}, {12, 1}, {192 + 12 * 12 + 4, 1}}));
  // Steering table and TIMNG: counted once in the path and once when
  // counted.
  ASSERT_EQ(Steering(Table(0, 9, {77})), 0);
  EXPECT_EQ(Where(Plain(77)), 9);
  EXPECT_EQ(Counters()[9], 2u);
  Timng(88, 3);
  EXPECT_EQ(Where(Plain(88)), 3);
  EXPECT_EQ(Counters()[3], 2u);
}

TEST_F(CascadeTest, InternalFramesBeatSteeringTablesWhichBeatTimngWhichBeatsWlan) {
  WlanToTwelve();
  ASSERT_EQ(Steering(Table(0, 9, {kCause})), 0);
  Timng(kCause, 3);
  // An internal frame names its vCPU whatever its cause ID says.
  EXPECT_EQ(Where(Vp(kCause, 7, 0, false, 0)), 7);
  EXPECT_EQ(NonZeroCounters(), (Counts{{kVp + 7, 1}, {7, 1}}));
  // The ivo table beats TIMNG for the same cause ID ...
  EXPECT_EQ(Where(Plain(kCause)), 9);
  // ... and, switched off, TIMNG beats the WLAN step: no stamp, no WLAN count.
  BYPASS_LB_TABLE_S off = Table(0, 9, {kCause});
  off.ulEnable = 0;
  ASSERT_EQ(Steering(off), 0);
  EXPECT_EQ(Where(Plain(kCause)), 3);
  EXPECT_EQ(rx_->last()[kStamp], 0);
  EXPECT_EQ(NonZeroCounters(), (Counts{{kVp + 7, 1}, {7, 1}, {9, 2}, {3, 2}}));
}

TEST_F(CascadeTest, VpFramesKeepAFragmentedDatagramTogether) {
  EXPECT_EQ(Where(Vp(1, 12, kFirst, true, 0)), 12);
  EXPECT_EQ(Where(Vp(1, kLater, 0, true, 3)), 12);
  EXPECT_EQ(Where(Vp(1, kLater, 0, true, 6)), 12);
  EXPECT_EQ(Where(Vp(1, kLater, 0, false, 9)), 12);
  // The datagram is finished: its repeated last fragment has nowhere to go.
  EXPECT_EQ(Where(Vp(1, kLater, 0, false, 9)), 0);
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 1}, {12, 4}, {kVp + 12, 4}}));

  // Unmarked first fragments and vCPU bytes 0 and 64 enter and decide nothing.
  EXPECT_EQ(Where(Vp(1, 7, 0, true, 0)), 7);
  EXPECT_EQ(Where(Vp(1, kLater, 0, true, 3)), 0);
  EXPECT_EQ(Where(Vp(1, 0, 0, false, 0)), 0);
  EXPECT_EQ(Where(Vp(1, 64, 0, false, 0)), 0);

  // Every cut of a frame after the internal MAC prefix decides nothing, nor
  // does a direct frame cut before its vCPU byte; a marked first fragment
  // needs only its mark.
  Bytes full = Vp(1, kLater, 0, true, 3);
  while (full.size() > 12 + 24 + 3) {
    full.pop_back();
    EXPECT_EQ(Where(full), 0) << full.size();
  }
  Bytes direct = Vp(1, 7, 0, false, 0), first = Vp(1, 7, kFirst, true, 0);
  direct.resize(12 + 24 + 3);
  first.resize(12 + 24 + 15);
  EXPECT_EQ(Where(direct), 0);
  EXPECT_EQ(Where(first), 7);
}

TEST_F(CascadeTest, TimngScanFragmentsGoToTheDefaultReceiverAheadOfTimngAndWlan) {
  WlanToTwelve();
  Timng(kCause, 3, 1);
  auto frag = [](bool mf, uint16_t off) { return CascadeFragment(kCause, 9, mf, off); };
  EXPECT_EQ(Where(frag(true, 0)), 0);
  EXPECT_EQ(Where(frag(true, 3)), 0);
  EXPECT_EQ(Where(frag(false, 6)), 0);
  EXPECT_EQ(NonZeroCounters(), (Counts{{0, 6}}));
  // The same cause ID unfragmented is TIMNG's own vCPU.
  EXPECT_EQ(Where(Plain(kCause)), 3);
}

// Packets of several threads decide while the steering table is rewritten
// whole: no count is lost, neither a vCPU's nor the table's hit counts, and
// every middle fragment of a datagram all the threads share finds the vCPU
// of one of its first fragments.
TEST_F(CascadeTest, ConcurrentDecisionsAndTableWritesLoseNoCount) {
  constexpr uint32_t kThreads = 3;
  constexpr uint32_t kRounds = 1000;
  ASSERT_EQ(Steering(Table(0, 9, {77})), 0);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const auto vcpu = static_cast<uint8_t>(20 + t);  // no worker: counted, not delivered
      const Bytes frames[] = {Vp(1, vcpu, 0, false, 0), Plain(77), Vp(1, vcpu, kFirst, true, 0),
                              Vp(1, kLater, 0, true, 3)};
      for (uint32_t i = 0; i < kRounds; ++i) {
        for (const Bytes& f : frames) env().Deliver(1, f);
      }
    });
  }
  for (uint16_t i = 0; i < 200; ++i) ASSERT_EQ(Steering(Table(0, 9, {77, i})), 0);
  for (auto& th : threads) th.join();
  const std::vector<uint32_t> c = Counters();
  uint32_t middles = 0;
  for (uint32_t t = 0; t < kThreads; ++t) {
    EXPECT_EQ(c[kVp + 20 + t], c[20 + t]);
    ASSERT_GE(c[20 + t], 2 * kRounds);
    middles += c[20 + t] - 2 * kRounds;
  }
  EXPECT_EQ(c[9], 2 * kThreads * kRounds);
  EXPECT_EQ(middles, kThreads * kRounds);
  const BYPASS_IVO_DEBUG_INFO_S info = ReadIvo();
  EXPECT_EQ(info.ulIvoHitCnt, kThreads * kRounds);
  EXPECT_EQ(info.aulIvoCauseIdHitCnt[0], kThreads * kRounds);
}

TEST_F(CascadeTest, SteeringListBeforeRangeIvoBeforeDeteptionAndEveryHitCounted) {
  ASSERT_EQ(Steering(Table(0, 0x105, {10, 11, 12, 13}, 13, 20)), 0);
  ASSERT_EQ(Steering(Table(1, 9, {10, 30}, 200, 200)), 0);
  struct Case {
    uint16_t cause;
    int vcpu;
  };
  const Case cases[] = {
      {13, 5},  // the vCPU's low byte; slot 3 of the list, not the range
      {10, 5},  // in both tables: the ivo table
      {15, 5}, {30, 9}, {200, 9}, {199, 0}, {201, 0}, {0, 0}, {21, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(Where(Plain(c.cause)), c.vcpu) << c.cause;

  BYPASS_IVO_DEBUG_INFO_S want{};
  want.stIvoTable = Table(0, 0x105, {10, 11, 12, 13}, 13, 20);
  want.stDeteptionTable = Table(0, 9, {10, 30}, 200, 200);  // the type is not kept
  want.ulIvoHitCnt = 3;
  want.aulIvoCauseIdHitCnt[3] = 1;
  want.aulIvoCauseIdHitCnt[0] = 1;
  want.ulIvoRangeHitCnt = 1;
  want.ulDeteptionHitCnt = 2;
  want.aulDeteptionCauseIdHitCnt[1] = 1;
  want.ulDeteptionRangeHitCnt = 1;
  BYPASS_IVO_DEBUG_INFO_S got = ReadIvo();
  EXPECT_EQ(std::memcmp(&got, &want, sizeof(want)), 0);

  // Each half clears alone; other values and short writes clear nothing.
  auto write = [](uint32_t v, size_t len = 4) {
    return env().Write(kIvoFile,
                       Bytes(reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + len));
  };
  EXPECT_EQ(write(7), 4);
  EXPECT_EQ(write(0, 3), -22);
  EXPECT_EQ(write(0, 1), -22);
  EXPECT_EQ(ReadIvo().ulIvoHitCnt, 3u);
  EXPECT_EQ(write(0), 4);
  got = ReadIvo();
  EXPECT_EQ(got.ulIvoHitCnt, 0u);
  EXPECT_EQ(got.aulIvoCauseIdHitCnt[3], 0u);
  EXPECT_EQ(got.ulIvoRangeHitCnt, 0u);
  EXPECT_EQ(got.ulDeteptionHitCnt, 2u);
  EXPECT_EQ(Where(Plain(11)), 5);
  EXPECT_EQ(write(1), 4);
  got = ReadIvo();
  EXPECT_EQ(got.ulDeteptionHitCnt, 0u);
  EXPECT_EQ(got.ulDeteptionRangeHitCnt, 0u);
  EXPECT_EQ(got.ulIvoHitCnt, 1u);
  EXPECT_EQ(got.aulIvoCauseIdHitCnt[1], 1u);
}

TEST_F(CascadeTest, SteeringMessageRulesAndCommandTwenty) {
  ASSERT_EQ(Steering(Table(1, 3, {40, 41, 42}, 300, 310)), 0);
  // Short: refused whole; an unknown table type: ignored.
  EXPECT_EQ(Steering(Table(1, 7, {}), 59), -22);
  EXPECT_EQ(Steering(Table(2, 7, {1})), 0);
  EXPECT_EQ(ReadIvo().stDeteptionTable.ulVcpuId, 3u);
  EXPECT_EQ(ReadIvo().stIvoTable.ulEnable, 0u);
  // A count above 20: enable and vCPU only; the old list and range stay.
  BYPASS_LB_TABLE_S big = Table(1, 5, {});
  big.ulCauseIdNum = 21;
  EXPECT_EQ(Steering(big), 0);
  EXPECT_EQ(Where(Plain(41)), 5);
  EXPECT_EQ(Where(Plain(305)), 5);
  // A shorter list keeps the slots past it; a range starting at 0 is off.
  EXPECT_EQ(Steering(Table(1, 7, {50}, 0, 100)), 0);
  EXPECT_EQ(ReadIvo().stDeteptionTable.ausCauseId[1], 41);
  EXPECT_EQ(Where(Plain(41)), 0);
  EXPECT_EQ(Where(Plain(60)), 0);
  EXPECT_EQ(Where(Plain(50)), 7);
  // Disabled tables answer nothing.
  BYPASS_LB_TABLE_S off = Table(1, 7, {50});
  off.ulEnable = 0;
  EXPECT_EQ(Steering(off), 0);
  EXPECT_EQ(Where(Plain(50)), 0);

  ASSERT_EQ(Steering(Table(0, 3, {7, 8})), 0);
  EXPECT_EQ(Steering(big), 0);
  env().ClearLog();
  ASSERT_EQ(ctl().Debug(20), 0);
  std::vector<std::string> text;
  for (const LogLine& line : env().Log()) {
    EXPECT_EQ(line.level, 1);
    text.push_back(line.text);
  }
  EXPECT_EQ(text, (std::vector<std::string>{
                      "\r\n********ivo lb table***********\r", "\r\nIvo  enable:1",
                      "\r\nIvo  vcpuid:3", "\r\nIvo  causeid[0]:7", "\r\nIvo  causeid[1]:8",
                      "\r\n\r\n********deteption lb table***********\r", "\r\nDeteption  enable:1",
                      "\r\nDeteption  vcpuid:5", "\r\nDeteption  causeid[0]:50"}));
}

}  // namespace
}  // namespace vane::test
