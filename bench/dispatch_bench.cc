// Dispatch decision cost per kind of traffic, and the debug trace's cost
// when its level is off and on.
#include <benchmark/benchmark.h>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "support/frames.h"

namespace vane::test {
namespace {

// Loads the module for one benchmark with the suites' usual configuration.
class Loaded {
 public:
  Loaded() {
    vane_entry_init();
    BYPASS_PKT_OFFSET_S cfg = TestRanges();
    bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), sizeof(cfg));
  }
  ~Loaded() { vane_entry_exit(); }
};

void Decide(benchmark::State& state, Bytes buf) {
  for (auto _ : state) {
    uint32_t count = 0;
    uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
    bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list);
    benchmark::DoNotOptimize(count);
  }
}

void BM_DecideEcm(benchmark::State& state) {
  Loaded module;
  Decide(state, EcmFrame(3, 5));
}
BENCHMARK(BM_DecideEcm);

void BM_DecideMultiCore(benchmark::State& state) {
  Loaded module;
  Decide(state, EcmFrame(25, 5));
}
BENCHMARK(BM_DecideMultiCore);

void BM_DecideOtherInterface(benchmark::State& state) {
  Loaded module;
  Decide(state, EcmFrame(99, 5));
}
BENCHMARK(BM_DecideOtherInterface);

void BM_DecideEcmWithTrace(benchmark::State& state) {
  Loaded module;
  Bytes buf = EcmFrame(3, 5);
  for (auto _ : state) {
    // Keep the buffer from filling so every iteration formats and appends.
    if (g_ulDebugLen > 16384) {
      g_ulDebugLen = 0;
    }
    g_ulDebugLevel = BYPASS_DEBUG_LEVEL_PKT;
    uint32_t count = 0;
    uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
    bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list);
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(BM_DecideEcmWithTrace);

void BM_DebugOutDisabled(benchmark::State& state) {
  Loaded module;
  for (auto _ : state) bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nvcpu=%u", 5u);
}
BENCHMARK(BM_DebugOutDisabled);

}  // namespace
}  // namespace vane::test
