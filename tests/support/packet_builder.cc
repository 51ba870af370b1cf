#include "support/packet_builder.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace vane::test {
namespace {

constexpr uint8_t kNoNextHeader = 59;
constexpr uint8_t kProtoIcmp = 1;
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;

void put16(Bytes& b, size_t pos, uint16_t v) {
  b[pos] = static_cast<uint8_t>(v >> 8);
  b[pos + 1] = static_cast<uint8_t>(v);
}

void put32(Bytes& b, size_t pos, uint32_t v) {
  put16(b, pos, static_cast<uint16_t>(v >> 16));
  put16(b, pos + 2, static_cast<uint16_t>(v));
}

void append16(Bytes& b, uint16_t v) {
  b.push_back(static_cast<uint8_t>(v >> 8));
  b.push_back(static_cast<uint8_t>(v));
}

}  // namespace

MacAddress Mac(std::string_view text) {
  MacAddress mac{};
  size_t pos = 0;
  for (size_t i = 0; i < mac.size(); ++i) {
    if (i > 0) {
      if (pos >= text.size() || (text[pos] != ':' && text[pos] != '-')) {
        throw std::invalid_argument("bad MAC address: " + std::string(text));
      }
      ++pos;
    }
    const size_t end = std::min(pos + 2, text.size());
    unsigned value = 0;
    auto [ptr, ec] = std::from_chars(text.data() + pos, text.data() + end, value, 16);
    if (ec != std::errc() || ptr == text.data() + pos) {
      throw std::invalid_argument("bad MAC address: " + std::string(text));
    }
    mac[i] = static_cast<uint8_t>(value);
    pos = static_cast<size_t>(ptr - text.data());
  }
  if (pos != text.size()) throw std::invalid_argument("bad MAC address: " + std::string(text));
  return mac;
}

uint32_t Ipv4Addr(std::string_view text) {
  in_addr addr{};
  if (inet_pton(AF_INET, std::string(text).c_str(), &addr) != 1) {
    throw std::invalid_argument("bad IPv4 address: " + std::string(text));
  }
  return ntohl(addr.s_addr);
}

Ipv6Address Ipv6Addr(std::string_view text) {
  Ipv6Address out{};
  if (inet_pton(AF_INET6, std::string(text).c_str(), out.data()) != 1) {
    throw std::invalid_argument("bad IPv6 address: " + std::string(text));
  }
  return out;
}

uint16_t InternetChecksum(const uint8_t* data, size_t len) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < len; i += 2) sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
  if (len % 2 != 0) sum += static_cast<uint32_t>(data[len - 1] << 8);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

PacketBuilder& PacketBuilder::add(Piece piece) {
  pieces_.push_back(std::move(piece));
  return *this;
}

PacketBuilder& PacketBuilder::prefix(uint32_t word0, uint32_t word1, uint32_t eth_num) {
  Bytes b(kDeliveryPrefixLen);
  std::memcpy(b.data(), &word0, 4);
  std::memcpy(b.data() + 4, &word1, 4);
  std::memcpy(b.data() + 8, &eth_num, 4);
  return add({.kind = Layer::kPrefix, .data = std::move(b)});
}

PacketBuilder& PacketBuilder::higig2(const HiGig2Header& header) {
  return add({.kind = Layer::kHiGig2, .data = Bytes(header.begin(), header.end())});
}

PacketBuilder& PacketBuilder::hg_byte(size_t index, uint8_t value) {
  for (auto it = pieces_.rbegin(); it != pieces_.rend(); ++it) {
    if (it->kind == Layer::kHiGig2) {
      it->data.at(index) = value;
      return *this;
    }
  }
  throw std::invalid_argument("hg_byte() before higig2()");
}

PacketBuilder& PacketBuilder::filler(size_t count, uint8_t value) {
  return add({.kind = Layer::kRaw, .data = Bytes(count, value)});
}

PacketBuilder& PacketBuilder::bytes(const Bytes& data) {
  return add({.kind = Layer::kRaw, .data = data});
}

PacketBuilder& PacketBuilder::ethernet(const MacAddress& dst, const MacAddress& src) {
  Bytes b(dst.begin(), dst.end());
  b.insert(b.end(), src.begin(), src.end());
  return add({.kind = Layer::kEthernet, .data = std::move(b)});
}

