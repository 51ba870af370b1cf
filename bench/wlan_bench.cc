// The WLAN lookups by LB type, on one thread and on 1..N threads, alone and
// while a writer thread adds and deletes CAPWAP and socket-port entries
// without pause; and the full decision for the fragments of a CAPWAP
// datagram. Compare with BM_BareFlowHash (decision_bench.cc) for the cost of
// a lookup that shares nothing.
//
// Reading the figures: "allocs" is allocation calls per lookup (the target
// is 0). Scaling: items_per_second of threads:N against threads:1 of the
// same row. Churn: the median of BM_WlanLookupChurn against the median of
// BM_WlanLookup for the same kind (repetitions give the medians).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

enum Kind { kExact, kDportWildcard, kPortsWildcard, kKeepAlive, kMac, kPort1, kPort8, kKinds };
const char* const kNames[kKinds] = {"capwap_exact", "capwap_dport_wild", "capwap_ports_wild",
                                    "keep_alive",   "aaa_mac",           "aaa_port_1",
                                    "aaa_port_8"};

constexpr uint32_t kDip = 0xC0A80001;
constexpr uint16_t kCapwapPort = 5246;
constexpr uint16_t kWildDport = 5247;
constexpr uint16_t kWildSport = 40000;
constexpr uint16_t kWildBothDport = 5250;
constexpr uint16_t kDstPortBase = 20000;
constexpr uint16_t kCapwapCause = 400;

void Capwap(uint32_t sip, uint16_t sport, uint16_t dport, uint32_t process, uint8_t op = 1) {
  ApplyLb(CapwapMsg({sip, kDip, sport, dport, 0, process}, op));
}

uint32_t Sip(uint32_t t) { return 0x0A000001 + t; }

void Configure() {
  // Exact entries for every thread, and one wildcard of each kind.
  for (uint32_t t = 0; t < 256; ++t) Capwap(Sip(t), 12345, kCapwapPort, 1 + t % 60);
  ApplyLb(CapwapMsg({0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, kWildDport, 0xFF, 7}));
  ApplyLb(CapwapMsg({0xFFFFFFFF, 0xFFFFFFFF, kWildSport, kWildBothDport, 0xFF, 8}));
  for (uint32_t t = 0; t < 256; ++t) {
    const uint32_t session[4] = {t, 0x11111111, 0x22222222, 0x33333333};
    ApplyLb(CapwapKaMsg(session, 1 + t % 60));
  }
  // Sixteen NAC vCPUs (which also sets the RADIUS CoA ports), eight
  // destination-port entries to walk past.
  std::vector<uint32_t> nac;
  for (uint32_t i = 0; i < 16; ++i) nac.push_back(40 + i);
  ApplyLb(NacMsg(WLAN_LB_BOARD_TYPE_LB, nac));
  for (uint16_t i = 0; i < 8; ++i) ApplyLb(SocketPortMsg(kDstPortBase + i, false, false, 20 + i));
  // The cause ID of the fragmented-datagram decision.
  ApplyLb(CauseIdMsg({{kCapwapCause, 3, LB_CAPWAP}}));
}

struct Key {
  uint32_t lb_type = 0;
  union {
    WLAN_LB_FIVE_TUPLE_S five;
    WLAN_LB_SESSION_KEY_S session;
    WLAN_LB_ACCESS_INFO_S access;
    WLAN_LB_PORT_INFO_S port;
  };
  Key() : five{} {}
};

Key MakeKey(int kind, uint32_t t) {
  Key k;
  switch (kind) {
    case kExact:
      k.lb_type = LB_CAPWAP;
      k.five = {Sip(t), kDip, 12345, kCapwapPort, 0, kCapwapCause};
      break;
    case kDportWildcard:
      k.lb_type = LB_CAPWAP;
      k.five = {Sip(t), kDip, 12345, kWildDport, 0, kCapwapCause};
      break;
    case kPortsWildcard:
      k.lb_type = LB_CAPWAP;
      k.five = {Sip(t), kDip, kWildSport, kWildBothDport, 0, kCapwapCause};
      break;
    case kKeepAlive:
      k.lb_type = LB_CAPWAP_KA;
      k.session = {{t, 0x11111111, 0x22222222, 0x33333333}, kCapwapCause};
      break;
    case kMac:
      k.lb_type = LB_AAA_MAC;
      k.access = {};
      k.access.smac[5] = static_cast<u8>(t);
      break;
    case kPort1:
      // Past every destination-port entry to the last one.
      k.lb_type = LB_AAA_PORT;
      k.port = {1812, kDstPortBase, 0, 1};
      break;
    case kPort8:
      k.lb_type = LB_AAA_PORT;
      k.port = {1812, WLAN_LB_RADIUS_COA_PORT, 0, 1};
      break;
    default:
      break;
  }
  return k;
}

// The writer of the churn rows: a CAPWAP entry and a socket-port entry added
// and deleted without pause, on keys no reader looks up.
std::atomic<bool> g_stop{false};
std::thread* g_writer = nullptr;
std::atomic<unsigned long> g_writes{0};

