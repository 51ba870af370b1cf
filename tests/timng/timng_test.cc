// TIMNG through messages 14 and 15: which slot each message takes, the
// master switch, the limit of two, short messages, and concurrent messages
// racing each other and the lookups.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "drv_vane/timng.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

std::vector<uint8_t> Msg(uint32_t cause, uint32_t node, uint32_t master, uint32_t scan,
                         size_t len = TIMNG_MSG_PAYLOAD_LEN) {
  return RecordBytes(TIMNG_KERNEL_MSG_S{cause, node, master, scan}, len);
}

struct Answer {
  uint32_t ret;
  uint32_t count;
  uint8_t vcpu;
};
Answer Ask(uint16_t cause) {
  Answer a{0, 0xAA, 0xBB};
  a.ret = TIMNG_GetVcpuIdByCauseid(cause, &a.count, &a.vcpu);
  return a;
}

class TimngTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    worker_ = std::make_unique<Worker>(6100);
    SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR | BYPASS_DEBUG_LEVEL_PKT);
  }
  void TearDown() override {
    worker_.reset();
    ModuleTest::TearDown();
  }
  int Send(uint32_t id, const std::vector<uint8_t>& payload) {
    return worker_->Control(id, payload).value_or(1);
  }
  std::unique_ptr<Worker> worker_;
};

TEST_F(TimngTest, MasterSteersNamedCauseIdsAndAnEmptySlotNamesCauseIdZero) {
  ASSERT_EQ(Send(NETLINK_MID_TIMNG, Msg(100, 0x107, 1, 0)), 0);
  EXPECT_EQ(DebugText(),
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Init: causeid=100, nodeId=263, isMaster=1");
  Answer a = Ask(100);
  EXPECT_EQ(a.ret, TIMNG_VCPU_OK);
  EXPECT_EQ(a.count, 1u);
  EXPECT_EQ(a.vcpu, 7);  // low byte of the node
  Answer zero = Ask(0);  // entry 1 is still empty
  EXPECT_EQ(zero.ret, TIMNG_VCPU_OK);
  EXPECT_EQ(zero.vcpu, 0);
  Answer other = Ask(101);
  EXPECT_EQ(other.ret, TIMNG_VCPU_NOT_NAMED);
  EXPECT_EQ(other.count, 0xAAu);
}

TEST_F(TimngTest, NotMasterGivesNoOpinionForAnyCauseId) {
  ASSERT_EQ(Send(NETLINK_MID_TIMNG, Msg(100, 7, 0, 1)), 0);
  for (uint16_t cause : {100, 101}) {
    Answer a = Ask(cause);
    EXPECT_EQ(a.ret, TIMNG_VCPU_OK);
    EXPECT_EQ(a.count, 0xAAu);
    EXPECT_EQ(a.vcpu, 0xBB);
  }
  EXPECT_EQ(g_timngKernelInfo[0].isFragScan, 1u);
}

TEST_F(TimngTest, MasterMessageUsesUpASlotAndAThirdMessageIsRefused) {
  ASSERT_EQ(Send(NETLINK_MID_TIMNG_MASTER, Msg(55, 66, 1, 1)), 0);
  ASSERT_EQ(Send(NETLINK_MID_TIMNG, Msg(300, 9, 1, 0)), 0);
  EXPECT_EQ(g_timngKernelInfoCnt, 2u);
  EXPECT_EQ(g_timngKernelInfo[0].causeid, 0u);
  EXPECT_EQ(g_timngKernelInfo[1].causeid, 300u);
  EXPECT_EQ(Ask(300).vcpu, 9);

  ASSERT_EQ(Send(NETLINK_MID_TIMNG, Msg(400, 4, 0, 0)), 0);
  EXPECT_EQ(g_timngKernelInfoCnt, 2u);
  EXPECT_EQ(g_TimngBoardType, 1u);
  EXPECT_EQ(Ask(400).ret, TIMNG_VCPU_NOT_NAMED);
  EXPECT_EQ(DebugText(),
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Master: causeid=0, nodeId=0, isMaster=1"
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Init: causeid=300, nodeId=9, isMaster=1"
            "\r\n NETLINK_MID_TIMNG.\rTIMNG Init fail: kernel info num exceeds limit.");
}

TEST_F(TimngTest, ShortMessagesAreRefusedWithoutUsingASlot) {
  EXPECT_EQ(Send(NETLINK_MID_TIMNG, Msg(100, 7, 1, 0, 15)), -22);
  EXPECT_EQ(Send(NETLINK_MID_TIMNG_MASTER, Msg(0, 0, 1, 0, 8)), -22);
  EXPECT_EQ(g_timngKernelInfoCnt, 0u);
  EXPECT_EQ(g_TimngBoardType, 0u);
  // The receiver's trace comes first, as for any message of these ids.
  const std::string trace = "\r\n NETLINK_MID_TIMNG.\r\n NETLINK_MID_TIMNG.";
  EXPECT_EQ(DebugText(), trace);
  TIMNG_LB_InitKernel(NETLINK_MID_TIMNG, nullptr, 16);
  EXPECT_EQ(DebugText(), trace + "\rTIMNG Init fail: invalid param.");
  EXPECT_EQ(g_timngKernelInfoCnt, 0u);
}

// Many senders at once: exactly two are accepted, each in a slot of its
// own, and a lookup racing them sees every entry whole (its node always
// belongs to its cause ID).
TEST_F(TimngTest, ConcurrentMessagesTakeDistinctSlotsAndEntriesAppearWhole) {
  std::atomic<bool> done{false};
  std::thread reader([&done] {
    while (!done.load()) {
      for (uint16_t cause = 1; cause <= 8; ++cause) {
        Answer a = Ask(cause);
        if (a.ret == TIMNG_VCPU_OK && a.count == 1) {
          ASSERT_EQ(a.vcpu, cause + 10);
        }
      }
    }
  });
  std::vector<std::thread> senders;
  for (uint32_t s = 1; s <= 8; ++s) {
    senders.emplace_back([s] {
      Worker w(6200 + s);
      ASSERT_EQ(w.Control(NETLINK_MID_TIMNG, Msg(s, s + 10, 1, 0)).value_or(1), 0);
    });
  }
  for (auto& th : senders) th.join();
  done = true;
  reader.join();
  EXPECT_EQ(g_timngKernelInfoCnt, 2u);
  uint32_t c0 = g_timngKernelInfo[0].causeid;
  uint32_t c1 = g_timngKernelInfo[1].causeid;
  EXPECT_NE(c0, c1);
  for (uint32_t i = 0; i < 2; ++i) {
    EXPECT_EQ(g_timngKernelInfo[i].nodeId, g_timngKernelInfo[i].causeid + 10);
    EXPECT_EQ(Ask(static_cast<uint16_t>(g_timngKernelInfo[i].causeid)).vcpu,
              g_timngKernelInfo[i].causeid + 10);
  }
}

}  // namespace
}  // namespace vane::test
