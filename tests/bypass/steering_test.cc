// The cause-ID steering tables through message 11, the lookup the pipeline
// makes, the ivo file and debug command 20, and table updates racing
// lookups on other threads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

constexpr const char* kIvoFile = "/proc/bypassDebug/ivo";

BYPASS_LB_TABLE_S Table(uint32_t type, uint32_t vcpu, std::initializer_list<uint16_t> ids,
                        uint16_t lo = 0, uint16_t hi = 0) {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulTableType = type;
  t.ulVcpuId = vcpu;
  t.ulCauseIdNum = static_cast<uint32_t>(ids.size());
  uint32_t i = 0;
  for (uint16_t id : ids) t.ausCauseId[i++] = id;
  t.usCauseIdMin = lo;
  t.usCauseIdMax = hi;
  return t;
}

std::vector<uint8_t> Payload(const BYPASS_LB_TABLE_S& t, size_t len = sizeof(BYPASS_LB_TABLE_S)) {
  return RecordBytes(t, len);
}

struct Lookup {
  uint32_t ret;
  uint32_t count;
  uint8_t vcpu;
};
Lookup Steer(uint16_t cause) {
  Lookup l{0, 0xAA, 0xBB};
  l.ret = bypass_msg_get_ivo_vcpuid(cause, &l.count, &l.vcpu);
  return l;
}

BYPASS_IVO_DEBUG_INFO_S ReadIvo() {
  std::vector<uint8_t> bytes = vfs::ProcReadAll(kIvoFile, 100);
  BYPASS_IVO_DEBUG_INFO_S info{};
  EXPECT_EQ(bytes.size(), sizeof(info));
  std::memcpy(&info, bytes.data(), std::min(bytes.size(), sizeof(info)));
  return info;
}

long WriteIvo(uint32_t value) {
  std::vector<uint8_t> b(4);
  std::memcpy(b.data(), &value, 4);
  return vfs::ProcWriteAll(kIvoFile, b);
}

class SteeringTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    worker_ = std::make_unique<Worker>(5100);
  }
  void TearDown() override {
    worker_.reset();
    ModuleTest::TearDown();
  }
  int Send(const BYPASS_LB_TABLE_S& t, size_t len = sizeof(BYPASS_LB_TABLE_S)) {
    return worker_->Control(NETLINK_MID_IVO_LB, Payload(t, len)).value_or(1);
  }
  std::unique_ptr<Worker> worker_;
};

TEST_F(SteeringTest, IvoWinsThenListBeforeRangeAndEveryHitIsCounted) {
  ASSERT_EQ(Send(Table(0, 0x105, {10, 11, 12, 13}, 13, 20)), 0);
  ASSERT_EQ(Send(Table(1, 9, {10, 30}, 200, 200)), 0);

  EXPECT_EQ(Steer(13).vcpu, 5);  // low byte of 0x105; slot 3, not the range
  EXPECT_EQ(Steer(10).vcpu, 5);  // listed in both: the ivo table
  EXPECT_EQ(Steer(15).vcpu, 5);  // ivo range
  Lookup det = Steer(30);
  EXPECT_EQ(det.ret, BYPASS_IVO_HIT);
  EXPECT_EQ(det.count, 1u);
  EXPECT_EQ(det.vcpu, 9);
  EXPECT_EQ(Steer(200).vcpu, 9);  // a one-value range
  for (uint16_t miss : {199, 201, 0, 21}) {
    Lookup l = Steer(miss);
    EXPECT_EQ(l.ret, BYPASS_IVO_MISS) << miss;
    EXPECT_EQ(l.count, 0xAAu);
    EXPECT_EQ(l.vcpu, 0xBB);
  }
  uint8_t v = 0;
  uint32_t n = 0;
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, nullptr, &v), BYPASS_IVO_BAD_ARG);
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, &n, nullptr), BYPASS_IVO_BAD_ARG);

  BYPASS_IVO_DEBUG_INFO_S want{};
  want.stIvoTable = Table(0, 0x105, {10, 11, 12, 13}, 13, 20);
  want.stIvoTable.ulTableType = 0;
  want.stDeteptionTable = Table(1, 9, {10, 30}, 200, 200);
  want.stDeteptionTable.ulTableType = 0;  // never written into the tables
  want.ulIvoHitCnt = 3;
  want.aulIvoCauseIdHitCnt[3] = 1;
  want.aulIvoCauseIdHitCnt[0] = 1;
  want.ulIvoRangeHitCnt = 1;
  want.ulDeteptionHitCnt = 2;
  want.aulDeteptionCauseIdHitCnt[1] = 1;
  want.ulDeteptionRangeHitCnt = 1;
  BYPASS_IVO_DEBUG_INFO_S got = ReadIvo();
  EXPECT_EQ(std::memcmp(&got, &want, sizeof(want)), 0);
  EXPECT_EQ(std::memcmp(&g_stIvoDebugInfo, &want, sizeof(want)), 0);

  // Each half clears alone; other values and short writes clear nothing.
  EXPECT_EQ(WriteIvo(7), 4);
  EXPECT_EQ(vfs::ProcWriteAll(kIvoFile, {0, 0, 0}), -22);
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(WriteIvo(0), -1);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass copy from user failed.\r\n"));
  EXPECT_EQ(ReadIvo().ulIvoHitCnt, 3u);
  EXPECT_EQ(WriteIvo(0), 4);
  got = ReadIvo();
  EXPECT_EQ(got.ulIvoHitCnt, 0u);
  EXPECT_EQ(got.aulIvoCauseIdHitCnt[3], 0u);
  EXPECT_EQ(got.ulIvoRangeHitCnt, 0u);
  EXPECT_EQ(got.ulDeteptionHitCnt, 2u);
  EXPECT_EQ(Steer(11).vcpu, 5);
  EXPECT_EQ(WriteIvo(1), 4);
  got = ReadIvo();
  EXPECT_EQ(got.ulDeteptionHitCnt, 0u);
  EXPECT_EQ(got.ulDeteptionRangeHitCnt, 0u);
  EXPECT_EQ(got.ulIvoHitCnt, 1u);
  EXPECT_EQ(got.aulIvoCauseIdHitCnt[1], 1u);
}

