// The cost of each decision kind of the cascade, next to a bare flow hash of
// the same frames, on one thread and on 1..N threads, with the heap
// allocations each decision makes.
//
// Ratios: compare each BM_Decide/<kind> with BM_BareFlowHash/<kind> (same
// frame). Threads: each thread decides on a frame of its own; the aggregate
// rate is items_per_second of the threads/N row. "allocs" is the number of
// allocation calls per decision on the user backend's counter.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/testing.h"
#include "support/frames.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

namespace fault = kport::user::fault;

constexpr uint32_t kHead = kCascadeHead;
constexpr uint16_t kCapwapCause = 400;
constexpr uint16_t kScanCause = 301;

enum Kind {
  kEcm,
  kVpDirect,
  kVpMiddle,
  kSteerList,
  kSteerRange,
  kTimngCause,
  kTimngScan,
  kDefault,
  kFiveNone,
  kFiveMiddle,
  kKinds
};
const char* const kNames[kKinds] = {"ecm",         "vp_direct",   "vp_middle",  "steer_list",
                                    "steer_range", "timng_cause", "timng_scan", "default",
                                    "five_none",   "five_middle"};

// Fragments without a UDP header of their own (and VP inner datagrams) name
// UDP as their protocol.
Ipv4Options V4(uint32_t salt, bool mf, uint16_t off, bool udp = false) {
  return {.src = Ipv4Addr("10.1.0.1") + salt,
          .dst = Ipv4Addr("10.2.0.1"),
          .protocol = off != 0 || udp ? std::optional<uint8_t>(17) : std::nullopt,
          .id = static_cast<uint16_t>(0x1000 + salt),
          .mf = mf,
          .frag_offset = off};
}

Bytes Plain(uint16_t cause, uint32_t salt, bool mf = false, uint16_t off = 0) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  b.ipv4(V4(salt, mf, off));
  if (off == 0) b.udp(5246, 5247);
  return b.payload(32).build();
}

Bytes Vp(uint8_t vcpu, uint8_t mark, uint32_t salt, bool mf, uint16_t off) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(1))
      .ethernet({0x0A, 0x0B, 0x0B, vcpu, 0, 0}, Mac("00:00:5e:00:01:09"))
      .ether_type(kCascadeVpType)
      .bytes({mark, 0})
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4(V4(salt, mf, off, true));
  return b.payload(32).build();
}

// The frame of a decision kind for thread `t`; fragment kinds have their
// first fragment entered by Prepare().
Bytes Frame(int kind, uint32_t t) {
  const auto vcpu = static_cast<uint8_t>(1 + t % 60);
  switch (kind) {
    case kEcm:
      return EcmFrame(3, vcpu);
    case kVpDirect:
      return Vp(vcpu, 0, t, false, 0);
    case kVpMiddle:
      return Vp(61, 0, t, true, 3);
    case kSteerList:
      return Plain(13, t);
    case kSteerRange:
      return Plain(150, t);
    case kTimngCause:
      return Plain(300, t);
    case kTimngScan:
      return Plain(kScanCause, t, true, 3);
    case kDefault:
      return Plain(999, t);
    case kFiveNone:
      return Plain(kCapwapCause, t);
    case kFiveMiddle:
      return Plain(kCapwapCause, t + 1000, true, 3);
    default:
      return {};
  }
}

void Decide(Bytes& buf) {
  uint32_t count = 0;
  uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
  bypass_msg_getVCpuId(buf.data(), static_cast<uint32_t>(buf.size()), &count, list);
  benchmark::DoNotOptimize(count);
  benchmark::DoNotOptimize(list);
}

void Load(const benchmark::State&) {
  vane_entry_init();
  BYPASS_PKT_OFFSET_S cfg = CascadeConfig();
  cfg.ulMultiCoreEthNumMin = 20;
  bypass_set_pktOffsetAndDebugFlag(5, reinterpret_cast<uint8_t*>(&cfg), sizeof(cfg));
  InstallBenchSteering();
  TIMNG_KERNEL_MSG_S scan{kScanCause, 8, 1, 1};
  TIMNG_LB_InitKernel(NETLINK_MID_TIMNG, reinterpret_cast<u8*>(&scan), sizeof(scan));
  // The CAPWAP cause ID, and an exact CAPWAP entry for every datagram the
  // five-tuple kinds send (salts t and t + 1000 of each thread, 77).
  ApplyLb(BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB));
  ApplyLb(CauseIdMsg({{kCapwapCause, 3, LB_CAPWAP}}));
  for (uint32_t salt = 0; salt < 128; ++salt) {
    for (uint32_t base : {0u, 1000u}) {
      ApplyLb(
          CapwapMsg({Ipv4Addr("10.1.0.1") + base + salt, Ipv4Addr("10.2.0.1"), 5246, 5247, 0, 11}));
    }
  }
  // First fragments of every thread's datagrams, so middle ones find them.
  for (uint32_t th = 0; th < 64; ++th) {
    Bytes vp = Vp(9, BYPASS_FIRST_FRAG_MARK, th, true, 0);
    Decide(vp);
    Bytes scan_first = Plain(kScanCause, th, true, 0);
    Decide(scan_first);
    Bytes five_first = Plain(kCapwapCause, th + 1000, true, 0);
    Decide(five_first);
  }
}

