// The sample configuration applied to the real core in this process, then
// read back through the core's own views (the wlan_lb attribute, the
// /proc/wlan_lb and /proc/bypassDebug files) and proven on packets: each
// table holds what the file says, and a configured tunnel catches its
// packets while an unknown one does not.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "config.h"
#include "core_sink.h"
#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "plan.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vanectl {
namespace {

using vane::test::Bytes;
using vane::test::PacketBuilder;
namespace vfs = kport::user::vfs;

constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";

Config Sample() {
  std::ifstream in(VANECTL_SAMPLE);
  std::ostringstream s;
  s << in.rdbuf();
  return ParseConfig(s.str(), "wlc.yaml");
}

std::string View(const char* which) {
  EXPECT_GT(vfs::SysfsStore(kAttr, which), 0);
  return vfs::SysfsShow(kAttr).value_or("<no view>");
}

// One line of the socket-port view.
std::string PortLine(unsigned port, char dir, const char* target) {
  char line[128];
  std::snprintf(line, sizeof(line),
                "\r\n%6u(%c)                      %3s                                 %s", port,
                dir, "UDP", target);
  return line;
}

class ApplyToCoreTest : public vane::test::ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    default_ = std::make_unique<vane::test::Worker>(9000);
    ASSERT_EQ(default_->Register(vane::test::kNormal, 0), 0);
    for (uint32_t v = 1; v <= 7; ++v) {
      workers_[v] = std::make_unique<vane::test::Worker>(9000 + v);
      ASSERT_EQ(workers_[v]->Register(vane::test::kNormal, v), 0);
    }
    sink_ = std::make_unique<test::CoreSink>(8999);
    ASSERT_TRUE(sink_->ok());
    config_ = Sample();
    const vane_endpoint ep = sink_->Endpoint();
    vane_ctl* ctl = nullptr;
    ASSERT_EQ(vane_ctl_open(&ep, &ctl), 0);
    ApplyResult r;
    ASSERT_EQ(ApplyConfig(config_, ctl, &r), 0);
    vane_ctl_close(ctl);
    ASSERT_EQ(sink_->messages(), Plan(config_).size());
    ASSERT_EQ(sink_->failures(), 0u) << "first error " << sink_->first_error();
  }
  void TearDown() override {
    sink_.reset();
    workers_.clear();
    default_.reset();
    ModuleTest::TearDown();
  }

  // Sends a packet on the sample's layout (HiGig2 header at 0, the cause ID
  // in the chip metadata, Ethernet at 24) from a multi-core interface and
  // returns the vCPUs that got it (0: the default receiver).
  std::vector<uint32_t> Send(uint16_t cause, uint32_t src, uint32_t dst, uint16_t sport,
                             uint16_t dport, const Bytes& payload = Bytes(16, 0)) {
    const Bytes buf =
        PacketBuilder()
            .prefix(0, 0, 21)
            .bytes(vane::test::CauseHead(cause))
            .ethernet(vane::test::Mac("00:00:5e:00:01:01"), vane::test::Mac("00:11:22:33:44:55"))
            .ipv4({.src = src, .dst = dst})
            .udp(sport, dport)
            .payload(payload)
            .build();
    EXPECT_GT(netlink_send_msg(1, const_cast<uint8_t*>(buf.data()), buf.size()), 0);
    std::vector<uint32_t> got;
    while (auto d = default_->Next()) got.push_back(0);
    for (auto& [v, w] : workers_) {
      while (auto d = w->Next()) {
        got.push_back(v);
        stamp_ = d->data.at(12 + 2);  // HiGig2 byte 2 of the packet
      }
    }
    return got;
  }

  Config config_;
  std::unique_ptr<test::CoreSink> sink_;
  std::unique_ptr<vane::test::Worker> default_;
  std::map<uint32_t, std::unique_ptr<vane::test::Worker>> workers_;
  uint8_t stamp_ = 0;
};

