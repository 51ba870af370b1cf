// The configuration record and the dispatch of the board's own frames, as
// a worker and the switch driver see them: messages 5 and 6 with the record
// printed back by debug command 3, ECM and VP frames handed in and the
// worker that gets each, the counters, the trace and the packet dumps.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

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
  EXPECT_EQ(lines[0], "\r\n Netlink packet offset[0] :  1000\r");
  EXPECT_EQ(lines[11], "\r\n Netlink packet offset[11] :  1011\r");
  EXPECT_EQ(lines[21], "\r\n Netlink packet offset[21] :  1021\r");
  // Bytes beyond the 88th are ignored.
  Bytes longer = ConfigPayload(Filled(7));
  longer.resize(120, 0xFF);
  ASSERT_EQ(w.Control(5, longer), 0);
  env().ClearLog();
  ASSERT_EQ(w.Debug(3), 0);
  lines = LogTexts();
  ASSERT_EQ(lines.size(), 22u);
  EXPECT_EQ(lines[0], "\r\n Netlink packet offset[0] :    7\r");
  EXPECT_EQ(lines[21], "\r\n Netlink packet offset[21] :   28\r");
}

class DispatchTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    rx_.emplace(std::initializer_list<uint32_t>{0, 5, 7, 63});
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

}  // namespace
}  // namespace vane::test
