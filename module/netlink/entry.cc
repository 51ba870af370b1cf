// Module start-up and shut-down.
//
// Context: the module loader's process context. The control input is live as
// soon as the first socket exists, so everything a control message touches
// is reset before the sockets are created; the later steps only add
// resources whose absence the receiver tolerates. Every step that fails
// undoes the ones before it, so a failed start-up leaves nothing behind, and
// shut-down mirrors start-up in reverse.
#include "drv_vane/entry.h"

#include "bypass/config_internal.h"
#include "bypass/steering_internal.h"
#include "debug/debug_internal.h"
#include "drv_vane/frag.h"
#include "drv_vane/netlink.h"
#include "drv_vane/proc.h"
#include "kport/errno.h"
#include "kport/netlink.h"
#include "kport/printk.h"
#include "netlink/netlink_internal.h"
#include "timng/timng_internal.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
namespace {

struct sock* create_channel(SUPP_NETLINK_KERNEL_S* rec, int protocol) {
  struct sock* sk = kport_netlink_kernel_create(protocol, netlink_receive_msg);
  if (sk == nullptr) return nullptr;
  channel_set_sock(rec, sk);
  channel_clear_handlers(rec);
  return sk;
}

void release_channel(SUPP_NETLINK_KERNEL_S* rec) {
  struct sock* sk = channel_sock(rec);
  channel_set_sock(rec, nullptr);
  // Returns once no input callback of the socket is running.
  kport_netlink_kernel_release(sk);
}

}  // namespace
}  // namespace vane

extern "C" int bypass_dev_init(void) {
  using namespace vane;
  // The per-processor counters come first: the packet path and the proc
  // files count and sum them.
  if (counters_create() != 0) return -KPORT_ENOMEM;
  if (steering_stats_create() != 0) {
    counters_destroy();
    return -KPORT_ENOMEM;
  }
  // The fragment tables come ahead of the proc files that show them.
  if (bypass_ipfrag_initHash() != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: hash table in kernel bypass inits failed.\r\n");
    steering_stats_destroy();
    counters_destroy();
    return -KPORT_ENOMEM;
  }
  if (bypass_proc_init() != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: bypass_proc_init inits failed.\r\n");
    bypass_ipfrag_exitHash();
    steering_stats_destroy();
    counters_destroy();
    return -KPORT_ENOMEM;
  }
  if (debug_buffer_create() != 0) {
    bypass_proc_exit();
    bypass_ipfrag_exitHash();
    steering_stats_destroy();
    counters_destroy();
    return -KPORT_ENOMEM;
  }
  if (capture_store_create() != 0) {
    debug_buffer_destroy();
    bypass_proc_exit();
    bypass_ipfrag_exitHash();
    steering_stats_destroy();
    counters_destroy();
    return -KPORT_ENOMEM;
  }
  // The WLAN views log their own failures and never fail the start-up.
  WLAN_LB_InitSysfs();
  return 0;
}

extern "C" int bypass_dev_exit(void) {
  using namespace vane;
  // The files go first: their removal waits for running readers, after
  // which nothing can reach the buffers and tables freed below.
  WLAN_LB_ExitSysfs();
  bypass_proc_exit();
  capture_store_destroy();
  debug_buffer_destroy();
  // The sockets are closed and the files gone, so only the ageing timer can
  // still reach the tables; this stops it before they are freed.
  bypass_ipfrag_exitHash();
  steering_stats_destroy();
  counters_destroy();
  return 0;
}

extern "C" int netlink_dev_init(void) {
  using namespace vane;
  if (create_channel(&g_supp_netlink_kernel, NETLINK_VANE_PROTO) == nullptr) return -KPORT_ENOMEM;
  if (create_channel(&g_supp_fast_netlink_kernel, NETLINK_VANE_FAST_PROTO) == nullptr) {
    release_channel(&g_supp_netlink_kernel);
    return -KPORT_ENOMEM;
  }
  if (bypass_dev_init() != 0) {
    release_channel(&g_supp_fast_netlink_kernel);
    release_channel(&g_supp_netlink_kernel);
    return -KPORT_EINVAL;
  }
  return 0;
}

extern "C" int netlink_dev_exit(void) {
  using namespace vane;
  release_channel(&g_supp_netlink_kernel);
  release_channel(&g_supp_fast_netlink_kernel);
  return bypass_dev_exit();
}

extern "C" int vane_entry_init(void) {
  using namespace vane;
  // A kernel loads the module with these values in place; a process that
  // loads it again after an unload must find them the same way.
  channel_reset();
  config_init();
  counters_reset();
  debug_out_reset();
  debug_settings_reset();
  capture_ctrl_reset();
  steering_init();
  timng_init();
  wlan_lb_init();
  int ret = netlink_dev_init();
  if (ret != 0) {
    wlan_lb_exit();
    timng_exit();
    steering_exit();
    config_exit();
  }
  return ret;
}

extern "C" void vane_entry_exit(void) {
  (void)netlink_dev_exit();
  vane::wlan_lb_exit();
  vane::timng_exit();
  vane::steering_exit();
  vane::config_exit();
}
