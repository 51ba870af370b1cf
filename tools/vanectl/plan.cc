// The apply order and the send loop. The dispatcher acknowledges every
// well-formed control message with success whether or not a table took the
// entry, so the order is what keeps a live dispatcher consistent: nothing
// may point at a table before the table holds what it should.
#include "plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace vanectl {
namespace {

std::string Vcpu(uint32_t v) { return v == kNacProcess ? "NAC" : fmt::format("vCPU {}", v); }

std::string Port(uint16_t p) { return p == kAnyPort ? "any" : fmt::to_string(p); }

void AddWlanTables(const WlanSection& w, std::vector<Step>& plan) {
  for (const CapwapEntry& e : w.capwap) {
    plan.push_back(
        {"capwap", 10,
         fmt::format("CAPWAP tunnel {}:{} -> {}:{} vpn {} -> {}", AddressText(e.src), Port(e.sport),
                     AddressText(e.dst), Port(e.dport),
                     e.vpn == kAnyVpn ? std::string("any") : fmt::to_string(e.vpn), Vcpu(e.vcpu)),
         e.line, [e](vane_ctl* c) {
           const vane_capwap_entry m{e.src, e.dst, e.sport, e.dport, e.vpn, e.vcpu};
           return vane_ctl_lb_capwap(c, &m, VANE_LB_OP_ADD);
         }});
  }
  for (const KeepAliveEntry& e : w.capwap_keepalive) {
    plan.push_back(
        {"capwap_keepalive", 10,
         fmt::format("CAPWAP keep-alive session {:08x}{:08x}{:08x}{:08x} -> {}", e.session[0],
                     e.session[1], e.session[2], e.session[3], Vcpu(e.vcpu)),
         e.line, [e](vane_ctl* c) {
           return vane_ctl_lb_capwap_ka(c, e.session.data(), e.vcpu, VANE_LB_OP_ADD);
         }});
  }
  for (const SocketPortEntry& e : w.socket_ports) {
    plan.push_back({"socket_port", 10,
                    fmt::format("socket port {} {} {}{} -> {}", e.tcp ? "tcp" : "udp",
                                e.match_src ? "src" : "dst", e.port, e.ipv6 ? " ipv6" : "",
                                e.match_src && e.vcpu != kNacProcess ? "range" : Vcpu(e.vcpu)),
                    e.line, [e](vane_ctl* c) {
                      const vane_socket_port p{e.port, static_cast<uint8_t>(e.tcp ? 1 : 0),
                                               static_cast<uint8_t>(e.match_src ? 1 : 0), e.vcpu,
                                               e.ipv6 ? 1u : 0u};
                      return vane_ctl_lb_socket_port(c, &p, VANE_LB_OP_ADD);
                    }});
  }
  if (w.portal) {
    const PortalEntry p = *w.portal;
    plan.push_back({"portal", 10, fmt::format("Portal udp dst {} -> {}", p.port, Vcpu(p.vcpu)), 0,
                    [p](vane_ctl* c) { return vane_ctl_lb_portal(c, p.port, p.vcpu); }});
  }
  if (w.nac) {
    const std::vector<uint32_t> ids = *w.nac;
    const uint32_t board = w.board_type.value_or(0);  // the parser insists on one
    std::string list;
    for (uint32_t id : ids) list += fmt::format("{}{}", list.empty() ? "" : " ", id);
    plan.push_back(
        {"nac", 10,
         fmt::format("NAC vCPUs [{}], board type {}, RADIUS CoA 3799 to them", list, board), 0,
         [ids, board](vane_ctl* c) {
           const auto n = static_cast<uint16_t>(std::min<size_t>(ids.size(), UINT16_MAX));
           return vane_ctl_lb_nac(c, board, ids.data(), n);
         }});
  }
}

void AddWlanReachability(const WlanSection& w, std::vector<Step>& plan) {
  if (!w.cause_ids.empty()) {
    std::vector<vane_cause_id_entry> entries;
    std::string list;
    for (const CauseIdEntry& e : w.cause_ids) {
      entries.push_back({e.cause_id, e.pkt_type, static_cast<uint32_t>(e.lb)});
      list += fmt::format("{}{}:{}/{}", list.empty() ? "" : " ", e.cause_id, LbTypeName(e.lb),
                          e.pkt_type);
    }
    plan.push_back({"cause_ids", 10,
                    fmt::format("{} WLAN cause IDs (id:lb/pkt_type) {}", entries.size(), list),
                    w.cause_ids.front().line, [entries](vane_ctl* c) {
                      return vane_ctl_lb_cause_ids(c, entries.data(),
                                                   static_cast<uint32_t>(entries.size()));
                    }});
  }
  if (w.board_type) {
    const uint32_t b = *w.board_type;
    plan.push_back({"board_type", 10, fmt::format("WLAN board type {}", b), 0,
                    [b](vane_ctl* c) { return vane_ctl_lb_board_type(c, b); }});
  }
}

void AddSteering(const std::string& name, uint32_t type, const SteeringTable& t,
                 std::vector<Step>& plan) {
  vane_steering_table m{};
  m.enable = t.enable ? 1 : 0;
  m.table_type = type;
  m.vcpu = t.vcpu;
  // The count says how many there are; a table built by hand with more than
  // the message holds keeps that count, and the library refuses it.
  m.cause_id_count = static_cast<uint32_t>(t.cause_ids.size());
  std::string list;
  for (size_t i = 0; i < t.cause_ids.size(); ++i) {
    if (i < VANE_STEERING_CAUSEIDS) m.cause_ids[i] = t.cause_ids[i];
    list += fmt::format("{}{}", i == 0 ? "" : " ", t.cause_ids[i]);
  }
  if (t.range) {
    m.cause_id_min = static_cast<uint16_t>(t.range->min);
    m.cause_id_max = static_cast<uint16_t>(t.range->max);
  }
  plan.push_back(
      {"steering", 11,
       fmt::format("steering {} {}, {}, cause IDs [{}]{}", name, t.enable ? "on" : "off",
                   Vcpu(t.vcpu), list,
                   t.range ? fmt::format(" and {}..{}", t.range->min, t.range->max) : ""),
       0, [m](vane_ctl* c) { return vane_ctl_set_steering(c, &m); }});
}

void AddTimng(const TimngSection& t, std::vector<Step>& plan) {
  const uint32_t master = t.master ? 1 : 0;
  // The dispatcher accepts two TIMNG messages in its lifetime and a master
  // message spends one of them on an empty entry, so each entry carries the
  // master flag itself, and message 15 is sent only when there is no entry.
  for (const TimngEntry& e : t.entries) {
    plan.push_back({"timng", 14,
                    fmt::format("TIMNG cause ID {} -> {}, frag scan {}, master {}", e.cause_id,
                                Vcpu(e.node), e.frag_scan ? "on" : "off", t.master ? "yes" : "no"),
                    0, [e, master](vane_ctl* c) {
                      return vane_ctl_timng_set(c, e.cause_id, e.node, master, e.frag_scan ? 1 : 0);
                    }});
  }
  if (t.entries.empty()) {
    plan.push_back({"timng", 15, fmt::format("TIMNG master {}", t.master ? "yes" : "no"), 0,
                    [master](vane_ctl* c) { return vane_ctl_timng_master(c, master); }});
  }
}

void AddDispatch(const DispatchSection& d, std::vector<Step>& plan) {
  vane_dispatch_config r{};
  r.hg_hdr_offset = d.off_higig2;
  r.mac_offset = d.off_mac;
  r.ipc_eth_type = d.ipc_ethertype;
  r.vp_eth_type = d.vp_ethertype;
  r.ecm_vcpu_eth_type = d.ecm_vcpu_ethertype;
  r.multicore_eth_num_min = d.multicore_interfaces.min;
  r.ecm_eth_num = d.ecm_interface;
  r.vp_eth_num_min = d.vp_interfaces.min;
  r.multicore_on = d.multicore ? 1 : 0;
  r.board_type = d.board_type;
  r.vp_frag_inner_offset = d.off_vp_frag_inner;
  r.cause_id_offset = d.off_cause_id;
  r.multicore_eth_num_max = d.multicore_interfaces.max;
  r.first_frag_flag_offset = d.off_first_frag_flag;
  r.vp_inner_offset = d.off_vp_inner;
  r.vp_eth_num_max = d.vp_interfaces.max;
  r.ecm_vp_only = d.ecm_vp_only ? 1 : 0;
  r.no_hg_hdr = d.no_higig2 ? 1 : 0;
  r.inner_mac_offset = d.off_inner_mac;
  plan.push_back(
      {"dispatch", 5,
       fmt::format("dispatch record: multicore {}, board type {}, interfaces {}..{} ecm {} vp "
                   "{}..{}, mac at {}, cause ID at {}+18",
                   d.multicore ? "on" : "off", d.board_type, d.multicore_interfaces.min,
                   d.multicore_interfaces.max, d.ecm_interface, d.vp_interfaces.min,
                   d.vp_interfaces.max, d.off_mac, d.off_cause_id),
       0, [r](vane_ctl* c) { return vane_ctl_set_config(c, &r); }});
}

}  // namespace

