// What only the user backend reaches of the WLAN tables: their exported
// functions as another module calls them, tables filled before user space
// configured LB, the LB handler called directly, every allocation and copy
// that can fail, and readers racing the Portal, CoA and NAC writers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/atomic.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "kport/printk.h"
#include "kport/rcu.h"
#include "kport/sysfs.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"
#include "wlan_lb/lb_fixture.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

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
  // Not configured on the balancing board (no message can leave it so);
  // configured on the load-time board; a cause ID not in the table (same
  // bucket as 100).
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

// ---- The CAPWAP and keep-alive tables ----

WLAN_LB_CAPWAP_NODE_S Node(u32 sip, u32 dip, u16 sport, u16 dport, u8 vpn, u32 process) {
  return WLAN_LB_CAPWAP_NODE_S{sip, dip, sport, dport, vpn, process};
}

WLAN_LB_CAPWAP_KA_NODE_S KaNode(u32 w0, u32 w1, u32 w2, u32 w3, u32 process) {
  return WLAN_LB_CAPWAP_KA_NODE_S{{w0, w1, w2, w3}, process};
}

// The two tables behind one interface, so that what they share is tested
// once for both.
struct Capwap {
  using Rec = WLAN_LB_CAPWAP_NODE_S;
  static HASH_TABLE_S* Init() { return WLAN_LB_InitCAPWAPLBHashTable(); }
  static HASH_TABLE_S* Table() { return g_CAPWAP_LB_Table; }
  static Rec Key(u32 i, u32 process) {
    return Node(0x0A000000u + i, 0x0A0000FEu, static_cast<u16>(5246 + i), 5247, 0, process);
  }
  static u32 Add(const Rec* r) { return WLAN_LB_CAPWAP_LB_AddHashNode(r); }
  static u32 Delete(const Rec* r) { return WLAN_LB_CAPWAP_LB_DeleteHashNode(r); }
  static Rec* Find(const Rec* r) { return WLAN_LB_CAPWAP_LB_FindNodeByNode(r); }
  static u32 Lookup(const Rec& r, u64* out) {
    WLAN_LB_FIVE_TUPLE_S k{r.sip, r.dip, r.sport, r.dport, r.vpn, 0};
    return WLAN_LB_GetVCPUIDByCAPWAPKey(&k, out);
  }
};

struct CapwapKa {
  using Rec = WLAN_LB_CAPWAP_KA_NODE_S;
  static HASH_TABLE_S* Init() { return WLAN_LB_InitCAPWAPKeepAliveLBHashTable(); }
  static HASH_TABLE_S* Table() { return g_CAPWAP_KEEP_ALIVE_LB_Table; }
  static Rec Key(u32 i, u32 process) { return KaNode(i, 0xC0DE, 0, 0xFFFFFFFFu - i, process); }
  static u32 Add(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_AddHashNode(r); }
  static u32 Delete(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(r); }
  static Rec* Find(const Rec* r) { return WLAN_LB_CAPWAP_KA_LB_FindNodeByNode(r); }
  static u32 Lookup(const Rec& r, u64* out) {
    WLAN_LB_SESSION_KEY_S k{
        {r.ulSessionID[0], r.ulSessionID[1], r.ulSessionID[2], r.ulSessionID[3]}, 0};
    return WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(&k, out);
  }
};

template <typename T>
class CapwapTablesTest : public ModuleTest {};
using Tables = ::testing::Types<Capwap, CapwapKa>;
TYPED_TEST_SUITE(CapwapTablesTest, Tables);

