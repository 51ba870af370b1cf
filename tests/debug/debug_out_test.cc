// The debug text buffer: level mask, the "Buff is full" rule, cutting of
// texts that do not fit, and concurrent writers that never overlap.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "drv_vane/debug.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

class DebugOutTest : public ModuleTest {};

TEST_F(DebugOutTest, OnlyEnabledLevelsAreWritten) {
  bypass_debug_out(1, "\r\nbefore any level");
  EXPECT_EQ(DebugText(), "");
  SetDebugLevel(1);
  bypass_debug_out(4, "\r\npacket %d", 1);
  bypass_debug_out(1, "\r\nconfig %s", "x");
  EXPECT_EQ(DebugText(), "\r\nconfig x");
  SetDebugLevel(5);
  bypass_debug_out(4, "\r\npacket %d", 2);
  bypass_debug_out(1, "\r\nconfig %u", 3u);
  bypass_debug_out(2, "\r\nlevel two");
  EXPECT_EQ(DebugText(), "\r\npacket 2\r\nconfig 3");
  EXPECT_EQ(g_ulDebugLen, 20u);
}

TEST_F(DebugOutTest, PastTheMarkOnlyTheFullLineIsWrittenAndOutputStops) {
  SetDebugLevel(1);
  const std::string msg = "\r\n" + std::string(100, 'm');
  // At exactly 32,268 a message still goes in whole.
  g_ulDebugLen = BYPASS_DEBUG_FULL_MARK;
  bypass_debug_out(1, "%s", msg.c_str());
  EXPECT_EQ(g_ulDebugLen, BYPASS_DEBUG_FULL_MARK + msg.size());
  EXPECT_EQ(std::string(g_pstDebug + BYPASS_DEBUG_FULL_MARK, msg.size()), msg);
  // Past it, the next enabled call writes only the full line.
  const uint64_t at = g_ulDebugLen;
  bypass_debug_out(1, "%s", msg.c_str());
  const std::string full = "\r\n********Buff is full********";
  EXPECT_EQ(std::string(g_pstDebug + at, full.size()), full);
  EXPECT_EQ(g_ulDebugLen, at + full.size());
  EXPECT_EQ(g_ulDebugLevel, 0u);
  bypass_debug_out(1, "%s", msg.c_str());
  EXPECT_EQ(g_ulDebugLen, at + full.size());
  // Writing the level is the way back.
  SetDebugLevel(1);
  bypass_debug_out(1, "\r\nagain");
  EXPECT_EQ(DebugText(), "\r\nagain");
}

TEST_F(DebugOutTest, TextsThatDoNotFitAreCutShortWithinTheTextArea) {
  SetDebugLevel(1);
  const std::string huge(2000, 'h');
  bypass_debug_out(1, "%s", huge.c_str());
  EXPECT_EQ(g_ulDebugLen, BYPASS_DEBUG_MSG_MAX);
  // 500 bytes of room at the mark: a 511-byte text is cut to 500.
  g_ulDebugLen = BYPASS_DEBUG_FULL_MARK;
  bypass_debug_out(1, "%s", huge.c_str());
  EXPECT_EQ(g_ulDebugLen, BYPASS_DEBUG_BUF_TEXT);
  // No room at all: the full line is not written past the text area.
  bypass_debug_out(1, "x");
  EXPECT_EQ(g_ulDebugLen, BYPASS_DEBUG_BUF_TEXT);
  EXPECT_EQ(g_ulDebugLevel, 0u);
  EXPECT_EQ(g_pstDebug[BYPASS_DEBUG_BUF_TEXT], 0);
}

TEST_F(DebugOutTest, ConcurrentWritersGetDisjointRanges) {
  SetDebugLevel(1);
  constexpr int kThreads = 4;
  constexpr int kPerThread = 600;  // 4 * 600 * 12 bytes stays below the mark
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) bypass_debug_out(1, "<%d:%06d>\r\n", t, i);
    });
  }
  for (auto& th : threads) th.join();
  const std::string text = DebugText();
  ASSERT_EQ(text.size(), size_t{kThreads} * kPerThread * 12);
  ASSERT_EQ(g_ulDebugLen, text.size());
  std::map<int, int> next;  // each writer's texts appear whole and in order
  for (size_t pos = 0; pos < text.size(); pos += 12) {
    int t = -1;
    int i = -1;
    ASSERT_EQ(std::sscanf(text.c_str() + pos, "<%d:%06d>", &t, &i), 2) << "at " << pos;
    ASSERT_EQ(text.substr(pos + 10, 2), "\r\n");
    EXPECT_EQ(i, next[t]++);
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kPerThread);
}

}  // namespace
}  // namespace vane::test
