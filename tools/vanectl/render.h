// vanectl show's output: each decoded image as an aligned table for people
// and as JSON for programs. The JSON field names are stable; OUTPUT.md
// lists them.
#ifndef VANE_TOOLS_VANECTL_RENDER_H
#define VANE_TOOLS_VANECTL_RENDER_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "vane/decode.h"

namespace vanectl {

struct Rendered {
  std::string text;  // ends with "\n" unless empty
  nlohmann::json json;
};

// `all`: every vCPU and packet type, not only the non-zero ones.
Rendered RenderCounters(const vane_counters& c, bool all);
Rendered RenderDebug(const vane::decode::DebugText& d);
Rendered RenderFrag4(const vane_frag4_dump& d);
Rendered RenderFrag6(const vane_frag6_dump& d);
Rendered RenderSteering(const vane_ivo_stats& s);
Rendered RenderCapture(const vane_capture_store& s);
Rendered RenderWlanStats(const vane_wlan_stats& s);
Rendered RenderWlanNac(const vane_wlan_nac& n);
Rendered RenderWlanCauseIds(const vane_wlan_causeids& c);
Rendered RenderWlanPorts(const vane_wlan_ports& p);
Rendered RenderCapwap(const vane_capwap_view& v);
Rendered RenderCapwapKa(const vane_capwap_ka_view& v);

// Dotted quad of a host-order IPv4 address; text of 16 packet-order bytes.
std::string Ipv4Text(uint32_t host_order);
std::string Ipv6Text(const uint8_t addr[16]);
// Lower-case hex, no separators.
std::string HexText(const uint8_t* p, size_t n);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_RENDER_H
