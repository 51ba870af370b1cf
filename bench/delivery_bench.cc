// Whole delivery cost on the user-space backend: decision, socket buffer,
// copy and in-memory unicast. The kernel's own unicast costs differ; this
// tracks the module's share from change to change.
#include <benchmark/benchmark.h>

#include <memory>

#include "drv_vane/config.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

void BM_DeliverToDefaultReceiver(benchmark::State& state) {
  vane_entry_init();
  {
    Worker worker(9001, /*queue_limit=*/1u << 20);
    worker.Register(kNormal, 0);
    Bytes buf(static_cast<size_t>(state.range(0)), 0x5A);
    buf[0] = 1;
    size_t sent = 0;
    for (auto _ : state) {
      benchmark::DoNotOptimize(netlink_send_msg(2, buf.data(), static_cast<uint32_t>(buf.size())));
      if (++sent % 4096 == 0) {
        state.PauseTiming();
        while (worker.port(kNormal).Receive()) {
        }
        state.ResumeTiming();
      }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
  }
  vane_entry_exit();
}
BENCHMARK(BM_DeliverToDefaultReceiver)->Arg(64)->Arg(1500)->Arg(10000);

}  // namespace
}  // namespace vane::test
