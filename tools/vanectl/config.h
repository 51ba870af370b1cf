// The operator's configuration file: a YAML document that names every field
// of the dispatch record, the steering tables, TIMNG and the WLAN LB tables,
// parsed into typed values and validated before anything is sent. The format
// is documented in CONFIG.md beside this file.
//
// Every section is optional: what is absent is not applied. Nothing here
// talks to the dispatcher; apply turns a Config into control messages.
#ifndef VANE_TOOLS_VANECTL_CONFIG_H
#define VANE_TOOLS_VANECTL_CONFIG_H

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "vane/vane.h"

namespace vanectl {

// A rejected file: what() is "FILE:LINE:COLUMN: KEY: reason" (line and
// column 1-based), so an editor can jump to it.
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Range {
  uint32_t min = 0;
  uint32_t max = 0;
};

// Control message 5, slot by slot; every field not in the file is 0, which is
// also what the dispatcher holds before its first message 5.
struct DispatchSection {
  bool multicore = false;
  uint32_t board_type = 0;
  uint32_t off_higig2 = 0;
  uint32_t off_mac = 0;
  uint32_t off_cause_id = 0;
  uint32_t off_first_frag_flag = 0;
  uint32_t off_vp_inner = 0;
  uint32_t off_vp_frag_inner = 0;
  uint32_t off_inner_mac = 0;
  bool no_higig2 = false;
  bool ecm_vp_only = false;
  uint32_t ipc_ethertype = 0;
  uint32_t vp_ethertype = 0;
  uint32_t ecm_vcpu_ethertype = 0;
  Range multicore_interfaces;
  uint32_t ecm_interface = 0;
  Range vp_interfaces;
};

// One cause-ID steering table (message 11).
struct SteeringTable {
  bool enable = true;
  uint32_t vcpu = 0;
  std::vector<uint16_t> cause_ids;  // at most VANE_STEERING_CAUSEIDS
  std::optional<Range> range;       // min >= 1: a minimum of 0 means "no range"
};

struct SteeringSection {
  std::optional<SteeringTable> ivo;
  std::optional<SteeringTable> deteption;
};

struct TimngEntry {
  uint32_t cause_id = 0;
  uint32_t node = 0;
  bool frag_scan = false;
};

struct TimngSection {
  bool master = false;
  std::vector<TimngEntry> entries;  // at most VANE_TIMNG_ENTRIES
};

enum class LbType : uint32_t {
  kCapwap = VANE_LB_CAPWAP,
  kCapwapKa = VANE_LB_CAPWAP_KA,
  kAaaMac = VANE_LB_AAA_MAC,
  kAaaPort = VANE_LB_AAA_PORT,
};

struct CauseIdEntry {
  uint32_t cause_id = 0;
  uint32_t pkt_type = 0;
  LbType lb = LbType::kCapwap;
  int line = 0;  // where the entry stands, for messages about it
};

// Addresses and session words in host order: what the packet path compares.
struct CapwapEntry {
  uint32_t src = 0;
  uint32_t dst = 0;
  uint16_t sport = 0;
  uint16_t dport = 0;
  uint8_t vpn = 0;
  uint32_t vcpu = 0;
  int line = 0;
};
constexpr uint32_t kAnyAddress = 0xFFFFFFFFu;
constexpr uint16_t kAnyPort = 0xFFFFu;
constexpr uint8_t kAnyVpn = 0xFFu;

struct KeepAliveEntry {
  std::array<uint32_t, 4> session{};
  uint32_t vcpu = 0;
  int line = 0;
};

struct SocketPortEntry {
  uint16_t port = 0;
  bool tcp = false;
  bool match_src = false;
  uint32_t vcpu = 0;  // kNacProcess: shown as "NAC" by the socket-port view
  bool ipv6 = false;
  int line = 0;
};
constexpr uint32_t kNacProcess = VANE_PROCESS_NAC;

struct PortalEntry {
  uint16_t port = 0;
  uint32_t vcpu = 0;
};

struct WlanSection {
  std::optional<uint32_t> board_type;
  std::vector<CauseIdEntry> cause_ids;       // at most VANE_CAUSEID_MAX
  std::optional<std::vector<uint32_t>> nac;  // at most VANE_NAC_MAX; an empty list clears it
  std::optional<PortalEntry> portal;
  std::vector<SocketPortEntry> socket_ports;
  std::vector<CapwapEntry> capwap;
  std::vector<KeepAliveEntry> capwap_keepalive;
};

struct Config {
  std::string file;  // the name messages refer to
  std::optional<DispatchSection> dispatch;
  std::optional<SteeringSection> steering;
  std::optional<TimngSection> timng;
  std::optional<WlanSection> wlan;
};

// Parses and validates; throws ConfigError naming the file, line and key.
Config ParseConfig(const std::string& text, const std::string& file_name);
// Reads `path` and parses it; an unreadable file is a ConfigError too.
Config LoadConfig(const std::string& path);

// Text forms used in messages and summaries.
const char* LbTypeName(LbType t);
std::string AddressText(uint32_t host_order);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_CONFIG_H
