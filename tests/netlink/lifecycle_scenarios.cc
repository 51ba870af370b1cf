// Start-up and shut-down: what a load creates, that every load starts from
// the load-time state whatever the last one left, and that a start-up
// failing at any step leaves nothing behind.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "drv_vane/steering.h"
#include "support/capture_env.h"
#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

bool LogHas(const std::string& text) {
  for (const LogLine& l : env().Log()) {
    if (l.text.find(text) != std::string::npos) return true;
  }
  return false;
}

// Loads by hand, and unloads what a failed assertion left loaded.
class Lifecycle : public ::testing::Test {
 protected:
  void Load() {
    ASSERT_EQ(env().Load(), 0);
    loaded_ = true;
  }
  void Unload() {
    loaded_ = false;
    env().Unload();
  }
  void TearDown() override {
    if (loaded_) env().Unload();
  }
  bool loaded_ = false;
};

// Each load creates the files, with their modes; the traces of a busy
// module (registrations, configuration, debug settings and level, steering
// and TIMNG tables, counts, an armed capture) are all gone after a reload;
// an unload takes the protocols away.
TEST_F(Lifecycle, EveryLoadStartsFromTheLoadTimeState) {
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    Load();
    const std::pair<const char*, uint32_t> modes[] = {
        {"counts", 0666},       {"debug", 0666},        {"catchPkt", 0666},
        {"hashInfoIpv4", 0444}, {"hashInfoIpv6", 0444}, {"ivo", 0666}};
    for (auto [name, mode] : modes)
      EXPECT_EQ(env().Mode(std::string("/proc/bypassDebug/") + name), mode);
    {
      Worker w;
      EXPECT_EQ(env().Deliver(2, Bytes(64, 0xEE)), -77);
      env().ClearLog();
      ASSERT_EQ(w.Debug(12), 0);
      ASSERT_EQ(w.Debug(7), 0);  // sends nothing in variant 0
      EXPECT_TRUE(LogHas("\r\nboard type is 0\xA3\xACg_ulDebugLevel=0"));
      EXPECT_TRUE(LogHas("\r\n**test ipv4.g_ulLBType[0]****\r"));
      ASSERT_EQ(w.Register(kNormal, 0), 0);
      EXPECT_GT(env().Deliver(1, EcmFrame(3, 5, {.word0 = 1})), 0);
      EXPECT_EQ(w.Pending(), 1u);  // dispatch off
      ASSERT_EQ(w.Configure(TestRanges()), 0);
      env().ClearLog();
      EXPECT_GT(env().Deliver(1, Bytes(64, 0xEE)), 0);
      EXPECT_TRUE(env().Log().empty());  // no packet dump asked for
      std::vector<uint32_t> counts(960, 0);
      counts[0] = 1;
      EXPECT_EQ(Counters(), counts);
      EXPECT_EQ(DebugText(), "");
      EXPECT_EQ(env().Read("/proc/bypassDebug/ivo"), Bytes(296, 0));
      EXPECT_EQ(env().CatchPkt(CaptureFrame(), 1, nullptr, 0), 0u);
      SetDebugLevel(1);
      for (int i = 0; i < 2; ++i) ASSERT_EQ(w.Control(14, RecordBytes(uint32_t{7}, 16)), 0);
      EXPECT_EQ(DebugText().find("exceeds limit"), std::string::npos);

      // Busy: both TIMNG slots are used above; now everything else.
      ASSERT_EQ(w.Register(kFast, 7), 0);
      BYPASS_PKT_OFFSET_S cfg = TestRanges();
      cfg.ulBoardType = 37;
      ASSERT_EQ(w.Configure(cfg), 0);
      for (uint8_t cmd : {14, 1, 16}) ASSERT_EQ(w.Debug(cmd), 0);
      SetDebugLevel(5);
      BYPASS_LB_TABLE_S table{};
      table.ulEnable = 1;
      table.ulCauseIdNum = 1;
      table.ausCauseId[0] = 9;
      ASSERT_EQ(w.Control(11, RecordBytes(table, 60)), 0);
      ASSERT_EQ(ArmCapture(CaptureBlock(3)), 100);
      EXPECT_GT(env().Deliver(1, Bytes(64, 0xEE)), 0);
    }
    Unload();
  }
  // Once the module is gone, its protocols cannot be opened.
  auto peer = env().NewPeer();
  EXPECT_EQ(peer->Open(kNormal), nullptr);
  EXPECT_EQ(peer->Open(kFast), nullptr);
}

// Fails each allocation of start-up in turn: the sockets first (-12), then
// the counters, tables, files, debug buffer and capture store (-22), each
// undone with its alert; the first attempt not failed loads normally.
TEST_F(Lifecycle, EachFailedStartUpStepIsUndone) {
  VANE_REQUIRE(Power::kFaultInjection);
  std::vector<int> codes;
  std::set<std::string> alerts;
  for (unsigned n = 1; n < 100; ++n) {
    env().FailNth(FaultSite::kAlloc, n);
    const int ret = env().Load();
    env().ClearFaults();
    if (ret == 0) {
      env().Unload();
      break;
    }
    codes.push_back(ret);
    for (const LogLine& l : env().Log()) alerts.insert(l.text);
  }
  ASSERT_GE(codes.size(), 9u);
  EXPECT_EQ(codes[0], -12);
  EXPECT_EQ(codes[1], -12);
  for (size_t i = 2; i < codes.size(); ++i) EXPECT_EQ(codes[i], -22) << "attempt " << i + 1;
  EXPECT_EQ(alerts, (std::set<std::string>{
                        "\r\nErr: hash table in kernel bypass inits failed.\r",
                        "\r\nErr: create dir /proc/bypassDebug failed.",
                        "\r\nErr: create subdir in /proc/bypassDebug/counts failed.",
                        "\r\nErr: create subdir in /proc/bypassDebug/hashinfo failed.",
                        "\r\nErr: create subdir in /proc/bypassDebug/feature failed.",
                        "\r\nErr: create subdir in /proc/bypassDebug/ivo failed.",
                        "\r\nErr: bypass_proc_init inits failed.\r",
                    }));
}

}  // namespace
}  // namespace vane::test
