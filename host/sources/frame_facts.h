// What the chip-header rules look at in a captured Ethernet frame, read once
// per frame with every read checked against the frame's length: a frame cut
// short anywhere simply lacks the facts beyond the cut.
#ifndef VANE_HOST_SOURCES_FRAME_FACTS_H
#define VANE_HOST_SOURCES_FRAME_FACTS_H

#include <array>
#include <cstdint>

namespace vane::host {

struct FrameFacts {
  bool has_ether_type = false;
  uint16_t ether_type = 0;  // behind up to two VLAN tags
  bool has_vlan = false;
  uint16_t vlan_id = 0;  // of the outer tag

  uint8_t ip_version = 0;  // 4, 6, or 0 when the frame carries no IP header
  bool has_proto = false;
  uint8_t ip_proto = 0;           // IPv6: the first header past the extension headers
  std::array<uint8_t, 16> src{};  // IPv4 addresses use the first 4 bytes
  std::array<uint8_t, 16> dst{};
  bool non_first_fragment = false;  // a fragment whose offset is not 0

  bool has_ports = false;  // UDP or TCP header present and whole
  uint16_t sport = 0;
  uint16_t dport = 0;
  uint32_t payload_offset = 0;  // L4 payload, from the frame's first byte
  uint32_t frame_len = 0;
};

// Reads `len` bytes of `frame` (an Ethernet header first) into the facts.
FrameFacts ReadFrameFacts(const uint8_t* frame, uint32_t len);

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_FRAME_FACTS_H
