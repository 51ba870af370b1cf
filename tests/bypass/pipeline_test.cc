// What the outside cannot reach of the dispatch: the WLAN steps with the
// tables stood in for (cause ID, keys, session ID, stamp, bounds of every
// read), arguments only another module passes, failed allocations and
// copies, and the configuration record's readers racing its writers. The
// cause ID sits in bytes 18-19 of the 24 before the Ethernet header.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "bypass/config_internal.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/steering.h"
#include "drv_vane/wlan_lb.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_stand_in.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;
namespace klog = kport::user::klog;

constexpr uint16_t kCause = 0x1ABC;  // 13 bits
constexpr uint32_t kHead = 24;       // bytes before the Ethernet header
constexpr uint32_t kMcEth = 20;
// The LB types a cause ID can have.
enum : uint32_t { kCapwapLb = 1, kKa = 2, kMacLb = 3, kPortLb = 4 };

PacketBuilder Mc(uint16_t cause = kCause) {
  PacketBuilder b;
  b.prefix(1, 0, kMcEth)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  return b;
}

Ipv4Options V4(bool mf = false, uint16_t off = 0, uint16_t id = 0x4321) {
  return {.src = Ipv4Addr("10.0.0.1"),
          .dst = Ipv4Addr("10.0.0.2"),
          // Fragments after the first carry no UDP header of their own.
          .protocol = off != 0 ? std::optional<uint8_t>(17) : std::nullopt,
          .id = id,
          .mf = mf,
          .frag_offset = off};
}

class PipelineTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    cfg_ = TestRanges();
    cfg_.ulMacOffset = kHead;
    cfg_.ulIsNoHgHdr = 1;
    Apply();
    wlan_.cause_id = kCause;
    wlan_.lb_type = kCapwapLb;
    wlan_.pkt_type = 5;
    wlan_.vcpu = 9;
  }
  void Apply() { bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg_), 88); }

  struct Result {
    uint32_t count = 0;
    uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
  };
  static Result Dispatch(Bytes& buf) {
    Result r;
    bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &r.count, r.list);
    return r;
  }

  BYPASS_PKT_OFFSET_S cfg_{};
  WlanStandIn wlan_;
  ScopedWlanStandIn scoped_{&wlan_};
};

TEST_F(PipelineTest, CauseIdIsTheUpperThirteenBitsAndShortPacketsWriteNothing) {
  Bytes pkt = CauseHead(kCause);
  pkt.resize(kHead + 24);
  uint16_t cause = 1;
  uint32_t type = 1;
  u64 pkt_type = 1;
  bypass_msg_get_causeid(pkt.data(), static_cast<uint32_t>(pkt.size()), &cause, &type, &pkt_type);
  EXPECT_EQ(std::make_tuple(cause, type, pkt_type), std::make_tuple(kCause, kCapwapLb, u64{5}));
  // Without the stand-in a cause ID is not load-balanced.
  wlan_.cause_id = 1;
  bypass_msg_get_causeid(pkt.data(), static_cast<uint32_t>(pkt.size()), &cause, &type, &pkt_type);
  EXPECT_EQ(std::make_tuple(type, pkt_type), std::make_tuple(7u, u64{12}));

  // Shorter than ulMacOffset + 24, or too short for the cause-ID bytes at
  // their own offset: nothing written, one level-1 line each.
  SetDebugLevel(1);
  cause = 7;
  bypass_msg_get_causeid(pkt.data(), kHead + 23, &cause, &type, &pkt_type);
  cfg_.ulMacOffset = 0;
  cfg_.ulCauseIdOffset = 40;
  Apply();
  bypass_msg_get_causeid(pkt.data(), 59, &cause, &type, &pkt_type);
  EXPECT_EQ(cause, 7);
  EXPECT_EQ(DebugText(),
            "\r\nget_causeid err(len=47,offtoMac=24).\r\nget_causeid err(len=59,"
            "offtoMac=0).");
}

