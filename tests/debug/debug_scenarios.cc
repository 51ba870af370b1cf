// The debug support as operators use it: the debug text's level mask, trace
// lines and "Buff is full" rule; the debug and counts files with their short
// writes, pieces, clearing and failed copies; and debug commands: the
// self-test packets of commands 4 to 8 through the real delivery path to the
// workers the tables name, the balancing variant that command 1 steps, and
// the packet dump of command 16.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/capture_env.h"
#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

using DebugTest = ModuleTest;

const std::string kOffsetLine = "\r\nNETLINK_MID_OFFSET.";  // messages 5 and 6

// `n` copies of control message `id` in one buffer, none asking for an
// acknowledgement.
Bytes Batch(uint32_t id, const Bytes& payload, int n) {
  Bytes all;
  Bytes m = ControlMessage(id, payload, {.flags = 0x0001});
  m.resize((m.size() + 3) & ~size_t{3});  // each message starts aligned
  for (int i = 0; i < n; ++i) all.insert(all.end(), m.begin(), m.end());
  return all;
}

// Configuration (5), debug (6), WLAN (10) and TIMNG (14, 15) messages leave
// a level-1 line, registrations (0) and steering tables (11) none; a
// dispatched packet leaves level-4 lines.
TEST_F(DebugTest, TheLevelSelectsTheTracesWritten) {
  Worker w;
  SetDebugLevel(1);
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Configure(TestRanges()), 0);
  EXPECT_EQ(w.Control(10, {9, 0, 0, 0, 0, 0, 0, 0}), 0);
  EXPECT_EQ(w.Control(14, Bytes(16, 0)), 0);
  EXPECT_EQ(w.Control(15, Bytes(16, 0)), 0);
  EXPECT_EQ(w.Control(11, Bytes(60, 0)), 0);
  EXPECT_EQ(DebugText(),
            kOffsetLine + "\r\nNETLINK_MID_WLAN_LB.\r\n NETLINK_MID_TIMNG.\r\n NETLINK_MID_TIMNG.");
  const Bytes ecm = EcmFrame(3, 5, {.word0 = 1});
  const std::string packet =
      "\r\nBypass dispatch ecm packet to vcpuid:5,ethNum=3"
      "\r\nPaket Data Begin[len=52]:\r\n"
      "0a0b0b00 00010000 00000002 81000001 06a40a0b 0c050000 00000000 00000000\r\n"
      "00000000 00000000 00000000 00000000 00000000 ";
  struct Case {
    uint32_t level;
    std::string text;
  } const cases[] = {
      {0, ""}, {1, kOffsetLine}, {4, packet}, {5, kOffsetLine + packet}, {2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.level);
    SetDebugLevel(c.level);
    ASSERT_EQ(w.Debug(0), 0);
    EXPECT_EQ(env().Deliver(1, ecm), -77);
    EXPECT_EQ(DebugText(), c.text);
  }
}

TEST_F(DebugTest, PastTheMarkOnlyTheFullLineIsWrittenAndOutputStops) {
  Worker w;
  SetDebugLevel(1);
  // 1,524 lines of 21 bytes and 12 of 22: exactly 32,268 bytes, the mark.
  w.port(kNormal).Send(Batch(6, {0}, 1524));
  for (int i = 0; i < 12; ++i) ASSERT_EQ(w.Control(10, {}), -22);
  ASSERT_EQ(DebugText().size(), 32268u);
  // At the mark a text still goes in whole; past it the next one is
  // replaced by the full line, and output stops.
  ASSERT_EQ(w.Debug(0), 0);
  ASSERT_EQ(w.Debug(0), 0);
  ASSERT_EQ(w.Debug(0), 0);
  const std::string text = DebugText();
  EXPECT_EQ(text.size(), 32268u + 21 + 30);
  EXPECT_EQ(text.substr(32268), kOffsetLine + "\r\n********Buff is full********");
  // Writing the level is the way back.
  SetDebugLevel(1);
  ASSERT_EQ(w.Debug(0), 0);
  EXPECT_EQ(DebugText(), kOffsetLine);
}

