// Decoders of the four text views of the wlan_lb attribute: message
// statistics, NAC list, cause-ID table and socket-port table.
#include <array>
#include <charconv>
#include <string_view>
#include <vector>

#include "drv_vane/wlan_lb.h"
#include "image.h"
#include "vane/decode.h"

static_assert(VANE_WLAN_SET_TYPES == WLAN_LB_SET_TYPE_NUM);
static_assert(VANE_NAC_MAX == WLAN_LB_NAC_MAX);

namespace {

using std::string_view;

// The attribute cuts a view at one page; a record that was cut there is
// the module's doing, not a malformed view, and is left out.
constexpr size_t kPageText = VANE_WLAN_VIEW_MAX;

// What every view decoder checks first: 0, -EINVAL or -EMSGSIZE.
int CheckView(const char* text, size_t len, const void* out) {
  if (out == nullptr || (text == nullptr && len != 0)) return -EINVAL;
  return len > kPageText ? -EMSGSIZE : 0;
}

string_view TrimSpaces(string_view s) {
  while (!s.empty() && s.front() == ' ') {
    s.remove_prefix(1);
  }
  while (!s.empty() && s.back() == ' ') {
    s.remove_suffix(1);
  }
  return s;
}

// A whole unsigned decimal number, nothing before or after it.
bool ParseU32(string_view s, uint32_t* v) {
  if (s.empty()) {
    return false;
  }
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *v);
  return ec == std::errc() && end == s.data() + s.size();
}

// Lines split on "\r\n" (a lone "\n" also ends one), empty ones dropped.
std::vector<string_view> Lines(string_view text) {
  std::vector<string_view> out;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    string_view piece = text.substr(0, nl);
    text = nl == string_view::npos ? string_view() : text.substr(nl + 1);
    if (!piece.empty() && piece.back() == '\r') {
      piece.remove_suffix(1);
    }
    if (!piece.empty()) {
      out.push_back(piece);
    }
  }
  return out;
}

constexpr std::array<string_view, VANE_WLAN_SET_TYPES + 1> kStatLabels = {
    "WLAN LB KERNEL LB SET CAPWAP",       "WLAN LB KERNEL LB SET CAPWAP KA",
    "WLAN LB KERNEL LB SET NAC NODELIST", "WLAN LB KERNEL LB SET PORTAL NODE",
    "WLAN LB KERNEL LB SET SOCKET PORT",  "WLAN LB KERNEL LB SET BOARD TYPE",
    "WLAN LB KERNEL LB SET CAUSEIID",     "WLAN LB BOARD TYPE",
};

constexpr string_view kNacHeading = "NAC process list :";

}  // namespace

extern "C" int vane_decode_wlan_stats(const char* text, size_t len, vane_wlan_stats* out) {
  if (const int rc = CheckView(text, len, out); rc != 0) {
    return rc;
  }
  const auto lines = Lines(string_view(text, len));
  if (lines.size() != kStatLabels.size()) {
    return -EBADMSG;
  }
  for (size_t i = 0; i < lines.size(); ++i) {
    const size_t colon = lines[i].find(':');
    uint32_t v = 0;
    if (colon == string_view::npos || TrimSpaces(lines[i].substr(0, colon)) != kStatLabels[i] ||
        !ParseU32(TrimSpaces(lines[i].substr(colon + 1)), &v)) {
      return -EBADMSG;
    }
    if (i < VANE_WLAN_SET_TYPES) {
      out->messages[i] = v;
    } else {
      out->board_type = v;
    }
  }
  return 0;
}