// The keys' addresses, ports and session words are pinned by the lookups
// of the WLAN scenarios; the cause ID they also carry, no table reads.
TEST_F(PipelineTest, KeysCarryTheCauseIdAndKeepAliveRefusalsAreTraced) {
  Bytes whole = Mc().ipv4(V4()).udp(5246, 5247).payload(16).build();
  EXPECT_EQ(Dispatch(whole).list[0], 9);
  EXPECT_EQ(wlan_.five.causeid, kCause);
  wlan_.lb_type = kKa;
  Bytes ka = Mc().ipv4(V4()).udp(5247, 5247).payload(KeepAlivePayload()).build();
  EXPECT_EQ(Dispatch(ka).list[0], 9);
  EXPECT_EQ(wlan_.session.causeid, kCause);

  SetDebugLevel(1);
  Bytes bad = Mc().ipv4(V4()).udp(5247, 5247).payload(KeepAlivePayload(0x88)).build();
  EXPECT_EQ(Dispatch(bad).count, 0u);
  EXPECT_EQ(DebugText(), "\r\nLB_CAPWAP_KA return,ret=100, get sessiondid err.");
  SetDebugLevel(1);
  Bytes arp = Mc().ether_type(0x0806).payload(40).build();
  EXPECT_EQ(Dispatch(arp).count, 0u);
  EXPECT_EQ(DebugText(), "\r\nLB_CAPWAP_KA return 1.");

  BYPASS_PKT_INFO_S info{};
  WLAN_LB_FIVE_TUPLE_S key{};
  uint32_t count = 7;
  uint8_t list[8] = {};
  EXPECT_EQ(bypass_getvcpu_by_Five(nullptr, &key, kCapwapLb, &count, list), 0);
  EXPECT_EQ(bypass_getvcpu_by_Five(&info, &key, kCapwapLb, &count, nullptr), 0);
  EXPECT_EQ(count, 7u);
}

TEST_F(PipelineTest, SessionIdOfAKeepAliveAndEveryWayToRefuseIt) {
  Bytes pkt(20, 0);
  Bytes ka = KeepAlivePayload();
  pkt.insert(pkt.end(), ka.begin(), ka.end());
  const uint32_t len = static_cast<uint32_t>(pkt.size());  // u + 8 + 8 + 22
  uint32_t sid[4] = {};  // its words are pinned by the keep-alive scenario's lookups
  ASSERT_EQ(bypass_getSessionId(sid, 12, pkt.data(), len), 0u);
  EXPECT_EQ(bypass_getSessionId(nullptr, 12, pkt.data(), len), 100u);
  EXPECT_EQ(bypass_getSessionId(sid, 12, nullptr, len), 100u);
  auto refuse = [&](Bytes capwap, uint32_t cut, const std::string& text) {
    Bytes p(20, 0);
    p.insert(p.end(), capwap.begin(), capwap.end());
    SetDebugLevel(1);
    EXPECT_EQ(bypass_getSessionId(sid, 12, p.data(), static_cast<uint32_t>(p.size()) - cut), 100u);
    EXPECT_EQ(DebugText(), text);
  };
  refuse(KeepAlivePayload(0x88), 0, "");  // F bit: a fragment, no message
  refuse(KeepAlivePayload(0x00), 0, "");  // no K bit
  refuse(KeepAlivePayload(0x08, 21), 0, "\r\ngetSessionId err2(u16ElementLen=21).");
  refuse(KeepAlivePayload(0x08, 22, 36), 0, "\r\ngetSessionId err4(type=36,len=16).");
  refuse(KeepAlivePayload(), 1, "\r\ngetSessionId err3(len=49,ulOffSetUdpLen=12,capHdr=8).");
  // Too short for the element length itself, and for the first CAPWAP words.
  refuse(KeepAlivePayload(), 21, "\r\ngetSessionId err3(len=29,ulOffSetUdpLen=12,capHdr=8).");
  refuse(KeepAlivePayload(), 35, "\r\ngetSessionId err1(len=15,ulOffSetUdpLen=12).");
  EXPECT_EQ(bypass_getSessionId(sid, 0xFFFFFFF8u, pkt.data(), len), 100u);
}