TEST_F(DebugTest, DebugFileWritesClearTheTextAndSetTheLevelFromFourBytes) {
  const std::string file = "/proc/bypassDebug/debug";
  Worker w;
  SetDebugLevel(1);
  ASSERT_EQ(w.Debug(0), 0);
  EXPECT_EQ(env().Write(file, {4, 0}), -22);  // refused: level and text kept
  ASSERT_EQ(w.Debug(0), 0);
  EXPECT_EQ(DebugText(), kOffsetLine + kOffsetLine);
  // Only the first four bytes count; the text area reads back whole.
  EXPECT_EQ(env().Write(file, {4, 0, 0, 0, 1, 1}), 6);
  EXPECT_EQ(env().Read(file, 1000), Bytes(32768, 0));
  ASSERT_EQ(w.Debug(0), 0);
  EXPECT_EQ(DebugText(), "");
}

TEST_F(DebugTest, CountsReadInAnyPiecesAndClearOnAnyWrite) {
  const std::string file = "/proc/bypassDebug/counts";
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Configure(TestRanges()), 0);
  for (uint8_t v = 1; v <= 63; ++v) {
    for (uint8_t n = 0; n < v % 4; ++n) env().Deliver(1, EcmFrame(3, v, {.word0 = 1}));
  }
  const Bytes whole = env().Read(file, 4096).value_or(Bytes{});
  ASSERT_EQ(whole.size(), 3840u);
  EXPECT_EQ(env().Read(file, 7), whole);
  const std::vector<uint32_t> c = Counters();
  for (uint32_t v = 1; v <= 63; ++v) {
    EXPECT_EQ(c[v], v % 4) << v;
    EXPECT_EQ(c[128 + v], v % 4) << v;
  }
  EXPECT_EQ(env().ReadAt(file, 3840, 1), Bytes{});
  EXPECT_EQ(env().ReadAt(file, 3839, 100), Bytes{whole[3839]});

  EXPECT_EQ(env().Write(file, {0x55}), 1);
  EXPECT_EQ(Counters(), std::vector<uint32_t>(960, 0));
  env().Deliver(1, EcmFrame(3, 7, {.word0 = 1}));
  EXPECT_EQ(Counters()[7], 1u);
  EXPECT_EQ(env().Write(file, Bytes(100, 1)), 100);
  EXPECT_EQ(Counters(), std::vector<uint32_t>(960, 0));
}

// Failed copies and allocations in the files' handlers: each call reports
// its error, copy faults in writes are logged, and nothing is lost.
TEST_F(DebugTest, FailedCopiesAndAllocationsInTheFilesLoseNothing) {
  VANE_REQUIRE(Power::kFaultInjection);
  const std::string counts = "/proc/bypassDebug/counts", debug = "/proc/bypassDebug/debug",
                    catch_pkt = "/proc/bypassDebug/catchPkt";
  const std::string copy_failed = "\r\nErr: bypass copy from user failed.\r";
  Worker w;
  SetDebugLevel(1);
  ASSERT_EQ(w.Debug(0), 0);
  ASSERT_EQ(ArmCapture(CaptureBlock(5), 0x10, 4), 100);
  uint8_t mark = 0;
  ASSERT_EQ(env().CatchPkt(CaptureFrame(1), 1, &mark, 0), 1u);
  long error = 0;
  const std::pair<FaultSite, std::string> reads[] = {{FaultSite::kCopyToUser, counts},
                                                     {FaultSite::kAlloc, counts},
                                                     {FaultSite::kAlloc, catch_pkt}};
  for (const auto& [site, file] : reads) {
    env().FailNth(site, 1);
    EXPECT_FALSE(env().ReadAt(file, 0, 2880, &error).has_value()) << file;
    EXPECT_EQ(error, site == FaultSite::kAlloc ? -12 : -14) << file;
  }
  for (const std::string& file : {debug, catch_pkt}) {
    env().ClearLog();
    env().FailNth(FaultSite::kCopyFromUser, 1);
    EXPECT_EQ(env().Write(file, Bytes(100, 0xAB)), -1) << file;
    EXPECT_EQ(LogTexts(), std::vector<std::string>{copy_failed}) << file;
  }
  // The debug text goes before the copy; the level stays 1. Capture goes
  // on as armed, and the capture read before is still in the store.
  EXPECT_EQ(DebugText(), "");
  ASSERT_EQ(w.Debug(0), 0);
  EXPECT_EQ(DebugText(), kOffsetLine);
  EXPECT_EQ(env().CatchPkt(CaptureFrame(2), 1, &mark, 0), 1u);
  EXPECT_EQ(mark, 0x81);
  EXPECT_EQ(UsedEntries(ReadCaptureStore()).size(), 2u);
}