std::vector<Step> Plan(const Config& c) {
  std::vector<Step> plan;
  // 1. The WLAN tables (CAPWAP, keep-alive, socket ports, Portal, NAC): no
  //    packet reaches them until a cause ID names their LB type.
  // 2. The cause-ID table and the board type, which make them reachable,
  //    once what they lead to is complete.
  // 3. Steering and TIMNG, deciders ahead of the WLAN lookup.
  // 4. The dispatch record last: with multicore on it starts the pipeline,
  //    which then finds every table already whole.
  if (c.wlan) {
    AddWlanTables(*c.wlan, plan);
    AddWlanReachability(*c.wlan, plan);
  }
  if (c.steering) {
    if (c.steering->ivo) AddSteering("ivo", VANE_STEERING_IVO, *c.steering->ivo, plan);
    if (c.steering->deteption) {
      AddSteering("deteption", VANE_STEERING_DETEPTION, *c.steering->deteption, plan);
    }
  }
  if (c.timng) AddTimng(*c.timng, plan);
  if (c.dispatch) AddDispatch(*c.dispatch, plan);
  return plan;
}

int ApplyConfig(const Config& c, vane_ctl* ctl, ApplyResult* out, const StepObserver& observe) {
  const std::vector<Step> plan = Plan(c);
  ApplyResult local;
  ApplyResult& r = out != nullptr ? *out : local;
  r = ApplyResult{};
  for (size_t i = 0; i < plan.size(); ++i) {
    const int rc = plan[i].send(ctl);
    if (observe) observe(i, plan[i], rc);
    if (rc != 0) {
      r.failed = true;
      r.failed_index = i;
      r.error = rc;
      return rc;
    }
    ++r.sent;
    ++r.by_kind[plan[i].kind];
  }
  return 0;
}

std::string Summary(const std::vector<Step>& plan, const ApplyResult& r) {
  std::string parts;
  std::vector<std::string> seen;
  for (const Step& s : plan) {
    if (std::find(seen.begin(), seen.end(), s.kind) != seen.end()) continue;
    seen.push_back(s.kind);
    auto it = r.by_kind.find(s.kind);
    if (it == r.by_kind.end()) continue;
    parts += fmt::format("{}{} {}", parts.empty() ? "" : ", ", it->second, s.kind);
  }
  return fmt::format("applied {} message{}{}", r.sent, r.sent == 1 ? "" : "s",
                     parts.empty() ? "" : " (" + parts + ")");
}

}  // namespace vanectl
