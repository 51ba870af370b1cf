// Per-processor counter blocks of the user backend: exact sums however the
// adds are spread over threads and processors, and fault injection.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "kport/percpu.h"
#include "kport/user/testing.h"

namespace {

namespace fault = kport::user::fault;

TEST(Percpu, SumsAreExactUnderConcurrentAddsFromManyThreads) {
  const size_t live = kport::user::LiveAllocations();
  constexpr size_t kWords = 20;  // spans more than one cache line
  kport_percpu_t* pcp = kport_percpu_alloc(kWords * sizeof(u32));
  ASSERT_NE(pcp, nullptr);
  std::vector<u32> zero(kWords, 1);
  kport_percpu_sum_u32(pcp, 0, zero.data(), kWords);
  EXPECT_EQ(zero, std::vector<u32>(kWords, 0));

  constexpr int kThreads = 8;
  constexpr u32 kAdds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([pcp, t] {
      for (u32 i = 0; i < kAdds; ++i) {
        kport_percpu_add_u32(pcp, (i % kWords) * sizeof(u32), 1);
        if (i % 64 == 0) std::this_thread::yield();
      }
      kport_percpu_add_u32(pcp, 19 * sizeof(u32), static_cast<u32>(t));
    });
  }
  // A reader summing while the adds run sees no counter beyond its total.
  std::vector<u32> partial(kWords);
  kport_percpu_sum_u32(pcp, 0, partial.data(), kWords);
  for (u32 v : partial) EXPECT_LE(v, kThreads * kAdds);
  for (auto& th : threads) th.join();

  std::vector<u32> sums(kWords);
  kport_percpu_sum_u32(pcp, 0, sums.data(), kWords);
  for (size_t w = 0; w < kWords; ++w) {
    u32 expected = kThreads * (kAdds / kWords);
    if (w == 19) expected += 0 + 1 + 2 + 3 + 4 + 5 + 6 + 7;
    EXPECT_EQ(sums[w], expected) << "word " << w;
  }
  // A sub-range starts at its own offset.
  u32 one = 0;
  kport_percpu_sum_u32(pcp, 19 * sizeof(u32), &one, 1);
  EXPECT_EQ(one, sums[19]);

  // Threads that exited left their counts behind; new threads adding to
  // the same block set build on them.
  threads.clear();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([pcp] { kport_percpu_add_u32(pcp, 0, 5); });
  }
  for (auto& th : threads) th.join();
  kport_percpu_sum_u32(pcp, 0, &one, 1);
  EXPECT_EQ(one, sums[0] + kThreads * 5);
  kport_percpu_free(pcp);
  EXPECT_EQ(kport::user::LiveAllocations(), live);
}

TEST(Percpu, AllocationIsAnInjectableAllocationSite) {
  const size_t live = kport::user::LiveAllocations();
  fault::FailNth(fault::Site::kAlloc, 1);
  EXPECT_EQ(kport_percpu_alloc(64), nullptr);
  fault::ClearAll();
  EXPECT_EQ(kport::user::LiveAllocations(), live);
  kport_percpu_free(nullptr);
}

}  // namespace
