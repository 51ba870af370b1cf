// The debug command switch (control message 6) and the state printouts it
// triggers.
//
// Context: the control-message receiver, concurrently with the packet path
// and with other senders. Settings change by atomic read-modify-write, so
// two operators stepping the same setting at once both count.
#include "base/atomic.h"
#include "bypass/config_internal.h"
#include "debug/debug_internal.h"
#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/netlink.h"
#include "drv_vane/selftest.h"
#include "drv_vane/steering.h"
#include "kport/printk.h"

u64 g_ulLBType;
u64 g_ulVcpuId;
u64 g_ulSwitchDebug;
u8 g_ucPktTyep;
u64 g_ulMulPid = 1;
u64 g_ulSendPid;

namespace vane {
namespace {

constexpr u32 kPacketDumpCount = 20;

using Command = void (*)();

void print_board_and_level() {
  // The separator is a full-width comma in the GB2312 code page.
  kport_printk(KPORT_LOGLEVEL_ALERT,
               "\r\nboard type is %u"
               "\xA3\xAC"
               "g_ulDebugLevel=%u",
               bypass_get_boardType(), load_relaxed(&g_ulDebugLevel));
}

// Codes 1..20.
constexpr Command kCommands[BYPASS_DEBUG_CMD_NUM] = {
    [] { update(&g_ulLBType, [](u64 v) { return (v + 1) % 5; }); },                     // 1
    [] { update(&g_ulVcpuId, [](u64 v) { return (v + 1) % 100; }); },                   // 2
    bypass_debug_pktoffset,                                                             // 3
    test_ipFirstFragment,                                                               // 4
    test_ipMiddleFragment,                                                              // 5
    test_ipLastFragment,                                                                // 6
    test_ipV4Test,                                                                      // 7
    test_ipV6Test,                                                                      // 8
    [] { store_relaxed(&g_ulSwitchDebug, 0); },                                         // 9
    [] { store_relaxed(&g_ulSwitchDebug, 1); },                                         // 10
    [] { fetch_add_relaxed(&g_ucPktTyep, 1); },                                         // 11
    print_board_and_level,                                                              // 12
    [] { fetch_add_relaxed(&g_ucPktTyep, 0xFF); },                                      // 13
    [] { update(&g_ulMulPid, [](u64 v) { return v * 10; }); },                          // 14
    [] { update(&g_ulMulPid, [](u64 v) { return v != 1 ? v / 10 : v; }); },             // 15
    [] { store_relaxed(&g_pktprintfcout, kPacketDumpCount); },                          // 16
    [] { update(&g_ulSendPid, [](u64 v) { return v - load_relaxed(&g_ulMulPid); }); },  // 17
    bypass_debug_pidInfo,                                                               // 18
    bypass_catch_info,                                                                  // 19
    bypass_print_ivo_table_info,                                                        // 20
};

}  // namespace

void debug_settings_reset() {
  store_relaxed(&g_ulLBType, 0);
  store_relaxed(&g_ulVcpuId, 0);
  store_relaxed(&g_ulSwitchDebug, 0);
  store_relaxed(&g_ucPktTyep, 0);
  store_relaxed(&g_ulMulPid, 1);
  store_relaxed(&g_ulSendPid, 0);
  store_relaxed(&g_pktprintfcout, 0);
}

}  // namespace vane

extern "C" void bypass_debug(u8 ucCmd) {
  if (ucCmd < 1 || ucCmd > BYPASS_DEBUG_CMD_NUM) return;
  vane::kCommands[ucCmd - 1]();
}

extern "C" void bypass_debug_pktoffset(void) {
  BYPASS_PKT_OFFSET_S rec;
  vane::config_snapshot(&rec);
  const u32* slots = &rec.ulHgHdrOffset;
  for (int i = 0; i < BYPASS_PKT_OFFSET_SLOTS; ++i) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n Netlink packet offset[%d] :  %3u\r\n", i, slots[i]);
  }
}

extern "C" void bypass_debug_pidInfo(void) {
  using vane::load_relaxed;
  const u32* n = g_supp_netlink_kernel.aulVcpuPid;
  const u32* f = g_supp_fast_netlink_kernel.aulVcpuPid;
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n**bypass_debug_pidInfo****\r\n");
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n**bypass_debug_pidInfo1-4:[%u,%u,%u,%u]****\r\n",
               load_relaxed(&n[1]), load_relaxed(&n[2]), load_relaxed(&n[3]), load_relaxed(&n[4]));
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n**bypass_debug_pidInfo1-4:[%u,%u,%u,%u]**fast**\r\n",
               load_relaxed(&f[1]), load_relaxed(&f[2]), load_relaxed(&f[3]), load_relaxed(&f[4]));
}
