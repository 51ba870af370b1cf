#include "sample_module.h"

#include <yaml-cpp/yaml.h>

#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "support/frames.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

BYPASS_PKT_OFFSET_S SampleDispatch() {
  BYPASS_PKT_OFFSET_S c{};
  c.ulHgHdrOffset = 0;
  c.ulMacOffset = 24;
  c.ulCauseIdOffset = 0;
  c.ulFirstFragFlagOffset = 14;
  c.ulVpInnerOffset = 16;
  c.ulVpFragInnerOffset = 16;
  c.ulIpcEthType = 0x0640;
  c.ulVpEthType = 0x8899;
  c.ulEcmVcpuEthType = 0x06A4;
  c.ulMultiCoreEthNumMin = 20;
  c.ulMultiCoreEthNumMax = 29;
  c.ulEcmEthNum = 3;
  c.ulVpEthNumMin = 40;
  c.ulVpEthNumMax = 49;
  c.ulIsSupportMulticore = 1;
  return c;
}

}  // namespace

void SampleModuleTest::SetUp() {
  ModuleTest::SetUp();
  const YAML::Node cfg = YAML::LoadFile(VANE_SAMPLE_CONFIG);
  std::string err;
  stage_ = host::ChipHeaderStage::FromYaml(cfg["vaned"]["chip_header"], &err);
  ASSERT_NE(stage_, nullptr) << err;

  ctl_ = std::make_unique<Worker>(7000);
  ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
  ASSERT_EQ(ctl_->Register(kFast, 0, kFast), 0);
  for (uint32_t v = 1; v <= 7; ++v) {
    workers_[v] = std::make_unique<Worker>(7000 + v);
    ASSERT_EQ(workers_[v]->Register(kNormal, v), 0);
  }
  ASSERT_EQ(ctl_->Configure(SampleDispatch()), 0);
  ApplySampleTables();
}

void SampleModuleTest::TearDown() {
  workers_.clear();
  ctl_.reset();
  ModuleTest::TearDown();
}

void SampleModuleTest::Lb(const Bytes& msg) {
  ASSERT_EQ(ctl_->Control(NETLINK_MID_WLAN_LB, msg), 0);
}

// The steering, TIMNG and WLAN sections of the sample, as control messages.
void SampleModuleTest::ApplySampleTables() {
  BYPASS_LB_TABLE_S ivo{};
  ivo.ulEnable = 1;
  ivo.ulVcpuId = 7;
  ivo.ulCauseIdNum = 1;
  ivo.ausCauseId[0] = 200;
  ivo.usCauseIdMin = 210;
  ivo.usCauseIdMax = 219;
  ASSERT_EQ(ctl_->Control(NETLINK_MID_IVO_LB, RecordBytes(ivo)), 0);
  ASSERT_EQ(ctl_->Control(NETLINK_MID_TIMNG_MASTER, RecordBytes(TIMNG_KERNEL_MSG_S{0, 0, 1, 0})),
            0);
  ASSERT_EQ(ctl_->Control(NETLINK_MID_TIMNG, RecordBytes(TIMNG_KERNEL_MSG_S{300, 6, 1, 0})), 0);

  Lb(CauseIdMsg({{100, 1, LB_CAPWAP},
                 {101, 2, LB_CAPWAP},
                 {102, 3, LB_CAPWAP_KA},
                 {103, 4, LB_AAA_PORT},
                 {104, 5, LB_AAA_PORT},
                 {105, 6, LB_AAA_PORT},
                 {106, 7, LB_AAA_MAC}}));
  Lb(BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB));
  Lb(NacMsg(WLAN_LB_BOARD_TYPE_LB, {3, 4}));
  Lb(PortalMsg(2000, 5));
  Lb(SocketPortMsg(1812, false, 0, 3));
  Lb(SocketPortMsg(1813, false, 0, 4));
  for (uint32_t ap = 11; ap <= 14; ++ap) {
    const uint32_t ip = Ipv4Addr("10.1.0.0") + ap;
    const uint32_t vcpu = ap % 2 == 1 ? 1 : 2;
    Lb(CapwapMsg({ip, Ipv4Addr("10.0.0.1"), 12222, 5246, 0, vcpu}));
    Lb(CapwapMsg({ip, Ipv4Addr("10.0.0.1"), 12223, 5247, 0, vcpu}));
    const uint32_t session[4] = {0x0a010000 + ap, 0, 0, ap - 10};
    Lb(CapwapKaMsg(session, vcpu));
  }
}

std::vector<uint32_t> SampleModuleTest::Drain() {
  std::vector<uint32_t> got;
  auto drain = [&](Worker& w, int channel, uint32_t who) {
    while (w.Pending(channel) != 0) {
      last_ = w.Next(channel)->data;
      got.push_back(who);
    }
  };
  drain(*ctl_, kNormal, kNormalDefault);
  drain(*ctl_, kFast, kFastDefault);
  for (auto& [v, w] : workers_) drain(*w, kNormal, v);
  return got;
}

}  // namespace vane::test
