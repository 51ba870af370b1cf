// Capture: the switch driver's entry points with arbitrary packets, marks,
// events and slots, between catchPkt writes and reads and the printout of
// debug command 19.
//
// Input:
//   100 bytes  the first catchPkt write: mask, slot, control block (zeros
//              past the end of the input; the slot mask is forced to
//              include the slot so that most inputs capture)
//   records of u8 operation (modulo 8):
//     0 capture:   u16 event value, u16 Ethernet offset, u16 n, n bytes
//     1 event:     u8 event, u16 value, u8 mark, u16 slot, u16 n, n bytes
//                  (n 0 passes no frame)
//     2 read:      u32 count (modulo a page and two), u32 position (signed)
//     3 write:     u16 n, n bytes written to catchPkt as they are
//     4 place:     u8 event, u8 number, u16 slot (bypass_TS_GetNum)
//     5 field:     u16 offset, u16 value, u16 n, n bytes
//     6 IPC test:  u16 n, n bytes
//     7 command 19 (the printout)
// Every buffer is copied into storage of exactly its size, so a read past
// it is caught.
#include <cstring>
#include <vector>

#include "drv_vane/capture.h"
#include "drv_vane/netlink.h"
#include "fuzz_env.h"

namespace {

std::vector<uint8_t> Copy(std::span<const uint8_t> bytes) {
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}
uint8_t* Data(std::vector<uint8_t>& v) { return v.empty() ? nullptr : v.data(); }
u32 Len(const std::vector<uint8_t>& v) { return static_cast<u32>(v.size()); }

uint8_t g_scratch[4096 + 2];

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace vfs = kport::user::vfs;
  vane::fuzz::FreshModule module;
  vane::fuzz::Reader in(data, size);
  std::vector<uint8_t> arm(BYPASS_CATCH_CTRL_WRITE_LEN, 0);
  std::span<const uint8_t> given = in.bytes(arm.size());
  if (!given.empty()) std::memcpy(arm.data(), given.data(), given.size());
  u32 mask = 0, slot = 0;
  std::memcpy(&mask, arm.data(), 4);
  std::memcpy(&slot, arm.data() + 4, 4);
  mask |= 1u << (slot % 32);
  std::memcpy(arm.data(), &mask, 4);
  vfs::ProcWriteAll("/proc/bypassDebug/catchPkt", arm);

  while (!in.empty()) {
    switch (in.u8() % 8) {
      case 0: {
        const uint16_t event = in.u16();
        const uint16_t offset = in.u16();
        std::vector<uint8_t> pkt = Copy(in.block());
        uint8_t mark = 0;
        bypass_IsNeedCatchPkt(Data(pkt), Len(pkt), event, &mark, offset);
        break;
      }
      case 1: {
        const uint8_t event = in.u8();
        const uint16_t value = in.u16();
        const uint8_t mark = in.u8();
        const uint16_t at = in.u16();
        std::vector<uint8_t> frame = Copy(in.block());
        bypass_TS_RecvPktEvent(event, Data(frame), Len(frame), value, mark, at);
        break;
      }
      case 2: {
        const size_t count = in.u32() % sizeof(g_scratch);
        int64_t pos = static_cast<int32_t>(in.u32());
        vfs::ProcRead("/proc/bypassDebug/catchPkt", count == 0 ? nullptr : g_scratch, count, &pos);
        break;
      }
      case 3: {
        std::vector<uint8_t> bytes = Copy(in.block());
        int64_t pos = 0;
        vfs::ProcWrite("/proc/bypassDebug/catchPkt", Data(bytes), bytes.size(), &pos);
        break;
      }
      case 4: {
        const uint8_t event = in.u8();
        const uint8_t num = in.u8();
        const uint16_t at = in.u16();
        u32 index = 0, stamp = 0;
        bypass_TS_GetNum(event, num, at, &index, &stamp);
        break;
      }
      case 5: {
        const uint16_t offset = in.u16();
        const uint16_t value = in.u16();
        std::vector<uint8_t> frame = Copy(in.block());
        bypass_TS_IsNeedCatchPktByUdf(Data(frame), Len(frame), offset, value);
        break;
      }
      case 6: {
        std::vector<uint8_t> frame = Copy(in.block());
        bypass_TS_IsIpcPkt(Data(frame), Len(frame));
        break;
      }
      default: {
        const uint8_t cmd[4] = {19};
        module.Control(NETLINK_MID_DEBUG_FLAG, cmd);
        break;
      }
    }
  }
  return 0;
}
