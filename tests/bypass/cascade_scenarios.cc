// The decision cascade as the switch driver and the workers see it: packets
// handed in, tables set by control messages, and what each worker receives
// with the counters each decision raises. The order is the point: internal
// frames beat the steering tables, which beat TIMNG, which beats the WLAN
// step. Then the steering tables themselves: message 11, the ivo file of
// tables and hit counts, and debug command 20.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/steering.h"
#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

constexpr uint16_t kCause = 300;  // the WLAN cause ID: CAPWAP, packet type 4
constexpr uint32_t kStamp = 12 + 24 - 1;
constexpr uint32_t kVp = 64;  // the VP counters
constexpr char kIvoFile[] = "/proc/bypassDebug/ivo";
using Counts = std::map<uint32_t, uint32_t>;

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

class CascadeTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    rx_.emplace(std::initializer_list<uint32_t>{0, 1, 2, 3, 5, 7, 9, 12});
    ASSERT_EQ(rx_->operator[](0).Configure(CascadeConfig()), 0);
  }
  void TearDown() override {
    rx_.reset();
    ModuleTest::TearDown();
  }
  int Where(const Bytes& buf) { return rx_->Only(buf); }  // 0: the default receiver
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

  std::optional<Receivers> rx_;
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
