// PacketBuilder: test packets layer by layer, so tests state what a packet
// is rather than spelling it out in hex.
//
//   using namespace vane::test;
//   std::vector<uint8_t> buf =
//       PacketBuilder()
//           .prefix(0, 0, /*eth_num=*/3)                 // 12-byte delivery prefix
//           .higig2().hg_byte(2, 0x01)                   // 16-byte chip header
//           .filler(34)                                  // anything in between
//           .ethernet(Mac("0a:0b:0c:00:00:05"), Mac("00:00:03:00:06:00"))
//           .vlan(/*tci=*/29)                            // TPID 0x8100 unless given
//           .ipv4({.src = Ipv4Addr("29.12.12.12"), .dst = Ipv4Addr("29.13.13.13"),
//                  .mf = true})
//           .udp(5246, 65534)
//           .payload(54)
//           .build();
//
// Layers are laid down in call order, exactly as called: nothing is reordered
// and nothing is added, with one exception: ipv4() or ipv6() straight after
// ethernet() or vlan() first adds the matching EtherType (call ether_type()
// to put anything else there).
//
// build() fills what depends on later layers, unless the options override it:
//  - IPv4 total length, IPv6 payload length and UDP length run to the end of
//    the datagram (everything before the trailer);
//  - IPv4 protocol and IPv6 / extension-header next header name the next
//    layer (UDP 17, TCP 6, ICMP 1, the extension header's own number), or 59
//    ("no next header") when the next layer is raw bytes or there is none;
//  - the IPv4 header checksum and the ICMP checksum are correct; UDP and TCP
//    checksums are 0.
//
// Byte order: the delivery prefix is native (as the switch driver writes it);
// everything else is network order. IPv4 addresses are host-order uint32_t,
// as the parser stores them.
//
// Misuse (bad address text, hg_byte() without a HiGig2 header, an unknown
// layer in offset_of()) throws std::invalid_argument or std::out_of_range,
// which GoogleTest reports as a failure of the test.
#ifndef VANE_TESTS_SUPPORT_PACKET_BUILDER_H
#define VANE_TESTS_SUPPORT_PACKET_BUILDER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace vane::test {

using Bytes = std::vector<uint8_t>;
using MacAddress = std::array<uint8_t, 6>;
using Ipv6Address = std::array<uint8_t, 16>;
using HiGig2Header = std::array<uint8_t, 16>;

// "0a:0b:0c:00:00:05" (':' or '-' separated hex).
MacAddress Mac(std::string_view text);
// "29.12.12.12" as a host-order value (0x1D0C0C0C).
uint32_t Ipv4Addr(std::string_view text);
// "1501::2", any textual IPv6 form.
Ipv6Address Ipv6Addr(std::string_view text);

// RFC 1071 one's-complement sum, as stored in a header (network order value).
uint16_t InternetChecksum(const uint8_t* data, size_t len);

inline constexpr size_t kDeliveryPrefixLen = 12;

struct Ipv4Options {
  uint32_t src = 0;  // host order, see Ipv4Addr()
  uint32_t dst = 0;
  std::optional<uint8_t> protocol;  // default: from the next layer
  uint8_t tos = 0;
  uint8_t ttl = 64;
  uint16_t id = 0;
  bool df = false;
  bool mf = false;
  uint16_t frag_offset = 0;  // in 8-byte units, as on the wire (13 bits)
  Bytes options;             // zero-padded to a multiple of 4; sets IHL
  // Overrides, for malformed headers.
  std::optional<uint8_t> ihl;  // the nibble only; the bytes laid down stay
  std::optional<uint16_t> total_length;
  std::optional<uint16_t> checksum;
};

struct Ipv6Options {
  Ipv6Address src{};
  Ipv6Address dst{};
  std::optional<uint8_t> next_header;  // default: from the next layer
  uint8_t traffic_class = 0;
  uint32_t flow_label = 0;  // low 20 bits
  uint8_t hop_limit = 64;
  std::optional<uint16_t> payload_length;
};

