// The debug printouts in the kernel log as an operator reads it the moment
// the command is acknowledged: each printout's last message is there
// already, whole, at alert level. A kernel holds a record open until it is
// closed by a newline, so a last message that is not closed would show only
// once some later message arrived.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using DebugLogTest = ModuleTest;

void Put16(Bytes& b, size_t off, uint16_t v) {
  b[off] = static_cast<uint8_t>(v);
  b[off + 1] = static_cast<uint8_t>(v >> 8);
}

// Message 11: the deteption table (type 1) for vCPU 9 with two cause IDs.
Bytes DeteptionTable() {
  Bytes t(60, 0);
  t[0] = 1;   // enabled
  t[4] = 1;   // deteption
  t[8] = 9;   // vCPU
  t[12] = 2;  // two cause IDs
  Put16(t, 16, 651);
  Put16(t, 18, 652);
  return t;
}

// catchPkt: slot mask 1 << 2, slot 2, a run of 4 captures switched on, which
// sets up the store that command 19 lists.
Bytes ArmCapture() {
  Bytes b(100, 0);
  b[0] = 1 << 2;
  b[4] = 2;
  Put16(b, 8 + 4, 4);
  Put16(b, 8 + 6, 4);
  b[8 + 88] = 1;
  return b;
}

// The last alert-level message of the log.
std::string LastAlert() {
  const std::vector<LogLine> log = env().Log();
  for (auto it = log.rbegin(); it != log.rend(); ++it) {
    if (it->level == 1) return it->text;
  }
  return "(no alert-level message)";
}

TEST_F(DebugLogTest, APrintoutEndsInTheLogByTheAcknowledgement) {
  Worker w;
  const auto last_after = [&](uint8_t command) {
    env().ClearLog();
    EXPECT_EQ(w.Debug(command), 0);
    return LastAlert();
  };
  // Load-time state.
  EXPECT_EQ(last_after(12), "\r\nboard type is 0\xA3\xACg_ulDebugLevel=0");
  EXPECT_EQ(last_after(20), "\r\nDeteption  vcpuid:0");

  // With what each printout shows.
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulBoardType = 3;
  ASSERT_EQ(w.Configure(cfg), 0);
  SetDebugLevel(5);
  ASSERT_EQ(w.Control(11, DeteptionTable()), 0);
  ASSERT_EQ(env().Write("/proc/bypassDebug/catchPkt", ArmCapture()), 100);
  EXPECT_EQ(last_after(12), "\r\nboard type is 3\xA3\xACg_ulDebugLevel=5");
  EXPECT_EQ(last_after(20), "\r\nDeteption  causeid[1]:652");
  EXPECT_EQ(last_after(19),
            "\r\nii=29,len=0,slot=0,num=0,used=0\r\n0:used=0, even=0,sec=0,usec=0"
            "\r\n1:used=0, even=0,sec=0,usec=0");
}

}  // namespace
}  // namespace vane::test