PacketBuilder& PacketBuilder::vlan(uint16_t tci, uint16_t tpid) {
  Bytes b;
  append16(b, tpid);
  append16(b, tci);
  return add({.kind = Layer::kVlan, .data = std::move(b)});
}

PacketBuilder& PacketBuilder::ether_type(uint16_t type) {
  Bytes b;
  append16(b, type);
  return add({.kind = Layer::kEtherType, .data = std::move(b)});
}

void PacketBuilder::add_ether_type_for(uint16_t type) {
  if (!pieces_.empty() &&
      (pieces_.back().kind == Layer::kEthernet || pieces_.back().kind == Layer::kVlan)) {
    ether_type(type);
  }
}

PacketBuilder& PacketBuilder::ipv4(const Ipv4Options& o) {
  add_ether_type_for(0x0800);
  Bytes opts = o.options;
  opts.resize((opts.size() + 3) / 4 * 4, 0);
  if (opts.size() > 40) throw std::invalid_argument("IPv4 options exceed 40 bytes");
  const size_t hdr_len = 20 + opts.size();

  Bytes b(20);
  const uint8_t ihl = o.ihl.value_or(static_cast<uint8_t>(hdr_len / 4));
  b[0] = static_cast<uint8_t>(0x40 | (ihl & 0x0F));
  b[1] = o.tos;
  put16(b, 2, o.total_length.value_or(0));
  put16(b, 4, o.id);
  put16(
      b, 6,
      static_cast<uint16_t>((o.df ? 0x4000 : 0) | (o.mf ? 0x2000 : 0) | (o.frag_offset & 0x1FFF)));
  b[8] = o.ttl;
  b[9] = o.protocol.value_or(0);
  put16(b, 10, o.checksum.value_or(0));
  put32(b, 12, o.src);
  put32(b, 16, o.dst);
  b.insert(b.end(), opts.begin(), opts.end());

  return add({.kind = Layer::kIpv4,
              .data = std::move(b),
              .next_header_pos = o.protocol ? -1 : 9,
              .length_pos = o.total_length ? -1 : 2,
              .ipv4_checksum = !o.checksum});
}

PacketBuilder& PacketBuilder::ipv6(const Ipv6Options& o) {
  add_ether_type_for(0x86DD);
  Bytes b(8);
  put32(b, 0,
        0x60000000u | static_cast<uint32_t>(o.traffic_class) << 20 | (o.flow_label & 0xFFFFF));
  put16(b, 4, o.payload_length.value_or(0));
  b[6] = o.next_header.value_or(0);
  b[7] = o.hop_limit;
  b.insert(b.end(), o.src.begin(), o.src.end());
  b.insert(b.end(), o.dst.begin(), o.dst.end());
  return add({.kind = Layer::kIpv6,
              .data = std::move(b),
              .next_header_pos = o.next_header ? -1 : 6,
              .length_pos = o.payload_length ? -1 : 4,
              .length_base = 40});
}

PacketBuilder& PacketBuilder::add_ipv6_ext(uint8_t number, size_t len, uint8_t length_byte,
                                           std::optional<uint8_t> next_header) {
  Bytes b(len, 0);
  b[0] = next_header.value_or(0);
  b[1] = length_byte;
  return add({.kind = Layer::kIpv6Ext,
              .data = std::move(b),
              .proto_number = number,
              .next_header_pos = next_header ? -1 : 0});
}

PacketBuilder& PacketBuilder::hop_by_hop(uint8_t length) {
  return add_ipv6_ext(0, (length + 1u) * 8u, length, std::nullopt);
}

PacketBuilder& PacketBuilder::routing(uint8_t length) {
  return add_ipv6_ext(43, (length + 1u) * 8u, length, std::nullopt);
}

PacketBuilder& PacketBuilder::dest_opts(uint8_t length) {
  return add_ipv6_ext(60, (length + 1u) * 8u, length, std::nullopt);
}

PacketBuilder& PacketBuilder::auth_header(uint8_t length) {
  return add_ipv6_ext(51, (length + 2u) * 4u, length, std::nullopt);
}

