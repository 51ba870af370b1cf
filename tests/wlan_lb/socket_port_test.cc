// The socket-port lists: newest first, one entry per identity, both address
// families kept, the message form with its debug line, clearing, and a
// failed allocation that keeps the old entry.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/rcu.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

// (port, SrcPortFlag, process, isIpv6) from the front of the list.
using Entry = std::tuple<u16, u8, u32, u32>;

std::vector<Entry> Walk(const WLAN_LB_LIST_S& head) {
  std::vector<Entry> out;
  for (const WLAN_LB_LIST_S* l = head.next; l != &head; l = l->next) {
    const auto* e = reinterpret_cast<const WLAN_LB_SOCKET_PORT_NODE_S*>(l);
    out.emplace_back(e->port, e->SrcPortFlag, e->process, e->isIpv6);
    // The writers' back links must stay consistent for later unlinks.
    EXPECT_EQ(l->next->prev, l);
  }
  return out;
}

u64 DstProcess(u16 port, u8 tcp) {
  u64 p = 99;
  EXPECT_EQ(WLAN_LB_GetDstSocketPortNodeID(port, tcp, &p), WLAN_LB_OK);
  return p;
}

class SocketPortTest : public ModuleTest {};

TEST_F(SocketPortTest, NewestFirstOneEntryPerIdentity) {
  const auto& udp = g_stSocketUdpPortDistribute;
  EXPECT_TRUE(Walk(udp).empty());
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 5, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(81, 0, 6, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 7, 1, 0), WLAN_LB_OK);
  EXPECT_EQ(Walk(udp), (std::vector<Entry>{{80, 1, 7, 0}, {81, 0, 6, 0}, {80, 0, 5, 0}}));
  // Same identity, new process: replaced and moved to the front.
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 9, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(Walk(udp), (std::vector<Entry>{{80, 0, 9, 0}, {80, 1, 7, 0}, {81, 0, 6, 0}}));
  EXPECT_EQ(DstProcess(80, 0), 9u);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(80, 0), 1u);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(81, 0), 0u);
  // The lists are separate: any non-zero TcpFlag is TCP.
  EXPECT_TRUE(Walk(g_stSocketTcpPortDistribute).empty());
  EXPECT_EQ(DstProcess(80, 1), 0u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 7, 3, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(DstProcess(80, 1), 3u);
  EXPECT_EQ(DstProcess(80, 0), 9u);
  // Deletion: middle, then an absent identity, then the rest.
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(80, 0, 1, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(80, 0, 1, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(80, 0), 0u);
  EXPECT_EQ(Walk(udp), (std::vector<Entry>{{80, 0, 9, 0}, {81, 0, 6, 0}}));
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(81, 0, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(80, 0, 0, 0), WLAN_LB_OK);
  EXPECT_TRUE(Walk(udp).empty());
  EXPECT_EQ(DstProcess(80, 0), 0u);
}

TEST_F(SocketPortTest, BothFamiliesKeptAndIpv4FoundFirst) {
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(443, 0, 4, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(443, 0, 6, 0, 1), WLAN_LB_OK);
  EXPECT_EQ(Walk(g_stSocketUdpPortDistribute).size(), 2u);
  // The IPv6 entry is at the front, the IPv4 one still wins.
  EXPECT_EQ(DstProcess(443, 0), 4u);
  ASSERT_NE(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 1), nullptr);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 1)->process, 6u);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 2), nullptr);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(443, 0, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(DstProcess(443, 0), 6u);
  // Source-port entries of either family count.
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 1, 0, 1, 1), WLAN_LB_OK);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(2000, 1), 1u);
  EXPECT_EQ(WLAN_LB_GetDstSocketPortNodeID(2000, 1, nullptr), WLAN_LB_OK);
}

TEST_F(SocketPortTest, MessagesSetOrDeleteAndAlwaysLog) {
  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  WLAN_LB_SOCKET_PORT_MSG_S m{};
  m.op = 1;
  m.port = 1812;
  m.TcpFlag = 0;
  m.SrcPortFlag = 0;
  m.process = 0xFFFFFFFF;
  m.isIpv6 = 1;
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(&m), WLAN_LB_OK);
  EXPECT_EQ(DstProcess(1812, 0), 0xFFFFFFFFu);
  // A body at an odd address, as it may sit in a message.
  std::vector<u8> raw(sizeof(m) + 1);
  m.op = WLAN_LB_OP_DELETE;
  std::memcpy(raw.data() + 1, &m, sizeof(m));
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(
                reinterpret_cast<const WLAN_LB_SOCKET_PORT_MSG_S*>(raw.data() + 1)),
            WLAN_LB_OK);
  EXPECT_EQ(DstProcess(1812, 0), 0u);
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(nullptr), WLAN_LB_ERR);
  EXPECT_EQ(DebugText(),
            "\r\nProc socket port distribute table.(op 1 port 1812 TcpFlag 0 process 4294967295 "
            "SrcPortFlag 0, isIpv6 1)."
            "\r\nProc socket port distribute table.(op 2 port 1812 TcpFlag 0 process 4294967295 "
            "SrcPortFlag 0, isIpv6 1).");
}

TEST_F(SocketPortTest, ClearingEmptiesBothListsAndFreesAfterAGracePeriod) {
  size_t live = kport::user::LiveAllocations();
  for (u16 p = 1; p <= 5; ++p) {
    ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(p, p % 2, p, 0, 0), WLAN_LB_OK);
  }
  EXPECT_EQ(kport::user::LiveAllocations(), live + 5);
  {
    WlanWriteGuard guard;
    socket_ports_clear_locked();
  }
  EXPECT_TRUE(Walk(g_stSocketUdpPortDistribute).empty());
  EXPECT_TRUE(Walk(g_stSocketTcpPortDistribute).empty());
  kport_rcu_barrier();
  EXPECT_EQ(kport::user::LiveAllocations(), live);
  // Usable again.
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(9, 0, 9, 0, 0), WLAN_LB_OK);
  EXPECT_EQ(DstProcess(9, 0), 9u);
}

TEST_F(SocketPortTest, NoMemoryKeepsTheOldEntryAndStillLogs) {
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(53, 0, 2, 0, 0), WLAN_LB_OK);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(53, 0, 3, 0, 0), WLAN_LB_ERR);
  EXPECT_EQ(Walk(g_stSocketUdpPortDistribute), (std::vector<Entry>{{53, 0, 2, 0}}));

  SetDebugLevel(BYPASS_DEBUG_LEVEL_PKT);
  WLAN_LB_SOCKET_PORT_MSG_S m{};
  m.port = 53;
  m.process = 3;
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(&m), WLAN_LB_OK);
  EXPECT_EQ(DstProcess(53, 0), 2u);
  EXPECT_NE(DebugText(), "");
  // The next call retries.
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(&m), WLAN_LB_OK);
  EXPECT_EQ(Walk(g_stSocketUdpPortDistribute), (std::vector<Entry>{{53, 0, 3, 0}}));
}

}  // namespace
}  // namespace vane::test
