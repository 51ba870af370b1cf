// A worker that sends LB configuration messages (control message 10), and
// the module fixture around it, for the WLAN message and view tests.
#ifndef VANE_TESTS_WLAN_LB_LB_FIXTURE_H
#define VANE_TESTS_WLAN_LB_LB_FIXTURE_H

#include <cstdint>
#include <optional>
#include <vector>

#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"

namespace vane::test {

// Resized to `len` bytes: cut, or padded with zeros.
inline std::vector<uint8_t> Resized(std::vector<uint8_t> m, size_t len) {
  m.resize(len, 0);
  return m;
}

// A registered worker sending LB messages; each send returns the ack's code.
class LbSender {
 public:
  explicit LbSender(uint32_t pid = 4242) : worker_(pid) { worker_.Register(kNormal, 0); }
  int Send(const std::vector<uint8_t>& payload, const CtrlOptions& opt = {}) {
    return worker_.Control(NETLINK_MID_WLAN_LB, payload, kNormal, opt).value_or(-999);
  }

 private:
  Worker worker_;
};

// The module loaded around each test, with a registered sender.
class LbModuleTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    sender_.emplace();
  }
  void TearDown() override {
    sender_.reset();
    ModuleTest::TearDown();
  }
  int Send(const std::vector<uint8_t>& payload, const CtrlOptions& opt = {}) {
    return sender_->Send(payload, opt);
  }

 private:
  std::optional<LbSender> sender_;
};

}  // namespace vane::test

#endif  // VANE_TESTS_WLAN_LB_LB_FIXTURE_H
