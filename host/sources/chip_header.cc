#include "host/sources/chip_header.h"

#include <cstring>

#include "host/sources/frame_facts.h"

namespace vane::host {
namespace {

constexpr uint8_t kHiGig2Start = 0xFB;

}  // namespace

std::unique_ptr<ChipHeaderStage> ChipHeaderStage::FromYaml(const YAML::Node& section,
                                                           std::string* err) {
  ChipConfig config;
  if (!ParseChipConfig(section, &config, err)) return nullptr;
  return std::make_unique<ChipHeaderStage>(std::move(config));
}

uint32_t ChipHeaderStage::Build(const uint8_t* frame, uint32_t len,
                                std::optional<uint32_t> source_eth, uint8_t* out, uint32_t cap,
                                uint32_t* type) const {
  if (len == 0) return 0;
  uint16_t cause = config_.default_cause;
  uint32_t eth = source_eth.value_or(config_.default_eth);
  *type = config_.default_type;
  bool chip_bytes = true;

  const FrameFacts facts = ReadFrameFacts(frame, len);
  for (const ChipRule& r : config_.rules) {
    if (!RuleMatches(r.match, facts, frame)) continue;
    cause = r.action.cause_id.value_or(cause);
    eth = r.action.eth_num.value_or(eth);
    *type = r.action.type.value_or(*type);
    chip_bytes = r.action.chip_bytes;
    break;
  }

  const uint32_t head = kDeliveryPrefixLen + (chip_bytes ? config_.mac_offset : 0);
  if (len > kMaxDeliveryLen - head || head + len > cap) return 0;
  std::memset(out, 0, head);
  std::memcpy(out + 8, &eth, sizeof(eth));
  if (chip_bytes) {
    uint8_t* chip = out + kDeliveryPrefixLen;
    uint8_t* hg = chip + config_.higig2_offset;
    hg[0] = kHiGig2Start;
    hg[4] = static_cast<uint8_t>(eth >> 8);
    hg[5] = static_cast<uint8_t>(eth);
    chip[config_.cause_id_offset + 18] = static_cast<uint8_t>(cause >> 5);
    chip[config_.cause_id_offset + 19] = static_cast<uint8_t>((cause << 3) & 0xFF);
  }
  std::memcpy(out + head, frame, len);
  return head + len;
}

}  // namespace vane::host
