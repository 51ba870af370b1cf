// The WLAN status views as an operator reads them: the attribute's selector
// and its four text views, and the two binary files of CAPWAP and
// keep-alive records.
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

using LbViewTest = LbModuleTest;

TEST_F(LbViewTest, StatisticsViewAndTheSelector) {
  EXPECT_EQ(env().Mode(kAttr), 0644u);
  EXPECT_EQ(env().Mode(kCapwapFile), 0666u);
  EXPECT_EQ(env().Mode(kKaFile), 0666u);
  EXPECT_EQ(Text(env().Read(kAttr)), "");  // no view chosen at load
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
