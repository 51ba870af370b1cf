// LB messages (control message 10) as a worker sends them, judged by the
// acknowledgement, the debug trace, the attribute's selector and its four
// text views, and the CAPWAP and keep-alive files.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/env.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"
#include "wlan_lb/lb_fixture.h"

namespace vane::test {
namespace {

using Counts = std::vector<uint32_t>;  // seven counters, then the board type

class LbMessageTest : public LbModuleTest {
 protected:
  // The debug text written since the last call.
  std::string NewTrace() {
    const std::string all = DebugText();
    std::string fresh = all.substr(std::min(seen_, all.size()));
    seen_ = all.size();
    return fresh;
  }
  size_t seen_ = 0;
};

// Only a message that carries fewer bytes than its set type reads is
// refused; with the head present it is traced and counted whatever Len
// says, and a wrong Len changes no table.
TEST_F(LbMessageTest, LenFieldAgainstTheBytesCarried) {
  struct Case {
    Bytes msg;
    uint32_t len_field;
    int ack;
    Counts stats;
    const char* trace;
  };
  const Case cases[] = {
      {{5, 0, 0, 0}, 4, -22, {0, 0, 0, 0, 0, 0, 0, 1}, ""},  // no head: nothing at all
      {LbMessage(5, 3),
       0,
       0,
       {0, 0, 0, 0, 0, 1, 0, 3},
       "\r\nWLAN LB message(SetType=5 Len=0 InitFlag=0)."},
      {LbMessage(5, 4),
       4,
       0,
       {0, 0, 0, 0, 0, 2, 0, 4},
       "\r\nWLAN LB message(SetType=5 Len=4 InitFlag=1)."},
      {LbMessage(5, 6),
       100,
       0,
       {0, 0, 0, 0, 0, 3, 0, 6},
       "\r\nWLAN LB message(SetType=5 Len=100 InitFlag=1)."},
      // A wrong Len: counted, no body read.
      {LbMessage(0, 7),
       33,
       0,
       {1, 0, 0, 0, 0, 3, 0, 6},
       "\r\nWLAN LB message(SetType=0 Len=33 InitFlag=1)."},
      // The right Len with the body missing.
      {LbMessage(0, 7),
       32,
       -22,
       {2, 0, 0, 0, 0, 3, 0, 6},
       "\r\nWLAN LB message(SetType=0 Len=32 InitFlag=1)."},
      {LbMessage(6, 1),
       20,
       -22,
       {2, 0, 0, 0, 0, 3, 1, 6},
       "\r\nWLAN LB message(SetType=6 Len=20 InitFlag=1)."
       "WLAN_LB_KERNEL_LB_SET_CAUSEIID  len 20 causeidnum 1\n"},
      {Resized(PortalMsg(80, 2), 12),
       20,
       -22,
       {2, 0, 0, 1, 0, 3, 1, 6},
       "\r\nWLAN LB message(SetType=3 Len=20 InitFlag=1)."},
  };
  SetDebugLevel(4);
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "set type " << int{c.msg[0]} << " carrying "
                                      << c.msg.size() << " bytes, Len " << c.len_field);
    EXPECT_EQ(Send(c.msg, {.len_field = c.len_field}), c.ack);
    EXPECT_EQ(NewTrace(), c.trace);
    EXPECT_EQ(Stats(), c.stats);
  }
  EXPECT_EQ(CapwapRecords(7), Bytes(200, 0));
  EXPECT_EQ(View("4"), "");
  EXPECT_EQ(View("2"), "");
}

// The first LB message that carries its head starts the configured state,
// whatever its set type or Len; the next message's trace shows it.
using FirstLbMessageTest = ModuleTest;