TEST_F(PipelineTest, AccessAndPortKeysAndTheirRefusals) {
  wlan_.lb_type = kMacLb;
  Bytes dhcp = Mc().ipv4(V4()).udp(68, 67).payload(10).build();
  Result r = Dispatch(dhcp);
  EXPECT_EQ(r.list[0], 9);
  EXPECT_EQ(wlan_.access.smac[5], 0x02);
  EXPECT_EQ(wlan_.access.dhcpFlag, 1);
  EXPECT_EQ(wlan_.access.ulUdpPktLen, 18u);
  ASSERT_NE(wlan_.access.pucUdpPkt, nullptr);
  EXPECT_EQ(wlan_.access.pucUdpPkt[1], 68);

  wlan_.lb_type = kPortLb;
  wlan_.port_vcpus = {4, 5, 6};
  Bytes tcp = Mc().ipv4(V4()).tcp(1812, 3799).build();
  r = Dispatch(tcp);
  EXPECT_EQ(r.count, 3u);
  EXPECT_EQ(wlan_.port.sport, 1812u);
  EXPECT_EQ(wlan_.port.dport, 3799u);
  EXPECT_EQ(wlan_.port.ucUDPFlag, 0);

  // Port and CAPWAP lookups need the ports (and CAPWAP the IPv4 addresses).
  SetDebugLevel(1);
  Bytes icmp = Mc().ipv4(V4()).icmp(8, 0).build();
  EXPECT_EQ(Dispatch(icmp).count, 0u);
  wlan_.lb_type = kCapwapLb;
  Bytes v6 = Mc().ipv6({}).udp(1, 2).build();
  EXPECT_EQ(Dispatch(v6).count, 0u);
  EXPECT_EQ(DebugText(),
            "\r\nLB_AAA_PORT return, ulBmpInfo=7.\r\nLB_CAPWAP return,ulBmpInfo=1f0f.");
}

TEST_F(PipelineTest, PacketTypeStampLandsInsideThePacketOrNowhere) {
  Bytes pkt = Mc().ipv4(V4()).udp(1, 2).build();
  Dispatch(pkt);
  EXPECT_EQ(pkt[12 + kHead - 1], 5);  // the byte before the Ethernet header

  cfg_.ulIsNoHgHdr = 0;
  cfg_.ulHgHdrOffset = 4;
  Apply();
  pkt = Mc().ipv4(V4()).udp(1, 2).build();
  Dispatch(pkt);
  EXPECT_EQ(pkt[12 + 4 + 2], 5);  // byte 2 of the HiGig2 header

  // Past the end: skipped.
  cfg_.ulHgHdrOffset = 5000;
  Apply();
  Bytes before = Mc().ipv4(V4()).udp(1, 2).build();
  pkt = before;
  EXPECT_EQ(Dispatch(pkt).count, 1u);
  EXPECT_EQ(pkt, before);

  // A miss (vCPU 0 from the table) is still a count of 1 and stamped; an
  // unknown cause ID is neither looked up nor stamped.
  cfg_.ulHgHdrOffset = 0;
  Apply();
  pkt = Mc(1).ipv4(V4()).udp(1, 2).build();
  before = pkt;
  EXPECT_EQ(Dispatch(pkt).count, 0u);
  EXPECT_EQ(pkt, before);
  EXPECT_EQ(wlan_.lookups, 3);

  // With no HiGig2 header and the Ethernet header at 0 there is no byte
  // before it to stamp.
  cfg_.ulIsNoHgHdr = 1;
  cfg_.ulMacOffset = 0;
  cfg_.ulCauseIdOffset = 0;
  Apply();
  PacketBuilder b;
  b.prefix(1, 0, kMcEth).ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  pkt = b.ipv4(V4()).udp(1, 2).payload(8).build();
  // The cause ID then sits in the IPv4 header (bytes 18-19 of the packet).
  wlan_.cause_id = static_cast<uint16_t>(((pkt[12 + 18] << 8) | pkt[12 + 19]) >> 3);
  before = pkt;
  Result r;
  EXPECT_EQ(bypass_proc_msg_multicore(pkt.data() + 12, static_cast<uint32_t>(pkt.size() - 12),
                                      &r.count, r.list),
            0u);
  EXPECT_EQ(r.count, 1u);
  EXPECT_EQ(pkt, before);
}

TEST_F(PipelineTest, ShortPacketsFailEachTestWithoutReadingPastTheirEnd) {
  // Every length of a full frame, cut short, into a buffer of exactly that
  // size (ASan catches a read past it).
  const Bytes full = Mc().ipv4(V4()).udp(5247, 5247).payload(KeepAlivePayload()).build();
  for (auto type : {kCapwapLb, kKa, kMacLb, kPortLb}) {
    wlan_.lb_type = type;
    for (size_t len = 0; len <= full.size() - 12; ++len) {
      Bytes pkt(full.begin() + 12, full.begin() + 12 + static_cast<long>(len));
      Result r;
      uint8_t* data = pkt.empty() ? nullptr : pkt.data();
      const uint32_t ret =
          bypass_proc_msg_multicore(data, static_cast<uint32_t>(len), &r.count, r.list);
      if (data == nullptr) {
        EXPECT_EQ(ret, 100u);
      }
    }
  }
  // An Ethernet offset past the packet is refused.
  Bytes tiny(10, 0);
  Result r;
  EXPECT_EQ(bypass_proc_msg_multicore(tiny.data(), 10, &r.count, r.list), 100u);
}

