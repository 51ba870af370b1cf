// The user backend's stand-ins for the WLAN tables in dispatch tests.
#include "base/atomic.h"
#include "wlan_lb/wlan_lb_internal.h"

#ifndef __KERNEL__
namespace vane {
namespace {

constinit const WlanLbTestHooks* g_hooks = nullptr;

}  // namespace

void wlan_lb_set_test_hooks(const WlanLbTestHooks* hooks) { store_release(&g_hooks, hooks); }

const WlanLbTestHooks* wlan_lb_test_hooks() { return load_acquire(&g_hooks); }

}  // namespace vane
#endif