TEST_F(FirstLbMessageTest, StartsTheConfiguredStateWhenItCarriesItsHead) {
  struct Case {
    Bytes msg;
    uint32_t len_field;
    int ack;
    uint32_t board_type_count;  // an unknown set type counts nothing
    const char* trace;
  };
  const Case cases[] = {
      {{5, 0, 0, 0}, 4, -22, 1, "\r\nWLAN LB message(SetType=5 Len=8 InitFlag=0)."},
      {LbMessage(9, 0), 8, 0, 1,
       "\r\nWLAN LB message(SetType=9 Len=8 InitFlag=0)."
       "\r\nWLAN LB message(SetType=5 Len=8 InitFlag=1)."},
      {LbMessage(5, 3), 0, 0, 2,
       "\r\nWLAN LB message(SetType=5 Len=0 InitFlag=0)."
       "\r\nWLAN LB message(SetType=5 Len=8 InitFlag=1)."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    {
      Worker w;
      SetDebugLevel(4);
      EXPECT_EQ(w.Control(10, c.msg, kNormal, {.len_field = c.len_field}), c.ack);
      EXPECT_EQ(w.Control(10, LbMessage(5, 1)), 0);
      EXPECT_EQ(DebugText(), c.trace);
      EXPECT_EQ(Stats(), (Counts{0, 0, 0, 0, 0, c.board_type_count, 0, 1}));
    }
    env().Unload();  // a fresh module for the next case
    ASSERT_EQ(env().Load(), 0);
  }
}

TEST_F(LbMessageTest, EverySetTypeIsCountedWhateverItsLengthAndAppliedOnlyAtItsLength) {
  const uint32_t session[4] = {1, 2, 3, 4};
  const std::vector<Bytes> right = {CapwapMsg({1, 2, 3, 4, 5, 6}),
                                    CapwapKaMsg(session, 6),
                                    NacMsg(3, {1, 2}),
                                    PortalMsg(8080, 9),
                                    SocketPortMsg(53, false, 0, 4),
                                    LbMessage(5, 3, {0, 0, 0, 0}),
                                    CauseIdMsg({{100, 2, 1}})};
  // One byte short and one too long of each: counted, nothing applied but
  // the board type, which has no length rule.
  for (const Bytes& m : right) {
    for (size_t len : {m.size() - 1, m.size() + 1}) EXPECT_EQ(Send(Resized(m, len)), 0);
  }
  EXPECT_EQ(Stats(), (Counts{2, 2, 2, 2, 2, 2, 2, 3}));
  EXPECT_EQ(CapwapRecords(1), Bytes(200, 0));
  EXPECT_EQ(KaRecord(session), Bytes(20, 0));
  for (const char* view : {"1", "2", "4"}) EXPECT_EQ(View(view), "") << view;

  for (const Bytes& m : right) EXPECT_EQ(Send(m), 0);
  EXPECT_EQ(Stats(), (Counts{3, 3, 3, 3, 3, 3, 3, 3}));
  EXPECT_EQ(Resized(CapwapRecords(1), 20),
            (Bytes{1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 4, 0, 5, 0, 0, 0, 6, 0, 0, 0}));
  EXPECT_EQ(KaRecord(session), (Bytes{1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 6, 0, 0, 0}));
  EXPECT_EQ(View("1"), "\r\nNAC process list :1 2 ");
  EXPECT_EQ(View("4"), "100  1    2   ;");
  EXPECT_EQ(View("2"),
            "\r\n    53(D)                      UDP                                 4"
            "\r\n  3799(D)                      UDP                                 NAC"
            "\r\n  3799(D)                      UDP                                 NAC"
            "\r\n  8080(D)                      UDP                                 9");
}

TEST_F(LbMessageTest, CapwapAndKeepAliveEntriesAreAddedUpdatedAndDeletedByKey) {
  // A delete before any add finds nothing (Ret 1); the reserved bytes sent
  // are not what the view shows.
  SetDebugLevel(4);
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 0}, 2)), 0);
  EXPECT_EQ(DebugText(),
            "\r\nWLAN LB message(SetType=0 Len=32 InitFlag=0)."
            "\r\nProc capwap distribute table.(op 2 vpn 7  dip 20 sip 10 dport 40 sport 30 "
            "process 0 Ret 1).");
  Bytes add = CapwapMsg({10, 20, 30, 40, 7, 300});
  add[8 + 13] = add[8 + 14] = add[8 + 15] = 0xEE;
  EXPECT_EQ(Send(add), 0);
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 301})), 0);  // one record per key
  EXPECT_EQ(CapwapRecords(10),
            Resized({10, 0, 0, 0, 20, 0, 0, 0, 30, 0, 40, 0, 7, 0, 0, 0, 45, 1, 0, 0}, 200));
  EXPECT_EQ(Send(CapwapMsg({10, 20, 30, 40, 7, 99}, 2)), 0);  // whatever its process
  EXPECT_EQ(CapwapRecords(10), Bytes(200, 0));

  // Any op but 2 adds or updates.
  const uint32_t session[4] = {11, 12, 13, 14};
  SetDebugLevel(4);
  EXPECT_EQ(Send(CapwapKaMsg(session, 15, 0)), 0);
  EXPECT_EQ(DebugText(),
            "\r\nWLAN LB message(SetType=1 Len=32 InitFlag=1)."
            "\r\nProc capwap ka distribute table.(op 0 session0 11  session1 12 session2 13 "
            "session3 14  process 15 Ret 0).");
  EXPECT_EQ(Send(CapwapKaMsg(session, 16)), 0);
  EXPECT_EQ(KaRecord(session),
            (Bytes{11, 0, 0, 0, 12, 0, 0, 0, 13, 0, 0, 0, 14, 0, 0, 0, 16, 0, 0, 0}));
  EXPECT_EQ(Send(CapwapKaMsg(session, 0, 2)), 0);
  EXPECT_EQ(KaRecord(session), Bytes(20, 0));
  EXPECT_EQ(Stats(), (Counts{4, 3, 0, 0, 0, 0, 0, 1}));
}

