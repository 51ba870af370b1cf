// Tables and JSON of vanectl show (see render.h and OUTPUT.md).
#include "render.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <array>
#include <string_view>

#include "table.h"

namespace vanectl {

using nlohmann::json;

std::string Ipv4Text(uint32_t a) {
  return fmt::format("{}.{}.{}.{}", a >> 24, (a >> 16) & 0xFF, (a >> 8) & 0xFF, a & 0xFF);
}

std::string Ipv6Text(const uint8_t addr[16]) {
  std::array<char, INET6_ADDRSTRLEN> buf{};
  return inet_ntop(AF_INET6, addr, buf.data(), buf.size()) != nullptr ? buf.data() : "?";
}

std::string HexText(const uint8_t* p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += fmt::format("{:02x}", p[i]);
  }
  return s;
}

namespace {

std::string Num(uint64_t v) { return std::to_string(v); }

}  // namespace

Rendered RenderCounters(const vane_counters& c, bool all) {
  Table per_vcpu({"VCPU", "DISPATCHED", "VP", "ECM", "WLAN"});
  Table per_type({"VCPU", "PKT_TYPE", "PACKETS"});
  json rows = json::array();
  for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
    uint64_t wlan = 0;
    json types = json::array();
    for (uint32_t t = 1; t < VANE_PKT_TYPES; ++t) {
      wlan += c.wlan[v][t];
      if (all || c.wlan[v][t] != 0) {
        per_type.Row({Num(v), Num(t), Num(c.wlan[v][t])});
        types.push_back({{"pkt_type", t}, {"packets", c.wlan[v][t]}});
      }
    }
    if (!all && c.dispatched[v] == 0 && c.vp[v] == 0 && c.ecm[v] == 0 && wlan == 0) {
      continue;
    }
    per_vcpu.Row({Num(v), Num(c.dispatched[v]), Num(c.vp[v]), Num(c.ecm[v]), Num(wlan)});
    rows.push_back({{"vcpu", v},
                    {"dispatched", c.dispatched[v]},
                    {"vp", c.vp[v]},
                    {"ecm", c.ecm[v]},
                    {"wlan", types}});
  }
  Rendered r;
  if (per_vcpu.empty()) {
    r.text = "all counters are zero\n";
  } else {
    r.text = per_vcpu.Render();
    if (!per_type.empty()) {
      r.text += "\nWLAN by packet type\n" + per_type.Render();
    }
  }
  r.json = {{"vcpus", rows}};
  return r;
}

Rendered RenderDebug(const vane::decode::DebugText& d) {
  Rendered r;
  for (const std::string& l : d.lines) {
    r.text += l + "\n";
  }
  if (d.full) {
    r.text += "(the buffer is full: output is off until a level is written)\n";
  }
  r.json = {{"lines", d.lines}, {"full", d.full}};
  return r;
}

Rendered RenderFrag4(const vane_frag4_dump& d) {
  Table t({"<SOURCE", "<DESTINATION", "ID", "VCPU", "AGE"});
  json recs = json::array();
  for (uint32_t i = 0; i < d.count; ++i) {
    const vane_frag4_record& f = d.records[i];
    t.Row({Ipv4Text(f.sip), Ipv4Text(f.dip), Num(f.id), Num(f.vcpu), Num(f.age)});
    recs.push_back({{"src", Ipv4Text(f.sip)},
                    {"dst", Ipv4Text(f.dip)},
                    {"id", f.id},
                    {"vcpu", f.vcpu},
                    {"age", f.age}});
  }
  Rendered r;
  r.text = fmt::format("IPv4 fragment records: {}\n", d.count) + (d.count ? t.Render() : "");
  r.json = {{"family", "ipv4"}, {"count", d.count}, {"records", recs}};
  return r;
}

Rendered RenderFrag6(const vane_frag6_dump& d) {
  Table t({"<ADDRESS1", "<ADDRESS2", "ID", "AGE"});
  json recs = json::array();
  for (uint32_t i = 0; i < d.count; ++i) {
    const vane_frag6_record& f = d.records[i];
    t.Row({Ipv6Text(f.addr1), Ipv6Text(f.addr2), Num(f.id), Num(f.age)});
    recs.push_back(
        {{"addr1", Ipv6Text(f.addr1)}, {"addr2", Ipv6Text(f.addr2)}, {"id", f.id}, {"age", f.age}});
  }
  Rendered r;
  r.text = fmt::format("IPv6 fragment records: {}\n", d.count) + (d.count ? t.Render() : "");
  r.json = {{"family", "ipv6"}, {"count", d.count}, {"records", recs}};
  return r;
}

