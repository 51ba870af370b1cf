// Parser cost per packet shape.
#include <benchmark/benchmark.h>

#include "drv_vane/parser.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

void Parse(benchmark::State& state, Bytes pkt, uint16_t eth_offset) {
  for (auto _ : state) {
    BYPASS_PKT_INFO_S info{};
    benchmark::DoNotOptimize(bypass_parse_pkt_multicore(
        pkt.data(), static_cast<uint32_t>(pkt.size()), &info, eth_offset));
    benchmark::DoNotOptimize(info);
  }
}

void BM_ParseIpv4Udp(benchmark::State& state) {
  Parse(state,
        PacketBuilder()
            .ethernet(Mac("00:11:22:33:44:55"), Mac("00:11:22:33:44:66"))
            .vlan(29)
            .ipv4({.src = Ipv4Addr("29.12.12.12"), .dst = Ipv4Addr("29.13.13.13")})
            .udp(5246, 65534)
            .payload(100)
            .build(),
        0);
}
BENCHMARK(BM_ParseIpv4Udp);

void BM_ParseIpv6ExtensionChain(benchmark::State& state) {
  Parse(state,
        PacketBuilder()
            .ethernet(Mac("00:11:22:33:44:55"), Mac("00:11:22:33:44:66"))
            .vlan(29, 0x9100)
            .vlan(30)
            .ipv6({.src = Ipv6Addr("1501::2"), .dst = Ipv6Addr("1501::1")})
            .hop_by_hop()
            .routing(1)
            .ipv6_fragment({.more = true, .id = 7})
            .udp(5247, 1234)
            .payload(100)
            .build(),
        0);
}
BENCHMARK(BM_ParseIpv6ExtensionChain);

}  // namespace
}  // namespace vane::test