TYPED_TEST(CapwapTablesTest, LifeWithoutATableThenOneRecordPerKey) {
  using T = TypeParam;
  const typename T::Rec a = T::Key(1, 5), a2 = T::Key(1, 300), b = T::Key(2, 6);
  u64 out = 0xDEAD;
  EXPECT_EQ(T::Find(&a), nullptr);
  EXPECT_EQ(T::Add(&a), 1u);
  EXPECT_EQ(T::Delete(&a), 1u);
  EXPECT_EQ(T::Lookup(a, &out), 1u);
  EXPECT_EQ(out, 0xDEADu);
  EXPECT_EQ(T::Table(), nullptr);

  HASH_TABLE_S* table = T::Init();
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(T::Init(), table) << "a second init must keep the table";
  EXPECT_EQ(T::Add(&a), 0u);
  EXPECT_EQ(T::Add(&b), 0u);
  EXPECT_EQ(T::Add(&a2), 0u);
  EXPECT_EQ(table->ulElemCnt, 2u);
  // The whole process reaches the 64-bit output; cutting it to a vCPU id is
  // the caller's business.
  EXPECT_EQ(T::Lookup(a, &out), 0u);
  EXPECT_EQ(out, 300u);
  const typename T::Rec other_process = T::Key(1, 99);
  EXPECT_EQ(T::Delete(&other_process), 0u);
  EXPECT_EQ(T::Delete(&a), 1u);
  EXPECT_EQ(table->ulElemCnt, 1u);
  EXPECT_EQ(T::Add(nullptr), 1u);
  EXPECT_EQ(T::Delete(nullptr), 1u);
  EXPECT_EQ(T::Find(nullptr), nullptr);
}

TYPED_TEST(CapwapTablesTest, AllocationFailuresLeaveTheTableAsItWas) {
  using T = TypeParam;
  const size_t live = kport::user::LiveAllocations();
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(T::Init(), nullptr);
  EXPECT_EQ(T::Table(), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
  HASH_TABLE_S* table = T::Init();  // the next call tries again
  ASSERT_NE(table, nullptr);

  const typename T::Rec kept = T::Key(1, 1);
  ASSERT_EQ(T::Add(&kept), 0u);
  const size_t with_one = kport::user::LiveAllocations();
  const typename T::Rec r = T::Key(2, 2);
  fault::FailNth(fault::Site::kAlloc, 1);  // the record
  EXPECT_EQ(T::Add(&r), 1u);
  fault::FailNth(fault::Site::kAlloc, 2);  // the list node
  EXPECT_EQ(T::Add(&r), 101u);
  fault::ClearAll();
  EXPECT_EQ(table->ulElemCnt, 1u);
  EXPECT_EQ(T::Find(&r), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), with_one);

  // An update allocates nothing, so it cannot fail for memory.
  fault::FailAlways(fault::Site::kAlloc);
  const typename T::Rec kept2 = T::Key(1, 11);
  EXPECT_EQ(T::Add(&kept2), 0u);
  fault::ClearAll();
  EXPECT_EQ(T::Find(&kept)->process, 11u);
  ASSERT_EQ(T::Delete(&kept), 0u);
  kport_rcu_barrier();
  EXPECT_EQ(kport::user::LiveAllocations(), with_one - 2);
}

using CapwapTest = ModuleTest;

TEST_F(CapwapTest, HashesSumTheKeyWithWrapAndMatchesCompareOnlyTheKey) {
  const std::pair<WLAN_LB_CAPWAP_NODE_S, u64> capwap[] = {
      {Node(1, 2, 3, 4, 5, 0xFFFFFFFF), 15},
      {Node(0xFFFFFFFFu, 1, 0, 0, 0, 0), 0},  // sip + dip wraps to 0
      {Node(0x80000000u, 0x80000000u, 0xFFFF, 0xFFFF, 0xFF, 0), 98},
      {Node(0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0, 0, 0), 33}};
  for (const auto& [n, h] : capwap) EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(&n), h) << n.sip;
  const std::pair<WLAN_LB_CAPWAP_KA_NODE_S, u64> ka[] = {
      {KaNode(1, 2, 3, 4, 9), 10},
      {KaNode(0xFFFFFFFFu, 1, 0, 0, 0), 0},
      {KaNode(0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0), 31}};
  for (const auto& [k, h] : ka) EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(&k), h) << k.ulSessionID[1];
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashkey(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashkey(nullptr), 1u);

  const WLAN_LB_CAPWAP_NODE_S a = Node(1, 2, 3, 4, 5, 6);
  WLAN_LB_CAPWAP_NODE_S b = Node(1, 2, 3, 4, 5, 7);
  std::memset(reinterpret_cast<unsigned char*>(&b) + 13, 0xAB, 3);  // padding after vpn
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &b), 1u);
  const WLAN_LB_CAPWAP_NODE_S differ[] = {Node(0, 2, 3, 4, 5, 6), Node(1, 0, 3, 4, 5, 6),
                                          Node(1, 2, 0, 4, 5, 6), Node(1, 2, 3, 0, 5, 6),
                                          Node(1, 2, 3, 4, 0, 6)};
  for (const auto& c : differ) EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, &c), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(nullptr, &a), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_Hashmatch(&a, nullptr), 0u);
  const WLAN_LB_CAPWAP_KA_NODE_S s = KaNode(1, 2, 3, 4, 5);
  const WLAN_LB_CAPWAP_KA_NODE_S other_process = KaNode(1, 2, 3, 4, 6);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &other_process), 1u);
  const WLAN_LB_CAPWAP_KA_NODE_S ka_differ[] = {KaNode(0, 2, 3, 4, 5), KaNode(1, 0, 3, 4, 5),
                                                KaNode(1, 2, 0, 4, 5), KaNode(1, 2, 3, 0, 5)};
  for (const auto& t : ka_differ) EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, &t), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_KA_Hashmatch(&s, nullptr), 0u);
}