TEST_F(ApplyToCoreTest, TheWlanViewsShowWhatTheFileSays) {
  EXPECT_EQ(View("3"),
            "\r\nWLAN LB KERNEL LB SET CAPWAP      :8 "
            "\r\nWLAN LB KERNEL LB SET CAPWAP KA   :4 "
            "\r\nWLAN LB KERNEL LB SET NAC NODELIST:1 "
            "\r\nWLAN LB KERNEL LB SET PORTAL NODE :1 "
            "\r\nWLAN LB KERNEL LB SET SOCKET PORT :2 "
            "\r\nWLAN LB KERNEL LB SET BOARD TYPE  :1 "
            "\r\nWLAN LB KERNEL LB SET CAUSEIID    :1 "
            "\r\nWLAN LB BOARD TYPE                :3 \r\n");
  EXPECT_EQ(View("1"), "\r\nNAC process list :3 4 ");
  // Newest socket port first; the CoA entries the NAC list set; the Portal.
  EXPECT_EQ(View("2"), PortLine(1813, 'D', "4") + PortLine(1812, 'D', "3") +
                           PortLine(3799, 'D', "NAC") + PortLine(3799, 'D', "NAC") +
                           PortLine(2000, 'D', "5"));
  // causeid, lbtype, pkttype, by bucket (cause ID mod 100).
  EXPECT_EQ(View("4"),
            "100  1    1   ;101  1    2   ;102  2    3   ;103  4    4   ;104  4    5   ;"
            "105  4    6   ;106  3    7   ;");
}

TEST_F(ApplyToCoreTest, TheCapwapFilesHoldEveryTunnelAndSession) {
  using Tunnel = std::tuple<uint32_t, uint32_t, uint16_t, uint16_t, uint8_t, uint32_t>;
  std::map<uint32_t, std::set<Tunnel>> want;
  for (const CapwapEntry& e : config_.wlan->capwap) {
    want[e.src].insert({e.src, e.dst, e.sport, e.dport, e.vpn, e.vcpu});
  }
  for (const auto& [src, tunnels] : want) {
    const uint64_t key = src;
    ASSERT_EQ(vfs::ProcWriteAll("/proc/wlan_lb/capwap",
                                Bytes(reinterpret_cast<const uint8_t*>(&key),
                                      reinterpret_cast<const uint8_t*>(&key) + 8)),
              8);
    const Bytes image = vfs::ProcReadAll("/proc/wlan_lb/capwap");
    ASSERT_EQ(image.size(), 200u);
    std::set<Tunnel> got;
    for (size_t off = 0; off + 20 <= image.size(); off += 20) {
      uint32_t sip, dip, process;
      uint16_t sport, dport;
      std::memcpy(&sip, &image[off], 4);
      std::memcpy(&dip, &image[off + 4], 4);
      std::memcpy(&sport, &image[off + 8], 2);
      std::memcpy(&dport, &image[off + 10], 2);
      std::memcpy(&process, &image[off + 16], 4);
      if (sip == 0 && process == 0) continue;
      got.insert({sip, dip, sport, dport, image[off + 12], process});
    }
    EXPECT_EQ(got, tunnels) << AddressText(src);
  }
  for (const KeepAliveEntry& k : config_.wlan->capwap_keepalive) {
    Bytes key(16);
    std::memcpy(key.data(), k.session.data(), 16);
    ASSERT_EQ(vfs::ProcWriteAll("/proc/wlan_lb/capwap_ka", key), 16);
    const Bytes image = vfs::ProcReadAll("/proc/wlan_lb/capwap_ka");
    ASSERT_EQ(image.size(), 20u);
    uint32_t process = 0;
    std::memcpy(&process, &image[16], 4);
    EXPECT_EQ(Bytes(image.begin(), image.begin() + 16), key);
    EXPECT_EQ(process, k.vcpu);
  }
}

