// The exported functions of the cause-ID, socket-port, Portal, RADIUS CoA
// and NAC tables and of the lookup entry, as another module calls them:
// the rules each lookup applies, arguments the messages never pass, and
// allocations that fail.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "base/atomic.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

constexpr u8 kX = 0xEE;  // a vCPU slot the lookup did not write
constexpr u8 kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

// What a port lookup answers: its result, the vCPU count, all 8 slots.
using PortResult = std::tuple<u32, u32, std::vector<u8>>;
PortResult Port(u32 sport, u32 dport, u8 udp = 1) {
  WLAN_LB_PORT_INFO_S key{};
  key.sport = sport;
  key.dport = dport;
  key.ucUDPFlag = udp;
  u32 num = 99;
  std::vector<u8> ids(8, kX);
  const u32 ret = WLAN_LB_GetAAAPortVcpuID(&key, &num, ids.data());
  return {ret, num, ids};
}
PortResult One(u32 ret, u8 vcpu) { return {ret, 1, {vcpu, kX, kX, kX, kX, kX, kX, kX}}; }

void LoadNac(const std::vector<u32>& ids, u16 count, u32 capacity = 64) {
  WLAN_LB_InitAAAAccessVcpuIDList(ids.data(), capacity, count);
}
std::vector<u32> Ids(u32 first, u32 n) {
  std::vector<u32> v(16, 0);
  for (u32 i = 0; i < n && i < 16; ++i) v[i] = first + i;
  return v;
}

// The MAC lookup's result and vCPU.
std::pair<u32, u64> MacVcpu() {
  WLAN_LB_ACCESS_INFO_S key{};
  std::memcpy(key.smac, kMac, 6);
  u64 vcpu = 77;
  const u32 ret = WLAN_LB_GetAAAAccessVcpuID(&key, &vcpu);
  return {ret, vcpu};
}

u64 DstProcess(u16 port, u8 tcp) {
  u64 p = 99;
  EXPECT_EQ(WLAN_LB_GetDstSocketPortNodeID(port, tcp, &p), 0u);
  return p;
}

std::vector<u32> Nac() {
  kport::RcuReadGuard rcu;
  const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
  return {nac->count, nac->ids[0], nac->ids[1], nac->ids[2]};
}

using WlanTablesTest = ModuleTest;

TEST_F(WlanTablesTest, UdpPortsTryPortalThenCoaThenTheDestinationEntry) {
  // Nothing set: every entry's port is 0, so destination port 0 is Portal.
  EXPECT_EQ(Port(1, 0), One(0, 0));
  // The reserved word after port and process is not the module's to write.
  g_stPortalPktDistribute.ulReserved = 0xA5A5A5A5;
  EXPECT_EQ(WLAN_LB_SetAAAPortalDistributeTbl(8080, 0x10C), 0u);
  EXPECT_EQ(g_stPortalPktDistribute.ulReserved, 0xA5A5A5A5u);
  WLAN_LB_InitRdsCOADistributeTbl();
  LoadNac(Ids(1, 10), 10);
  for (u16 port : {8080, 3799}) ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(port, 0, 9, 0, 0), 0u);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(5000, 0, 300, 0, 0), 0u);
  EXPECT_EQ(Port(1, 8080), One(0, 0x0C));                                // Portal, low byte
  EXPECT_EQ(Port(1, 3799), PortResult(0, 8, {1, 2, 3, 4, 5, 6, 7, 8}));  // 8 of the NAC ids
  EXPECT_EQ(Port(1, 5000), One(1, 44));                                  // the entry, low byte
  EXPECT_EQ(Port(1, 0x10000 + 5000), One(0, 0));                         // beyond 16 bits
  // The second CoA entry, and an index that does not exist.
  EXPECT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1700, 5, 1), 0u);
  EXPECT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1800, 5, 2), 1u);
  EXPECT_EQ(std::get<1>(Port(1, 1700)), 8u);
  EXPECT_EQ(std::get<1>(Port(1, 3799)), 8u);
  EXPECT_EQ(std::get<1>(Port(1, 1800)), 1u);
  // Three NAC ids: three vCPUs in list order; none: a count of 0.
  LoadNac({30, 20, 10}, 3);
  EXPECT_EQ(Port(1, 3799), PortResult(0, 3, {30, 20, 10, kX, kX, kX, kX, kX}));
  LoadNac({0}, 0);
  EXPECT_EQ(Port(1, 3799), PortResult(0, 0, std::vector<u8>(8, kX)));

  WLAN_LB_PORT_INFO_S key{};
  u32 num = 0;
  u8 ids[8] = {};
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(nullptr, &num, ids), 1u);
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(&key, nullptr, ids), 1u);
  EXPECT_EQ(WLAN_LB_GetAAAPortVcpuID(&key, &num, nullptr), 1u);
}