void Unload(const benchmark::State&) { vane_entry_exit(); }

const int kCpus = static_cast<int>(std::thread::hardware_concurrency());

void BM_Decide(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  state.SetLabel(kNames[kind]);
  Bytes buf = Frame(kind, static_cast<uint32_t>(state.thread_index()));
  const unsigned long allocs_before = fault::Calls(fault::Site::kAlloc);
  for (auto _ : state) Decide(buf);
  state.SetItemsProcessed(state.iterations());
  if (state.threads() == 1) {
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(fault::Calls(fault::Site::kAlloc) - allocs_before) /
                           static_cast<double>(state.iterations()));
  }
}
BENCHMARK(BM_Decide)->DenseRange(0, kKinds - 1)->Setup(Load)->Teardown(Unload);
// The kinds the scaling targets cover, on 1..N threads.
BENCHMARK(BM_Decide)
    ->ArgNames({"kind"})
    ->Arg(kEcm)
    ->Arg(kVpDirect)
    ->Arg(kSteerList)
    ->Arg(kDefault)
    ->DenseThreadRange(1, kCpus)
    ->UseRealTime()
    ->Setup(Load)
    ->Teardown(Unload);

// A first and a last fragment of one datagram: the entry's allocation and
// its removal (the last fragment alone cannot repeat without a first).
void BM_DecideFirstAndLast(benchmark::State& state) {
  const bool vp = state.range(0) == 0;
  state.SetLabel(vp ? "vp_first+last" : "five_first+last");
  Bytes first = vp ? Vp(9, BYPASS_FIRST_FRAG_MARK, 77, true, 0) : Plain(kCapwapCause, 77, true, 0);
  Bytes last = vp ? Vp(61, 0, 77, false, 6) : Plain(kCapwapCause, 77, false, 6);
  const unsigned long allocs_before = fault::Calls(fault::Site::kAlloc);
  for (auto _ : state) {
    Decide(first);
    Decide(last);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(fault::Calls(fault::Site::kAlloc) - allocs_before) /
                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_DecideFirstAndLast)->Arg(0)->Arg(1)->Setup(Load)->Teardown(Unload);

void BM_SessionIdRead(benchmark::State& state) {
  Bytes pkt(20, 0);
  const uint8_t ka[] = {0x00, 0x10, 0x00, 0x08, 0, 0, 0, 0, 0,  22, 0,  35, 0,  16, 1,
                        2,    3,    4,    5,    6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  pkt.insert(pkt.end(), ka, ka + sizeof(ka));
  for (auto _ : state) {
    uint32_t sid[4];
    benchmark::DoNotOptimize(
        bypass_getSessionId(sid, 12, pkt.data(), static_cast<uint32_t>(pkt.size())));
    benchmark::DoNotOptimize(sid);
  }
}
BENCHMARK(BM_SessionIdRead);

// The baseline: a jhash of the frame's addresses and ports to a vCPU, read
// from the same bytes at the same offsets, sharing nothing.
inline uint32_t Rol(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }
inline uint32_t Jhash3(uint32_t a, uint32_t b, uint32_t c, uint32_t seed) {
  a += 0xdeadbeef + 12 + seed;
  b += 0xdeadbeef + 12 + seed;
  c += 0xdeadbeef + 12 + seed;
  c ^= b;
  c -= Rol(b, 14);
  a ^= c;
  a -= Rol(c, 11);
  b ^= a;
  b -= Rol(a, 25);
  c ^= b;
  c -= Rol(b, 16);
  a ^= c;
  a -= Rol(c, 4);
  b ^= a;
  b -= Rol(a, 14);
  c ^= b;
  c -= Rol(b, 24);
  return c;
}

void BM_BareFlowHash(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  state.SetLabel(kNames[kind]);
  Bytes buf = Frame(kind, static_cast<uint32_t>(state.thread_index()));
  // Addresses and ports where an IPv4 UDP packet behind the head has them.
  // (The shorter ECM frame hashes its last 12 bytes.)
  const size_t at = std::min<size_t>(12 + kHead + 14 + 12, buf.size() - 12);
  for (auto _ : state) {
    benchmark::DoNotOptimize(buf.data());
    uint32_t w[3];
    std::memcpy(w, buf.data() + at, sizeof(w));
    const uint32_t vcpu = 1 + Jhash3(w[0], w[1], w[2], 0x5eed) % 63;
    benchmark::DoNotOptimize(vcpu);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareFlowHash)->DenseRange(0, kKinds - 1);
BENCHMARK(BM_BareFlowHash)->Arg(kEcm)->DenseThreadRange(1, kCpus)->UseRealTime();

}  // namespace
}  // namespace vane::test