using BypassInternalsTest = ModuleTest;

TEST_F(BypassInternalsTest, MissingArgumentsAreTracedOrRefusedAndWriteNothing) {
  SetDebugLevel(1);
  uint32_t count = 7;
  uint8_t list[BYPASS_VCPU_LIST_MAX];
  Bytes buf(20);
  bypass_msg_getVCpuId(buf.data(), 20, nullptr, list);
  bypass_msg_getVCpuId(buf.data(), 20, &count, nullptr);
  bypass_msg_getVCpuId(nullptr, 20, &count, list);
  EXPECT_EQ(count, 7u);
  std::string expected;
  for (int i = 0; i < 3; ++i) expected += "\r\n The uiParameterIsInVaild is 0.";
  EXPECT_EQ(DebugText(), expected);

  uint8_t vcpu = 0;
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, nullptr, &vcpu), 100u);
  EXPECT_EQ(bypass_msg_get_ivo_vcpuid(13, &count, nullptr), 100u);

  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
  bypass_set_pktOffsetAndDebugFlag(5, nullptr, 88);  // no payload: nothing
  EXPECT_EQ(bypass_isSupportMulticore(), 1u);
}

TEST_F(BypassInternalsTest, AFirstFragmentTheTableCannotTakeStillGoesToItsVcpu) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Register(kNormal, 12), 0);
  ASSERT_EQ(w.Configure(CascadeConfig()), 0);
  SetDebugLevel(1);
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_GT(env().Deliver(1, CascadeVp(1, 12, 0xAB, true, 0)), 0);
  fault::ClearAll();
  EXPECT_NE(DebugText().find("\r\nPacket addInHash fail.ret=101,"), std::string::npos)
      << DebugText();
  EXPECT_EQ(Counters()[12], 1u);
  // Its later fragments have lost their way; nothing was left behind (the
  // fixture checks every allocation is returned).
  EXPECT_GT(env().Deliver(1, CascadeVp(1, 61, 0, true, 3)), 0);
  EXPECT_EQ(Counters()[12], 1u);
}

TEST_F(BypassInternalsTest, AValueThatCannotBeCopiedClearsNoHitCount) {
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulVcpuId = 5;
  t.ulCauseIdNum = 1;
  t.ausCauseId[0] = 13;
  bypass_set_ivo_lb_table(11, reinterpret_cast<uint8_t*>(&t), sizeof(t));
  uint32_t count = 0;
  uint8_t vcpu = 0;
  ASSERT_EQ(bypass_msg_get_ivo_vcpuid(13, &count, &vcpu), 0u);
  fault::FailNth(fault::Site::kCopyFromUser, 1);
  EXPECT_EQ(env().Write("/proc/bypassDebug/ivo", Bytes(4, 0)), -1);
  EXPECT_TRUE(klog::Contains(1, "\r\nErr: bypass copy from user failed.\r\n"));
  EXPECT_EQ(env().Read("/proc/bypassDebug/ivo").value_or(Bytes(296)).at(120), 1);
}

// Writers keep replacing the record with ones whose slots all carry one
// value; the pipeline's snapshot must always see a single record.
TEST_F(BypassInternalsTest, SnapshotsNeverMixTwoRecords) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (uint32_t t = 0; t < 2; ++t) {
    writers.emplace_back([&, t] {
      for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        BYPASS_PKT_OFFSET_S cfg;
        uint32_t* slots = &cfg.ulHgHdrOffset;
        for (uint32_t k = 0; k < 22; ++k) slots[k] = (t << 24) | (i & 0xFFFFFF);
        bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), 88);
      }
    });
  }
  long torn = 0;
  std::set<uint32_t> seen;
  // Runs until the writers have replaced the record under the reader many
  // times; the deadline only bounds a machine that never schedules them.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int n = 0; (n < 1000 || seen.size() < 100) && std::chrono::steady_clock::now() < deadline;
       ++n) {
    BYPASS_PKT_OFFSET_S snap;
    config_snapshot(&snap);
    const uint32_t* slots = &snap.ulHgHdrOffset;
    for (uint32_t k = 1; k < 22; ++k) {
      if (slots[k] != slots[0]) {
        ++torn;
        break;
      }
    }
    seen.insert(slots[0]);
  }
  stop = true;
  for (auto& t : writers) t.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GT(seen.size(), 1u) << "the writers never overlapped the reader";
}

}  // namespace
}  // namespace vane::test
