// Captures on several threads at once, with later events and store reads
// running beside them: every captured packet gets a number of its own and
// is read back exactly once, whole. Run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "drv_vane/capture.h"
#include "support/capture_env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

constexpr int kRounds = 20;
constexpr int kCatchers = 4;
constexpr uint32_t kTries = 20;  // per catcher and round: more than a run holds
constexpr size_t kTagAt = 42;    // first payload byte of CaptureFrame

uint32_t TagOf(const BYPASS_CATCH_PKT_S& e) {
  return static_cast<uint32_t>(e.aucData[kTagAt]) << 24 | e.aucData[kTagAt + 1] << 16 |
         e.aucData[kTagAt + 2] << 8 | e.aucData[kTagAt + 3];
}

class CaptureStressTest : public ModuleTest {};

TEST_F(CaptureStressTest, ConcurrentCapturesEventsAndReadsFindEveryPacketOnce) {
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(ArmCapture(CaptureBlock(BYPASS_CATCH_PKT_NUM)), 100);

    std::mutex mu;
    std::map<uint32_t, uint8_t> captured;  // tag -> mark
    std::vector<uint32_t> queue;           // tags awaiting their later event
    std::vector<BYPASS_CATCH_PKT_S> read;  // every entry the readers got
    std::atomic<bool> catching{true};

    std::vector<std::thread> pool;
    for (int t = 0; t < kCatchers; ++t) {
      pool.emplace_back([&, t] {
        for (uint32_t i = 0; i < kTries; ++i) {
          const uint32_t tag = static_cast<uint32_t>(round) << 24 | t << 16 | i;
          Bytes f = CaptureFrame(tag);
          uint8_t mark = 0;
          if (bypass_IsNeedCatchPkt(f.data(), static_cast<uint32_t>(f.size()), 1, &mark, 0) == 1) {
            std::lock_guard<std::mutex> lock(mu);
            captured[tag] = mark;
            queue.push_back(tag);
          }
        }
      });
    }
    std::thread events([&] {
      while (catching.load()) {
        std::vector<std::pair<uint32_t, uint8_t>> todo;
        {
          std::lock_guard<std::mutex> lock(mu);
          for (uint32_t tag : queue) todo.emplace_back(tag, captured[tag]);
          queue.clear();
        }
        for (auto [tag, mark] : todo) {
          bypass_TS_RecvPktEvent(2, nullptr, 0, static_cast<uint16_t>(tag), mark, 2);
        }
        std::this_thread::yield();
      }
    });
    std::thread reader([&] {
      while (catching.load()) {
        auto used = UsedEntries(ReadCaptureStore());
        std::lock_guard<std::mutex> lock(mu);
        read.insert(read.end(), used.begin(), used.end());
      }
    });
    for (auto& th : pool) th.join();
    catching = false;
    events.join();
    reader.join();
    auto rest = UsedEntries(ReadCaptureStore());
    read.insert(read.end(), rest.begin(), rest.end());

    // One number each, 0 to 29, and the run used up.
    ASSERT_EQ(captured.size(), static_cast<size_t>(BYPASS_CATCH_PKT_NUM));
    std::set<uint8_t> marks;
    for (auto [tag, mark] : captured) marks.insert(mark);
    EXPECT_EQ(marks.size(), captured.size());
    EXPECT_EQ(*marks.begin(), 0x80);
    EXPECT_EQ(*marks.rbegin(), 0x80 + BYPASS_CATCH_PKT_NUM - 1);

    // Every captured packet read back once, whole, with its own number.
    std::map<uint32_t, int> seen;
    for (const auto& e : read) {
      const uint32_t tag = TagOf(e);
      ++seen[tag];
      auto it = captured.find(tag);
      ASSERT_NE(it, captured.end()) << "an entry no capture made: " << tag;
      EXPECT_EQ(e.ucNum, it->second & 0x3F);
      EXPECT_EQ(e.usLen, CaptureFrame().size());
      EXPECT_EQ(e.astTime[0].ucUsed, 1);
      EXPECT_EQ(e.astTime[0].usEvent, 1);
      if (e.astTime[1].ucUsed != 0) {
        EXPECT_EQ(e.astTime[1].usEvent, static_cast<uint16_t>(tag));
      }
    }
    EXPECT_EQ(seen.size(), captured.size());
    for (auto [tag, n] : seen) EXPECT_EQ(n, 1) << tag;
  }
}

}  // namespace
}  // namespace vane::test
