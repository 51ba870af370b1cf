// LB messages (control message 10) from a worker and the views an operator
// reads back, all through env(), so that scenarios may use them.
#ifndef VANE_TESTS_WLAN_LB_LB_FIXTURE_H
#define VANE_TESTS_WLAN_LB_LB_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/wlan_msgs.h"

namespace vane::test {

inline constexpr char kAttr[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
inline constexpr char kCapwapFile[] = "/proc/wlan_lb/capwap";
inline constexpr char kKaFile[] = "/proc/wlan_lb/capwap_ka";

// Cut to `len` bytes, or padded with zeros.
inline Bytes Resized(Bytes m, size_t len) {
  m.resize(len, 0);
  return m;
}

// Chooses a view of the attribute and reads it.
inline std::string View(const std::string& selector) {
  EXPECT_EQ(env().Write(kAttr, Bytes(selector.begin(), selector.end())),
            static_cast<long>(selector.size()));
  const Bytes text = env().Read(kAttr).value_or(Bytes{'?'});
  return std::string(text.begin(), text.end());
}

// The numbers of the statistics view: the seven message counters by set
// type, then the board type.
inline std::vector<uint32_t> Stats() {
  std::vector<uint32_t> out;
  const std::string text = View("3");
  for (size_t at = text.find(':'); at != std::string::npos; at = text.find(':', at + 1)) {
    out.push_back(static_cast<uint32_t>(std::strtoul(text.c_str() + at + 1, nullptr, 10)));
  }
  return out;
}

// What the two proc files show for a key written first.
inline Bytes CapwapRecords(uint64_t sip) {
  EXPECT_EQ(env().Write(kCapwapFile, RecordBytes(sip)), 8);
  return env().Read(kCapwapFile).value_or(Bytes{});
}
inline Bytes KaRecord(const uint32_t (&session)[4]) {
  EXPECT_EQ(env().Write(kKaFile, RecordBytes(session)), 16);
  return env().Read(kKaFile).value_or(Bytes{});
}

// The module loaded around each test, with a worker registered as the
// default receiver that sends the LB messages.
class LbModuleTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ctl_.emplace();
    ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
  }
  void TearDown() override {
    ctl_.reset();
    ModuleTest::TearDown();
  }
  // The acknowledgement's code.
  int Send(const Bytes& msg, const CtrlOptions& opt = {}) {
    return ctl_->Control(10, msg, kNormal, opt).value_or(-9999);
  }

  std::optional<Worker> ctl_;
};

}  // namespace vane::test

#endif  // VANE_TESTS_WLAN_LB_LB_FIXTURE_H
