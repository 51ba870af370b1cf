// Per-processor counters, steering-table and TIMNG lookups: the cost of one
// call, and how the counters scale with threads (each thread its own
// counter, so only a shared cache line could hold the rate back).
#include <benchmark/benchmark.h>

#include <thread>

#include "debug/debug_internal.h"
#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "support/frames.h"

namespace vane::test {
namespace {

// Loaded once per run, before its threads start and after they end.
void Load(const benchmark::State&) {
  vane_entry_init();
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), sizeof(cfg));
  InstallBenchSteering();
}
void Unload(const benchmark::State&) { vane_entry_exit(); }

// 1, 2, ... up to the machine's processors.
const int kCpus = static_cast<int>(std::thread::hardware_concurrency());

void BM_CountPacket(benchmark::State& state) {
  const u32 index = 1 + static_cast<u32>(state.thread_index()) % 63;
  for (auto _ : state) count_packet(index);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CountPacket)->DenseThreadRange(1, kCpus)->UseRealTime()->Setup(Load)->Teardown(Unload);

void BM_DecideEcmOnThreads(benchmark::State& state) {
  Bytes buf = EcmFrame(3, static_cast<uint8_t>(1 + state.thread_index() % 63));
  for (auto _ : state) {
    uint32_t count = 0;
    uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
    bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list);
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecideEcmOnThreads)
    ->DenseThreadRange(1, kCpus)
    ->UseRealTime()
    ->Setup(Load)
    ->Teardown(Unload);

void BM_SteeringLookup(benchmark::State& state) {
  const auto cause = static_cast<u16>(state.range(0));
  for (auto _ : state) {
    u32 count = 0;
    u8 vcpu = 0;
    benchmark::DoNotOptimize(bypass_msg_get_ivo_vcpuid(cause, &count, &vcpu));
  }
}
// List slot 3, the range, and a miss through both tables.
BENCHMARK(BM_SteeringLookup)->Arg(13)->Arg(150)->Arg(999)->Setup(Load)->Teardown(Unload);

void BM_TimngLookup(benchmark::State& state) {
  for (auto _ : state) {
    u32 count = 0;
    u8 vcpu = 0;
    benchmark::DoNotOptimize(TIMNG_GetVcpuIdByCauseid(300, &count, &vcpu));
  }
}
BENCHMARK(BM_TimngLookup)->Setup(Load)->Teardown(Unload);

}  // namespace
}  // namespace vane::test