TEST_F(CapwapTest, LookupsTakeTheLowBitsOfTheirWordsAndTheFormsWithoutAnOpByte) {
  ASSERT_NE(WLAN_LB_InitCAPWAPLBHashTable(), nullptr);
  ASSERT_NE(WLAN_LB_InitCAPWAPKeepAliveLBHashTable(), nullptr);
  const WLAN_LB_CAPWAP_NODE_S entry = Node(0x0A000001u, 0x0A000002u, 40000, 5247, 5, 40);
  ASSERT_EQ(WLAN_LB_CAPWAP_LB_AddHashNode(&entry), 0u);
  // Ports and vpn arrive as 32-bit words; only their low 16 and 8 bits count.
  const WLAN_LB_FIVE_TUPLE_S flow{0x0A000001u,     0x0A000002u, 0x10000u + 40000,
                                  0x30000u + 5247, 0x105,       77};
  u64 out = 0;
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, &out), 0u);
  EXPECT_EQ(out, 40u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(nullptr, &out), 1u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPKey(&flow, nullptr), 1u);
  EXPECT_EQ(WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(nullptr, &out), 1u);

  // The set form ignores the op byte; the delete form finds by key.
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = 1;
  m.process = 99;
  m.op = WLAN_LB_OP_DELETE;
  const WLAN_LB_CAPWAP_NODE_S key = Node(1, 0, 0, 0, 0, 0);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(&m), 0u);
  EXPECT_EQ(WLAN_LB_CAPWAP_LB_FindNodeByNode(&key)->process, 99u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashDelete(&m), 1u);
  WLAN_LB_CAPWAP_KA_MSG_S k{{10, 11, 12, 13}, 14, WLAN_LB_OP_DELETE, {}};
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashSet(&k), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(&k), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashSet(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPHashProc(nullptr), 1u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_CAPWAPKAHashProc(nullptr), 1u);
}

// ---- The LB messages and the views ----

using LbInternalsTest = LbModuleTest;

constexpr char kCoa[] =
    "\r\n  3799(D)                      UDP                                 NAC";

TEST_F(LbInternalsTest, TheFirstMessageEmptiesWhatAnotherModuleSetAndNacListsResetTheCoa) {
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), 0u);
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(49, 1, 6, 0, 0), 0u);
  ASSERT_NE(View("2"), "");
  // Even with a Len that applies nothing.
  EXPECT_EQ(Send(LbMessage(5, 3), {.len_field = 0}), 0);
  EXPECT_EQ(View("2"), "");
  // Later messages leave the lists alone.
  ASSERT_EQ(WLAN_LB_SetSocketPortDistributeTbl(1812, 0, 5, 0, 0), 0u);
  EXPECT_EQ(Send(LbMessage(7, 0)), 0);
  EXPECT_EQ(View("2"), "\r\n  1812(D)                      UDP                                 5");

  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1700, 4, 0), 0u);
  ASSERT_EQ(WLAN_LB_SetAAARdsCOADistributeTbl(1701, 5, 1), 0u);
  EXPECT_NE(View("2").find("1701(D)"), std::string::npos);
  EXPECT_EQ(Send(NacMsg(3, {1})), 0);
  EXPECT_EQ(
      View("2"),
      std::string("\r\n  1812(D)                      UDP                                 5") +
          kCoa + kCoa);
}

