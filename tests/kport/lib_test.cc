// simple_strtol and the captured kernel log.
#include <gtest/gtest.h>

#include "kport/lib.h"
#include "kport/printk.h"
#include "kport/user/testing.h"

namespace {

struct StrtolCase {
  const char* text;
  unsigned int base;
  long value;
  size_t used;  // characters consumed, as *endp reports
};

class SimpleStrtol : public ::testing::TestWithParam<StrtolCase> {};

TEST_P(SimpleStrtol, ParsesLikeTheKernel) {
  const StrtolCase& c = GetParam();
  char* end = nullptr;
  EXPECT_EQ(kport_simple_strtol(c.text, &end, c.base), c.value);
  EXPECT_EQ(static_cast<size_t>(end - c.text), c.used);
}

INSTANTIATE_TEST_SUITE_P(Cases, SimpleStrtol,
                         ::testing::Values(StrtolCase{"0x10", 0, 16, 4},
                                           StrtolCase{"0X1f", 0, 31, 4}, StrtolCase{"010", 0, 8, 3},
                                           StrtolCase{"19", 0, 19, 2}, StrtolCase{"-5", 10, -5, 2},
                                           StrtolCase{"-0x10", 0, -16, 5},
                                           StrtolCase{" 5", 10, 0, 0}, StrtolCase{"abc", 10, 0, 0},
                                           StrtolCase{"12abc", 10, 12, 2},
                                           StrtolCase{"0xff", 16, 255, 4},
                                           StrtolCase{"0xg", 0, 0, 1},  // no hex digit: octal "0"
                                           StrtolCase{"089", 0, 0, 1}, StrtolCase{"-", 10, 0, 1}));

TEST(Klog, KeepsEachLineAsFormattedWithItsLevel) {
  namespace klog = kport::user::klog;
  klog::Clear();
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: %s %d.\r\n", "code", 7);
  kport_printk(KPORT_LOGLEVEL_INFO, "plain");
  ASSERT_EQ(klog::Lines().size(), 2u);
  EXPECT_TRUE(klog::Contains(1, "\r\nErr: code 7.\r\n"));
  EXPECT_FALSE(klog::Contains(KPORT_LOGLEVEL_INFO, "\r\nErr: code 7.\r\n")) << "wrong level";
  EXPECT_FALSE(klog::Contains(KPORT_LOGLEVEL_INFO, "pla")) << "whole lines only";
  EXPECT_TRUE(klog::ContainsFragment("code 7"));
  klog::Clear();
  EXPECT_TRUE(klog::Lines().empty());
}

}  // namespace
