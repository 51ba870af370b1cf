// pcapng of capture entries and the capture filter options (see
// capture_file.h).
#include "capture_file.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstring>
#include <stdexcept>

#include "pcapng.h"

namespace vanectl {

namespace {

constexpr uint64_t kNsPerSec = 1000000000ull;

uint64_t Ns(const vane_capture_time& t) { return t.sec * kNsPerSec + t.nsec; }

}  // namespace

std::string CapturePcapng(const std::vector<vane_capture_entry>& entries) {
  std::string out = pcapng::SectionHeader("vanectl capture");
  out += pcapng::EthernetInterface("vane-capture", VANE_CAPTURE_DATA);
  for (const vane_capture_entry& e : entries) {
    std::vector<std::string> comments;
    comments.push_back(
        fmt::format("capture {} on slot {}, store entry {}", e.num, e.slot, e.index));
    // The packet's own time is its capture event; the later event is only
    // a comment, with its distance from the capture.
    const vane_capture_time& t0 = e.times[0];
    for (const vane_capture_time& t : e.times) {
      if (!t.used) {
        continue;
      }
      std::string c = fmt::format("event {} at {}.{:09}", t.event, t.sec, t.nsec);
      if (&t != &t0 && t0.used) {
        const auto delta = static_cast<int64_t>(Ns(t) - Ns(t0));
        c += fmt::format(" ({:+} ns)", delta);
      }
      comments.push_back(std::move(c));
    }
    out += pcapng::Packet(t0.used ? Ns(t0) : 0, e.data, e.data_len, e.len, comments);
  }
  return out;
}

namespace {

uint32_t Number(const std::string& key, const std::string& v, uint32_t max) {
  size_t used = 0;
  unsigned long n = 0;
  try {
    n = std::stoul(v, &used, 0);
  } catch (const std::exception&) {
    used = 0;
  }
  if (v.empty() || used != v.size() || n > max) {
    throw std::invalid_argument(fmt::format("{}: not a number up to {}: {}", key, max, v));
  }
  return static_cast<uint32_t>(n);
}

void Mac(const std::string& key, const std::string& v, uint8_t out[6]) {
  // Six pairs of hex digits separated by ':', nothing else.
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  bool ok = v.size() == 17;
  for (size_t i = 0; ok && i < 6; ++i) {
    const int hi = hex(v[3 * i]);
    const int lo = hex(v[3 * i + 1]);
    ok = hi >= 0 && lo >= 0 && (i == 5 || v[3 * i + 2] == ':');
    out[i] = static_cast<uint8_t>(hi * 16 + lo);
  }
  if (!ok) {
    throw std::invalid_argument(fmt::format("{}: not a MAC address: {}", key, v));
  }
}

uint32_t Ipv4(const std::string& key, const std::string& v) {
  in_addr a{};
  if (inet_pton(AF_INET, v.c_str(), &a) != 1) {
    throw std::invalid_argument(fmt::format("{}: not an IPv4 address: {}", key, v));
  }
  return ntohl(a.s_addr);
}

void Ipv6(const std::string& key, const std::string& v, uint8_t out[16]) {
  if (inet_pton(AF_INET6, v.c_str(), out) != 1) {
    throw std::invalid_argument(fmt::format("{}: not an IPv6 address: {}", key, v));
  }
}

}  // namespace

void ApplyCaptureFilter(const std::string& kv, vane_capture_arm* a) {
  const size_t eq = kv.find('=');
  if (eq == std::string::npos) {
    throw std::invalid_argument("a filter is KEY=VALUE: " + kv);
  }
  const std::string key = kv.substr(0, eq);
  const std::string v = kv.substr(eq + 1);
  if (key == "ethertype") {
    a->ethertype = static_cast<uint16_t>(Number(key, v, 0xFFFF));
    a->filters |= VANE_CAPTURE_F_ETHTYPE;
  } else if (key == "sip") {
    a->sip = Ipv4(key, v);
    a->filters |= VANE_CAPTURE_F_SIP;
  } else if (key == "dip") {
    a->dip = Ipv4(key, v);
    a->filters |= VANE_CAPTURE_F_DIP;
  } else if (key == "sip6") {
    Ipv6(key, v, a->sip6);
    a->filters |= VANE_CAPTURE_F_SIP6;
  } else if (key == "dip6") {
    Ipv6(key, v, a->dip6);
    a->filters |= VANE_CAPTURE_F_DIP6;
  } else if (key == "smac") {
    Mac(key, v, a->smac);
    a->filters |= VANE_CAPTURE_F_SMAC;
  } else if (key == "dmac") {
    Mac(key, v, a->dmac);
    a->filters |= VANE_CAPTURE_F_DMAC;
  } else if (key == "len") {
    a->length = static_cast<uint16_t>(Number(key, v, 0xFFFF));
    a->filters |= VANE_CAPTURE_F_LEN;
  } else if (key == "srcmod") {
    a->src_mod = static_cast<uint16_t>(Number(key, v, 0xFFFF));
    a->filters |= VANE_CAPTURE_F_SRCMOD;
  } else if (key == "srcport") {
    a->src_port = static_cast<uint16_t>(Number(key, v, 0xFFFF));
    a->filters |= VANE_CAPTURE_F_SRCPORT;
  } else if (key == "udf") {
    const size_t colon = v.find(':');
    if (colon == std::string::npos) {
      throw std::invalid_argument("udf: OFFSET:VALUE, not " + v);
    }
    const auto off = static_cast<uint16_t>(Number(key, v.substr(0, colon), 0xFFFF));
    const auto val = static_cast<uint16_t>(Number(key, v.substr(colon + 1), 0xFFFF));
    if ((a->filters & VANE_CAPTURE_F_UDF1) == 0) {
      a->udf1_offset = off;
      a->udf1_value = val;
      a->filters |= VANE_CAPTURE_F_UDF1;
    } else if ((a->filters & VANE_CAPTURE_F_UDF2) == 0) {
      a->udf2_offset = off;
      a->udf2_value = val;
      a->filters |= VANE_CAPTURE_F_UDF2;
    } else {
      throw std::invalid_argument("udf: two fields at most");
    }
  } else {
    throw std::invalid_argument("unknown filter " + key);
  }
}

}  // namespace vanectl