TEST_F(LbInternalsTest, DirectCallsWithoutAHeadOrForAnotherIdAndAWrappingCounter) {
  const uint8_t head[4] = {5, 0, 0, 0};
  const Bytes board = LbMessage(5, 3);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(10, head, sizeof(head)), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(10, nullptr, 8), 0u);
  EXPECT_EQ(WLAN_LB_PacketDistribute_Proc(11, board.data(), 8), 0u);
  EXPECT_EQ(Stats(), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 1}));

  g_ulMessageStatistics[5] = 0xFFFFFFFFu;
  EXPECT_EQ(Send(board), 0);
  EXPECT_EQ(Stats(), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 3}));
}

TEST_F(LbInternalsTest, ATableThatCannotBeCreatedIsCreatedByTheNextMessage) {
  // Sent directly: the channel itself needs memory to carry a message.
  const Bytes add = CapwapMsg({10, 20, 30, 40, 0, 1});
  const Bytes causes = CauseIdMsg({{7, 1, 1}});
  fault::FailAlways(fault::Site::kAlloc);
  ApplyLb(add);
  ApplyLb(causes);
  fault::ClearAll();
  EXPECT_EQ(g_CAPWAP_LB_Table, nullptr);
  EXPECT_EQ(g_WLAN_LB_CAUSEID_HASH_Table, nullptr);
  EXPECT_EQ(Send(add), 0);
  EXPECT_EQ(Send(causes), 0);
  EXPECT_EQ(CapwapRecords(10)[16], 1);
  EXPECT_EQ(View("4"), "7    1    1   ;");
}

TEST_F(LbInternalsTest, ViewFilesThatCannotCopyOrAllocate) {
  ASSERT_EQ(Send(CapwapMsg({5, 1, 1, 1, 1, 77})), 0);
  ASSERT_EQ(Send(CapwapKaMsg({5, 6, 7, 8}, 78)), 0);
  const Bytes capwap = CapwapRecords(5);
  const Bytes ka = KaRecord({5, 6, 7, 8});
  // A fault while copying the key: -1, the selector stays. No memory for the
  // image: the end of the file.
  for (const char* path : {kCapwapFile, kKaFile}) {
    fault::FailNth(fault::Site::kCopyFromUser, 1);
    EXPECT_EQ(env().Write(path, Bytes(16, 0)), -1) << path;
    EXPECT_EQ(env().Read(path), path == kKaFile ? ka : capwap) << path;
    fault::FailNth(fault::Site::kAlloc, 1);
    EXPECT_EQ(env().ReadAt(path, 0, 200), Bytes{}) << path;
    EXPECT_EQ(fault::Injected(fault::Site::kAlloc), 1u);
    fault::ClearAll();
  }
  // A fault copying out: the read reports it and the position stays.
  fault::FailNth(fault::Site::kCopyToUser, 1);
  uint8_t buf[20];
  int64_t pos = 0;
  EXPECT_EQ(vfs::ProcRead(kKaFile, buf, sizeof(buf), &pos), -14);
  EXPECT_EQ(pos, 0);
}

bool AnyViewLeft() {
  for (const std::string& path : vfs::List()) {
    if (path.rfind("/sys/class/wlan_lb", 0) == 0 || path.rfind("/proc/wlan_lb", 0) == 0) {
      return true;
    }
  }
  return false;
}

