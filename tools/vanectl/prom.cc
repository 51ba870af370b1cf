// Prometheus text of the dispatcher's statistics (see prom.h).
//
// Every vCPU appears in vane_packets_total, zero or not, so that a clear of
// the counters shows as a reset rather than as series that vanish; the 704
// WLAN series appear only once they are non-zero.
#include "prom.h"

#include <fmt/format.h>

#include <array>
#include <string_view>

namespace vanectl {

namespace {

void Family(std::string* out, std::string_view name, std::string_view type, std::string_view help) {
  *out += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

void Counters(std::string* out, const vane_counters& c) {
  Family(out, "vane_packets_total", "counter",
         "Packets the dispatcher steered, by vCPU and by the decider kind that counted them "
         "(vcpu 0 of kind dispatched: no vCPU or more than seven).");
  const std::array<std::pair<std::string_view, const uint32_t*>, 3> kinds = {
      {{"dispatched", c.dispatched}, {"vp", c.vp}, {"ecm", c.ecm}}};
  for (const auto& [kind, values] : kinds) {
    for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
      *out += fmt::format("vane_packets_total{{kind=\"{}\",vcpu=\"{}\"}} {}\n", kind, v, values[v]);
    }
  }
  Family(out, "vane_wlan_packets_total", "counter",
         "WLAN load-balanced packets by vCPU and packet type.");
  for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
    for (uint32_t t = 1; t < VANE_PKT_TYPES; ++t) {
      if (c.wlan[v][t] != 0) {
        *out += fmt::format("vane_wlan_packets_total{{vcpu=\"{}\",pkt_type=\"{}\"}} {}\n", v, t,
                            c.wlan[v][t]);
      }
    }
  }
}

void Steering(std::string* out, const vane_ivo_stats& s) {
  Family(out, "vane_steering_hits_total", "counter",
         "Packets a cause-ID steering table sent to its vCPU, by table and by match (list or "
         "range).");
  const uint32_t* slots[2] = {s.ivo_slot_hits, s.deteption_slot_hits};
  const uint32_t ranges[2] = {s.ivo_range_hits, s.deteption_range_hits};
  const std::array<std::string_view, 2> tables = {"ivo", "deteption"};
  for (size_t t = 0; t < 2; ++t) {
    uint64_t list = 0;
    for (uint32_t i = 0; i < VANE_STEERING_CAUSEIDS; ++i) {
      list += slots[t][i];
    }
    *out += fmt::format("vane_steering_hits_total{{table=\"{}\",match=\"list\"}} {}\n", tables[t],
                        list);
    *out += fmt::format("vane_steering_hits_total{{table=\"{}\",match=\"range\"}} {}\n", tables[t],
                        ranges[t]);
  }
}

void Wlan(std::string* out, const vane_wlan_stats& w) {
  static constexpr std::array<std::string_view, VANE_WLAN_SET_TYPES> kSetTypes = {
      "capwap", "capwap_ka", "nac_list", "portal", "socket_port", "board_type", "cause_ids"};
  Family(out, "vane_wlan_lb_messages_total", "counter",
         "WLAN LB configuration messages applied, by set type.");
  for (size_t i = 0; i < kSetTypes.size(); ++i) {
    *out += fmt::format("vane_wlan_lb_messages_total{{set_type=\"{}\"}} {}\n", kSetTypes[i],
                        w.messages[i]);
  }
  Family(out, "vane_wlan_lb_board_type", "gauge", "The board type the WLAN LB tables run for.");
  *out += fmt::format("vane_wlan_lb_board_type {}\n", w.board_type);
}

}  // namespace

std::string PrometheusText(const MetricsInput& in) {
  std::string out;
  if (in.counters != nullptr) {
    Counters(&out, *in.counters);
  }
  if (in.steering != nullptr) {
    Steering(&out, *in.steering);
  }
  if (in.wlan != nullptr) {
    Wlan(&out, *in.wlan);
  }
  Family(&out, "vane_scrape_errors", "gauge",
         "Statistics files that could not be read or decoded in this scrape.");
  out += fmt::format("vane_scrape_errors {}\n", in.errors);
  return out;
}

}  // namespace vanectl
