// Rates of vanectl top (see rates.h).
#include "rates.h"

#include <fmt/format.h>

#include "table.h"

namespace vanectl {

uint32_t Delta(uint32_t before, uint32_t now) { return now >= before ? now - before : now; }

namespace {

std::string Rate(uint64_t n, double seconds) { return fmt::format("{:.1f}", n / seconds); }

uint64_t WlanTotal(const vane_counters& c, uint32_t v) {
  uint64_t s = 0;
  for (uint32_t t = 1; t < VANE_PKT_TYPES; ++t) {
    s += c.wlan[v][t];
  }
  return s;
}

}  // namespace

std::string TopScreen(const vane_counters& before, const vane_counters& now, double seconds) {
  Table vcpus({"VCPU", "DISPATCHED/S", "VP/S", "ECM/S", "WLAN/S", "TOTAL"});
  uint64_t sum = 0;
  for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
    const uint64_t d = Delta(before.dispatched[v], now.dispatched[v]);
    const uint64_t p = Delta(before.vp[v], now.vp[v]);
    const uint64_t e = Delta(before.ecm[v], now.ecm[v]);
    uint64_t w = 0;
    for (uint32_t t = 1; t < VANE_PKT_TYPES; ++t) {
      w += Delta(before.wlan[v][t], now.wlan[v][t]);
    }
    const uint64_t total = uint64_t{now.dispatched[v]} + now.vp[v] + now.ecm[v] + WlanTotal(now, v);
    sum += d + p + e + w;
    if (d + p + e + w == 0 && total == 0) {
      continue;
    }
    vcpus.Row({std::to_string(v), Rate(d, seconds), Rate(p, seconds), Rate(e, seconds),
               Rate(w, seconds), std::to_string(total)});
  }
  Table types({"PKT_TYPE", "WLAN/S"});
  for (uint32_t t = 1; t < VANE_PKT_TYPES; ++t) {
    uint64_t n = 0;
    for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
      n += Delta(before.wlan[v][t], now.wlan[v][t]);
    }
    if (n != 0) {
      types.Row({std::to_string(t), Rate(n, seconds)});
    }
  }
  std::string out = fmt::format("{} packets/s over {:.1f} s\n\n", Rate(sum, seconds), seconds);
  out += vcpus.empty() ? "no packets counted\n" : vcpus.Render();
  if (!types.empty()) {
    out += "\n" + types.Render();
  }
  return out;
}

}  // namespace vanectl
