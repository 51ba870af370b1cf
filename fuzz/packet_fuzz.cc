// Packets under configurations: the input chooses the 88-byte configuration
// record (installed through control message 5, as user space does), then
// hands buffers (delivery prefix and packet) to the two delivery entry
// points, as the switch driver does.
//
// Input:
//   88 bytes  the configuration record (zeros past the end of the input)
//   u8        the debug output: bits 0-2 the level written to
//             /proc/bypassDebug/debug; bit 7: debug command 16 (packet
//             dumps). The printers read the packets too, but only when
//             asked to.
//   records of
//     u8   bit 0: 0 netlink_send_msg, 1 netlink_fastsend_msg; bit 1: the
//          type argument is the u32 as it is (else a valid type, 1 + u32
//          modulo 15: random words would almost never be one, and the
//          packet would stop at the argument check); bit 7: time passes
//          first
//     [u16 ticks, when bit 7 is set: the clock moves on that many ticks]
//     u32  the message type argument
//     u16  n, then n bytes: the buffer, copied into storage of exactly n
//          bytes so that a read past it is caught
//
// Every input starts with the same WLAN tables (see InstallWlan), so the
// packets that reach the WLAN step find entries to hit and to miss.
#include <cstring>
#include <vector>

#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "fuzz_env.h"

namespace {

template <typename Body>
void Lb(vane::fuzz::FreshModule& module, uint32_t set_type, uint32_t head, const Body& body) {
  uint8_t msg[WLAN_LB_MSG_HEAD_LEN + sizeof(Body)];
  std::memcpy(msg, &set_type, 4);
  std::memcpy(msg + 4, &head, 4);
  std::memcpy(msg + WLAN_LB_MSG_HEAD_LEN, &body, sizeof(Body));
  module.Control(NETLINK_MID_WLAN_LB, msg);
}

// Cause IDs 0 to 3 take the four LB types (the seeds' packets carry 0), on a
// board that load-balances; CAPWAP entries for the seeds' ports (exact and
// both wildcards), NAC vCPUs, a Portal port and a source-port entry.
void InstallWlan(vane::fuzz::FreshModule& module) {
  const WLAN_LB_CAUSEID_NODE_S causes[4] = {
      {0, 3, LB_CAPWAP}, {1, 4, LB_CAPWAP_KA}, {2, 5, LB_AAA_MAC}, {3, 6, LB_AAA_PORT}};
  Lb(module, WLAN_LB_KERNEL_LB_SET_CAUSEIID, 4, causes);
  WLAN_LB_CAPWAP_MSG_S capwap{};
  capwap.sip = 0x0a000001;
  capwap.dip = 0x0a000002;
  capwap.sport = 5246;
  capwap.dport = 5246;
  capwap.process = 12;
  Lb(module, WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, capwap);
  capwap = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFF, 5247, 0xFF, {}, 3, 1, {}};
  Lb(module, WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, capwap);
  capwap.sport = 1812;
  capwap.dport = 1812;
  Lb(module, WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, capwap);
  WLAN_LB_NAC_MSG_S nac{};
  nac.count = 3;
  nac.ids[0] = 20;
  nac.ids[1] = 21;
  nac.ids[2] = 22;
  Lb(module, WLAN_LB_KERNEL_LB_SET_NAC_NODELIST, WLAN_LB_BOARD_TYPE_LB, nac);
  WLAN_LB_PORTAL_MSG_S portal{};
  portal.port = 1812;
  portal.process = 3;
  Lb(module, WLAN_LB_KERNEL_LB_SET_PORTAL_NODE, 0, portal);
  WLAN_LB_SOCKET_PORT_MSG_S port{};
  port.port = 68;
  port.SrcPortFlag = 1;
  Lb(module, WLAN_LB_KERNEL_LB_SET_SOCKET_PORT, 0, port);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vane::fuzz::FreshModule module;
  vane::fuzz::Reader in(data, size);
  uint8_t config[88] = {};
  std::span<const uint8_t> given = in.bytes(sizeof(config));
  if (!given.empty()) std::memcpy(config, given.data(), given.size());
  module.Control(NETLINK_MID_OFFSET, config);
  InstallWlan(module);
  const uint8_t debug = in.u8();
  const uint32_t level = debug & 7;
  kport::user::vfs::ProcWriteAll(
      "/proc/bypassDebug/debug",
      std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(&level),
                           reinterpret_cast<const uint8_t*>(&level) + sizeof(level)));
  if (debug & 0x80) {
    const uint8_t dump[4] = {16};
    module.Control(NETLINK_MID_DEBUG_FLAG, dump);
  }
  while (!in.empty()) {
    const uint8_t how = in.u8();
    if (how & 0x80) module.Advance(in.u16());
    const uint32_t word = in.u32();
    const uint32_t type = (how & 2) ? word : 1 + word % NETLINK_MSG_TYPE_MAX;
    std::span<const uint8_t> bytes = in.block();
    // The entry points may write into the buffer (the packet-type stamp).
    std::vector<uint8_t> buf(bytes.begin(), bytes.end());
    uint8_t* p = buf.empty() ? nullptr : buf.data();
    const u32 len = static_cast<u32>(buf.size());
    if (how & 1) {
      netlink_fastsend_msg(type, p, len);
    } else {
      netlink_send_msg(type, p, len);
    }
    module.Drain();
  }
  return 0;
}
