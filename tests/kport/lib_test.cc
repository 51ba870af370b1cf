// The library routines the module takes from the platform: simple_strtol,
// the captured kernel log, and the bounds-checked copies and formats, whose
// failures never write past destMax and leave the promised contents behind.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kport/bndsafe.h"
#include "kport/lib.h"
#include "kport/printk.h"
#include "kport/user/testing.h"

namespace {

TEST(SimpleStrtol, ParsesLikeTheKernel) {
  struct Case {
    const char* text;
    unsigned int base;
    long value;
    size_t used;  // characters consumed, as *endp reports
  };
  const Case cases[] = {
      {"0x10", 0, 16, 4},   {"0X1f", 0, 31, 4},   {"010", 0, 8, 3}, {"19", 0, 19, 2},
      {"-5", 10, -5, 2},    {"-0x10", 0, -16, 5}, {" 5", 10, 0, 0}, {"abc", 10, 0, 0},
      {"12abc", 10, 12, 2}, {"0xff", 16, 255, 4}, {"089", 0, 0, 1}, {"-", 10, 0, 1},
      {"0xg", 0, 0, 1},  // no hex digit: octal "0"
  };
  for (const Case& c : cases) {
    char* end = nullptr;
    EXPECT_EQ(kport_simple_strtol(c.text, &end, c.base), c.value) << c.text;
    EXPECT_EQ(static_cast<size_t>(end - c.text), c.used) << c.text;
  }
}

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

constexpr size_t kMax = 8;

// kMax usable bytes followed by guard bytes that no call may touch.
struct Dest {
  Dest() { std::memset(bytes, '#', sizeof(bytes)); }
  std::string usable() const { return std::string(bytes, kMax); }
  bool guard_intact() const { return std::string(bytes + kMax, 8) == std::string(8, '#'); }
  char bytes[kMax + 8];
};

const std::string kZeros(kMax, '\0');

TEST(MemcpyS, CopiesOrResetsTheDestination) {
  Dest d;
  EXPECT_EQ(memcpy_s(d.bytes, kMax, "abcdefgh", 8), BND_OK);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, "xy", 0), BND_OK) << "count 0 writes nothing";
  EXPECT_EQ(d.usable(), "abcdefgh");

  EXPECT_EQ(memcpy_s(d.bytes, kMax, "123456789", 9), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  std::memcpy(d.bytes, "abcdefgh", 8);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, nullptr, 4), BND_EINVAL_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  std::memcpy(d.bytes, "abcdefgh", 8);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, d.bytes + 2, 4), BND_EOVERLAP_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  EXPECT_TRUE(d.guard_intact());
}

TEST(MemcpyS, UnusableDestinationIsNotTouched) {
  Dest d;
  EXPECT_EQ(memcpy_s(nullptr, 8, "ab", 2), BND_EINVAL);
  // A negative length converted to size_t.
  EXPECT_EQ(memcpy_s(d.bytes, static_cast<size_t>(-1), "ab", 2), BND_EINVAL);
  EXPECT_EQ(memset_s(d.bytes, static_cast<size_t>(-1), 0, 2), BND_EINVAL);
  EXPECT_EQ(d.usable(), std::string(kMax, '#'));
}

TEST(MemsetS, FillsTheWholeDestinationOnOverflow) {
  Dest d;
  EXPECT_EQ(memset_s(d.bytes, kMax, 'a', 3), BND_OK);
  EXPECT_EQ(d.usable(), "aaa#####");
  EXPECT_EQ(memset_s(d.bytes, kMax, 'b', 100), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), std::string(kMax, 'b'));
  EXPECT_TRUE(d.guard_intact());
}

TEST(SprintfS, TruncationIsAnErrorThatLeavesEmptyString) {
  Dest d;
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s-%d", "ab", 42), 5);
  EXPECT_STREQ(d.bytes, "ab-42");
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s", "1234567"), 7) << "terminator fits exactly";
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s", "12345678"), -1);
  EXPECT_STREQ(d.bytes, "");
  EXPECT_TRUE(d.guard_intact());

  std::memcpy(d.bytes, "stale", 6);
  const char* no_format = nullptr;
  EXPECT_EQ(sprintf_s(d.bytes, kMax, no_format), -1);
  EXPECT_STREQ(d.bytes, "") << "a usable destination is emptied";
  std::memcpy(d.bytes, "stale", 6);
  EXPECT_EQ(sprintf_s(d.bytes, 0, "x"), -1);
  EXPECT_STREQ(d.bytes, "stale") << "destMax 0 gives nothing to write to";
}

TEST(SnprintfS, CutsAtCountOrDestMaxAndKeepsTheText) {
  Dest d;
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 3, "%s", "abcdef"), -1);
  EXPECT_STREQ(d.bytes, "abc");
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 100, "%s", "abcdefghij"), -1);
  EXPECT_STREQ(d.bytes, "abcdefg");
  EXPECT_TRUE(d.guard_intact());
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 6, "%d", 12345), 5);
  EXPECT_STREQ(d.bytes, "12345");
  EXPECT_EQ(snprintf_s(d.bytes, 0, 4, "x"), -1);
}

}  // namespace
