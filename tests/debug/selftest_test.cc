// The self-test packets of debug commands 4 to 8, sent through the real
// delivery path to registered workers: the fragment table entered, found
// and removed by the three fragments, the 1000 sends of the IPv4 and IPv6
// tests counted at the worker, and the balancing variant read per send.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/selftest.h"
#include "drv_vane/wlan_lb.h"
#include "kport/printk.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/wlan_stand_in.h"

namespace vane::test {
namespace {

namespace klog = kport::user::klog;
namespace vfs = kport::user::vfs;

constexpr uint32_t kVcpu = 9;
// The messages carry cause ID 1 at packet bytes 18-19 (their 0x000D).
constexpr uint16_t kCause = 1;

class SelfTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    op_ = std::make_unique<Worker>(100, 2 * BYPASS_SELFTEST_REPEAT);
    vcpu_ = std::make_unique<Worker>(200, 2 * BYPASS_SELFTEST_REPEAT);
    // The layout the messages are made for: chip header first, Ethernet
    // header 50 bytes in, received on interface 1.
    BYPASS_PKT_OFFSET_S cfg = TestRanges();
    cfg.ulMultiCoreEthNumMin = 1;
    cfg.ulEcmEthNum = 60;
    cfg.ulHgHdrOffset = 0;
    cfg.ulMacOffset = 50;
    cfg.ulCauseIdOffset = 0;
    ASSERT_EQ(op_->Configure(cfg), 0);
    ASSERT_EQ(op_->Register(kNormal, 0), 0);
    ASSERT_EQ(vcpu_->Register(kNormal, kVcpu), 0);
    wlan_.cause_id = kCause;
    wlan_.lb_type = LB_CAPWAP;
    wlan_.pkt_type = 3;
    wlan_.vcpu = kVcpu;
  }

  static uint16_t Ipv4FragEntries() {
    std::vector<uint8_t> dump = vfs::ProcReadAll("/proc/bypassDebug/hashInfoIpv4");
    return static_cast<uint16_t>(dump.at(0) | dump.at(1) << 8);
  }
  // Lengths of everything queued at `w`, draining it.
  static std::vector<uint32_t> Drain(Worker& w) {
    std::vector<uint32_t> lens;
    while (auto d = w.Next()) lens.push_back(d->len);
    return lens;
  }

  // Opened once the module is loaded.
  std::unique_ptr<Worker> op_;
  std::unique_ptr<Worker> vcpu_;
  WlanStandIn wlan_;
  ScopedWlanStandIn scoped_{&wlan_};
};

TEST_F(SelfTest, FragmentCommandsEnterFindAndRemoveOneTableEntry) {
  ASSERT_EQ(op_->Debug(4), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{BYPASS_SELFTEST_FRAG_LEN});
  EXPECT_EQ(Ipv4FragEntries(), 1);
  ASSERT_EQ(op_->Debug(5), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{BYPASS_SELFTEST_FRAG_LEN});
  EXPECT_EQ(Ipv4FragEntries(), 1);
  ASSERT_EQ(op_->Debug(6), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>{BYPASS_SELFTEST_FRAG_LEN});
  EXPECT_EQ(Ipv4FragEntries(), 0);
  EXPECT_EQ(wlan_.lookups, 1);  // only the first fragment asks the tables

  // A last fragment with no entry: the table says so, the worker gets none.
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR | BYPASS_DEBUG_LEVEL_PKT);
  ASSERT_EQ(op_->Debug(6), 0);
  EXPECT_NE(DebugText().find("\r\ndel ipv4 fail in hash."), std::string::npos);
  EXPECT_TRUE(Drain(*vcpu_).empty());
  EXPECT_EQ(Drain(*op_).size(), 1u);  // the default receiver's

  // The constant messages are untouched by the stamps of earlier sends:
  // a repeated first fragment is delivered byte for byte as the first was.
  ASSERT_EQ(op_->Debug(4), 0);
  auto first = vcpu_->Next();
  ASSERT_EQ(op_->Debug(4), 0);
  auto again = vcpu_->Next();
  ASSERT_TRUE(first && again);
  EXPECT_EQ(first->data, again->data);
}

TEST_F(SelfTest, Ipv4TestSendsAThousandOfTheVariantReadBeforeEachSend) {
  klog::Clear();
  ASSERT_EQ(op_->Debug(7), 0);  // variant 0: nothing
  EXPECT_TRUE(Drain(*vcpu_).empty());
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n**test ipv4.g_ulLBType[0]****\r\n"));

  ASSERT_EQ(op_->Debug(1), 0);
  ASSERT_EQ(op_->Debug(7), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>(BYPASS_SELFTEST_REPEAT, BYPASS_SELFTEST_V4A_LEN));
  ASSERT_EQ(op_->Debug(1), 0);
  ASSERT_EQ(op_->Debug(7), 0);
  EXPECT_EQ(Drain(*vcpu_), std::vector<uint32_t>(BYPASS_SELFTEST_REPEAT, BYPASS_SELFTEST_V4B_LEN));
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n**test ipv4.g_ulLBType[2]****\r\n"));

  // The variant changes in the middle of a run: the sends follow it.
  ASSERT_EQ(op_->Debug(1), 0);  // 3: test A
  wlan_.on_lookup = [](int n) {
    if (n == 3 * BYPASS_SELFTEST_REPEAT + 300) g_ulLBType = 2;
    if (n == 3 * BYPASS_SELFTEST_REPEAT + 600) g_ulLBType = 0;
  };
  const int before = wlan_.lookups;
  ASSERT_EQ(before, 2 * BYPASS_SELFTEST_REPEAT);
  wlan_.lookups = 3 * BYPASS_SELFTEST_REPEAT;
  ASSERT_EQ(op_->Debug(7), 0);
  std::vector<uint32_t> expected(300, BYPASS_SELFTEST_V4A_LEN);
  expected.insert(expected.end(), 300, BYPASS_SELFTEST_V4B_LEN);
  EXPECT_EQ(Drain(*vcpu_), expected);
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n**test ipv4.g_ulLBType[0]****\r\n"));
}

TEST_F(SelfTest, Ipv6TestSendsAThousandWhateverTheVariant) {
  klog::Clear();
  ASSERT_EQ(op_->Debug(8), 0);
  std::vector<uint32_t> all = Drain(*vcpu_);
  std::vector<uint32_t> def = Drain(*op_);
  all.insert(all.end(), def.begin(), def.end());
  EXPECT_EQ(all, std::vector<uint32_t>(BYPASS_SELFTEST_REPEAT, BYPASS_SELFTEST_V6_LEN));
  EXPECT_TRUE(klog::Contains(KPORT_LOGLEVEL_ALERT, "\r\n**test ipv6.g_ulLBType[0]****\r\n"));
}

}  // namespace
}  // namespace vane::test