TEST_F(LbMessageTest, CauseIdCountMustMatchTheLengthIn64Bits) {
  SetDebugLevel(4);
  // Count 0 and no entries: counted and traced, no table.
  EXPECT_EQ(Send(CauseIdMsg({})), 0);
  EXPECT_EQ(NewTrace(),
            "\r\nWLAN LB message(SetType=6 Len=8 InitFlag=0)."
            "WLAN_LB_KERNEL_LB_SET_CAUSEIID  len 8 causeidnum 0\n");
  // A count whose 12-fold wraps to the body length in 32 bits.
  EXPECT_EQ(Send(CauseIdMsg({{5, 1, 1}}, 0x15555556u)), 0);
  EXPECT_EQ(Send(Resized(CauseIdMsg({}, 0x15555556u), 16)), 0);
  // More than 100: nothing is added.
  std::vector<WLAN_LB_CAUSEID_NODE_S> many(101);
  for (uint32_t i = 0; i < many.size(); ++i) many[i] = {i + 1, 2, 3};
  EXPECT_EQ(Send(CauseIdMsg(many)), 0);
  EXPECT_EQ(View("4"), "");
  // The first setting of a cause ID stays; the view lists bucket by bucket.
  EXPECT_EQ(Send(CauseIdMsg({{99, 11, 4}, {1050, 3, 2}, {7, 2, 1}})), 0);
  NewTrace();
  EXPECT_EQ(Send(CauseIdMsg({{7, 5, 3}, {1, 12, 1}})), 0);
  EXPECT_EQ(NewTrace(),
            "\r\nWLAN LB message(SetType=6 Len=32 InitFlag=1)."
            "WLAN_LB_KERNEL_LB_SET_CAUSEIID  len 32 causeidnum 2\n"
            "WLAN_LB_SetCauseIDTable  causeid 7 lbtype 3 pkttype 5\n"
            "WLAN_LB_SetCauseIDTable  causeid 1 lbtype 1 pkttype 12\n");
  EXPECT_EQ(View("4"), "1    1    12  ;7    1    2   ;1050 2    3   ;99   4    11  ;");
  EXPECT_EQ(Stats(), (Counts{0, 0, 0, 0, 0, 0, 6, 1}));
}