void Churn() {
  for (uint32_t i = 0; !g_stop.load(std::memory_order_relaxed); ++i) {
    const uint32_t sip = 0x0B000000 + i % 512;
    const auto port = static_cast<uint16_t>(30000 + i % 64);
    Capwap(sip, 12345, kCapwapPort, 9);
    Capwap(sip, 12345, kCapwapPort, 9, WLAN_LB_OP_DELETE);
    ApplyLb(SocketPortMsg(port, false, false, 9));
    ApplyLb(SocketPortMsg(port, false, false, 9, 0, WLAN_LB_OP_DELETE));
    g_writes.fetch_add(4, std::memory_order_relaxed);
  }
}

void Load(const benchmark::State&) {
  vane_entry_init();
  Configure();
}

void Unload(const benchmark::State&) { vane_entry_exit(); }

void LoadWithWriter(const benchmark::State& state) {
  Load(state);
  g_stop.store(false);
  g_writes.store(0);
  g_writer = new std::thread(Churn);
}

void StopWriterAndUnload(const benchmark::State& state) {
  g_stop.store(true);
  g_writer->join();
  delete g_writer;
  g_writer = nullptr;
  Unload(state);
}

void Lookups(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  state.SetLabel(kNames[kind]);
  const Key key = MakeKey(kind, static_cast<uint32_t>(state.thread_index()));
  const unsigned long allocs_before = fault::Calls(fault::Site::kAlloc);
  for (auto _ : state) {
    uint32_t count = 0;
    uint8_t ids[WLAN_LB_VCPU_IDS_MAX] = {};
    WLAN_LB_GetPktVCPUID(&key.five, key.lb_type, &count, ids);
    benchmark::DoNotOptimize(count);
    benchmark::DoNotOptimize(ids);
  }
  state.SetItemsProcessed(state.iterations());
  if (state.threads() == 1 && g_writer == nullptr) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(fault::Calls(fault::Site::kAlloc) - allocs_before) /
                           static_cast<double>(state.iterations()));
  }
}

const int kCpus = static_cast<int>(std::thread::hardware_concurrency());

void BM_WlanLookup(benchmark::State& state) { Lookups(state); }
BENCHMARK(BM_WlanLookup)
    ->DenseRange(0, kKinds - 1)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Setup(Load)
    ->Teardown(Unload);
BENCHMARK(BM_WlanLookup)
    ->Arg(kExact)
    ->Arg(kPortsWildcard)
    ->Arg(kPort8)
    ->DenseThreadRange(1, kCpus)
    ->UseRealTime()
    ->Setup(Load)
    ->Teardown(Unload);

void BM_WlanLookupChurn(benchmark::State& state) {
  const unsigned long writes_before = g_writes.load();
  Lookups(state);
  if (state.thread_index() == 0) {
    state.counters["writes"] = benchmark::Counter(
        static_cast<double>(g_writes.load() - writes_before), benchmark::Counter::kIsRate);
  }
}
BENCHMARK(BM_WlanLookupChurn)
    ->DenseRange(0, kKinds - 1)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Setup(LoadWithWriter)
    ->Teardown(StopWriterAndUnload);
BENCHMARK(BM_WlanLookupChurn)
    ->Arg(kExact)
    ->Arg(kPortsWildcard)
    ->Arg(kPort8)
    ->DenseThreadRange(1, kCpus)
    ->UseRealTime()
    ->Setup(LoadWithWriter)
    ->Teardown(StopWriterAndUnload);

// The full decision for a fragmented CAPWAP datagram: the first fragment's
// table lookup and fragment entry, a middle fragment found by the entry, the
// last one removing it.
Bytes CapwapFragment(bool mf, uint16_t off) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(kCapwapCause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  b.ipv4({.src = Sip(0),
          .dst = kDip,
          .protocol = off != 0 ? std::optional<uint8_t>(17) : std::nullopt,
          .id = 0x4242,
          .mf = mf,
          .frag_offset = off});
  if (off == 0) b.udp(12345, kCapwapPort);
  return b.payload(32).build();
}

void Decide(Bytes& buf) {
  uint32_t count = 0;
  uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
  bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list);
  benchmark::DoNotOptimize(count);
  benchmark::DoNotOptimize(list);
}

void LoadDecisions(const benchmark::State& state) {
  Load(state);
  BYPASS_PKT_OFFSET_S cfg = CascadeConfig();
  cfg.ulMultiCoreEthNumMin = 20;
  bypass_set_pktOffsetAndDebugFlag(NETLINK_MID_OFFSET, reinterpret_cast<uint8_t*>(&cfg),
                                   sizeof(cfg));
  ApplyLb(BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB));
}

void BM_CapwapFragments(benchmark::State& state) {
  Bytes first = CapwapFragment(true, 0);
  Bytes middle = CapwapFragment(true, 3);
  Bytes last = CapwapFragment(false, 6);
  const int which = static_cast<int>(state.range(0));
  state.SetLabel(which == 0 ? "first+last" : "middle");
  const unsigned long allocs_before = fault::Calls(fault::Site::kAlloc);
  Decide(first);
  for (auto _ : state) {
    if (which == 0) {
      Decide(first);
      Decide(last);
    } else {
      Decide(middle);
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(fault::Calls(fault::Site::kAlloc) - allocs_before) /
                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_CapwapFragments)->Arg(0)->Arg(1)->Setup(LoadDecisions)->Teardown(Unload);

}  // namespace
}  // namespace vane::test
