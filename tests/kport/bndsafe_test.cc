// The bounds-checked routines: results, and that a failure never writes past
// destMax and leaves the promised contents behind.
#include "kport/bndsafe.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// A destination of kMax usable bytes followed by guard bytes that no call
// may touch.
class Dest {
 public:
  static constexpr size_t kMax = 8;
  Dest() { std::memset(bytes_, '#', sizeof(bytes_)); }
  char* get() { return bytes_; }
  std::string usable() const { return std::string(bytes_, kMax); }
  bool guard_intact() const {
    for (size_t i = kMax; i < sizeof(bytes_); ++i) {
      if (bytes_[i] != '#') return false;
    }
    return true;
  }

 private:
  char bytes_[kMax + 8];
};

const std::string kZeros(Dest::kMax, '\0');

TEST(MemcpyS, CopiesWithinBounds) {
  Dest d;
  EXPECT_EQ(memcpy_s(d.get(), Dest::kMax, "abcdefgh", 8), BND_OK);
  EXPECT_EQ(d.usable(), "abcdefgh");
  EXPECT_EQ(memcpy_s(d.get(), Dest::kMax, "xy", 0), BND_OK);
  EXPECT_EQ(d.usable(), "abcdefgh") << "count 0 writes nothing";
  EXPECT_TRUE(d.guard_intact());
}

TEST(MemcpyS, FailuresResetTheDestinationAndStayInBounds) {
  Dest d;
  EXPECT_EQ(memcpy_s(d.get(), Dest::kMax, "123456789", 9), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);

  std::memset(d.get(), 'q', Dest::kMax);
  EXPECT_EQ(memcpy_s(d.get(), Dest::kMax, nullptr, 4), BND_EINVAL_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);

  std::memcpy(d.get(), "abcdefgh", 8);
  EXPECT_EQ(memcpy_s(d.get(), Dest::kMax, d.get() + 2, 4), BND_EOVERLAP_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  EXPECT_TRUE(d.guard_intact());
}

TEST(MemcpyS, UnusableDestinationIsNotTouched) {
  Dest d;
  EXPECT_EQ(memcpy_s(nullptr, 8, "ab", 2), BND_EINVAL);
  // A negative length converted to size_t.
  EXPECT_EQ(memcpy_s(d.get(), static_cast<size_t>(-1), "ab", 2), BND_EINVAL);
  EXPECT_EQ(d.usable(), std::string(Dest::kMax, '#'));
}

TEST(MemsetS, FillsOrFillsWholeDestinationOnOverflow) {
  Dest d;
  EXPECT_EQ(memset_s(d.get(), Dest::kMax, 'a', 3), BND_OK);
  EXPECT_EQ(d.usable(), "aaa#####");
  EXPECT_EQ(memset_s(d.get(), Dest::kMax, 'b', 100), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), std::string(Dest::kMax, 'b'));
  EXPECT_TRUE(d.guard_intact());
  EXPECT_EQ(memset_s(nullptr, 8, 0, 1), BND_EINVAL);
}

TEST(SprintfS, TruncationIsAnErrorThatLeavesEmptyString) {
  Dest d;
  EXPECT_EQ(sprintf_s(d.get(), Dest::kMax, "%s-%d", "ab", 42), 5);
  EXPECT_STREQ(d.get(), "ab-42");
  EXPECT_EQ(sprintf_s(d.get(), Dest::kMax, "%s", "1234567"), 7) << "terminator fits exactly";
  EXPECT_EQ(sprintf_s(d.get(), Dest::kMax, "%s", "12345678"), -1);
  EXPECT_STREQ(d.get(), "");
  EXPECT_TRUE(d.guard_intact());
}

TEST(SprintfS, BadArguments) {
  Dest d;
  std::memcpy(d.get(), "stale", 6);
  const char* no_format = nullptr;
  EXPECT_EQ(sprintf_s(d.get(), Dest::kMax, no_format), -1);
  EXPECT_STREQ(d.get(), "") << "a usable destination is emptied";
  EXPECT_EQ(sprintf_s(nullptr, 8, "x"), -1);
  std::memcpy(d.get(), "stale", 6);
  EXPECT_EQ(sprintf_s(d.get(), 0, "x"), -1);
  EXPECT_STREQ(d.get(), "stale") << "destMax 0 gives nothing to write to";
}

TEST(SnprintfS, CutsAtCountOrDestMaxAndKeepsTheText) {
  Dest d;
  EXPECT_EQ(snprintf_s(d.get(), Dest::kMax, 3, "%s", "abcdef"), -1);
  EXPECT_STREQ(d.get(), "abc");
  EXPECT_EQ(snprintf_s(d.get(), Dest::kMax, 100, "%s", "abcdefghij"), -1);
  EXPECT_STREQ(d.get(), "abcdefg");
  EXPECT_TRUE(d.guard_intact());
  EXPECT_EQ(snprintf_s(d.get(), Dest::kMax, 6, "%d", 12345), 5);
  EXPECT_STREQ(d.get(), "12345");
  EXPECT_EQ(snprintf_s(d.get(), Dest::kMax, 0, "%s", ""), 0);
  EXPECT_EQ(snprintf_s(d.get(), 0, 4, "x"), -1);
}

}  // namespace