// Each creation step of the views failing in turn at load: the step's
// message, nothing of the views left, a module that works without them and
// unloads leaving nothing.
TEST(WlanViewsLifecycleTest, TheModuleLoadsWhenItsViewsCannotBeCreated) {
  const char* const kMessages[] = {
      "Failed to create wlan lb class.\n",
      "Failed to create wlan lb device.\n",
      "wlan lb: device_create_file return -12\n",
      "\r\nErr: create dir /proc/wlan_lb failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
      "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.",
  };
  fault::ClearAll();
  const size_t live = kport::user::LiveAllocations();
  fault::ResetCounts(fault::Site::kAlloc);
  ASSERT_EQ(vane_entry_init(), 0);
  const unsigned long calls = fault::Calls(fault::Site::kAlloc);
  vane_entry_exit();
  ASSERT_GE(calls, 6u);

  // The views' six creations are the last allocations of the start-up.
  for (unsigned step = 0; step < 6; ++step) {
    SCOPED_TRACE(kMessages[step]);
    klog::Clear();
    fault::ResetCounts(fault::Site::kAlloc);
    fault::FailNth(fault::Site::kAlloc, static_cast<unsigned>(calls - 5 + step));
    ASSERT_EQ(vane_entry_init(), 0);
    fault::ClearAll();
    EXPECT_FALSE(AnyViewLeft());
    EXPECT_TRUE(klog::Contains(1, kMessages[step]));
    EXPECT_EQ(klog::Lines().size(), 1u);
    {
      Worker w;
      EXPECT_EQ(w.Control(10, LbMessage(5, 3)), 0);
    }
    EXPECT_EQ(g_ulKernelLBBoardType, 3u);
    vane_entry_exit();
    EXPECT_FALSE(AnyViewLeft());
    EXPECT_EQ(kport::user::LiveAllocations(), live);
  }

  // A class of that name already there: the same, and it stays someone
  // else's.
  kport_class* other = kport_class_create("wlan_lb");
  ASSERT_NE(other, nullptr);
  klog::Clear();
  ASSERT_EQ(vane_entry_init(), 0);
  EXPECT_TRUE(klog::Contains(1, "Failed to create wlan lb class.\n"));
  EXPECT_FALSE(vfs::Exists("/proc/wlan_lb"));
  vane_entry_exit();
  EXPECT_TRUE(vfs::Exists("/sys/class/wlan_lb"));
  kport_class_destroy(other);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
}

// Readers on several threads read the Portal, RADIUS CoA and NAC entries as
// fast as they can while one writer changes them through the exported
// functions: a port must come with the process of the same setting, a NAC
// list's ids with the count of the same reload. (A reader through packets,
// as the WLAN race scenario is, looks too rarely to catch a torn store.)
TEST_F(LbInternalsTest, AaaReadersSeeOnlyWholeEntries) {
  auto process_of = [](u32 port) { return port * 3 + 1; };
  std::atomic<bool> stop{false};
  std::atomic<u64> torn{0}, rounds{0};
  std::thread writer([&] {
    for (u32 gen = 1; !stop.load(std::memory_order_relaxed); ++gen) {
      const auto portal = static_cast<u16>(100 + gen % 1000);
      WLAN_LB_SetAAAPortalDistributeTbl(portal, process_of(portal));
      WLAN_LB_SetAAARdsCOADistributeTbl(static_cast<u16>(portal + 1), process_of(portal + 1),
                                        static_cast<u8>(gen % 2));
      // gen % 20 + 1 ids (some above the 16 slots), all equal.
      const std::vector<u32> ids(16, gen & 0xFFFFFF);
      if (gen % 4 == 0) WLAN_LB_InitAAAAccessVcpuIDList(ids.data(), 64, gen % 20 + 1);
      ++rounds;
    }
  });
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      u64 bad = 0;
      auto whole = [&](const WLAN_LB_PORT_DISTRIBUTE_S& e) {
        const PortEntry p = port_entry_load(&e);
        bad += (p.port == 0 ? p.process == 0 : p.process == process_of(p.port)) ? 0 : 1;
      };
      while (!stop.load(std::memory_order_relaxed)) {
        kport::RcuReadGuard rcu;
        whole(g_stPortalPktDistribute);
        for (const WLAN_LB_PORT_DISTRIBUTE_S& e : g_stRadiusCOADistribute) whole(e);
        const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
        const u32 n = nac->count < 16 ? nac->count : 16;
        for (u32 k = 1; k < n; ++k) bad += nac->ids[k] == nac->ids[0] ? 0 : 1;
        if (n != 0) bad += nac->ids[0] % 20 + 1 == nac->count ? 0 : 1;
      }
      torn += bad;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  stop = true;
  writer.join();
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0u);
  EXPECT_GT(rounds.load(), 100u);
}

}  // namespace
}  // namespace vane::test