TEST_F(WlanTablesTest, SourcePortEntriesSpreadByTheDestinationRange) {
  EXPECT_EQ(Port(2000, 55536), One(0, 0));  // no entry: vCPU 0
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 0, 0, 1, 1), 0u);
  for (auto [dport, vcpu] : {std::pair<u32, u8>{55536, 1},
                             {55691, 1},
                             {55692, 2},
                             {65519, 64},
                             {65520, 65},
                             {65535, 65}}) {
    EXPECT_EQ(Port(2000, dport), One(0, vcpu)) << dport;
  }
  for (u32 dport : {55535u, 65536u, 0x10000u + 55536}) {
    EXPECT_EQ(Port(2000, dport), One(1, kX)) << dport;
  }
  // TCP (any flag but 1) ignores the Portal entry and the UDP list, and
  // outside the range answers 0 with nothing written.
  EXPECT_EQ(WLAN_LB_SetAAAPortalDistributeTbl(55536, 9), 0u);
  EXPECT_EQ(Port(2001, 55536, 0), One(0, 0));
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2001, 0, 0, 1, 0), 0u);
  EXPECT_EQ(Port(2001, 55536, 0), One(0, 0));
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2001, 1, 0, 1, 0), 0u);
  EXPECT_EQ(Port(2001, 55692, 0), One(0, 2));
  EXPECT_EQ(Port(2001, 65535, 2), One(0, 65));
  EXPECT_EQ(Port(2001, 3799, 0), One(0, kX));
}

TEST_F(WlanTablesTest, MacsHashToASlotOfTheNacList) {
  using R = std::pair<u32, u64>;
  EXPECT_EQ(MacVcpu(), R(1, 0));  // empty list
  LoadNac(Ids(100, 5), 5);        // 0x09262C44 mod 5 = 4
  EXPECT_EQ(MacVcpu(), R(0, 104));
  LoadNac(Ids(100, 9), 9);  // mod 9 = 6
  EXPECT_EQ(MacVcpu(), R(0, 106));
  // A count above the 16 slots: slot 4 of 20 is there, slot 132 of 1000 not.
  LoadNac(Ids(1, 16), 20);
  EXPECT_EQ(MacVcpu(), R(0, 5));
  LoadNac(Ids(1, 16), 1000);
  EXPECT_EQ(MacVcpu(), R(1, 0));
  WLAN_LB_InitRdsCOADistributeTbl();
  EXPECT_EQ(std::get<1>(Port(1, 3799)), 8u);

  // 6 to 128 bytes hash, 5 and 129 do not.
  std::vector<u8> bytes(129, 0);
  for (u32 len : {5u, 129u}) {
    u64 vcpu = 77;
    EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), len, &vcpu), 1u);
    EXPECT_EQ(vcpu, 0u);
  }
  for (u32 i = 0; i < 128; ++i) bytes[i] = static_cast<u8>(i);
  LoadNac(Ids(200, 7), 7);  // the 128 bytes 0..127 hash to slot 1 of 7
  u64 vcpu = 0;
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 128, &vcpu), 0u);
  EXPECT_EQ(vcpu, 201u);
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(nullptr, 6, &vcpu), 1u);
  EXPECT_EQ(WLAN_LB_HashAAAAccessVcpuID(bytes.data(), 6, nullptr), 1u);
  EXPECT_EQ(WLAN_LB_GetAAAAccessVcpuID(nullptr, &vcpu), 1u);
  EXPECT_EQ(vcpu, 0u);
}

TEST_F(WlanTablesTest, NacReloadsStopAtTheCapacityAndKeepTheOldListWithoutMemory) {
  LoadNac(Ids(1, 16), 5, 8);  // the copy stops at the sender's 8 bytes
  EXPECT_EQ(Nac(), (std::vector<u32>{5, 1, 2, 0}));
  WLAN_LB_InitAAAAccessVcpuIDList(nullptr, 64, 3);  // no ids: nothing changes
  EXPECT_EQ(Nac()[0], 5u);
  SetDebugLevel(1);
  fault::FailNth(fault::Site::kAlloc, 1);
  LoadNac({1, 2, 3}, 3);
  EXPECT_EQ(DebugText(), "\r\nWLAN LB NAC list kept: no memory for 3 ids.");
  EXPECT_EQ(Nac(), (std::vector<u32>{5, 1, 2, 0}));
  LoadNac({1, 2, 3}, 3);
  EXPECT_EQ(Nac(), (std::vector<u32>{3, 1, 2, 3}));
}