TEST_F(SteeringTest, MessageRulesForTypeCountRangeAndShortPayloads) {
  ASSERT_EQ(Send(Table(1, 4, {40, 41, 42}, 300, 310)), 0);
  // Short: refused whole with -EINVAL.
  EXPECT_EQ(Send(Table(1, 7, {}, 0, 0), 59), -22);
  EXPECT_EQ(g_bypass_deteption_lb_table.ulVcpuId, 4u);
  // Unknown table type: ignored.
  EXPECT_EQ(Send(Table(2, 7, {1})), 0);
  EXPECT_EQ(g_bypass_deteption_lb_table.ulVcpuId, 4u);
  EXPECT_EQ(g_bypass_ivo_lb_table.ulEnable, 0u);
  // Count above 20: enable and vCPU only; the old list and range stay.
  BYPASS_LB_TABLE_S big = Table(1, 5, {});
  big.ulCauseIdNum = 21;
  EXPECT_EQ(Send(big), 0);
  EXPECT_EQ(Steer(41).vcpu, 5);
  EXPECT_EQ(Steer(305).vcpu, 5);
  // A shorter list keeps the slots past it; a range starting at 0 is off.
  EXPECT_EQ(Send(Table(1, 6, {50}, 0, 100)), 0);
  EXPECT_EQ(g_bypass_deteption_lb_table.ausCauseId[1], 41);
  EXPECT_EQ(Steer(41).ret, BYPASS_IVO_MISS);
  EXPECT_EQ(Steer(60).ret, BYPASS_IVO_MISS);
  EXPECT_EQ(Steer(50).vcpu, 6);
  // Disabled tables answer nothing.
  BYPASS_LB_TABLE_S off = Table(1, 6, {50});
  off.ulEnable = 0;
  EXPECT_EQ(Send(off), 0);
  EXPECT_EQ(Steer(50).ret, BYPASS_IVO_MISS);
}

TEST_F(SteeringTest, CommandTwentyPrintsBothTables) {
  ASSERT_EQ(Send(Table(0, 3, {7, 8})), 0);
  BYPASS_LB_TABLE_S big = Table(1, 4, {});
  big.ulCauseIdNum = 21;
  ASSERT_EQ(Send(big), 0);
  klog::Clear();
  ASSERT_EQ(worker_->Debug(20), 0);
  std::vector<std::string> text;
  for (const auto& line : klog::Lines()) {
    EXPECT_EQ(line.level, KPORT_LOGLEVEL_ALERT);
    text.push_back(line.text);
  }
  EXPECT_EQ(text, (std::vector<std::string>{"\r\n********ivo lb table***********\r\n",
                                            "\r\nIvo  enable:1", "\r\nIvo  vcpuid:3",
                                            "\r\nIvo  causeid[0]:7", "\r\nIvo  causeid[1]:8",
                                            "\r\n\r\n********deteption lb table***********\r\n",
                                            "\r\nDeteption  enable:1", "\r\nDeteption  vcpuid:4"}));
}

// A writer flips the ivo table between two whole tables; every lookup must
// answer from one of them, and every hit a reader saw is in the statistics.
TEST_F(SteeringTest, UpdatesAppearWholeToConcurrentLookups) {
  const BYPASS_LB_TABLE_S a = Table(0, 1, {100, 101}, 500, 600);
  const BYPASS_LB_TABLE_S b = Table(0, 2, {200}, 700, 800);
  ASSERT_EQ(Send(a), 0);
  std::atomic<bool> done{false};
  std::atomic<uint32_t> hits{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      uint32_t mine = 0;
      while (!done.load()) {
        for (uint16_t cause : {100, 101, 550, 200, 750}) {
          Lookup l = Steer(cause);
          if (l.ret != BYPASS_IVO_HIT) continue;
          ++mine;
          uint8_t want = (cause == 200 || cause == 750) ? 2 : 1;
          ASSERT_EQ(l.vcpu, want) << "cause " << cause;
        }
      }
      hits += mine;
    });
  }
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      Worker writer(5200 + w);
      for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(writer.Control(NETLINK_MID_IVO_LB, Payload(i % 2 ? a : b)).value_or(1), 0);
      }
    });
  }
  for (auto& th : writers) th.join();
  done = true;
  for (auto& th : readers) th.join();
  BYPASS_IVO_DEBUG_INFO_S info = ReadIvo();
  EXPECT_EQ(info.ulIvoHitCnt, hits.load());
  uint32_t parts = info.ulIvoRangeHitCnt;
  for (uint32_t c : info.aulIvoCauseIdHitCnt) parts += c;
  EXPECT_EQ(parts, hits.load());
}

}  // namespace
}  // namespace vane::test