// The self-test messages' cause ID (packet bytes 18-19, the chip header
// first) and the sizes of the fragments, balancing variants A and B and
// the IPv6 packet.
constexpr uint16_t kCause = 1;
constexpr uint32_t kFragLen = 162;
constexpr uint32_t kALen = 166;
constexpr uint32_t kBLen = 162;
constexpr uint32_t kV6Len = 164;

class CommandTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    op_.emplace();
    vcpu_.emplace();
    ctl_.emplace();
    // The layout the messages are made for: chip header first, Ethernet
    // header 50 bytes in, received on interface 1.
    BYPASS_PKT_OFFSET_S cfg = TestRanges();
    cfg.ulMultiCoreEthNumMin = 1;
    cfg.ulEcmEthNum = 60;
    cfg.ulMacOffset = 50;
    ASSERT_EQ(ctl_->Configure(cfg), 0);
    ASSERT_EQ(op_->Register(kNormal, 0), 0);
    ASSERT_EQ(vcpu_->Register(kNormal, 9), 0);
    // Their CAPWAP datagrams go to vCPU 9 by their destination port.
    ASSERT_EQ(ctl_->Control(10, CauseIdMsg({{kCause, 3, 1}})), 0);
    ASSERT_EQ(ctl_->Control(10, BoardTypeMsg(3)), 0);
    ASSERT_EQ(ctl_->Control(10, CapwapMsg({0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 65534, 0xFF, 9})), 0);
  }

  // Lengths of everything queued at `w`, draining it.
  static std::vector<uint32_t> Drain(Worker& w) {
    std::vector<uint32_t> lens;
    while (auto d = w.Next()) lens.push_back(d->len);
    return lens;
  }
  // Lengths of everything the two workers received, draining them.
  std::vector<uint32_t> Received() {
    std::vector<uint32_t> lens = Drain(*op_);
    const std::vector<uint32_t> more = Drain(*vcpu_);
    lens.insert(lens.end(), more.begin(), more.end());
    return lens;
  }
  // Decisions counted since the last call (counters 0 to 63).
  uint32_t Decided() {
    const std::vector<uint32_t> c = Counters();
    uint32_t sum = 0;
    for (uint32_t i = 0; i < 64; ++i) sum += c[i];
    const uint32_t d = sum - decided_;
    decided_ = sum;
    return d;
  }

  void TearDown() override {
    op_.reset();
    vcpu_.reset();
    ctl_.reset();
    ModuleTest::TearDown();
  }

  // Opened once the module is loaded, closed before it goes.
  std::optional<Worker> op_;
  std::optional<Worker> vcpu_;
  // Sends the commands: a full receive queue would lose its acknowledgements.
  std::optional<Worker> ctl_;
  uint32_t decided_ = 0;
};

TEST_F(CommandTest, FragmentCommandsEnterFindAndRemoveOneTableEntry) {
  SetDebugLevel(4);
  ASSERT_EQ(ctl_->Debug(4), 0);
  // The trace shows the chip header and the frame's first 64 bytes.
  EXPECT_EQ(
      Occurrences(DebugText(),
                  "\r\nHGHDR:\r\nfb00011f-0a110000-08000000-001d0200"
                  "\r\nPaket Data Begin[len=100]:\r\n"
                  "02000000 00000000 03000600 8100001d 08004500 00520000 20002011 276a1d0c\r\n"
                  "0c0c1d0d 0d0d147e fffe0000 00000000 00000000 00000000 00000000 00000000 "),
      1u);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{kFragLen});
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  // The later fragments follow the entry, not the tables.
  ASSERT_EQ(ctl_->Control(10, CapwapMsg({0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 65534, 0xFF, 9}, 2)), 0);
  ASSERT_EQ(ctl_->Debug(5), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{kFragLen});
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  ASSERT_EQ(ctl_->Debug(6), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{kFragLen});
  EXPECT_EQ(Ipv4FragmentRecords(), 0);

  // A last fragment with no entry: the trace says so, the default receiver
  // gets it.
  SetDebugLevel(1);
  ASSERT_EQ(ctl_->Debug(6), 0);
  EXPECT_NE(DebugText().find("\r\ndel ipv4 fail in hash."), std::string::npos);
  EXPECT_TRUE(Drain(*vcpu_).empty());
  EXPECT_EQ(Drain(*op_), std::vector<uint32_t>{kFragLen});

  // The messages are untouched by the stamps of earlier sends: a repeated
  // first fragment is delivered byte for byte as the first was.
  ASSERT_EQ(ctl_->Debug(4), 0);
  auto first = op_->Next();
  ASSERT_EQ(ctl_->Debug(4), 0);
  auto again = op_->Next();
  ASSERT_TRUE(first && again);
  EXPECT_EQ(first->data, again->data);
}

