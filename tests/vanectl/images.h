// Known diagnostic images for vanectl's suites, laid out with the module's
// own records, so that the output tests start from bytes as the files hold
// them.
#ifndef VANE_TESTS_VANECTL_IMAGES_H
#define VANE_TESTS_VANECTL_IMAGES_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "drv_vane/capture.h"
#include "drv_vane/dispatch.h"
#include "host_support.h"

namespace vane::test {

// A capture entry at `index` of a 2880-byte store image.
inline void PutCaptureEntry(std::vector<uint8_t>* store, size_t index, uint8_t num,
                            const std::vector<uint8_t>& frame, uint32_t sec, uint32_t nsec,
                            uint16_t later_event = 0, uint32_t later_nsec = 0) {
  BYPASS_CATCH_PKT_S e{};
  std::memcpy(e.aucData, frame.data(), frame.size() < 64 ? frame.size() : 64);
  e.usLen = static_cast<uint16_t>(frame.size());
  e.ucUsed = 1;
  e.ucNum = num;
  e.usSlot = 2;
  e.astTime[0] = {sec, nsec, 1, 0, 1};
  if (later_event != 0) {
    e.astTime[1] = {sec, later_nsec, later_event, 0, 1};
  }
  PutRecord(store, index * sizeof e, e);
}

// An untagged Ethernet/IPv4/UDP frame of `len` bytes (len >= 42), source
// 10.0.0.<host>.
inline std::vector<uint8_t> UdpFrame(size_t len, uint8_t host) {
  std::vector<uint8_t> f(len, 0);
  const uint8_t head[] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0x66, 0x77, 0x88, 0x99,
                          0xAA, 0x08, 0x00, 0x45, 0x00, 0,    0,    0x00, 0x01, 0x00, 0x00,
                          64,   17,   0,    0,    10,   0,    0,    host, 10,   0,    0,
                          200,  0x13, 0x88, 0x07, 0xD0, 0,    0,    0,    0};
  std::memcpy(f.data(), head, sizeof head);
  const auto ip_len = static_cast<uint16_t>(len - 14);
  f[16] = static_cast<uint8_t>(ip_len >> 8);
  f[17] = static_cast<uint8_t>(ip_len);
  const auto udp_len = static_cast<uint16_t>(len - 34);
  f[38] = static_cast<uint8_t>(udp_len >> 8);
  f[39] = static_cast<uint8_t>(udp_len);
  return f;
}

}  // namespace vane::test

#endif  // VANE_TESTS_VANECTL_IMAGES_H
