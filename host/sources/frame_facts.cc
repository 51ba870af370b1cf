#include "host/sources/frame_facts.h"

#include <cstring>

namespace vane::host {
namespace {

constexpr uint8_t kUdp = 17;
constexpr uint8_t kTcp = 6;

// Bounded big-endian reads: false when the bytes lie past the end.
class View {
 public:
  View(const uint8_t* p, uint32_t len) : p_(p), len_(len) {}
  bool Has(uint32_t off, uint32_t n) const { return off <= len_ && n <= len_ - off; }
  bool U8(uint32_t off, uint8_t* v) const {
    if (!Has(off, 1)) return false;
    *v = p_[off];
    return true;
  }
  bool U16(uint32_t off, uint16_t* v) const {
    if (!Has(off, 2)) return false;
    *v = static_cast<uint16_t>((p_[off] << 8) | p_[off + 1]);
    return true;
  }
  bool Copy(uint32_t off, uint32_t n, uint8_t* out) const {
    if (!Has(off, n)) return false;
    std::memcpy(out, p_ + off, n);
    return true;
  }

 private:
  const uint8_t* p_;
  uint32_t len_;
};

bool IsVlanTpid(uint16_t t) { return t == 0x8100 || t == 0x88A8 || t == 0x9100; }

void ReadPorts(const View& v, uint32_t l4, FrameFacts* f) {
  if (f->ip_proto != kUdp && f->ip_proto != kTcp) return;
  uint32_t hdr = 8;
  if (f->ip_proto == kTcp) {
    uint8_t data_off = 0;
    if (!v.U8(l4 + 12, &data_off)) return;
    hdr = (data_off >> 4) * 4u;
    if (hdr < 20) return;
  }
  if (!v.Has(l4, hdr)) return;
  v.U16(l4, &f->sport);
  v.U16(l4 + 2, &f->dport);
  f->has_ports = true;
  f->payload_offset = l4 + hdr;
}

void ReadIpv4(const View& v, uint32_t ip, FrameFacts* f) {
  uint8_t vihl = 0;
  if (!v.U8(ip, &vihl) || (vihl >> 4) != 4 || !v.Has(ip, 20)) return;
  f->ip_version = 4;
  v.U8(ip + 9, &f->ip_proto);
  f->has_proto = true;
  v.Copy(ip + 12, 4, f->src.data());
  v.Copy(ip + 16, 4, f->dst.data());
  uint16_t frag = 0;
  v.U16(ip + 6, &frag);
  f->non_first_fragment = (frag & 0x1FFF) != 0;
  const uint32_t ihl = (vihl & 0x0F) * 4u;
  if (ihl < 20 || f->non_first_fragment) return;
  ReadPorts(v, ip + ihl, f);
}

void ReadIpv6(const View& v, uint32_t ip, FrameFacts* f) {
  uint8_t ver = 0;
  if (!v.U8(ip, &ver) || (ver >> 4) != 6 || !v.Has(ip, 40)) return;
  f->ip_version = 6;
  v.Copy(ip + 8, 16, f->src.data());
  v.Copy(ip + 24, 16, f->dst.data());
  uint8_t nh = 0;
  v.U8(ip + 6, &nh);
  uint32_t q = ip + 40;
  // Each extension header advances by at least 8 bytes, so the walk ends.
  for (;;) {
    uint8_t next = 0;
    uint8_t hlen = 0;
    if (nh == 0 || nh == 43 || nh == 60) {
      if (!v.U8(q, &next) || !v.U8(q + 1, &hlen)) return;
      q += (hlen + 1u) * 8u;
    } else if (nh == 44) {
      uint16_t off = 0;
      if (!v.U8(q, &next) || !v.U16(q + 2, &off)) return;
      if ((off & 0xFFF8) != 0) f->non_first_fragment = true;
      q += 8;
    } else if (nh == 51) {
      if (!v.U8(q, &next) || !v.U8(q + 1, &hlen)) return;
      q += (hlen + 2u) * 4u;
    } else {
      break;
    }
    nh = next;
  }
  f->ip_proto = nh;
  f->has_proto = true;
  if (!f->non_first_fragment) ReadPorts(v, q, f);
}

}  // namespace

FrameFacts ReadFrameFacts(const uint8_t* frame, uint32_t len) {
  FrameFacts f;
  f.frame_len = len;
  const View v(frame, len);
  uint32_t p = 12;
  uint16_t t = 0;
  if (!v.U16(p, &t)) return f;
  for (int tags = 0; tags < 2 && IsVlanTpid(t); ++tags) {
    if (tags == 0) {
      uint16_t tci = 0;
      if (!v.U16(p + 2, &tci)) return f;
      f.has_vlan = true;
      f.vlan_id = tci & 0x0FFF;
    }
    p += 4;
    if (!v.U16(p, &t)) return f;
  }
  f.has_ether_type = true;
  f.ether_type = t;
  if (t == 0x0800) ReadIpv4(v, p + 2, &f);
  if (t == 0x86DD) ReadIpv6(v, p + 2, &f);
  return f;
}

}  // namespace vane::host