namespace {

void SteeringTable(std::string_view name, const vane_steering_table& t, uint32_t hits,
                   const uint32_t* slot_hits, uint32_t range_hits, Rendered* r) {
  const bool listed = t.cause_id_count <= VANE_STEERING_CAUSEIDS;
  r->text += fmt::format("{} table: {}, vCPU {}, {} hits\n", name, t.enable ? "on" : "off",
                         t.vcpu & 0xFF, hits);
  Table tab({"<MATCH", "<CAUSE_ID", "HITS"});
  json slots = json::array();
  for (uint32_t i = 0; listed && i < t.cause_id_count; ++i) {
    tab.Row({fmt::format("slot {}", i), Num(t.cause_ids[i]), Num(slot_hits[i])});
    slots.push_back({{"slot", i}, {"cause_id", t.cause_ids[i]}, {"hits", slot_hits[i]}});
  }
  json range = nullptr;
  if (t.cause_id_min != 0) {
    tab.Row({"range", fmt::format("{}-{}", t.cause_id_min, t.cause_id_max), Num(range_hits)});
    range = {{"min", t.cause_id_min}, {"max", t.cause_id_max}, {"hits", range_hits}};
  }
  if (!listed) {
    r->text += fmt::format("  (cause ID count {} is above {}: the list is not used)\n",
                           t.cause_id_count, VANE_STEERING_CAUSEIDS);
  }
  if (!tab.empty()) {
    r->text += tab.Render();
  }
  r->json[std::string(name)] = {{"enable", t.enable != 0},
                                {"vcpu", t.vcpu & 0xFF},
                                {"cause_id_count", t.cause_id_count},
                                {"hits", hits},
                                {"slots", slots},
                                {"range", range}};
}

}  // namespace

Rendered RenderSteering(const vane_ivo_stats& s) {
  Rendered r;
  r.json = json::object();
  SteeringTable("ivo", s.ivo, s.ivo_hits, s.ivo_slot_hits, s.ivo_range_hits, &r);
  r.text += "\n";
  SteeringTable("deteption", s.deteption, s.deteption_hits, s.deteption_slot_hits,
                s.deteption_range_hits, &r);
  return r;
}

namespace {

std::string TimeText(const vane_capture_time& t) {
  return t.used ? fmt::format("{}.{:09}", t.sec, t.nsec) : "-";
}

json TimeJson(const vane_capture_time& t) {
  if (!t.used) {
    return nullptr;
  }
  return {{"sec", t.sec}, {"nsec", t.nsec}, {"event", t.event}};
}

}  // namespace

Rendered RenderCapture(const vane_capture_store& s) {
  Table t({"ENTRY", "NUM", "SLOT", "LEN", "EVENT", "<CAPTURED", "EVENT2", "<LATER", "<DATA"});
  json entries = json::array();
  for (uint32_t i = 0; i < s.count; ++i) {
    const vane_capture_entry& e = s.entries[i];
    const auto& t0 = e.times[0];
    const auto& t1 = e.times[1];
    // The first 16 bytes say what the frame is; --json carries them all.
    t.Row({Num(e.index), Num(e.num), Num(e.slot), Num(e.len), t0.used ? Num(t0.event) : "-",
           TimeText(t0), t1.used ? Num(t1.event) : "-", TimeText(t1),
           HexText(e.data, e.data_len < 16 ? e.data_len : 16)});
    entries.push_back({{"entry", e.index},
                       {"num", e.num},
                       {"slot", e.slot},
                       {"len", e.len},
                       {"data", HexText(e.data, e.data_len)},
                       {"times", {TimeJson(t0), TimeJson(t1)}}});
  }
  Rendered r;
  r.text = fmt::format("captured entries: {}\n", s.count) + (s.count ? t.Render() : "");
  r.json = {{"entries", entries}};
  return r;
}

namespace {

constexpr std::array<std::string_view, VANE_WLAN_SET_TYPES> kSetTypes = {
    "capwap", "capwap_ka", "nac_list", "portal", "socket_port", "board_type", "cause_ids"};

}  // namespace

