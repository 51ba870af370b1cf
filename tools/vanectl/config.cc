// Parsing and validation of the configuration file. Every value is checked
// against what the dispatcher can hold and what its lookups can ever match,
// so that a mistake is reported with its line here instead of being stored
// silently by a dispatcher that acknowledges everything with success.
#include "config.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "vane/vane.h"

namespace vanectl {
namespace {

// What the dispatcher can hold, as libvane states it.
constexpr uint32_t kMaxVcpu = VANE_VCPU_MAX;
constexpr uint32_t kMaxCauseId = VANE_CAUSE_ID_VALUE_MAX;
constexpr size_t kMaxSteeringIds = VANE_STEERING_CAUSEIDS;
constexpr size_t kMaxTimngEntries = VANE_TIMNG_ENTRIES;
constexpr size_t kMaxWlanCauseIds = VANE_CAUSEID_MAX;
constexpr size_t kMaxNac = VANE_NAC_MAX;
constexpr uint32_t kMinPktType = VANE_PKT_TYPE_MIN;
constexpr uint32_t kMaxPktType = VANE_PKT_TYPE_MAX;
// Ports are 16-bit fields; the file keeps offsets within a frame too.
constexpr uint32_t kMaxPort = UINT16_MAX;
constexpr uint32_t kMaxOffset = UINT16_MAX;

class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  [[noreturn]] void Fail(const YAML::Node& at, const std::string& key,
                         const std::string& why) const {
    const YAML::Mark m = at.IsDefined() ? at.Mark() : YAML::Mark::null_mark();
    Fail(m, key, why);
  }
  [[noreturn]] void Fail(const YAML::Mark& m, const std::string& key,
                         const std::string& why) const {
    if (m.is_null()) throw ConfigError(fmt::format("{}: {}: {}", file_, key, why));
    throw ConfigError(fmt::format("{}:{}:{}: {}: {}", file_, m.line + 1, m.column + 1, key, why));
  }

  uint64_t Number(const YAML::Node& n, const std::string& key, uint64_t lo, uint64_t hi) const {
    const std::string s = Scalar(n, key);
    uint64_t v = 0;
    const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    const size_t start = hex ? 2 : 0;
    const uint64_t base = hex ? 16 : 10;
    if (s.size() == start) Fail(n, key, fmt::format("'{}' is not a number", s));
    for (size_t i = start; i < s.size(); ++i) {
      const int d = Digit(s[i], hex);
      if (d < 0) Fail(n, key, fmt::format("'{}' is not a decimal or 0x number", s));
      if (v > (UINT64_MAX - static_cast<uint64_t>(d)) / base) {
        Fail(n, key, fmt::format("{} is out of range {}..{}", s, lo, hi));
      }
      v = v * base + static_cast<uint64_t>(d);
    }
    if (v < lo || v > hi) Fail(n, key, fmt::format("{} is out of range {}..{}", s, lo, hi));
    return v;
  }
  uint32_t U32(const YAML::Node& n, const std::string& key, uint32_t lo = 0,
               uint32_t hi = UINT32_MAX) const {
    return static_cast<uint32_t>(Number(n, key, lo, hi));
  }

  bool Bool(const YAML::Node& n, const std::string& key) const {
    const std::string s = Scalar(n, key);
    if (s == "true") return true;
    if (s == "false") return false;
    Fail(n, key, fmt::format("'{}' is not true or false", s));
  }

  std::string Scalar(const YAML::Node& n, const std::string& key) const {
    if (!n.IsScalar()) Fail(n, key, "expected a single value");
    return n.Scalar();
  }

  // One of `names`; returns its index.
  size_t Choice(const YAML::Node& n, const std::string& key,
                std::initializer_list<const char*> names) const {
    const std::string s = Scalar(n, key);
    size_t i = 0;
    std::string all;
    for (const char* name : names) {
      if (s == name) return i;
      all += (i++ == 0 ? "" : "|") + std::string(name);
    }
    Fail(n, key, fmt::format("'{}' is not one of {}", s, all));
  }