struct Ipv6FragmentOptions {
  uint16_t frag_offset = 0;  // in 8-byte units, as on the wire (13 bits)
  bool more = false;         // the M flag
  uint32_t id = 0;
  std::optional<uint8_t> next_header;
};

// Layer kinds, for offset_of().
enum class Layer {
  kPrefix,
  kHiGig2,
  kRaw,  // filler() and bytes()
  kEthernet,
  kVlan,
  kEtherType,
  kIpv4,
  kIpv6,
  kIpv6Ext,  // hop_by_hop(), routing(), dest_opts(), ipv6_fragment(), auth_header()
  kUdp,
  kTcp,
  kIcmp,
  kPayload,
  kTrailer,
};

class PacketBuilder {
 public:
  // Delivery prefix: word 0, word 1 and ethNum, each a native-order uint32_t.
  PacketBuilder& prefix(uint32_t word0, uint32_t word1, uint32_t eth_num);
  // The chip's 16-byte header (all zero unless given); hg_byte() then sets
  // byte `index` (0..15) of the most recent one.
  PacketBuilder& higig2(const HiGig2Header& header = {});
  PacketBuilder& hg_byte(size_t index, uint8_t value);
  // Arbitrary bytes at this point.
  PacketBuilder& filler(size_t count, uint8_t value = 0);
  PacketBuilder& bytes(const Bytes& data);

  // Destination and source MAC (12 bytes, no EtherType).
  PacketBuilder& ethernet(const MacAddress& dst, const MacAddress& src);
  // One 4-byte tag: TPID then TCI (priority << 13 | VLAN id).
  PacketBuilder& vlan(uint16_t tci, uint16_t tpid = 0x8100);
  PacketBuilder& ether_type(uint16_t type);

  PacketBuilder& ipv4(const Ipv4Options& options);
  PacketBuilder& ipv6(const Ipv6Options& options);
  // IPv6 extension headers. `length` is the header's own length byte: the
  // header is (length + 1) * 8 bytes, for AH (length + 2) * 4 bytes; bytes
  // past the first two are zero.
  PacketBuilder& hop_by_hop(uint8_t length = 0);
  PacketBuilder& routing(uint8_t length = 0);
  PacketBuilder& dest_opts(uint8_t length = 0);
  PacketBuilder& auth_header(uint8_t length = 1);
  PacketBuilder& ipv6_fragment(const Ipv6FragmentOptions& options);

  PacketBuilder& udp(uint16_t src_port, uint16_t dst_port);
  // 20-byte header; flags byte as on the wire (0x02 SYN, 0x10 ACK, ...).
  PacketBuilder& tcp(uint16_t src_port, uint16_t dst_port, uint8_t flags = 0x02);
  // ICMP over IPv4: type, code, then 4 bytes of rest-of-header.
  PacketBuilder& icmp(uint8_t type, uint8_t code, uint32_t rest = 0);

  PacketBuilder& payload(const Bytes& data);
  PacketBuilder& payload(size_t count, uint8_t value = 0);
  // Bytes after the datagram that no length field counts (the chip leaves
  // such trailers); always placed last, whenever called.
  PacketBuilder& trailer(const Bytes& data);

  Bytes build() const;

  // Where the `occurrence`-th layer of `kind` starts in build()'s output
  // (which begins with the delivery prefix when there is one).
  size_t offset_of(Layer kind, size_t occurrence = 0) const;
  // Total length of build()'s output.
  size_t size() const;

 private:
  struct Piece {
    Layer kind;
    Bytes data;
    int proto_number = -1;     // what a previous header names this layer by
    int next_header_pos = -1;  // byte to fill from the next layer's number
    int length_pos = -1;       // 16-bit length to the datagram's end ...
    size_t length_base = 0;    // ... counted from this many bytes in
    bool ipv4_checksum = false;
    bool icmp_checksum = false;
  };

  PacketBuilder& add(Piece piece);
  void add_ether_type_for(uint16_t type);
  PacketBuilder& add_ipv6_ext(uint8_t number, size_t len, uint8_t length_byte,
                              std::optional<uint8_t> next_header);

  std::vector<Piece> pieces_;
  Bytes trailer_;
};

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_PACKET_BUILDER_H
