// The dispatch entry: argument checks, the interface ranges, the ECM path,
// the counting of each decision and the packet-dump counter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

namespace klog = kport::user::klog;

constexpr uint32_t kEcmEth = 3;

class DispatchTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    cfg_ = TestRanges();
    Apply();
  }
  void Apply() { bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg_), 88); }

  struct Decision {
    uint32_t count;
    std::vector<uint8_t> list;
  };
  static Decision Dispatch(Bytes buf) {
    uint32_t count = 99;
    std::vector<uint8_t> list(BYPASS_VCPU_LIST_MAX, 0xEE);
    bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list.data());
    return {count, list};
  }

  static Bytes Ecm(uint32_t eth, uint8_t vcpu, const char* dst = "0a:0b:0b:00:00:01",
                   uint16_t type = 0x06A4, uint8_t inner2 = 0x0C) {
    return EcmFrame(eth, vcpu, {.dst = dst, .ether_type = type, .inner2 = inner2});
  }

  BYPASS_PKT_OFFSET_S cfg_{};
};

TEST_F(DispatchTest, InvalidArgumentsAreTracedAndWriteNothing) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  for (size_t len : {0u, 11u, 10001u}) {
    Decision d = Dispatch(Bytes(len, 0));
    EXPECT_EQ(d.count, 99u) << len;
  }
  uint32_t count = 0;
  uint8_t list[BYPASS_VCPU_LIST_MAX];
  Bytes buf(20);
  bypass_msg_getVCpuId(buf.data(), 20, nullptr, list);
  bypass_msg_getVCpuId(buf.data(), 20, &count, nullptr);
  bypass_msg_getVCpuId(nullptr, 20, &count, list);
  std::string expected;
  for (int i = 0; i < 6; ++i) expected += "\r\n The uiParameterIsInVaild is 0.";
  EXPECT_EQ(DebugText(), expected);
  EXPECT_EQ(Counters()[0], 0u);

  // The bounds themselves pass (and count as undecided).
  EXPECT_EQ(Dispatch(Bytes(12, 0)).count, 0u);
  EXPECT_EQ(Dispatch(Bytes(10000, 0)).count, 0u);
  EXPECT_EQ(Counters()[0], 2u);
}

TEST_F(DispatchTest, EcmFrameGoesToTheVcpuInItsInnerMacAndIsCounted) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  Decision d = Dispatch(Ecm(kEcmEth, 5));
  EXPECT_EQ(d.count, 1u);
  EXPECT_EQ(d.list[0], 5);
  std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[128 + 5], 1u);
  EXPECT_EQ(c[5], 1u);
  EXPECT_EQ(c[0], 0u);
  const std::string text = DebugText();
  EXPECT_EQ(text.rfind("\r\nBypass dispatch ecm packet to vcpuid:5,ethNum=3", 0), 0u) << text;
  EXPECT_NE(text.find("\r\nPaket Data Begin[len=52]:\r\n0a0b0b00 00010000"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("HGHDR"), std::string::npos);

  // VP-range interfaces take the same path on ordinary boards.
  cfg_.ulBoardType = 5;
  Apply();
  EXPECT_EQ(Dispatch(Ecm(44, 63, "0a:0b:0c:00:00:09", 0x06A4, 0x0B)).list[0], 63);
  EXPECT_EQ(Counters()[128 + 63], 1u);
}

TEST_F(DispatchTest, FramesThatAreNotEcmAreUndecided) {
  const std::vector<Bytes> not_ecm = {
      Ecm(kEcmEth, 5, "0a:0b:0d:00:00:01"),                // outer MAC
      Ecm(kEcmEth, 5, "0a:0b:0b:00:00:01", 0x0800),        // EtherType behind the tag
      Ecm(kEcmEth, 5, "0a:0b:0b:00:00:01", 0x06A4, 0x0D),  // inner MAC
      Ecm(kEcmEth, 0),                                     // vCPU 0
      Ecm(kEcmEth, 64),                                    // vCPU out of range
  };
  for (const Bytes& b : not_ecm) EXPECT_EQ(Dispatch(b).count, 0u);
  // Cut one byte short of the vCPU byte: not read, not an ECM frame.
  Bytes cut = Ecm(kEcmEth, 5);
  cut.resize(12 + 21);
  EXPECT_EQ(Dispatch(cut).count, 0u);
  std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[0], not_ecm.size() + 1);
  EXPECT_EQ(c[128 + 5], 0u);
}

