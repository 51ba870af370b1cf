// Lookups racing one writer on the CAPWAP and keep-alive tables: keys that
// stay in the table must always be found with one of the processes they
// ever had, and churned keys must be found with theirs or not at all. Meant
// for the ThreadSanitizer and AddressSanitizer builds, where a torn
// publication or an early free shows up as a report.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "drv_vane/wlan_lb.h"
#include "kport/rcu.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

constexpr u32 kStable = 16;  // keys 0..15: always present
constexpr u32 kChurn = 32;   // keys 16..47: added, updated and deleted
constexpr u32 kReaders = 2;
constexpr auto kRunTime = std::chrono::milliseconds(1500);

// Key i, with the processes it may carry: base(i) or base(i) + 1000.
u32 Base(u32 i) { return 100 + i; }
bool Valid(u32 i, u64 process) { return process == Base(i) || process == Base(i) + 1000; }

WLAN_LB_CAPWAP_NODE_S CapwapNode(u32 i, u32 process) {
  WLAN_LB_CAPWAP_NODE_S n{};
  n.sip = 0x0A000000u + i;
  n.dip = 0x0A0000FEu;
  n.sport = static_cast<u16>(10000 + i);
  n.dport = 5246;
  n.process = process;
  return n;
}

WLAN_LB_CAPWAP_KA_NODE_S KaNode(u32 i, u32 process) {
  return WLAN_LB_CAPWAP_KA_NODE_S{{i, i * 7, 0xABCD, ~i}, process};
}

struct Misses {
  std::atomic<u64> stable_missed{0};
  std::atomic<u64> wrong_process{0};
  std::atomic<u64> lookups{0};
};

void Reader(const std::atomic<bool>& stop, Misses& m) {
  u64 n = 0;
  while (!stop.load(std::memory_order_relaxed)) {
    for (u32 i = 0; i < kStable + kChurn; ++i) {
      const WLAN_LB_CAPWAP_NODE_S c = CapwapNode(i, 0);
      const WLAN_LB_FIVE_TUPLE_S five{c.sip, c.dip, c.sport, c.dport, 0, 0};
      const WLAN_LB_CAPWAP_KA_NODE_S k = KaNode(i, 0);
      const WLAN_LB_SESSION_KEY_S session{
          {k.ulSessionID[0], k.ulSessionID[1], k.ulSessionID[2], k.ulSessionID[3]}, 0};
      for (int table = 0; table < 2; ++table) {
        u64 out = 0;
        const u32 rc = table == 0 ? WLAN_LB_GetVCPUIDByCAPWAPKey(&five, &out)
                                  : WLAN_LB_GetVCPUIDByCAPWAPSessionidKey(&session, &out);
        ++n;
        if (rc != WLAN_LB_OK) {
          if (i < kStable) m.stable_missed.fetch_add(1);
        } else if (!Valid(i, out)) {
          m.wrong_process.fetch_add(1);
        }
      }
    }
  }
  m.lookups.fetch_add(n);
}

class CapwapStressTest : public ModuleTest {};

TEST_F(CapwapStressTest, LookupsSeeWholeEntriesWhileOneWriterChurns) {
  ASSERT_NE(WLAN_LB_InitCAPWAPLBHashTable(), nullptr);
  ASSERT_NE(WLAN_LB_InitCAPWAPKeepAliveLBHashTable(), nullptr);
  for (u32 i = 0; i < kStable; ++i) {
    const WLAN_LB_CAPWAP_NODE_S c = CapwapNode(i, Base(i));
    const WLAN_LB_CAPWAP_KA_NODE_S k = KaNode(i, Base(i));
    ASSERT_EQ(WLAN_LB_CAPWAP_LB_AddHashNode(&c), WLAN_LB_OK);
    ASSERT_EQ(WLAN_LB_CAPWAP_KA_LB_AddHashNode(&k), WLAN_LB_OK);
  }

  std::atomic<bool> stop{false};
  Misses misses;
  std::vector<std::thread> readers;
  for (u32 r = 0; r < kReaders; ++r)
    readers.emplace_back(Reader, std::cref(stop), std::ref(misses));

  u64 rounds = 0;
  const auto end = std::chrono::steady_clock::now() + kRunTime;
  while (std::chrono::steady_clock::now() < end) {
    for (u32 i = 0; i < kStable + kChurn; ++i) {
      const u32 process = Base(i) + ((rounds + i) % 2 == 0 ? 0 : 1000);
      const WLAN_LB_CAPWAP_NODE_S c = CapwapNode(i, process);
      const WLAN_LB_CAPWAP_KA_NODE_S k = KaNode(i, process);
      // Stable keys are only ever updated; churned ones come and go.
      const bool remove = i >= kStable && (rounds + i) % 3 == 0;
      if (remove) {
        WLAN_LB_CAPWAP_LB_DeleteHashNode(&c);
        WLAN_LB_CAPWAP_KA_LB_DeleteHashNode(&k);
      } else {
        EXPECT_EQ(WLAN_LB_CAPWAP_LB_AddHashNode(&c), WLAN_LB_OK);
        EXPECT_EQ(WLAN_LB_CAPWAP_KA_LB_AddHashNode(&k), WLAN_LB_OK);
      }
    }
    ++rounds;
  }
  stop.store(true);
  for (std::thread& t : readers) t.join();

  EXPECT_EQ(misses.stable_missed.load(), 0u);
  EXPECT_EQ(misses.wrong_process.load(), 0u);
  EXPECT_GT(misses.lookups.load(), 0u);
  EXPECT_GT(rounds, 1u);
  EXPECT_LE(g_CAPWAP_LB_Table->ulElemCnt, u64{kStable + kChurn});
  EXPECT_GE(g_CAPWAP_LB_Table->ulElemCnt, u64{kStable});
  kport_rcu_barrier();
}

}  // namespace
}  // namespace vane::test
