// Frames of the board's own kinds that several suites send.
#ifndef VANE_TESTS_SUPPORT_FRAMES_H
#define VANE_TESTS_SUPPORT_FRAMES_H

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "drv_vane/config.h"
#include "support/packet_builder.h"

namespace vane::test {

struct EcmFrameOptions {
  uint32_t word0 = 0;                     // delivery prefix word 0
  const char* dst = "0a:0b:0b:00:00:01";  // outer destination MAC
  uint16_t ether_type = 0x06A4;           // behind the one VLAN tag
  uint8_t inner2 = 0x0C;                  // third byte of the inner MAC prefix
  size_t payload = 30;                    // bytes after the vCPU byte
};

// An internal ECM frame received on `eth_num`: outer Ethernet header, one
// VLAN tag, EtherType 0x06A4, then the inner MAC prefix 0A:0B:0C and the
// vCPU byte (packet byte 21).
Bytes EcmFrame(uint32_t eth_num, uint8_t vcpu, const EcmFrameOptions& opt = {});

// The suites' usual configuration: dispatch on, multi-core interfaces
// 20..29, ECM interface 3, VP interfaces 40..49, Ethernet header at 0.
BYPASS_PKT_OFFSET_S TestRanges();

// The cascade suites' layout of multi-core packets: no HiGig2 header, the
// Ethernet header kCascadeHead bytes in, the cause ID at bytes 18-19, and
// internal VP frames with EtherType kCascadeVpType, the first-fragment mark
// at byte 14 of the outer frame and the inner frame at byte 16.
constexpr uint32_t kCascadeHead = 24;
constexpr uint16_t kCascadeVpType = 0x8899;
// The kCascadeHead bytes before the Ethernet header, carrying `cause`.
Bytes CauseHead(uint16_t cause);
// TestRanges() with the layout above.
BYPASS_PKT_OFFSET_S CascadeConfig();
// Multi-core packets of that layout carrying `cause`, from MAC
// 00:00:5e:00:01:02 to 00:11:22:33:44:55 and from IPv4 `src` to 10.1.1.2:
// a UDP datagram, and a fragment (offset in 8-byte units; the first one
// carries UDP 5246 -> 5247) with 24 bytes of data.
Bytes CascadeUdp(uint16_t cause, uint16_t sport, uint16_t dport, const Bytes& payload = Bytes(20),
                 uint32_t src = 0x0A010101);
Bytes CascadeFragment(uint16_t cause, uint16_t id, bool mf, uint16_t off);
// An internal VP frame of that layout: outer MAC 0A:0B:0B:<vcpu>, the VP
// EtherType, the first-fragment mark (0xAB marks one), then an inner IPv4
// fragment of datagram 0x5151.
Bytes CascadeVp(uint16_t cause, uint8_t vcpu, uint8_t mark, bool mf, uint16_t off);

// A CAPWAP data keep-alive as a UDP payload: HLEN 2 (the flags byte is
// byte 3), one session-ID element of `elen` bytes with the given type and
// length, session bytes 1..16 (words 0x01020304, 0x05060708, ... in host
// order once read).
Bytes KeepAlivePayload(uint32_t flags = 0x08, uint16_t elen = 22, uint16_t type = 35,
                       uint16_t len = 16);

// A record's bytes as a control message carries them, cut or zero-padded
// to `len`.
template <typename T>
Bytes RecordBytes(const T& record, size_t len = sizeof(T)) {
  Bytes b(len, 0);
  std::memcpy(b.data(), &record, std::min(len, sizeof(T)));
  return b;
}

// The steering and TIMNG setup the benchmarks decide against: the ivo table
// sends cause IDs 10..13 (list) and 100..200 (range) to vCPU 5; TIMNG, on a
// master board, sends cause ID 300 to vCPU 7. Calls the core directly
// (core_direct.cc): user backend only.
void InstallBenchSteering();

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_FRAMES_H