TEST_F(DispatchTest, MultiCoreRangeWinsAndChoosesNoVcpuYet) {
  cfg_.ulEcmEthNum = 25;  // also inside the multi-core range
  Apply();
  for (uint32_t eth : {20u, 25u, 29u}) {
    Decision d = Dispatch(Ecm(eth, 5));
    EXPECT_EQ(d.count, 0u) << eth;
    EXPECT_EQ(d.list[0], 0) << eth;
  }
  std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[0], 3u);
  EXPECT_EQ(c[128 + 5], 0u);

  // An empty range (min above max) holds nothing: 25 is now the ECM port.
  cfg_.ulMultiCoreEthNumMin = 30;
  cfg_.ulMultiCoreEthNumMax = 29;
  Apply();
  EXPECT_EQ(Dispatch(Ecm(25, 5)).count, 1u);
}

TEST_F(DispatchTest, BoardWithoutEcmDispatchesNothingAndCountsNothing) {
  cfg_.ulBoardType = BYPASS_BOARD_TYPE_NO_ECM;
  Apply();
  EXPECT_EQ(Dispatch(Ecm(kEcmEth, 5)).count, 0u);
  EXPECT_EQ(Dispatch(Ecm(41, 5)).count, 0u);
  EXPECT_EQ(Counters(), std::vector<uint32_t>(BYPASS_PKT_COUNT_NUM, 0));
}

TEST_F(DispatchTest, VpRangeFramesOnBoards37And242GoToTheVpDispatch) {
  // An ECM-format frame whose bytes 30-31 hold a tag, so the VP test reads
  // the EtherType behind the first tag (0x06A4). The VP dispatch takes the
  // vCPU from the outer MAC's fourth byte and counts it as VP only.
  cfg_.ulVpEthType = 0x06A4;
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
  for (uint32_t board : {37u, 242u}) {
    cfg_.ulBoardType = board;
    Apply();
    EXPECT_EQ(Dispatch(frame(45, "0a:0b:0b:00:00:01")).count, 0u) << board;
    Decision d = Dispatch(frame(45, "0a:0b:0b:05:00:01"));
    EXPECT_EQ(d.count, 1u) << board;
    EXPECT_EQ(d.list[0], 5) << board;
  }
  std::vector<uint32_t> expected(BYPASS_PKT_COUNT_NUM, 0);
  expected[BYPASS_PKT_COUNT_VP_BASE + 5] = 2;
  EXPECT_EQ(Counters(), expected);
  // The same frame on the ECM interface, or on another board, is ECM.
  EXPECT_EQ(Dispatch(frame(kEcmEth, "0a:0b:0b:00:00:01")).list[0], 7);
  cfg_.ulBoardType = 5;
  Apply();
  EXPECT_EQ(Dispatch(frame(45, "0a:0b:0b:05:00:01")).list[0], 7);
}

TEST_F(DispatchTest, DumpCounterPrintsExactlyTheRequestedPackets) {
  Worker w(5001);
  ASSERT_EQ(w.Debug(16), 0);
  EXPECT_EQ(g_pktprintfcout, 20);
  klog::Clear();
  Bytes pkt(40);
  for (size_t i = 0; i < pkt.size(); ++i) pkt[i] = static_cast<uint8_t>(i);
  for (int i = 0; i < 5; ++i) Dispatch(pkt);
  EXPECT_EQ(g_pktprintfcout, 15);
  ASSERT_EQ(w.Debug(16), 0);  // re-arming restarts the count
  EXPECT_EQ(g_pktprintfcout, 20);
  for (int i = 0; i < 25; ++i) Dispatch(pkt);
  EXPECT_EQ(g_pktprintfcout, 0);
  const auto lines = klog::Lines();
  EXPECT_EQ(lines.size(), 25u);
  EXPECT_EQ(lines[0].level, KPORT_LOGLEVEL_ALERT);
  EXPECT_EQ(lines[0].text,
            "\r\n\r\nlen=40,data start:\r\n"
            "00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f\r\n"
            "20212223 24252627 \r\ndata end.\r\n");
}

}  // namespace
}  // namespace vane::test
