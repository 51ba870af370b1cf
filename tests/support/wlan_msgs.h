// LB configuration messages (control message 10) as user space builds them,
// for the suites, benchmarks and fuzz seeds that configure the WLAN tables.
#ifndef VANE_TESTS_SUPPORT_WLAN_MSGS_H
#define VANE_TESTS_SUPPORT_WLAN_MSGS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "drv_vane/wlan_lb.h"
#include "support/packet_builder.h"

namespace vane::test {

// The payload of control message 10: the 8-byte head, then `body`.
Bytes LbMessage(uint32_t set_type, uint32_t head_word, const Bytes& body = {});

struct CapwapEntry {
  uint32_t sip = 0;
  uint32_t dip = 0;
  uint16_t sport = 0;
  uint16_t dport = 0;
  uint8_t vpn = 0;
  uint32_t process = 0;
};
Bytes CapwapMsg(const CapwapEntry& e, uint8_t op = 1);
Bytes CapwapKaMsg(const uint32_t (&session)[4], uint32_t process, uint8_t op = 1);
Bytes NacMsg(uint32_t board_type, const std::vector<uint32_t>& ids, uint16_t count);
Bytes NacMsg(uint32_t board_type, const std::vector<uint32_t>& ids);
Bytes PortalMsg(uint16_t port, uint32_t process);
Bytes SocketPortMsg(uint16_t port, bool tcp, uint8_t src_flag, uint32_t process, uint32_t ipv6 = 0,
                    uint16_t op = 1);
Bytes BoardTypeMsg(uint32_t board_type);
// The head word is the number of entries unless `count` says otherwise.
Bytes CauseIdMsg(const std::vector<WLAN_LB_CAUSEID_NODE_S>& nodes,
                 std::optional<uint32_t> count = std::nullopt);

// Applies a message straight through the handler (no netlink), as the
// benchmarks and unit tests do (core_direct.cc): user backend only.
void ApplyLb(const Bytes& msg);

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_WLAN_MSGS_H
