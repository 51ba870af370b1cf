// Fragment-table costs: first, middle and last fragments on several threads
// while the ageing sweep runs, and the allocations a first fragment makes.
#include <benchmark/benchmark.h>

#include "drv_vane/entry.h"
#include "drv_vane/frag.h"
#include "kport/user/testing.h"

namespace vane::test {
namespace {

BYPASS_PKT_INFO_S Frag(u32 thread, u32 id) {
  BYPASS_PKT_INFO_S p{};
  p.usProtocolType = 0x0800;
  p.ulSrcIp = 0xC0A80000u + thread;
  p.ulDstIp = 0xC0A80101u;
  p.ulId = id;
  p.ucVcpuId = static_cast<u8>(thread % 63 + 1);
  return p;
}

// Run once around all threads of a run: load, arm the sweep, unload.
void LoadWithFastSweep(const benchmark::State&) {
  vane_entry_init();
  // A sweep every tick, so that sweeps contend with the traffic.
  g_bypass_ipV4FragHash->lTimerPeriod = 1;
  BYPASS_PKT_INFO_S warm = Frag(999, 0);
  bypass_ipfrag_addInHash(&warm);  // arms the ageing timer
}
void Unload(const benchmark::State&) { vane_entry_exit(); }

// One datagram of three fragments per iteration, each thread its own source.
void BM_FragEnterFindRemove(benchmark::State& state) {
  const u32 t = static_cast<u32>(state.thread_index());
  u32 id = 0;
  for (auto _ : state) {
    BYPASS_PKT_INFO_S p = Frag(t, id++ & 0xFFFF);
    u8 vcpu = 0;
    bypass_ipfrag_addInHash(&p);
    bypass_ipfrag_findVcpuInHash(&p, &vcpu);
    bypass_ipfrag_delInHash(&p, 0x0800, &vcpu);
    benchmark::DoNotOptimize(vcpu);
  }
  state.SetItemsProcessed(state.iterations() * 3);
}
BENCHMARK(BM_FragEnterFindRemove)
    ->Setup(LoadWithFastSweep)
    ->Teardown(Unload)
    ->ThreadRange(1, 4)
    ->UseRealTime();

// Allocations per first fragment: one record and one node.
void BM_FragAllocationsPerFirstFragment(benchmark::State& state) {
  vane_entry_init();
  u32 id = 0;
  u64 entries = 0;
  u64 by_first = 0;
  u64 by_middle = 0;
  for (auto _ : state) {
    BYPASS_PKT_INFO_S p = Frag(1, id++);
    const size_t before = kport::user::LiveAllocations();
    if (bypass_ipfrag_addInHash(&p) == 0) ++entries;
    const size_t after_first = kport::user::LiveAllocations();
    u8 vcpu = 0;
    bypass_ipfrag_findVcpuInHash(&p, &vcpu);
    by_middle += kport::user::LiveAllocations() - after_first;
    by_first += after_first - before;
    bypass_ipfrag_delInHash(&p, 0x0800, &vcpu);
  }
  state.counters["allocs_per_first_fragment"] =
      static_cast<double>(by_first) / static_cast<double>(entries);
  state.counters["allocs_per_middle_fragment"] =
      static_cast<double>(by_middle) / static_cast<double>(entries);
  vane_entry_exit();
}
BENCHMARK(BM_FragAllocationsPerFirstFragment)->Iterations(10000);

}  // namespace
}  // namespace vane::test