TEST_F(WlanTablesTest, SocketPortLookupsByIdentityAndFamily) {
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 5, 0, 0), 0u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 7, 1, 0), 0u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 0, 9, 0, 0), 0u);  // replaces the first
  EXPECT_EQ(DstProcess(80, 0), 9u);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(80, 0), 1u);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(81, 0), 0u);
  // The lists are separate: any non-zero TcpFlag is TCP.
  EXPECT_EQ(DstProcess(80, 1), 0u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(80, 7, 3, 0, 0), 0u);
  EXPECT_EQ(DstProcess(80, 1), 3u);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(80, 0, 1, 0), 0u);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(80, 0, 1, 0), 0u);  // absent: fine
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(80, 0), 0u);
  EXPECT_EQ(DstProcess(80, 0), 9u);
  // Both families kept; the IPv4 entry wins although the IPv6 one is newer.
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(443, 0, 4, 0, 0), 0u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(443, 0, 6, 0, 1), 0u);
  EXPECT_EQ(DstProcess(443, 0), 4u);
  ASSERT_NE(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 1), nullptr);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 1)->process, 6u);
  EXPECT_EQ(WLAN_LB_FindSocketPortDistributeTblNodeByPort(443, 0, 0, 2), nullptr);
  EXPECT_EQ(WLAN_LB_DeleteSocketPortDistributeTbl(443, 0, 0, 0), 0u);
  EXPECT_EQ(DstProcess(443, 0), 6u);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(2000, 1, 0, 1, 1), 0u);
  EXPECT_EQ(WLAN_LB_CheckIsSrcSocketPortNeedDistribute(2000, 1), 1u);
  EXPECT_EQ(WLAN_LB_GetDstSocketPortNodeID(2000, 1, nullptr), 0u);

  // A message body at an odd address, as it may sit in a message; without
  // memory the old entry stays, the message form still answers 0 and the
  // next call retries.
  WLAN_LB_SOCKET_PORT_MSG_S m{1, {}, 1812, 0, 0, 0xFFFFFFFF, 0};
  std::vector<u8> raw(sizeof(m) + 1);
  std::memcpy(raw.data() + 1, &m, sizeof(m));
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(
                reinterpret_cast<const WLAN_LB_SOCKET_PORT_MSG_S*>(raw.data() + 1)),
            0u);
  EXPECT_EQ(DstProcess(1812, 0), 0xFFFFFFFFu);
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(nullptr), 1u);
  m.process = 3;
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 3, 0, 0), 1u);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(&m), 0u);
  EXPECT_EQ(DstProcess(1812, 0), 0xFFFFFFFFu);
  EXPECT_EQ(WLAN_LB_ProcSocketPortDistributeTbl(&m), 0u);
  EXPECT_EQ(DstProcess(1812, 0), 3u);
}

TEST_F(WlanTablesTest, CauseIdsAnswerOnlyOnceConfiguredOnTheBalancingBoard) {
  const WLAN_LB_CAUSEID_NODE_S nodes[] = {{100, 5, 4}, {8191, 11, 1}};
  WLAN_LB_SetCauseIDTable(nodes, 2);
  auto ask = [](u16 cause) {
    u32 lb = 0;
    u64 pkt = 0;
    const u32 ret = WLAN_LB_IsNeedLBPkt(cause, &lb, &pkt);
    return std::tuple<u32, u32, u64>(ret, lb, pkt);
  };
  // Not configured on the balancing board; configured on the load-time
  // board; a cause ID not in the table (same bucket as 100).
  const u32 steps[][3] = {{0, 3, 100}, {1, 1, 100}, {1, 3, 200}};
  for (const auto& [inited, board, cause] : steps) {
    store_relaxed(&g_ulIsLBInited, inited);
    store_relaxed(&g_ulKernelLBBoardType, board);
    EXPECT_EQ(ask(static_cast<u16>(cause)), std::make_tuple(1u, 7u, u64{12})) << cause;
  }
  EXPECT_EQ(ask(100), std::make_tuple(0u, 4u, u64{5}));
  EXPECT_EQ(ask(8191), std::make_tuple(0u, 1u, u64{11}));
  u32 lb = 0;
  u64 pkt = 0;
  EXPECT_EQ(WLAN_LB_IsNeedLBPkt(100, nullptr, &pkt), 1u);
  EXPECT_EQ(WLAN_LB_IsNeedLBPkt(100, &lb, nullptr), 1u);
}

