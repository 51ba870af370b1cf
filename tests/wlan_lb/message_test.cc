// LB configuration messages as a worker sends them: the first-message
// rules, the counters, the length rule of every set type and what each set
// type changes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "wlan_lb/lb_fixture.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

using kport::user::vfs::ProcReadAll;
using kport::user::vfs::ProcWriteAll;
using kport::user::vfs::SysfsShow;
using kport::user::vfs::SysfsStore;

constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";

class WlanMessageTest : public LbModuleTest {
 protected:
  std::vector<uint32_t> Counts() const {
    return std::vector<uint32_t>(std::begin(g_ulMessageStatistics),
                                 std::end(g_ulMessageStatistics));
  }
  static std::string View(const char* selector) {
    EXPECT_EQ(SysfsStore(kAttr, selector), static_cast<long>(std::string(selector).size()));
    return SysfsShow(kAttr).value_or("<none>");
  }
  static std::vector<uint8_t> CapwapRecordsOf(uint64_t sip) {
    std::vector<uint8_t> key(8);
    std::memcpy(key.data(), &sip, 8);
    EXPECT_EQ(ProcWriteAll("/proc/wlan_lb/capwap", key), 8);
    return ProcReadAll("/proc/wlan_lb/capwap");
  }
  static std::vector<uint16_t> NacIds() {
    const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
    std::vector<uint16_t> out{nac->count};
    for (uint32_t i = 0; i < nac->count && i < WLAN_LB_NAC_MAX; ++i) {
      out.push_back(static_cast<uint16_t>(nac->ids[i]));
    }
    return out;
  }
};

TEST_F(WlanMessageTest, FirstMessageOfAnyTypeEmptiesTheSocketPortListsOnce) {
  // What another module put in before user space configured LB is dropped
  // by the first message, even one of an unknown set type.
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), WLAN_LB_OK);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(49, 1, 6, 0, 0), WLAN_LB_OK);
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);

  EXPECT_EQ(Send(LbMessage(9, 0)), 0);
  EXPECT_EQ(g_ulIsLBInited, 1u);
  EXPECT_EQ(Counts(), std::vector<uint32_t>(7, 0));
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(1812, 0, 0, 0), nullptr);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(49, 1, 0, 0), nullptr);

  // Later messages leave the lists alone.
  EXPECT_EQ(Send(SocketPortMsg(1813, false, 0, 7)), 0);
  EXPECT_EQ(Send(LbMessage(7, 0)), 0);
  EXPECT_NE(WLAN_LB_FindSocketPortDistributeTblNodeByPort(1813, 0, 0, 0), nullptr);
  EXPECT_EQ(DebugText(),
            "\r\nWLAN LB message(SetType=9 Len=8 InitFlag=0)."
            "\r\nWLAN LB message(SetType=4 Len=24 InitFlag=1)."
            "\r\nProc socket port distribute table.(op 1 port 1813 TcpFlag 0 process 7 "
            "SrcPortFlag 0, isIpv6 0)."
            "\r\nWLAN LB message(SetType=7 Len=8 InitFlag=1).");
}

// The Len field and the bytes a message carries are told apart: only a
// message that carries fewer bytes than its set type reads is refused (-22);
// with the head present it is traced, counted and starts the configured
// state whatever Len says.
TEST_F(WlanMessageTest, LenFieldAgainstTheBytesCarried) {
  struct Case {
    Bytes msg;
    uint32_t len_field;
    int ack;
    int counted_type;  // -1: nothing counted
    uint32_t board;    // board type afterwards
  };
  const Case cases[] = {
      {{5, 0, 0, 0}, 4, -22, -1, 1},                   // no head: nothing at all
      {LbMessage(5, 3), 0, 0, 5, 3},                   // set type 5 reads its head word only
      {LbMessage(5, 4), 4, 0, 5, 4},                   //
      {LbMessage(5, 6), 100, 0, 5, 6},                 //
      {LbMessage(0, 7), 33, 0, 0, 6},                  // wrong Len: counted, no body read
      {LbMessage(0, 7), 32, -22, 0, 6},                // right Len, body missing
      {LbMessage(6, 1), 20, -22, 6, 6},                // one cause ID promised, none carried
      {Resized(PortalMsg(80, 2), 12), 20, -22, 3, 6},  // Portal body cut short
  };
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  std::vector<uint32_t> counts(7, 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "set type " << int{c.msg[0]} << " carrying "
                                      << c.msg.size() << " bytes, Len " << c.len_field);
    const std::string before = DebugText();
    EXPECT_EQ(Send(c.msg, {.len_field = c.len_field}), c.ack);
    if (c.counted_type >= 0) ++counts[static_cast<size_t>(c.counted_type)];
    EXPECT_EQ(Counts(), counts);
    EXPECT_EQ(g_ulKernelLBBoardType, c.board);
    const std::string trace = "WLAN LB message(SetType=" + std::to_string(c.msg[0]) +
                              " Len=" + std::to_string(c.len_field);
    EXPECT_EQ(DebugText().find(trace, before.size()) != std::string::npos, c.counted_type >= 0);
  }
  EXPECT_EQ(g_ulIsLBInited, 1u);
  EXPECT_EQ(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(port_entry_load(&g_stPortalPktDistribute).port, 0u);

  // Called directly, a payload without its head, a null one or another id
  // is dropped before anything is counted.
  const uint8_t head[4] = {5, 0, 0, 0};
  WLAN_LB_PacketDistribute_Proc(NETLINK_MID_WLAN_LB, head, sizeof(head));
  WLAN_LB_PacketDistribute_Proc(NETLINK_MID_WLAN_LB, nullptr, 8);
  const auto board = LbMessage(5, 3);
  WLAN_LB_PacketDistribute_Proc(11, board.data(), 8);
  EXPECT_EQ(Counts(), counts);
}

