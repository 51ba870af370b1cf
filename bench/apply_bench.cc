// The control path's apply rate: `vanectl apply` of a controller with N
// CAPWAP tunnels (plus the cause IDs, board type and dispatch record that
// make them live) into the core in this process, every message sent through
// an in-memory netlink socket and acknowledged, as the module takes them.
//
// Reading the figures: items_per_second is control messages per second.
//  - BM_ApplyFresh: into a freshly loaded core (every tunnel is an insert);
//  - BM_ApplyAgain: the same file again (every tunnel is an update);
//  - BM_ApplyDryRun: the tool's own share, building and handing over the
//    messages with nothing behind them.
#include <benchmark/benchmark.h>

#include <string>

#include "config.h"
#include "core_sink.h"
#include "drv_vane/entry.h"
#include "plan.h"

namespace {

using vanectl::Config;

Config Controller(uint32_t tunnels) {
  Config c;
  c.file = "bench";
  vanectl::WlanSection& w = c.wlan.emplace();
  w.board_type = 3;
  w.cause_ids.push_back({100, 1, vanectl::LbType::kCapwap});
  for (uint32_t i = 0; i < tunnels; ++i) {
    // One access point per tunnel pair, control and data, spread over vCPUs.
    const uint32_t ap = 0x0A010000 + i / 2;
    w.capwap.push_back({ap, 0x0A000001, static_cast<uint16_t>(12222 + i % 2),
                        static_cast<uint16_t>(5246 + i % 2), 0, 1 + (i / 2) % 63});
  }
  vanectl::DispatchSection& d = c.dispatch.emplace();
  d.multicore = true;
  d.off_mac = 24;
  d.multicore_interfaces = {20, 29};
  return c;
}

int Apply(const Config& c, const vane_endpoint& ep) {
  vane_ctl* ctl = nullptr;
  if (vane_ctl_open(&ep, &ctl) != 0) return -1;
  const int rc = vanectl::ApplyConfig(c, ctl);
  vane_ctl_close(ctl);
  return rc;
}

void Report(benchmark::State& state, size_t messages) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * messages));
  state.counters["messages"] = static_cast<double>(messages);
}

void BM_ApplyFresh(benchmark::State& state) {
  const Config c = Controller(static_cast<uint32_t>(state.range(0)));
  const size_t messages = vanectl::Plan(c).size();
  for (auto _ : state) {
    (void)_;
    state.PauseTiming();
    if (vane_entry_init() != 0) {
      state.SkipWithError("the core does not load");
      break;
    }
    {
      vanectl::test::CoreSink sink(4242);
      state.ResumeTiming();
      const int rc = Apply(c, sink.Endpoint());
      state.PauseTiming();
      if (rc != 0 || sink.failures() != 0) state.SkipWithError("a message failed");
    }
    vane_entry_exit();
    state.ResumeTiming();
  }
  Report(state, messages);
}
BENCHMARK(BM_ApplyFresh)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ApplyAgain(benchmark::State& state) {
  const Config c = Controller(static_cast<uint32_t>(state.range(0)));
  const size_t messages = vanectl::Plan(c).size();
  if (vane_entry_init() != 0) {
    state.SkipWithError("the core does not load");
    return;
  }
  {
    vanectl::test::CoreSink sink(4242);
    if (Apply(c, sink.Endpoint()) != 0) state.SkipWithError("the first apply failed");
    for (auto _ : state) {
      (void)_;
      if (Apply(c, sink.Endpoint()) != 0 || sink.failures() != 0) {
        state.SkipWithError("a message failed");
        break;
      }
    }
  }
  vane_entry_exit();
  Report(state, messages);
}
BENCHMARK(BM_ApplyAgain)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_ApplyDryRun(benchmark::State& state) {
  const Config c = Controller(static_cast<uint32_t>(state.range(0)));
  const size_t messages = vanectl::Plan(c).size();
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  ep.dry_run = [](void* arg, int, const uint8_t* msg, size_t len) {
    benchmark::DoNotOptimize(msg);
    *static_cast<size_t*>(arg) += len;
  };
  size_t bytes = 0;
  ep.dry_run_arg = &bytes;
  for (auto _ : state) {
    (void)_;
    if (Apply(c, ep) != 0) state.SkipWithError("a message failed");
  }
  benchmark::DoNotOptimize(bytes);
  Report(state, messages);
}
BENCHMARK(BM_ApplyDryRun)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