TEST_F(LbMessageTest, NacListSetsTheBoardTypeAndResetsTheCoaEntries) {
  EXPECT_EQ(Send(NacMsg(3, {})), 0);
  EXPECT_EQ(View("1"), "");  // an empty list has no heading
  EXPECT_EQ(Send(NacMsg(7, {4, 17, 63})), 0);
  EXPECT_EQ(View("1"), "\r\nNAC process list :4 17 63 ");
  EXPECT_EQ(Stats(), (Counts{0, 0, 2, 0, 0, 0, 0, 7}));
  // A count above the 16 slots: the 16 are shown.
  std::vector<uint32_t> ids;
  for (uint32_t i = 1; i <= 16; ++i) ids.push_back(i);
  EXPECT_EQ(Send(NacMsg(3, ids, 0xFFFF)), 0);
  EXPECT_EQ(View("1"), "\r\nNAC process list :1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 ");
  EXPECT_EQ(View("2"),
            "\r\n  3799(D)                      UDP                                 NAC"
            "\r\n  3799(D)                      UDP                                 NAC");
}

using LbViewTest = LbModuleTest;

TEST_F(LbViewTest, StatisticsViewAndTheSelector) {
  EXPECT_EQ(env().Mode(kAttr), 0644u);
  EXPECT_EQ(env().Mode(kCapwapFile), 0666u);
  EXPECT_EQ(env().Mode(kKaFile), 0666u);
  EXPECT_EQ(env().Read(kAttr), Bytes{});  // no view chosen at load
  EXPECT_EQ(Send(LbMessage(5, 3)), 0);
  EXPECT_EQ(Send(CapwapMsg({1, 2, 3, 4, 5, 6})), 0);
  EXPECT_EQ(Send(Resized(PortalMsg(1, 2), 19)), 0);
  EXPECT_EQ(Send(CauseIdMsg({{7, 1, 1}})), 0);
  const std::string stats =
      "\r\nWLAN LB KERNEL LB SET CAPWAP      :1 "
      "\r\nWLAN LB KERNEL LB SET CAPWAP KA   :0 "
      "\r\nWLAN LB KERNEL LB SET NAC NODELIST:0 "
      "\r\nWLAN LB KERNEL LB SET PORTAL NODE :1 "
      "\r\nWLAN LB KERNEL LB SET SOCKET PORT :0 "
      "\r\nWLAN LB KERNEL LB SET BOARD TYPE  :1 "
      "\r\nWLAN LB KERNEL LB SET CAUSEIID    :1 "
      "\r\nWLAN LB BOARD TYPE                :3 \r\n";
  const std::string causes = "7    1    1   ;";
  EXPECT_EQ(View("3"), stats);

  // A number whose low 32 bits are 0 clears the counters and keeps the view;
  // text without digits is such a number.
  const std::vector<uint32_t> cleared = {0, 0, 0, 0, 0, 0, 0, 3};
  for (const char* clear : {"0", "none", "0x100000000"}) {
    EXPECT_EQ(Send(LbMessage(5, 3)), 0);
    EXPECT_EQ(env().Write(kAttr, Bytes(clear, clear + std::strlen(clear))),
              static_cast<long>(std::strlen(clear)));
    EXPECT_EQ(Stats(), cleared) << clear;
  }
  EXPECT_EQ(View("0"), View("3"));
  // Any base, the number taken as a signed 32-bit value, only its leading
  // digits read; other values show nothing.
  for (const char* sel : {"4", "0x4", "04", "0x100000004", "4 trailing"}) {
    EXPECT_EQ(View(sel), causes) << sel;
  }
  for (const char* sel : {"-1", "010", "5", "0xFFFFFFFE", "-3"}) EXPECT_EQ(View(sel), "") << sel;
  // A write is consumed whole however long it is.
  EXPECT_EQ(env().Write(kAttr, Bytes(300, '3')), 300);
}