PacketBuilder& PacketBuilder::ipv6_fragment(const Ipv6FragmentOptions& o) {
  add_ipv6_ext(44, 8, 0, o.next_header);
  Bytes& b = pieces_.back().data;
  put16(b, 2, static_cast<uint16_t>((o.frag_offset & 0x1FFF) << 3 | (o.more ? 1 : 0)));
  put32(b, 4, o.id);
  return *this;
}

PacketBuilder& PacketBuilder::udp(uint16_t src_port, uint16_t dst_port) {
  Bytes b(8, 0);
  put16(b, 0, src_port);
  put16(b, 2, dst_port);
  return add(
      {.kind = Layer::kUdp, .data = std::move(b), .proto_number = kProtoUdp, .length_pos = 4});
}

PacketBuilder& PacketBuilder::tcp(uint16_t src_port, uint16_t dst_port, uint8_t flags) {
  Bytes b(20, 0);
  put16(b, 0, src_port);
  put16(b, 2, dst_port);
  b[12] = 5 << 4;  // data offset: no options
  b[13] = flags;
  put16(b, 14, 0xFFFF);  // window
  return add({.kind = Layer::kTcp, .data = std::move(b), .proto_number = kProtoTcp});
}

PacketBuilder& PacketBuilder::icmp(uint8_t type, uint8_t code, uint32_t rest) {
  Bytes b(8, 0);
  b[0] = type;
  b[1] = code;
  put32(b, 4, rest);
  return add({.kind = Layer::kIcmp,
              .data = std::move(b),
              .proto_number = kProtoIcmp,
              .icmp_checksum = true});
}

PacketBuilder& PacketBuilder::payload(const Bytes& data) {
  return add({.kind = Layer::kPayload, .data = data});
}

PacketBuilder& PacketBuilder::payload(size_t count, uint8_t value) {
  return add({.kind = Layer::kPayload, .data = Bytes(count, value)});
}

PacketBuilder& PacketBuilder::trailer(const Bytes& data) {
  trailer_.insert(trailer_.end(), data.begin(), data.end());
  return *this;
}

size_t PacketBuilder::size() const {
  size_t n = trailer_.size();
  for (const Piece& p : pieces_) n += p.data.size();
  return n;
}

size_t PacketBuilder::offset_of(Layer kind, size_t occurrence) const {
  if (kind == Layer::kTrailer && occurrence == 0) return size() - trailer_.size();
  size_t off = 0;
  for (const Piece& p : pieces_) {
    if (p.kind == kind && occurrence-- == 0) return off;
    off += p.data.size();
  }
  throw std::out_of_range("offset_of(): no such layer in the packet");
}

Bytes PacketBuilder::build() const {
  Bytes out;
  std::vector<size_t> starts;
  for (const Piece& p : pieces_) {
    starts.push_back(out.size());
    out.insert(out.end(), p.data.begin(), p.data.end());
  }
  const size_t datagram_end = out.size();

  // Lengths and next-header numbers first: both checksums cover them.
  for (size_t i = 0; i < pieces_.size(); ++i) {
    const Piece& p = pieces_[i];
    if (p.length_pos >= 0) {
      const size_t len = datagram_end - starts[i] - p.length_base;
      put16(out, starts[i] + p.length_pos, static_cast<uint16_t>(std::min<size_t>(len, 0xFFFF)));
    }
    if (p.next_header_pos >= 0) {
      const int next = i + 1 < pieces_.size() ? pieces_[i + 1].proto_number : -1;
      out[starts[i] + p.next_header_pos] = next >= 0 ? static_cast<uint8_t>(next) : kNoNextHeader;
    }
  }
  for (size_t i = 0; i < pieces_.size(); ++i) {
    const Piece& p = pieces_[i];
    if (p.icmp_checksum) {
      put16(out, starts[i] + 2, InternetChecksum(&out[starts[i]], datagram_end - starts[i]));
    }
    if (p.ipv4_checksum) {
      put16(out, starts[i] + 10, InternetChecksum(&out[starts[i]], p.data.size()));
    }
  }
  out.insert(out.end(), trailer_.begin(), trailer_.end());
  return out;
}

}  // namespace vane::test