// Command 7 sends a thousand of the variant that command 1 steps through
// 1, 2, 3, 4, 0 (A, B, A, A, none); command 8 a thousand IPv6 packets
// whatever the variant. The queues hold only a part: the counters count all.
TEST_F(CommandTest, TheIpv4AndIpv6TestsSendAThousandOfTheirVariant) {
  const struct {
    uint32_t sends;
    uint32_t len;
  } variants[] = {{0, 0}, {1000, kALen}, {1000, kBLen}, {1000, kALen}, {1000, kALen}, {0, 0}};
  for (uint32_t v = 0; v < 6; ++v) {
    SCOPED_TRACE(v);
    if (v != 0) {
      ASSERT_EQ(ctl_->Debug(1), 0);
    }
    env().ClearLog();
    Decided();
    ASSERT_EQ(ctl_->Debug(7), 0);
    EXPECT_EQ(Decided(), variants[v].sends);
    const std::vector<uint32_t> got = Received();
    EXPECT_EQ(got.empty(), variants[v].sends == 0);
    EXPECT_EQ(got, std::vector<uint32_t>(got.size(), variants[v].len));
    ASSERT_EQ(env().Log().size(), 1u);
    EXPECT_EQ(env().Log()[0].text,
              "\r\n**test ipv4.g_ulLBType[" + std::to_string(v % 5) + "]****\r");
  }
  ASSERT_EQ(ctl_->Debug(1), 0);
  env().ClearLog();
  Decided();
  ASSERT_EQ(ctl_->Debug(8), 0);
  EXPECT_EQ(Decided(), 1000u);
  const std::vector<uint32_t> got = Received();
  EXPECT_FALSE(got.empty());
  EXPECT_EQ(got, std::vector<uint32_t>(got.size(), kV6Len));
  ASSERT_EQ(env().Log().size(), 1u);
  EXPECT_EQ(env().Log()[0].text, "\r\n**test ipv6.g_ulLBType[1]****\r");
}

// Command 16 dumps the next packets to the kernel log, each as its first
// ninety bytes.
TEST_F(CommandTest, CommandSixteenDumpsPacketsToTheLog) {
  Bytes pkt(200);
  for (size_t i = 0; i < pkt.size(); ++i) pkt[i] = static_cast<uint8_t>(i);
  ASSERT_EQ(ctl_->Debug(16), 0);
  env().ClearLog();
  env().Deliver(2, pkt);
  ASSERT_EQ(env().Log().size(), 1u);
  EXPECT_EQ(env().Log()[0].level, 1);
  EXPECT_EQ(env().Log()[0].text,
            "\r\n\r\nlen=200,data start:\r\n"
            "00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f\r\n"
            "20212223 24252627 28292a2b 2c2d2e2f 30313233 34353637 38393a3b 3c3d3e3f\r\n"
            "40414243 44454647 48494a4b 4c4d4e4f 50515253 54555657 5859\r\ndata end.\r");
}

TEST_F(CommandTest, APacketDumpWithoutMemoryIsSkipped) {
  VANE_REQUIRE(Power::kFaultInjection);
  ASSERT_EQ(ctl_->Debug(16), 0);
  env().ClearLog();
  env().FailNth(FaultSite::kAlloc, 1);
  EXPECT_GT(env().Deliver(2, Bytes(200, 1)), 0);
  env().ClearFaults();
  EXPECT_TRUE(env().Log().empty());
  EXPECT_GT(env().Deliver(2, Bytes(200, 1)), 0);
  EXPECT_EQ(env().Log().size(), 1u);
}

}  // namespace
}  // namespace vane::test
