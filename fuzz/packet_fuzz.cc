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
#include <cstring>
#include <vector>

#include "drv_vane/netlink.h"
#include "fuzz_env.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vane::fuzz::FreshModule module;
  vane::fuzz::Reader in(data, size);
  uint8_t config[88] = {};
  std::span<const uint8_t> given = in.bytes(sizeof(config));
  if (!given.empty()) std::memcpy(config, given.data(), given.size());
  module.Control(NETLINK_MID_OFFSET, config);
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