// The first LB message starts the configured state even when its Len is
// wrong.
TEST_F(WlanMessageTest, AWrongLenStillStartsTheConfiguredState) {
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(Send(LbMessage(5, 3), {.len_field = 0}), 0);
  EXPECT_EQ(g_ulIsLBInited, 1u);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(1812, 0, 0, 0), nullptr);
}

TEST_F(WlanMessageTest, EverySetTypeIsCountedWhateverItsLength) {
  // Right lengths, then one short and one long of each: all counted, the
  // malformed ones apply nothing.
  const std::vector<std::vector<uint8_t>> right = {CapwapMsg({1, 2, 3, 4, 5, 6}),
                                                   CapwapKaMsg({1, 2, 3, 4}, 6),
                                                   NacMsg(3, {1, 2}),
                                                   PortalMsg(8080, 9),
                                                   SocketPortMsg(53, false, 0, 4),
                                                   LbMessage(5, 3, {0, 0, 0, 0}),
                                                   CauseIdMsg({{100, 2, 1}})};
  for (const auto& m : right) {
    for (size_t len : {m.size() - 1, m.size() + 1}) EXPECT_EQ(Send(Resized(m, len)), 0);
  }
  EXPECT_EQ(Counts(), std::vector<uint32_t>({2, 2, 2, 2, 2, 2, 2}));
  EXPECT_EQ(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(g_CAPWAP_KEEP_ALIVE_LB_Table, nullptr);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(NacIds(), std::vector<uint16_t>({0}));
  EXPECT_EQ(View("2"), "");
  // The board type message has no length rule: both set it.
  EXPECT_EQ(g_ulKernelLBBoardType, 3u);

  for (const auto& m : right) EXPECT_EQ(Send(m), 0);
  EXPECT_EQ(Counts(), std::vector<uint32_t>({3, 3, 3, 3, 3, 3, 3}));
  EXPECT_NE(g_CAPWAP_LB_Table, nullptr);
  EXPECT_NE(g_CAPWAP_KEEP_ALIVE_LB_Table, nullptr);
  EXPECT_NE(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(NacIds(), std::vector<uint16_t>({2, 1, 2}));
  EXPECT_EQ(View("4"), "100  1    2   ;");
  EXPECT_EQ(View("2"),
            "\r\n    53(D)                      UDP                                 4"
            "\r\n  3799(D)                      UDP                                 NAC"
            "\r\n  3799(D)                      UDP                                 NAC"
            "\r\n  8080(D)                      UDP                                 9");
}

TEST_F(WlanMessageTest, CounterWrapsAndUnknownTypesAreNotCounted) {
  g_ulMessageStatistics[5] = 0xFFFFFFFFu;
  EXPECT_EQ(Send(LbMessage(5, 1)), 0);
  EXPECT_EQ(Send(LbMessage(7, 1)), 0);
  EXPECT_EQ(Send(LbMessage(0xFFFFFFFFu, 1)), 0);
  EXPECT_EQ(Counts(), std::vector<uint32_t>(7, 0));
}

TEST_F(WlanMessageTest, CapwapTablesAreCreatedByTheirFirstWellFormedMessage) {
  // A delete before any add creates the (empty) table.
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 0, 1}, WLAN_LB_OP_DELETE)), 0);
  ASSERT_NE(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(CapwapRecordsOf(10), std::vector<uint8_t>(200, 0));

  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 300})), 0);
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 301})), 0);  // update
  std::vector<uint8_t> expect(200, 0);
  const uint8_t rec[20] = {10, 0, 0, 0, 20, 0, 0, 0, 30, 0, 40, 0, 7, 0, 0, 0, 45, 1, 0, 0};
  std::memcpy(expect.data(), rec, sizeof(rec));
  EXPECT_EQ(CapwapRecordsOf(10), expect);
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 0}, WLAN_LB_OP_DELETE)), 0);
  EXPECT_EQ(CapwapRecordsOf(10), std::vector<uint8_t>(200, 0));

  EXPECT_EQ(Send(CapwapKaMsg({1, 2, 3, 4}, 0, WLAN_LB_OP_DELETE)), 0);
  EXPECT_NE(g_CAPWAP_KEEP_ALIVE_LB_Table, nullptr);
  EXPECT_EQ(Counts(), std::vector<uint32_t>({4, 1, 0, 0, 0, 0, 0}));
}