  Range RangeOf(const YAML::Node& n, const std::string& key, uint32_t lo, uint32_t hi) const {
    if (!n.IsSequence() || n.size() != 2) Fail(n, key, "expected [min, max]");
    Range r{U32(n[0], key + ".min", lo, hi), U32(n[1], key + ".max", lo, hi)};
    if (r.min > r.max) Fail(n, key, "min is above max: the range would match nothing");
    return r;
  }

  // A list of at most `cap` items; calls fn(item, "key[i]") for each.
  template <typename Fn>
  void List(const YAML::Node& n, const std::string& key, size_t cap, Fn fn) const {
    if (!n.IsDefined() || n.IsNull()) return;
    if (!n.IsSequence()) Fail(n, key, "expected a list");
    if (n.size() > cap) Fail(n, key, fmt::format("{} entries; at most {}", n.size(), cap));
    for (size_t i = 0; i < n.size(); ++i) fn(n[i], fmt::format("{}[{}]", key, i));
  }

  const std::string& file() const { return file_; }

 private:
  static int Digit(char c, bool hex) {
    if (c >= '0' && c <= '9') return c - '0';
    if (!hex) return -1;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  std::string file_;
};

// A mapping whose keys must all be known: a misspelt key would otherwise
// leave its setting at a default without a word.
class Map {
 public:
  Map(const Reader& r, const YAML::Node& node, std::string path,
      std::initializer_list<const char*> keys)
      : r_(r), node_(node), path_(std::move(path)) {
    if (!node.IsMap()) r.Fail(node, path_, "expected a mapping of keys");
    std::set<std::string> allowed(keys.begin(), keys.end());
    std::set<std::string> seen;
    for (const auto& kv : node) {
      const std::string k = kv.first.IsScalar() ? kv.first.Scalar() : std::string("?");
      const std::string where = Path(k);
      if (allowed.count(k) == 0) {
        std::string known;
        for (const char* a : keys) known += (known.empty() ? "" : ", ") + std::string(a);
        r.Fail(kv.first, where, fmt::format("unknown key (known here: {})", known));
      }
      if (!seen.insert(k).second) r.Fail(kv.first, where, "key given twice");
    }
  }

  bool Has(const char* key) const { return node_[key].IsDefined(); }
  YAML::Node Get(const char* key) const { return node_[key]; }
  YAML::Node Need(const char* key) const {
    YAML::Node n = node_[key];
    if (!n.IsDefined()) r_.Fail(node_, Path(key), "missing");
    return n;
  }
  std::string Path(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }
  int Line() const { return node_.Mark().line + 1; }

  uint32_t U32(const char* key, uint32_t lo = 0, uint32_t hi = UINT32_MAX, uint32_t def = 0) const {
    return Has(key) ? r_.U32(Get(key), Path(key), lo, hi) : def;
  }
  uint32_t NeedU32(const char* key, uint32_t lo = 0, uint32_t hi = UINT32_MAX) const {
    return r_.U32(Need(key), Path(key), lo, hi);
  }
  bool Bool(const char* key, bool def) const {
    return Has(key) ? r_.Bool(Get(key), Path(key)) : def;
  }