TEST_F(WlanTablesTest, CauseIdTableCountsAlignmentAndFailedAllocations) {
  const auto count = [] { return load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table)->ulElemCnt; };
  const auto find = [](u32 cause) {
    const WLAN_LB_CAUSEID_NODE_S key{cause, 0, 0};
    return WLAN_LB_CauseID_Table_FindNodeByNode(&key);
  };
  const std::vector<WLAN_LB_CAUSEID_NODE_S> many(101, WLAN_LB_CAUSEID_NODE_S{1, 1, 1});
  // Nothing to add: no table either; too many: the table, no records.
  WLAN_LB_SetCauseIDTable(many.data(), 0);
  WLAN_LB_SetCauseIDTable(nullptr, 3);
  EXPECT_EQ(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&many[0]), 1u);
  // The table itself cannot be made: no table, and the next call makes it.
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(many.data(), 101);
  EXPECT_EQ(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  WLAN_LB_SetCauseIDTable(many.data(), 101);
  ASSERT_NE(load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table), nullptr);
  EXPECT_EQ(count(), 0u);
  EXPECT_EQ(WLAN_LB_InitLBCauseIDHashTable(), load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table));

  // Records need not be aligned. A record whose data or list node cannot be
  // had is left out, the others go in, and the next message adds it; an
  // existing cause ID is kept as it was.
  std::vector<u8> body(1 + 3 * sizeof(WLAN_LB_CAUSEID_NODE_S));
  const WLAN_LB_CAUSEID_NODE_S nodes[] = {{1, 1, 1}, {2, 2, 1}, {3, 3, 1}};
  std::memcpy(body.data() + 1, nodes, sizeof(nodes));
  const auto* odd = reinterpret_cast<const WLAN_LB_CAUSEID_NODE_S*>(body.data() + 1);
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(odd, 1);
  EXPECT_EQ(find(1), nullptr);
  fault::FailNth(fault::Site::kAlloc, 2);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&nodes[1]), 101u);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&nodes[1]), 1u);
  fault::FailNth(fault::Site::kAlloc, 1);
  WLAN_LB_SetCauseIDTable(odd, 3);
  EXPECT_EQ(find(1), nullptr);
  EXPECT_NE(find(2), nullptr);
  ASSERT_NE(find(3), nullptr);
  EXPECT_EQ(find(3)->pkttype, 3u);
  WLAN_LB_SetCauseIDTable(odd, 3);
  EXPECT_EQ(count(), 3u);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(&nodes[0]), 0u);
  EXPECT_EQ(count(), 3u);

  std::vector<WLAN_LB_CAUSEID_NODE_S> hundred;
  for (u32 i = 0; i < 100; ++i) hundred.push_back({1000 + i * 37, i, 4});
  WLAN_LB_SetCauseIDTable(hundred.data(), 100);
  EXPECT_EQ(count(), 103u);
  EXPECT_EQ(WLAN_LB_CauseID_Table_AddHashNode(nullptr), 1u);
  const WLAN_LB_CAUSEID_NODE_S key{1234, 0, 0};
  EXPECT_EQ(WLAN_LB_CauseID_Hashkey(&key), 34u);
  EXPECT_EQ(WLAN_LB_CauseID_Hashkey(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_CauseID_Hashmatch(nullptr, &key), 0u);
}

TEST_F(WlanTablesTest, TheLookupEntryOnEmptyTablesAndForOtherTypes) {
  SetDebugLevel(4);
  WLAN_LB_FIVE_TUPLE_S key{};  // the largest record that types 1, 2 and 4 read
  WLAN_LB_ACCESS_INFO_S access{};
  auto lookup = [](const void* k, u32 type) {
    u32 count = 99;
    u8 ids[8] = {kX};
    const u32 ret = WLAN_LB_GetPktVCPUID(k, type, &count, ids);
    return std::tuple<u32, u32, u8>(ret, count, ids[0]);
  };
  for (u32 type : {1u, 2u, 3u, 4u}) {
    EXPECT_EQ(lookup(type == 3 ? static_cast<const void*>(&access) : &key, type),
              std::make_tuple(0u, 1u, u8{0}))
        << type;
  }
  EXPECT_EQ(DebugText(),
            "\r\nGet nac&wlan packet vcpuid.(LBType 1 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 2 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 3 VcpuNum 1 VcpuID 0 Ret 1)."
            "\r\nGet nac&wlan packet vcpuid.(LBType 4 VcpuNum 1 VcpuID 0 Ret 0).");
  // Other types and missing arguments write nothing and trace nothing.
  SetDebugLevel(4);
  for (u32 type : {0u, 5u, 7u}) EXPECT_EQ(lookup(&key, type), std::make_tuple(0u, 99u, kX));
  EXPECT_EQ(lookup(nullptr, 1), std::make_tuple(1u, 99u, kX));
  u32 count = 99;
  u8 ids[8] = {};
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, 1, nullptr, ids), 1u);
  EXPECT_EQ(WLAN_LB_GetPktVCPUID(&key, 1, &count, nullptr), 1u);
  EXPECT_EQ(DebugText(), "");
}

}  // namespace
}  // namespace vane::test