TEST_F(LbViewTest, SocketPortViewListsUdpThenTcpThenCoaAndPortal) {
  EXPECT_EQ(View("2"), "");
  SetDebugLevel(4);
  EXPECT_EQ(Send(SocketPortMsg(1812, false, 0, 5)), 0);
  EXPECT_EQ(DebugText(),
            "\r\nWLAN LB message(SetType=4 Len=24 InitFlag=0)."
            "\r\nProc socket port distribute table.(op 1 port 1812 TcpFlag 0 process 5 "
            "SrcPortFlag 0, isIpv6 0).");
  EXPECT_EQ(Send(SocketPortMsg(2000, false, 1, 7)), 0);
  EXPECT_EQ(Send(SocketPortMsg(2001, false, 1, 0xFFFFFFFF)), 0);
  EXPECT_EQ(Send(SocketPortMsg(49, true, 0, 12, 1)), 0);
  EXPECT_EQ(Send(SocketPortMsg(65535, true, 1, 3)), 0);
  EXPECT_EQ(Send(SocketPortMsg(1812, false, 0, 6)), 0);  // replaced: to the front
  const std::string lists =
      "\r\n  1812(D)                      UDP                                 6"
      "\r\n  2001(S)                      UDP                                 NAC"
      "\r\n  2000(S)                      UDP                                 RANGE"
      "\r\n 65535(S)                      TCP                                 RANGE"
      "\r\n    49(D)                      TCP                                 12";
  EXPECT_EQ(View("2"), lists);

  // The CoA lines come with the first NAC list, the Portal line with a port.
  EXPECT_EQ(Send(NacMsg(3, {1})), 0);
  EXPECT_EQ(Send(PortalMsg(8443, 4000000000u)), 0);
  const std::string coa =
      "\r\n  3799(D)                      UDP                                 NAC";
  EXPECT_EQ(
      View("2"),
      lists + coa + coa +
          "\r\n  8443(D)                      UDP                                 4000000000");
  EXPECT_EQ(Send(PortalMsg(0, 9)), 0);
  EXPECT_EQ(View("2"), lists + coa + coa);

  // A delete of each list's entry.
  EXPECT_EQ(Send(SocketPortMsg(1812, false, 0, 0, 0, 2)), 0);
  EXPECT_EQ(Send(SocketPortMsg(49, true, 0, 0, 1, 2)), 0);
  EXPECT_EQ(View("2").find("1812"), std::string::npos);
  EXPECT_EQ(View("2").find("  49(D)"), std::string::npos);
}

TEST_F(LbViewTest, TextThatDoesNotFitThePageIsCut) {
  for (uint32_t port = 1; port <= 100; ++port) {
    ASSERT_EQ(Send(SocketPortMsg(static_cast<uint16_t>(port), false, 0, 100000 + port)), 0);
  }
  // 75 characters a line, newest first: 54 whole lines, then 45 characters.
  const std::string shown = View("2");
  ASSERT_EQ(shown.size(), 4095u);
  EXPECT_EQ(shown.substr(0, 75),
            "\r\n   100(D)                      UDP                                 100100");
  EXPECT_EQ(shown.substr(53 * 75, 75),
            "\r\n    47(D)                      UDP                                 100047");
  EXPECT_EQ(shown.substr(54 * 75), "\r\n    46(D)                      UDP         ");
}

