// The chip-header stage: turns a captured Ethernet frame into the buffer the
// switch driver would hand to the dispatcher, so that traffic of a real
// network goes through the real cascade. The buffer is
//
//   12-byte delivery prefix   word 0 = 0, word 1 = 0, ethNum (native order)
//   the chip's bytes          mac_offset bytes, zero except for:
//     HiGig2 header at higig2_offset: byte 0 = 0xFB (start of frame), byte 4
//       = source module (ethNum / 256), byte 5 = source port (ethNum % 256);
//       byte 2 stays 0 for the dispatcher's packet-type stamp
//     cause ID at cause_id_offset + 18..19: the upper 13 bits of that
//       big-endian 16-bit value
//   the frame
//
// or, for a rule with chip_bytes false, the prefix followed by the frame.
// The cause ID, ethNum and message type come from the first rule that
// matches (chip_rules.h), else from the default; a source's own ethNum
// replaces the default's. A frame too short to parse gets the default.
//
// Thread context: immutable after construction; Build may run on any number
// of threads at once. Build allocates nothing and reads only the frame's
// `len` bytes.
#ifndef VANE_HOST_SOURCES_CHIP_HEADER_H
#define VANE_HOST_SOURCES_CHIP_HEADER_H

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "host/sources/chip_rules.h"

namespace vane::host {

// The largest buffer the dispatcher accepts, delivery prefix included.
constexpr uint32_t kMaxDeliveryLen = 10000;
constexpr uint32_t kDeliveryPrefixLen = 12;

class ChipHeaderStage {
 public:
  // From the `vaned.chip_header` section; nullptr with *err on a mistake.
  static std::unique_ptr<ChipHeaderStage> FromYaml(const YAML::Node& section, std::string* err);
  explicit ChipHeaderStage(ChipConfig config) : config_(std::move(config)) {}

  // Writes the buffer for `frame` into `out` (room for `cap` bytes) and its
  // message type into *type. `source_eth` is the source's ethNum, if it has
  // one. Returns the buffer's length, or 0 when it would exceed `cap` or
  // kMaxDeliveryLen (nothing useful is written then) or the frame is empty.
  uint32_t Build(const uint8_t* frame, uint32_t len, std::optional<uint32_t> source_eth,
                 uint8_t* out, uint32_t cap, uint32_t* type) const;

  // The largest frame that fits a delivery buffer with the chip's bytes.
  uint32_t MaxFrame() const { return kMaxDeliveryLen - kDeliveryPrefixLen - config_.mac_offset; }
  const ChipConfig& config() const { return config_; }

 private:
  ChipConfig config_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_CHIP_HEADER_H