extern "C" int vane_decode_wlan_nac(const char* text, size_t len, vane_wlan_nac* out) {
  if (const int rc = CheckView(text, len, out); rc != 0) {
    return rc;
  }
  out->count = 0;
  const auto lines = Lines(string_view(text, len));
  if (lines.empty()) {
    return 0;
  }
  if (lines.size() != 1 || lines[0].substr(0, kNacHeading.size()) != kNacHeading) {
    return -EBADMSG;
  }
  string_view rest = lines[0].substr(kNacHeading.size());
  while (!(rest = TrimSpaces(rest)).empty()) {
    const size_t sp = rest.find(' ');
    uint32_t id = 0;
    if (out->count == VANE_NAC_MAX || !ParseU32(rest.substr(0, sp), &id)) {
      return -EBADMSG;
    }
    out->ids[out->count++] = id;
    rest = sp == string_view::npos ? string_view() : rest.substr(sp);
  }
  return out->count > 0 ? 0 : -EBADMSG;
}

extern "C" int vane_decode_wlan_causeids(const char* text, size_t len, vane_wlan_causeids* out) {
  if (const int rc = CheckView(text, len, out); rc != 0) {
    return rc;
  }
  out->count = 0;
  string_view rest(text, len);
  while (!rest.empty()) {
    const size_t semi = rest.find(';');
    if (semi == string_view::npos) {
      return len == kPageText ? 0 : -EBADMSG;
    }
    string_view rec = rest.substr(0, semi);
    rest = rest.substr(semi + 1);
    uint32_t f[3] = {};
    for (uint32_t& v : f) {
      rec = TrimSpaces(rec);
      const size_t sp = rec.find(' ');
      if (!ParseU32(rec.substr(0, sp), &v)) {
        return -EBADMSG;
      }
      rec = sp == string_view::npos ? string_view() : rec.substr(sp);
    }
    if (!TrimSpaces(rec).empty() || out->count == VANE_WLAN_CAUSEID_VIEW_MAX) {
      return -EBADMSG;
    }
    // The view prints cause ID, LB type, packet type.
    out->entries[out->count++] = vane_cause_id_entry{f[0], f[2], f[1]};
  }
  return 0;
}

namespace {

// "%6u(%s)<22 spaces>%3s<33 spaces>%s": port, direction, protocol, target.
bool ParsePortLine(string_view line, vane_wlan_port* p) {
  const size_t open = line.find('(');
  uint32_t port = 0;
  if (open == string_view::npos || line.size() < open + 3 || line[open + 2] != ')' ||
      !ParseU32(TrimSpaces(line.substr(0, open)), &port) || port > 0xFFFF) {
    return false;
  }
  const char dir = line[open + 1];
  if (dir != 'S' && dir != 'D') {
    return false;
  }
  string_view rest = TrimSpaces(line.substr(open + 3));
  const size_t sp = rest.find(' ');
  const string_view proto = rest.substr(0, sp);
  if (sp == string_view::npos || (proto != "UDP" && proto != "TCP")) {
    return false;
  }
  const string_view target = TrimSpaces(rest.substr(sp));
  *p = vane_wlan_port{};
  p->port = static_cast<uint16_t>(port);
  p->src_port = dir == 'S' ? 1 : 0;
  p->tcp = proto == "TCP" ? 1 : 0;
  if (target == "NAC") {
    p->target = VANE_WLAN_TARGET_NAC;
  } else if (target == "RANGE") {
    p->target = VANE_WLAN_TARGET_RANGE;
  } else {
    p->target = VANE_WLAN_TARGET_PROCESS;
    return ParseU32(target, &p->process);
  }
  return true;
}

}  // namespace

extern "C" int vane_decode_wlan_ports(const char* text, size_t len, vane_wlan_ports* out) {
  if (const int rc = CheckView(text, len, out); rc != 0) {
    return rc;
  }
  out->count = 0;
  const auto lines = Lines(string_view(text, len));
  for (size_t i = 0; i < lines.size(); ++i) {
    vane_wlan_port p;
    if (!ParsePortLine(lines[i], &p)) {
      if (i + 1 == lines.size() && len == kPageText) {
        break;
      }
      return -EBADMSG;
    }
    if (out->count == VANE_WLAN_PORT_VIEW_MAX) {
      return -EBADMSG;
    }
    out->ports[out->count++] = p;
  }
  return 0;
}