Rendered RenderWlanStats(const vane_wlan_stats& s) {
  Table t({"<SET_TYPE", "MESSAGES"});
  json msgs = json::object();
  for (size_t i = 0; i < kSetTypes.size(); ++i) {
    t.Row({std::string(kSetTypes[i]), Num(s.messages[i])});
    msgs[std::string(kSetTypes[i])] = s.messages[i];
  }
  Rendered r;
  r.text = t.Render() + fmt::format("board type: {}\n", s.board_type);
  r.json = {{"messages", msgs}, {"board_type", s.board_type}};
  return r;
}

Rendered RenderWlanNac(const vane_wlan_nac& n) {
  Rendered r;
  json ids = json::array();
  std::string list;
  for (uint32_t i = 0; i < n.count; ++i) {
    ids.push_back(n.ids[i]);
    list += (i ? " " : "") + Num(n.ids[i]);
  }
  r.text = n.count ? "NAC vCPU list: " + list + "\n" : "NAC vCPU list: none\n";
  r.json = {{"nac", ids}};
  return r;
}

Rendered RenderWlanCauseIds(const vane_wlan_causeids& c) {
  Table t({"CAUSE_ID", "LB_TYPE", "PKT_TYPE"});
  json rows = json::array();
  for (uint32_t i = 0; i < c.count; ++i) {
    const auto& e = c.entries[i];
    t.Row({Num(e.cause_id), Num(e.lb_type), Num(e.pkt_type)});
    rows.push_back({{"cause_id", e.cause_id}, {"lb_type", e.lb_type}, {"pkt_type", e.pkt_type}});
  }
  Rendered r;
  r.text = c.count ? t.Render() : "no cause IDs\n";
  r.json = {{"cause_ids", rows}};
  return r;
}

Rendered RenderWlanPorts(const vane_wlan_ports& p) {
  Table t({"PORT", "<MATCH", "<PROTO", "<TARGET"});
  json rows = json::array();
  for (uint32_t i = 0; i < p.count; ++i) {
    const auto& e = p.ports[i];
    const char* target = e.target == VANE_WLAN_TARGET_NAC     ? "nac"
                         : e.target == VANE_WLAN_TARGET_RANGE ? "range"
                                                              : "vcpu";
    const std::string shown = e.target == VANE_WLAN_TARGET_PROCESS ? Num(e.process) : target;
    t.Row({Num(e.port), e.src_port ? "source" : "destination", e.tcp ? "tcp" : "udp", shown});
    json row = {{"port", e.port},
                {"match", e.src_port ? "source" : "destination"},
                {"proto", e.tcp ? "tcp" : "udp"},
                {"target", target}};
    if (e.target == VANE_WLAN_TARGET_PROCESS) {
      row["vcpu"] = e.process;
    }
    rows.push_back(row);
  }
  Rendered r;
  r.text = p.count ? t.Render() : "no socket ports\n";
  r.json = {{"ports", rows}};
  return r;
}

Rendered RenderCapwap(const vane_capwap_view& v) {
  Table t({"<SOURCE", "SPORT", "<DESTINATION", "DPORT", "VPN", "VCPU"});
  json rows = json::array();
  for (uint32_t i = 0; i < v.count; ++i) {
    const auto& e = v.records[i];
    t.Row(
        {Ipv4Text(e.sip), Num(e.sport), Ipv4Text(e.dip), Num(e.dport), Num(e.vpn), Num(e.process)});
    rows.push_back({{"src", Ipv4Text(e.sip)},
                    {"sport", e.sport},
                    {"dst", Ipv4Text(e.dip)},
                    {"dport", e.dport},
                    {"vpn", e.vpn},
                    {"vcpu", e.process}});
  }
  Rendered r;
  r.text = v.count ? t.Render() : "no CAPWAP tunnel from this address\n";
  if (v.count == VANE_CAPWAP_VIEW_RECORDS) {
    r.text += "(the file shows at most 10 tunnels per address)\n";
  }
  r.json = {{"tunnels", rows}};
  return r;
}

Rendered RenderCapwapKa(const vane_capwap_ka_view& v) {
  Rendered r;
  const std::string session = fmt::format("{:08x}:{:08x}:{:08x}:{:08x}", v.session[0], v.session[1],
                                          v.session[2], v.session[3]);
  r.text = v.found ? fmt::format("session {} -> vCPU {}\n", session, v.process)
                   : "no keep-alive session with this identifier\n";
  r.json = v.found ? json{{"found", true}, {"session", session}, {"vcpu", v.process}}
                   : json{{"found", false}};
  return r;
}

}  // namespace vanectl