 private:
  const Reader& r_;
  YAML::Node node_;
  std::string path_;
};

DispatchSection ParseDispatch(const Reader& r, const YAML::Node& n) {
  const Map m(r, n, "dispatch",
              {"multicore", "board_type", "offsets", "no_higig2", "ecm_vp_only", "ethertypes",
               "interfaces"});
  DispatchSection d;
  d.multicore = m.Bool("multicore", false);
  d.board_type = m.U32("board_type");
  d.no_higig2 = m.Bool("no_higig2", false);
  d.ecm_vp_only = m.Bool("ecm_vp_only", false);
  if (m.Has("offsets")) {
    const Map o(
        r, m.Get("offsets"), "dispatch.offsets",
        {"higig2", "mac", "cause_id", "first_frag_flag", "vp_inner", "vp_frag_inner", "inner_mac"});
    d.off_higig2 = o.U32("higig2", 0, kMaxOffset);
    d.off_mac = o.U32("mac", 0, kMaxOffset);
    d.off_cause_id = o.U32("cause_id", 0, kMaxOffset);
    d.off_first_frag_flag = o.U32("first_frag_flag", 0, kMaxOffset);
    d.off_vp_inner = o.U32("vp_inner", 0, kMaxOffset);
    d.off_vp_frag_inner = o.U32("vp_frag_inner", 0, kMaxOffset);
    d.off_inner_mac = o.U32("inner_mac", 0, kMaxOffset);
  }
  if (m.Has("ethertypes")) {
    const Map e(r, m.Get("ethertypes"), "dispatch.ethertypes", {"ipc", "vp", "ecm_vcpu"});
    d.ipc_ethertype = e.U32("ipc", 0, 0xFFFF);
    d.vp_ethertype = e.U32("vp", 0, 0xFFFF);
    d.ecm_vcpu_ethertype = e.U32("ecm_vcpu", 0, 0xFFFF);
  }
  if (m.Has("interfaces")) {
    const Map i(r, m.Get("interfaces"), "dispatch.interfaces", {"multicore", "ecm", "vp"});
    if (i.Has("multicore")) {
      d.multicore_interfaces = r.RangeOf(i.Get("multicore"), i.Path("multicore"), 0, UINT32_MAX);
    }
    d.ecm_interface = i.U32("ecm");
    if (i.Has("vp")) d.vp_interfaces = r.RangeOf(i.Get("vp"), i.Path("vp"), 0, UINT32_MAX);
  }
  return d;
}

SteeringTable ParseSteeringTable(const Reader& r, const YAML::Node& n, const std::string& path) {
  const Map m(r, n, path, {"enable", "vcpu", "cause_ids", "range"});
  SteeringTable t;
  t.enable = m.Bool("enable", true);
  t.vcpu = t.enable ? m.NeedU32("vcpu", 1, kMaxVcpu) : m.U32("vcpu", 0, kMaxVcpu);
  r.List(m.Get("cause_ids"), m.Path("cause_ids"), kMaxSteeringIds,
         [&](const YAML::Node& item, const std::string& key) {
           t.cause_ids.push_back(static_cast<uint16_t>(r.U32(item, key, 0, kMaxCauseId)));
         });
  // A minimum of 0 is the dispatcher's "no range": reject it rather than
  // store a range that silently never matches.
  if (m.Has("range")) t.range = r.RangeOf(m.Get("range"), m.Path("range"), 1, kMaxCauseId);
  return t;
}

SteeringSection ParseSteering(const Reader& r, const YAML::Node& n) {
  const Map m(r, n, "steering", {"ivo", "deteption"});
  SteeringSection s;
  if (m.Has("ivo")) s.ivo = ParseSteeringTable(r, m.Get("ivo"), "steering.ivo");
  if (m.Has("deteption")) {
    s.deteption = ParseSteeringTable(r, m.Get("deteption"), "steering.deteption");
  }
  return s;
}

TimngSection ParseTimng(const Reader& r, const YAML::Node& n) {
  const Map m(r, n, "timng", {"master", "entries"});
  TimngSection t;
  t.master = m.Bool("master", false);
  r.List(m.Get("entries"), m.Path("entries"), kMaxTimngEntries,
         [&](const YAML::Node& item, const std::string& key) {
           const Map e(r, item, key, {"cause_id", "node", "frag_scan"});
           t.entries.push_back({e.NeedU32("cause_id", 0, kMaxCauseId),
                                e.NeedU32("node", 1, kMaxVcpu), e.Bool("frag_scan", false)});
         });
  return t;
}

uint32_t Address(const Reader& r, const YAML::Node& n, const std::string& key) {
  const std::string s = r.Scalar(n, key);
  if (s == "any") return kAnyAddress;
  in_addr a{};
  if (inet_pton(AF_INET, s.c_str(), &a) != 1) {
    r.Fail(n, key, fmt::format("'{}' is not a dotted IPv4 address or 'any'", s));
  }
  // The parser stores addresses in host order, and so does the table.
  return ntohl(a.s_addr);
}

std::array<uint32_t, 4> Session(const Reader& r, const YAML::Node& n, const std::string& key) {
  const std::string s = r.Scalar(n, key);
  if (s.size() != 32 || s.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    r.Fail(n, key, fmt::format("'{}' is not 32 hex digits", s));
  }
  // The bytes as the keep-alive carries them; the packet path reads each
  // 4-byte group big-endian into a host-order word.
  std::array<uint32_t, 4> w{};
  for (size_t i = 0; i < 4; ++i)
    w[i] = static_cast<uint32_t>(std::stoul(s.substr(i * 8, 8), nullptr, 16));
  return w;
}

CapwapEntry ParseCapwap(const Reader& r, const YAML::Node& n, const std::string& key) {
  const Map m(r, n, key, {"src", "dst", "sport", "dport", "vpn", "vcpu"});
  CapwapEntry e;
  e.line = m.Line();
  e.src = Address(r, m.Need("src"), m.Path("src"));
  e.dst = Address(r, m.Need("dst"), m.Path("dst"));
  const YAML::Node sp = m.Need("sport");
  e.sport = sp.IsScalar() && sp.Scalar() == "any"
                ? kAnyPort
                : static_cast<uint16_t>(r.U32(sp, m.Path("sport"), 0, kMaxPort - 1));
  e.dport = static_cast<uint16_t>(m.NeedU32("dport", 0, kMaxPort));
  const YAML::Node vpn = m.Get("vpn");
  e.vpn = vpn.IsDefined() && vpn.IsScalar() && vpn.Scalar() == "any"
              ? kAnyVpn
              : static_cast<uint8_t>(m.U32("vpn", 0, kAnyVpn - 1));
  e.vcpu = m.NeedU32("vcpu", 1, kMaxVcpu);
  // The lookup tries the exact tuple, then two wildcard shapes only; any
  // other mixture of 'any' is an entry that no packet can ever reach.
  const bool addr_any = e.src == kAnyAddress && e.dst == kAnyAddress && e.vpn == kAnyVpn;
  const bool some_any =
      e.src == kAnyAddress || e.dst == kAnyAddress || e.sport == kAnyPort || e.vpn == kAnyVpn;
  if (some_any && !addr_any) {
    r.Fail(n, key,
           "a wildcard entry needs src: any, dst: any and vpn: any (with sport: any for a "
           "destination-port entry); no packet could reach this one");
  }
  return e;
}

SocketPortEntry ParseSocketPort(const Reader& r, const YAML::Node& n, const std::string& key) {
  const Map m(r, n, key, {"port", "proto", "match", "vcpu", "ipv6"});
  SocketPortEntry e;
  e.line = m.Line();
  e.port = static_cast<uint16_t>(m.NeedU32("port", 0, kMaxPort));
  if (m.Has("proto")) e.tcp = r.Choice(m.Get("proto"), m.Path("proto"), {"udp", "tcp"}) == 1;
  if (m.Has("match")) e.match_src = r.Choice(m.Get("match"), m.Path("match"), {"dst", "src"}) == 1;
  e.ipv6 = m.Bool("ipv6", false);
  const YAML::Node v = m.Get("vcpu");
  if (v.IsDefined() && v.IsScalar() && v.Scalar() == "nac") {
    e.vcpu = kNacProcess;
  } else if (e.match_src) {
    // A source-port entry spreads by destination port; its vCPU is only shown.
    e.vcpu = m.U32("vcpu", 0, kMaxVcpu);
  } else {
    e.vcpu = m.NeedU32("vcpu", 1, kMaxVcpu);
  }
  return e;
}

// The cause-ID table: at most 100 entries, each cause ID once (the
// dispatcher keeps the first setting of a cause ID for good).
std::vector<CauseIdEntry> ParseCauseIds(const Reader& r, const Map& m) {
  std::vector<CauseIdEntry> out;
  std::map<uint32_t, int> lines;
  r.List(m.Get("cause_ids"), m.Path("cause_ids"), kMaxWlanCauseIds,
         [&](const YAML::Node& item, const std::string& key) {
           const Map e(r, item, key, {"cause_id", "pkt_type", "lb"});
           CauseIdEntry c;
           c.line = e.Line();
           c.cause_id = e.NeedU32("cause_id", 0, kMaxCauseId);
           c.pkt_type = e.NeedU32("pkt_type", kMinPktType, kMaxPktType);
           c.lb = static_cast<LbType>(r.Choice(e.Need("lb"), e.Path("lb"),
                                               {"capwap", "capwap_ka", "aaa_mac", "aaa_port"}) +
                                      1);
           if (auto [it, fresh] = lines.emplace(c.cause_id, c.line); !fresh) {
             r.Fail(item, e.Path("cause_id"),
                    fmt::format("cause ID {} is already given on line {}", c.cause_id, it->second));
           }
           out.push_back(c);
         });
  return out;
}

// The NAC vCPU list, which goes in one message with the board type.
std::vector<uint32_t> ParseNac(const Reader& r, const Map& m, bool have_board_type) {
  if (!have_board_type) {
    r.Fail(m.Get("nac"), m.Path("nac"),
           "needs wlan.board_type: the NAC list message sets the board type too");
  }
  std::vector<uint32_t> out;
  r.List(m.Get("nac"), m.Path("nac"), kMaxNac, [&](const YAML::Node& item, const std::string& key) {
    out.push_back(r.U32(item, key, 1, kMaxVcpu));
  });
  return out;
}

PortalEntry ParsePortal(const Reader& r, const Map& m) {
  const Map p(r, m.Get("portal"), m.Path("portal"), {"port", "vcpu"});
  return PortalEntry{static_cast<uint16_t>(p.NeedU32("port", 0, kMaxPort)),
                     p.NeedU32("vcpu", 1, kMaxVcpu)};
}

// Entries with one identity replace each other in the dispatcher: a second
// one in the file is a mistake, not an update. So it is for the three lists
// below.
std::vector<SocketPortEntry> ParseSocketPorts(const Reader& r, const Map& m) {
  std::vector<SocketPortEntry> out;
  std::map<std::tuple<uint16_t, bool, bool, bool>, int> seen;
  r.List(
      m.Get("socket_ports"), m.Path("socket_ports"), SIZE_MAX,
      [&](const YAML::Node& item, const std::string& key) {
        SocketPortEntry e = ParseSocketPort(r, item, key);
        if (auto [it, fresh] = seen.emplace(std::tuple(e.port, e.tcp, e.match_src, e.ipv6), e.line);
            !fresh) {
          r.Fail(item, key, fmt::format("the same port entry is given on line {}", it->second));
        }
        out.push_back(e);
      });
  return out;
}

std::vector<CapwapEntry> ParseCapwapTunnels(const Reader& r, const Map& m) {
  std::vector<CapwapEntry> out;
  std::map<std::tuple<uint32_t, uint32_t, uint16_t, uint16_t, uint8_t>, int> seen;
  r.List(m.Get("capwap"), m.Path("capwap"), SIZE_MAX,
         [&](const YAML::Node& item, const std::string& key) {
           CapwapEntry e = ParseCapwap(r, item, key);
           if (auto [it, fresh] =
                   seen.emplace(std::tuple(e.src, e.dst, e.sport, e.dport, e.vpn), e.line);
               !fresh) {
             r.Fail(item, key, fmt::format("the same tunnel is given on line {}", it->second));
           }
           out.push_back(e);
         });
  return out;
}

std::vector<KeepAliveEntry> ParseKeepAlives(const Reader& r, const Map& m) {
  std::vector<KeepAliveEntry> out;
  std::map<std::array<uint32_t, 4>, int> seen;
  r.List(m.Get("capwap_keepalive"), m.Path("capwap_keepalive"), SIZE_MAX,
         [&](const YAML::Node& item, const std::string& key) {
           const Map e(r, item, key, {"session", "vcpu"});
           KeepAliveEntry k;
           k.line = e.Line();
           k.session = Session(r, e.Need("session"), e.Path("session"));
           k.vcpu = e.NeedU32("vcpu", 1, kMaxVcpu);
           if (auto [it, fresh] = seen.emplace(k.session, k.line); !fresh) {
             r.Fail(item, key, fmt::format("the same session is given on line {}", it->second));
           }
           out.push_back(k);
         });
  return out;
}

WlanSection ParseWlan(const Reader& r, const YAML::Node& n) {
  const Map m(
      r, n, "wlan",
      {"board_type", "cause_ids", "nac", "portal", "socket_ports", "capwap", "capwap_keepalive"});
  WlanSection w;
  if (m.Has("board_type")) w.board_type = m.U32("board_type");
  w.cause_ids = ParseCauseIds(r, m);
  if (m.Has("nac")) w.nac = ParseNac(r, m, w.board_type.has_value());
  if (m.Has("portal")) w.portal = ParsePortal(r, m);
  w.socket_ports = ParseSocketPorts(r, m);
  w.capwap = ParseCapwapTunnels(r, m);
  w.capwap_keepalive = ParseKeepAlives(r, m);
  return w;
}

}  // namespace

Config ParseConfig(const std::string& text, const std::string& file_name) {
  const Reader r(file_name);
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::ParserException& e) {
    r.Fail(e.mark, "syntax", e.msg);
  }
  Config c;
  c.file = file_name;
  if (root.IsNull()) return c;  // an empty file applies nothing
  try {
    // The vaned section belongs to the daemon, which validates it itself.
    const Map top(r, root, "", {"dispatch", "steering", "timng", "wlan", "vaned"});
    if (top.Has("dispatch")) c.dispatch = ParseDispatch(r, top.Get("dispatch"));
    if (top.Has("steering")) c.steering = ParseSteering(r, top.Get("steering"));
    if (top.Has("timng")) c.timng = ParseTimng(r, top.Get("timng"));
    if (top.Has("wlan")) c.wlan = ParseWlan(r, top.Get("wlan"));
  } catch (const YAML::Exception& e) {
    // A shape the checks above did not foresee still names its place.
    r.Fail(e.mark, "structure", e.msg);
  }
  return c;
}

Config LoadConfig(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ConfigError(fmt::format("{}: cannot be read", path));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw ConfigError(fmt::format("{}: read error", path));
  return ParseConfig(text.str(), path);
}

const char* LbTypeName(LbType t) {
  switch (t) {
    case LbType::kCapwap:
      return "capwap";
    case LbType::kCapwapKa:
      return "capwap_ka";
    case LbType::kAaaMac:
      return "aaa_mac";
    case LbType::kAaaPort:
      return "aaa_port";
  }
  return "?";
}

std::string AddressText(uint32_t host_order) {
  if (host_order == kAnyAddress) return "any";
  return fmt::format("{}.{}.{}.{}", host_order >> 24, (host_order >> 16) & 0xFF,
                     (host_order >> 8) & 0xFF, host_order & 0xFF);
}

}  // namespace vanectl