TEST_F(LbViewTest, CapwapFileShowsTheFirstTenRecordsOfAnAddressInBucketOrder) {
  constexpr uint32_t kSip = 0x0A000001;
  EXPECT_EQ(CapwapRecords(kSip), Bytes(200, 0));  // no table yet
  // Twelve records of one address in twelve buckets, sent in an order
  // unlike the buckets', and one of another address among them.
  for (uint16_t i = 0; i < 12; ++i) {
    const auto dport = static_cast<uint16_t>(5000 + (i * 37) % 200);
    ASSERT_EQ(Send(CapwapMsg({kSip, 7, 1, dport, 2, 40u + i})), 0);
  }
  ASSERT_EQ(Send(CapwapMsg({kSip + 1, 6, 1, 5000, 2, 99})), 0);

  // Read 50 bytes at a time: four reads, then the end.
  ASSERT_EQ(env().Write(kCapwapFile, RecordBytes(uint64_t{kSip})), 8);
  Bytes got;
  for (int64_t pos = 0; pos <= 200; pos += 50) {
    const Bytes part = env().ReadAt(kCapwapFile, pos, 50).value_or(Bytes{1});
    EXPECT_EQ(part.size(), pos < 200 ? 50u : 0u) << pos;
    got.insert(got.end(), part.begin(), part.end());
  }
  ASSERT_EQ(got.size(), 200u);
  EXPECT_EQ(Bytes(got.begin(), got.begin() + 20),
            (Bytes{1, 0, 0, 10, 7, 0, 0, 0, 1, 0, 0xD2, 0x13, 2, 0, 0, 0, 42, 0, 0, 0}));
  std::vector<uint32_t> processes;
  for (size_t at = 16; at < 200; at += 20) processes.push_back(got[at]);
  EXPECT_EQ(processes, (std::vector<uint32_t>{42, 48, 43, 49, 44, 50, 45, 40, 51, 46}));

  // The upper half of the key takes part: no address has it.
  EXPECT_EQ(CapwapRecords(uint64_t{kSip} | (uint64_t{1} << 32)), Bytes(200, 0));
}

TEST_F(LbViewTest, KeepAliveFileShowsTheRecordOfTheWrittenSession) {
  const uint32_t session[4] = {1, 2, 3, 4};
  EXPECT_EQ(KaRecord(session), Bytes(20, 0));
  ASSERT_EQ(Send(CapwapKaMsg(session, 9)), 0);
  ASSERT_EQ(Send(CapwapKaMsg({1, 2, 3, 5}, 10)), 0);
  // A longer write takes its first 16 bytes; a read in small pieces the whole record.
  Bytes key = RecordBytes(session);
  key.push_back(0xAA);
  ASSERT_EQ(env().Write(kKaFile, key), 17);
  EXPECT_EQ(env().Read(kKaFile, 7),
            (Bytes{1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 9, 0, 0, 0}));
  EXPECT_EQ(KaRecord({1, 2, 4, 4}), Bytes(20, 0));
}

TEST_F(LbViewTest, KeysShorterThanTheirFileTakesAreRefusedAndChangeNothing) {
  ASSERT_EQ(Send(CapwapMsg({5, 1, 1, 1, 1, 77})), 0);
  ASSERT_EQ(Send(CapwapKaMsg({5, 6, 7, 8}, 78)), 0);
  const Bytes capwap = CapwapRecords(5);
  const Bytes ka = KaRecord({5, 6, 7, 8});
  EXPECT_EQ(capwap[16], 77);
  EXPECT_EQ(ka[16], 78);
  EXPECT_EQ(env().Write(kCapwapFile, Bytes(7, 0)), -22);
  EXPECT_EQ(env().Write(kCapwapFile, Bytes(4, 0)), -22);
  EXPECT_EQ(env().Write(kKaFile, Bytes(15, 0)), -22);
  EXPECT_EQ(env().Write(kKaFile, {}), -22);
  EXPECT_EQ(env().Read(kCapwapFile), capwap);
  EXPECT_EQ(env().Read(kKaFile), ka);
}

}  // namespace
}  // namespace vane::test