TEST_F(WlanMessageTest, TableCreationFailureIsRetriedByTheNextMessage) {
  // Sent directly: the channel itself needs memory to carry a message.
  const auto add = CapwapMsg({10, 20, 30, 40, 0, 1});
  kport::user::fault::FailAlways(kport::user::fault::Site::kAlloc);
  WLAN_LB_PacketDistribute_Proc(NETLINK_MID_WLAN_LB, add.data(), static_cast<u32>(add.size()));
  kport::user::fault::ClearAll();
  EXPECT_EQ(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 0, 1})), 0);
  EXPECT_NE(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(g_ulMessageStatistics[0], 2u);
}

TEST_F(WlanMessageTest, BoardTypeNacListAndCoaReset) {
  EXPECT_EQ(Send(LbMessage(5, 7)), 0);
  EXPECT_EQ(g_ulKernelLBBoardType, 7u);
  // Any length, even just the head.
  EXPECT_EQ(Send(Resized(LbMessage(5, 9), 100)), 0);
  EXPECT_EQ(g_ulKernelLBBoardType, 9u);

  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1700, 4, 0), WLAN_LB_OK);
  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1701, 5, 1), WLAN_LB_OK);
  // A count above 16 is kept as sent; only 16 ids are taken.
  std::vector<uint32_t> ids;
  for (uint32_t i = 1; i <= 16; ++i) ids.push_back(i * 10);
  EXPECT_EQ(Send(NacMsg(3, ids, 40)), 0);
  EXPECT_EQ(g_ulKernelLBBoardType, 3u);
  std::vector<uint16_t> expect{40};
  for (uint32_t id : ids) expect.push_back(static_cast<uint16_t>(id));
  EXPECT_EQ(NacIds(), expect);
  for (const auto& coa : g_stRadiusCOADistribute) {
    const PortEntry e = port_entry_load(&coa);
    EXPECT_EQ(e.port, WLAN_LB_RADIUS_COA_PORT);
    EXPECT_EQ(e.process, WLAN_LB_PROCESS_NAC);
  }
}

TEST_F(WlanMessageTest, CauseIdCountMustMatchTheLengthIn64Bits) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  // Count 0 and no entries: counted and logged, no table.
  EXPECT_EQ(Send(CauseIdMsg({})), 0);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_NE(DebugText().find("WLAN_LB_KERNEL_LB_SET_CAUSEIID  len 8 causeidnum 0\n"),
            std::string::npos);
  // A count whose 12-fold wraps to the body length in 32 bits.
  EXPECT_EQ(Send(CauseIdMsg({{5, 1, 1}}, 0x15555556u)), 0);
  EXPECT_EQ(Send(Resized(CauseIdMsg({}, 0x15555556u), 16)), 0);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  // More than 100: the table is created and nothing is added.
  std::vector<WLAN_LB_CAUSEID_NODE_S> many(101);
  for (uint32_t i = 0; i < many.size(); ++i) many[i] = {i + 1, 2, 3};
  EXPECT_EQ(Send(CauseIdMsg(many)), 0);
  ASSERT_NE(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(View("4"), "");
  // The first setting of a cause ID stays.
  EXPECT_EQ(Send(CauseIdMsg({{7, 2, 1}, {8, 11, 4}})), 0);
  EXPECT_EQ(Send(CauseIdMsg({{7, 5, 3}})), 0);
  EXPECT_EQ(View("4"), "7    1    2   ;8    4    11  ;");
  EXPECT_EQ(g_ulMessageStatistics[6], 6u);
}

}  // namespace
}  // namespace vane::test