TEST_F(ApplyToCoreTest, SteeringTimngAndTheDispatchRecordHoldTheFile) {
  const Bytes image = vfs::ProcReadAll("/proc/bypassDebug/ivo");
  ASSERT_EQ(image.size(), sizeof(BYPASS_IVO_DEBUG_INFO_S));
  BYPASS_IVO_DEBUG_INFO_S info;
  std::memcpy(&info, image.data(), sizeof(info));
  EXPECT_EQ(info.stIvoTable.ulEnable, 1u);
  EXPECT_EQ(info.stIvoTable.ulVcpuId, 7u);
  EXPECT_EQ(info.stIvoTable.ulCauseIdNum, 1u);
  EXPECT_EQ(info.stIvoTable.ausCauseId[0], 200);
  EXPECT_EQ(info.stIvoTable.usCauseIdMin, 210);
  EXPECT_EQ(info.stIvoTable.usCauseIdMax, 219);
  EXPECT_EQ(info.stDeteptionTable.ulEnable, 0u);

  EXPECT_EQ(g_timngKernelInfoCnt, 1u) << "one TIMNG slot left for a later change";
  EXPECT_EQ(g_TimngBoardType, 1u);
  EXPECT_EQ(g_timngKernelInfo[0].causeid, 300u);
  EXPECT_EQ(g_timngKernelInfo[0].nodeId, 6u);
  EXPECT_EQ(g_timngKernelInfo[0].isFragScan, 0u);

  const BYPASS_PKT_OFFSET_S& r = bypass_pkt_offset;
  EXPECT_EQ(bypass_isSupportMulticore(), 1u);
  EXPECT_EQ(r.ulMacOffset, 24u);
  EXPECT_EQ(r.ulCauseIdOffset, 0u);
  EXPECT_EQ(r.ulMultiCoreEthNumMin, 20u);
  EXPECT_EQ(r.ulMultiCoreEthNumMax, 29u);
  EXPECT_EQ(r.ulEcmEthNum, 3u);
  EXPECT_EQ(r.ulVpEthNumMin, 40u);
  EXPECT_EQ(r.ulVpEthNumMax, 49u);
  EXPECT_EQ(r.ulIpcEthType, 0x0640u);
  EXPECT_EQ(r.ulVpEthType, 0x8899u);
  EXPECT_EQ(r.ulEcmVcpuEthType, 0x06A4u);
  EXPECT_EQ(r.ulFirstFragFlagOffset, 14u);
  EXPECT_EQ(r.ulVpInnerOffset, 16u);
  EXPECT_EQ(r.ulVpFragInnerOffset, 16u);
  EXPECT_EQ(r.ulIsNoHgHdr, 0u);
}

TEST_F(ApplyToCoreTest, ConfiguredTunnelsAndSessionsCatchTheirPackets) {
  using V = std::vector<uint32_t>;
  const uint32_t ctl = vane::test::Ipv4Addr("10.0.0.1");
  // CAPWAP control and data of the access point at 10.1.0.12: vCPU 2,
  // stamped with the cause ID's packet type.
  EXPECT_EQ(Send(100, vane::test::Ipv4Addr("10.1.0.12"), ctl, 12222, 5246), V{2});
  EXPECT_EQ(stamp_, 1);
  EXPECT_EQ(Send(101, vane::test::Ipv4Addr("10.1.0.13"), ctl, 12223, 5247), V{1});
  EXPECT_EQ(stamp_, 2);
  // An access point the file does not name: no tunnel, the default receiver.
  EXPECT_EQ(Send(100, vane::test::Ipv4Addr("10.1.0.99"), ctl, 12222, 5246), V{0});

  // A keep-alive of the session 0a01000e...04 (bytes as on the wire).
  Bytes ka = vane::test::KeepAlivePayload();
  const uint8_t session[16] = {0x0a, 0x01, 0x00, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4};
  std::memcpy(ka.data() + ka.size() - 16, session, 16);
  EXPECT_EQ(Send(102, vane::test::Ipv4Addr("10.1.0.14"), ctl, 12223, 5247, ka), V{2});
  EXPECT_EQ(stamp_, 3);

  // Portal, a RADIUS socket port, CoA to every NAC vCPU, steering, TIMNG.
  EXPECT_EQ(Send(105, 0x0A020001, ctl, 40000, 2000), V{5});
  EXPECT_EQ(Send(103, 0x0A000002, ctl, 40000, 1813), V{4});
  EXPECT_EQ(Send(104, 0x0A000002, ctl, 40000, 3799), (V{3, 4}));
  EXPECT_EQ(Send(200, 0x0A020001, ctl, 1, 2), V{7});
  EXPECT_EQ(Send(215, 0x0A020001, ctl, 1, 2), V{7});
  EXPECT_EQ(Send(300, 0x0A020001, ctl, 319, 319), V{6});
}

}  // namespace
}  // namespace vanectl
