#include "host/sources/chip_rules.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <set>

namespace vane::host {
namespace {

// Records the first error only: later ones are usually its consequences.
class Errors {
 public:
  explicit Errors(std::string* out) : out_(out) {}
  bool Fail(const std::string& where, const std::string& what) {
    if (ok_ && out_ != nullptr) *out_ = where + ": " + what;
    ok_ = false;
    return false;
  }
  bool ok() const { return ok_; }

 private:
  std::string* out_;
  bool ok_ = true;
};

bool Scalar(const YAML::Node& n, std::string* text) {
  if (!n.IsScalar()) return false;
  *text = n.Scalar();
  return true;
}

template <typename T>
bool Number(const YAML::Node& n, const std::string& where, uint64_t lo, uint64_t hi, T* out,
            Errors* e) {
  std::string text;
  uint64_t v = 0;
  if (!Scalar(n, &text) || !ParseNumber(text, lo, hi, &v)) {
    return e->Fail(where, "'" + (n.IsScalar() ? text : std::string("(not a scalar)")) +
                              "' is not a number in " + std::to_string(lo) + ".." +
                              std::to_string(hi));
  }
  *out = static_cast<T>(v);
  return true;
}

bool Bool(const YAML::Node& n, const std::string& where, bool* out, Errors* e) {
  std::string text;
  if (Scalar(n, &text)) {
    if (text == "true" || text == "yes" || text == "on") {
      *out = true;
      return true;
    }
    if (text == "false" || text == "no" || text == "off") {
      *out = false;
      return true;
    }
  }
  return e->Fail(where, "expected true or false");
}

bool KnownKeys(const YAML::Node& map, const std::string& where, const std::set<std::string>& known,
               Errors* e) {
  if (!map.IsMap()) return e->Fail(where, "expected a mapping");
  for (const auto& kv : map) {
    const std::string key = kv.first.Scalar();
    if (known.count(key) == 0) return e->Fail(where, "unknown key '" + key + "'");
  }
  return true;
}

bool Ports(const YAML::Node& n, const std::string& where, std::vector<uint16_t>* out, Errors* e) {
  if (n.IsSequence()) {
    if (n.size() == 0) return e->Fail(where, "empty port list");
    for (size_t i = 0; i < n.size(); ++i) {
      uint16_t p = 0;
      if (!Number(n[i], where + "[" + std::to_string(i) + "]", 0, 65535, &p, e)) return false;
      out->push_back(p);
    }
    return true;
  }
  uint16_t p = 0;
  if (!Number(n, where, 0, 65535, &p, e)) return false;
  out->push_back(p);
  return true;
}

bool ParseCidr(const YAML::Node& n, const std::string& where, Cidr* out, Errors* e) {
  std::string text;
  if (!Scalar(n, &text)) return e->Fail(where, "expected an address");
  std::string addr = text;
  std::optional<std::string> prefix;
  if (const size_t slash = text.find('/'); slash != std::string::npos) {
    addr = text.substr(0, slash);
    prefix = text.substr(slash + 1);
  }
  if (inet_pton(AF_INET, addr.c_str(), out->addr.data()) == 1) {
    out->version = 4;
    out->prefix = 32;
  } else if (inet_pton(AF_INET6, addr.c_str(), out->addr.data()) == 1) {
    out->version = 6;
    out->prefix = 128;
  } else {
    return e->Fail(where, "'" + text + "' is not an IPv4 or IPv6 address");
  }
  if (prefix) {
    uint64_t bits = 0;
    if (prefix->empty() || !ParseNumber(*prefix, 0, out->prefix, &bits)) {
      return e->Fail(where, "'" + text + "' has a bad prefix length");
    }
    out->prefix = static_cast<uint8_t>(bits);
  }
  return true;
}

bool ParseMatch(const YAML::Node& n, const std::string& where, ChipMatch* m, Errors* e) {
  if (!n || n.IsNull()) return true;
  if (!KnownKeys(
          n, where,
          {"ethertype", "vlan", "ip_proto", "sport", "dport", "src", "dst", "fragment", "payload"},
          e)) {
    return false;
  }
  if (n["ethertype"] &&
      !Number(n["ethertype"], where + ".ethertype", 0, 0xFFFF, &m->ether_type.emplace(), e)) {
    return false;
  }
  if (n["vlan"] && !Number(n["vlan"], where + ".vlan", 0, 4095, &m->vlan.emplace(), e)) {
    return false;
  }
  if (const YAML::Node p = n["ip_proto"]) {
    const std::string text = p.IsScalar() ? p.Scalar() : "";
    if (text == "udp") {
      m->ip_proto = 17;
    } else if (text == "tcp") {
      m->ip_proto = 6;
    } else if (text == "icmp") {
      m->ip_proto = 1;
      m->proto_is_icmp = true;
    } else if (!Number(p, where + ".ip_proto", 0, 255, &m->ip_proto.emplace(), e)) {
      return false;
    }
  }
  if (n["sport"] && !Ports(n["sport"], where + ".sport", &m->sports, e)) return false;
  if (n["dport"] && !Ports(n["dport"], where + ".dport", &m->dports, e)) return false;
  if (n["src"] && !ParseCidr(n["src"], where + ".src", &m->src.emplace(), e)) return false;
  if (n["dst"] && !ParseCidr(n["dst"], where + ".dst", &m->dst.emplace(), e)) return false;
  if (n["fragment"] && !Bool(n["fragment"], where + ".fragment", &m->fragment.emplace(), e)) {
    return false;
  }
  if (const YAML::Node p = n["payload"]) {
    const std::string pw = where + ".payload";
    PayloadMatch& pm = m->payload.emplace();
    if (!KnownKeys(p, pw, {"offset", "mask", "value"}, e)) return false;
    if (!p["offset"] || !p["value"]) return e->Fail(pw, "needs offset and value");
    if (!Number(p["offset"], pw + ".offset", 0, 65535, &pm.offset, e)) return false;
    if (p["mask"] && !Number(p["mask"], pw + ".mask", 0, 0xFF, &pm.mask, e)) return false;
    if (!Number(p["value"], pw + ".value", 0, 0xFF, &pm.value, e)) return false;
    if ((pm.value & ~pm.mask) != 0) return e->Fail(pw, "value has bits outside the mask");
  }
  return true;
}

bool ParseAction(const YAML::Node& n, const std::string& where, ChipAction* a, Errors* e) {
  if (n["cause_id"] &&
      !Number(n["cause_id"], where + ".cause_id", 0, 8191, &a->cause_id.emplace(), e)) {
    return false;
  }
  if (n["eth_num"] &&
      !Number(n["eth_num"], where + ".eth_num", 0, UINT32_MAX, &a->eth_num.emplace(), e)) {
    return false;
  }
  if (n["type"] && !Number(n["type"], where + ".type", 1, 15, &a->type.emplace(), e)) {
    return false;
  }
  return !n["chip_bytes"] || Bool(n["chip_bytes"], where + ".chip_bytes", &a->chip_bytes, e);
}

bool Overlap(uint32_t a, uint32_t alen, uint32_t b, uint32_t blen) {
  return a < b + blen && b < a + alen;
}

bool CidrMatches(const Cidr& c, const FrameFacts& f, const std::array<uint8_t, 16>& addr) {
  if (f.ip_version != c.version) return false;
  const uint32_t full = c.prefix / 8u;
  if (!std::equal(addr.begin(), addr.begin() + full, c.addr.begin())) return false;
  const uint32_t rest = c.prefix % 8u;
  if (rest == 0) return true;
  const auto mask = static_cast<uint8_t>(0xFF00u >> rest);
  return (addr[full] & mask) == (c.addr[full] & mask);
}

bool PortIn(const std::vector<uint16_t>& ports, uint16_t p) {
  return ports.empty() || std::find(ports.begin(), ports.end(), p) != ports.end();
}

}  // namespace

bool ParseNumber(const std::string& text, uint64_t lo, uint64_t hi, uint64_t* out) {
  const char* b = text.data();
  const char* end = text.data() + text.size();
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    b += 2;
    base = 16;
  }
  uint64_t v = 0;
  const auto [p, ec] = std::from_chars(b, end, v, base);
  if (b == end || ec != std::errc() || p != end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

bool ParseChipConfig(const YAML::Node& section, ChipConfig* out, std::string* err) {
  Errors e(err);
  *out = ChipConfig{};
  if (!section || section.IsNull()) return true;
  const std::string w = "chip_header";
  if (!KnownKeys(section, w, {"higig2_offset", "cause_id_offset", "mac_offset", "default", "rules"},
                 &e)) {
    return false;
  }
  if (section["higig2_offset"] && !Number(section["higig2_offset"], w + ".higig2_offset", 0,
                                          kMaxMacOffset, &out->higig2_offset, &e)) {
    return false;
  }
  if (section["cause_id_offset"] && !Number(section["cause_id_offset"], w + ".cause_id_offset", 0,
                                            kMaxMacOffset, &out->cause_id_offset, &e)) {
    return false;
  }
  if (section["mac_offset"] &&
      !Number(section["mac_offset"], w + ".mac_offset", 0, kMaxMacOffset, &out->mac_offset, &e)) {
    return false;
  }
  // The chip's fields must not overlap each other or the frame, or one
  // would silently overwrite the other.
  if (out->higig2_offset + 16 > out->mac_offset) {
    return e.Fail(w, "the 16-byte HiGig2 header at " + std::to_string(out->higig2_offset) +
                         " runs into the frame at mac_offset " + std::to_string(out->mac_offset));
  }
  if (out->cause_id_offset + 20 > out->mac_offset) {
    return e.Fail(w, "the cause ID at bytes " + std::to_string(out->cause_id_offset + 18) + ".." +
                         std::to_string(out->cause_id_offset + 19) +
                         " runs into the frame at mac_offset " + std::to_string(out->mac_offset));
  }
  if (Overlap(out->higig2_offset, 16, out->cause_id_offset + 18, 2)) {
    return e.Fail(w, "the cause ID lies inside the HiGig2 header");
  }
  if (const YAML::Node d = section["default"]) {
    if (!KnownKeys(d, w + ".default", {"cause_id", "eth_num", "type"}, &e)) return false;
    ChipAction a;
    if (!ParseAction(d, w + ".default", &a, &e)) return false;
    out->default_cause = a.cause_id.value_or(out->default_cause);
    out->default_eth = a.eth_num.value_or(out->default_eth);
    out->default_type = a.type.value_or(out->default_type);
  }
  const YAML::Node rules = section["rules"];
  if (!rules || rules.IsNull()) return true;
  if (!rules.IsSequence()) return e.Fail(w + ".rules", "expected a list");
  for (size_t i = 0; i < rules.size(); ++i) {
    const std::string rw = w + ".rules[" + std::to_string(i) + "]";
    ChipRule r;
    if (!KnownKeys(rules[i], rw, {"match", "cause_id", "eth_num", "type", "chip_bytes"}, &e) ||
        !ParseMatch(rules[i]["match"], rw + ".match", &r.match, &e) ||
        !ParseAction(rules[i], rw, &r.action, &e)) {
      return false;
    }
    out->rules.push_back(std::move(r));
  }
  return e.ok();
}

bool RuleMatches(const ChipMatch& m, const FrameFacts& f, const uint8_t* frame) {
  if (m.ether_type && (!f.has_ether_type || f.ether_type != *m.ether_type)) return false;
  if (m.vlan && (!f.has_vlan || f.vlan_id != *m.vlan)) return false;
  if (m.ip_proto) {
    if (!f.has_proto) return false;
    const uint8_t want = m.proto_is_icmp && f.ip_version == 6 ? 58 : *m.ip_proto;
    if (f.ip_proto != want) return false;
  }
  if (!m.sports.empty() || !m.dports.empty() || m.payload) {
    if (!f.has_ports || !PortIn(m.sports, f.sport) || !PortIn(m.dports, f.dport)) return false;
  }
  if (m.src && !CidrMatches(*m.src, f, f.src)) return false;
  if (m.dst && !CidrMatches(*m.dst, f, f.dst)) return false;
  if (m.fragment && f.non_first_fragment != *m.fragment) return false;
  if (m.payload) {
    const uint64_t at = uint64_t{f.payload_offset} + m.payload->offset;
    if (at >= f.frame_len) return false;
    if ((frame[at] & m.payload->mask) != m.payload->value) return false;
  }
  return true;
}

}  // namespace vane::host
