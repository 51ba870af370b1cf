// The chip-header stage's configuration: the `vaned.chip_header` section of
// the configuration file read into a layout, a default and first-match
// rules, with every mistake reported as one clear message that names the
// offending key (chip_header.rules[3].match.dport: ...).
//
// Section format (numbers in decimal or 0x hex):
//   higig2_offset, cause_id_offset, mac_offset  where the stage puts the
//       16-byte HiGig2 header, the cause ID (packet bytes offset+18..19) and
//       the Ethernet frame; both chip fields must lie wholly before the frame
//   default: {cause_id, eth_num, type}          what a frame gets when no
//       rule matches (and what a rule leaves unsaid)
//   rules: [{match: {...}, cause_id, eth_num, type, chip_bytes}]
//     match keys, all of which must hold (an empty match takes every frame):
//       ethertype   behind up to two VLAN tags (0x8100, 0x88A8, 0x9100)
//       vlan        VLAN id of the outer tag
//       ip_proto    number, or tcp, udp, icmp (1 on IPv4, 58 on IPv6)
//       sport/dport number or list; only frames whose UDP or TCP header is
//                   present (never a non-first fragment) can match
//       src/dst     IPv4 or IPv6 address with an optional /prefix
//       fragment    true: a non-first IP fragment; false: anything else
//       payload     {offset, mask, value}: one byte of the UDP/TCP payload,
//                   (byte & mask) == value; mask defaults to 0xFF
//     actions: cause_id 0..8191, eth_num, type 1..15 (the message type the
//       buffer is delivered with), chip_bytes (default true; false hands
//       the frame in right after the delivery prefix, without the chip's
//       bytes, as the board's internal ECM ports deliver it).
#ifndef VANE_HOST_SOURCES_CHIP_RULES_H
#define VANE_HOST_SOURCES_CHIP_RULES_H

#include <yaml-cpp/yaml.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/sources/frame_facts.h"

namespace vane::host {

struct Cidr {
  uint8_t version = 4;
  std::array<uint8_t, 16> addr{};
  uint8_t prefix = 32;
};

struct PayloadMatch {
  uint32_t offset = 0;
  uint8_t mask = 0xFF;
  uint8_t value = 0;
};

struct ChipMatch {
  std::optional<uint16_t> ether_type;
  std::optional<uint16_t> vlan;
  std::optional<uint8_t> ip_proto;
  bool proto_is_icmp = false;    // "icmp": 1 or 58 by IP version
  std::vector<uint16_t> sports;  // empty: any
  std::vector<uint16_t> dports;
  std::optional<Cidr> src;
  std::optional<Cidr> dst;
  std::optional<bool> fragment;
  std::optional<PayloadMatch> payload;
};

struct ChipAction {
  std::optional<uint16_t> cause_id;
  std::optional<uint32_t> eth_num;
  std::optional<uint32_t> type;
  bool chip_bytes = true;
};

struct ChipRule {
  ChipMatch match;
  ChipAction action;
};

struct ChipConfig {
  uint32_t higig2_offset = 0;
  uint32_t cause_id_offset = 0;
  uint32_t mac_offset = 24;
  uint16_t default_cause = 0;
  uint32_t default_eth = 0;
  uint32_t default_type = 1;
  std::vector<ChipRule> rules;
};

// The largest mac_offset accepted: the chip's bytes before the frame.
constexpr uint32_t kMaxMacOffset = 1024;

// Reads the section (a missing or null node gives the defaults above).
// False with *err set on the first mistake.
bool ParseChipConfig(const YAML::Node& section, ChipConfig* out, std::string* err);

// True when every condition of `m` holds for the frame of `frame`/`facts`.
bool RuleMatches(const ChipMatch& m, const FrameFacts& facts, const uint8_t* frame);

// A configuration number: decimal or 0x hex, within [lo, hi].
bool ParseNumber(const std::string& text, uint64_t lo, uint64_t hi, uint64_t* out);

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_CHIP_RULES_H
