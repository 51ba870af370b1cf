// vanectl top's rates: a cleared counter is not a wrap of four billion
// packets, and the screen shows the vCPUs and types that moved.
#include <gtest/gtest.h>

#include "rates.h"

namespace {

TEST(Top, RatesOverTheIntervalWithClearsTakenAsResets) {
  EXPECT_EQ(vanectl::Delta(10, 25), 15u);
  EXPECT_EQ(vanectl::Delta(1000, 3), 3u);

  vane_counters before{};
  vane_counters now{};
  before.dispatched[2] = 100;
  now.dispatched[2] = 300;
  now.ecm[2] = 50;
  before.dispatched[7] = 1000000;  // cleared, then 20 more
  now.dispatched[7] = 20;
  now.wlan[7][4] = 10;
  now.wlan[9][4] = 30;
  const std::string screen = vanectl::TopScreen(before, now, 2.0);
  EXPECT_EQ(screen,
            "155.0 packets/s over 2.0 s\n"
            "\n"
            "VCPU  DISPATCHED/S  VP/S  ECM/S  WLAN/S  TOTAL\n"
            "   2         100.0   0.0   25.0     0.0    350\n"
            "   7          10.0   0.0    0.0     5.0     30\n"
            "   9           0.0   0.0    0.0    15.0     30\n"
            "\n"
            "PKT_TYPE  WLAN/S\n"
            "       4    20.0\n");
  EXPECT_EQ(vanectl::TopScreen(now, now, 1.0),
            "0.0 packets/s over 1.0 s\n\n"
            "VCPU  DISPATCHED/S  VP/S  ECM/S  WLAN/S  TOTAL\n"
            "   2           0.0   0.0    0.0     0.0    350\n"
            "   7           0.0   0.0    0.0     0.0     30\n"
            "   9           0.0   0.0    0.0     0.0     30\n");
}

}  // namespace
