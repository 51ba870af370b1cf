// The hook behind VANE_WLAN_HOOK, for the test build of the core only: the
// product core and the kernel module leave this file out.
#include "base/atomic.h"
#include "wlan_lb/wlan_lb_internal.h"

#ifndef VANE_WLAN_TEST_HOOKS
#error "test_hooks.cc belongs to the test build of the core (VANE_WLAN_TEST_HOOKS)"
#endif

namespace vane {
namespace {

constinit const WlanLbTestHooks* g_hooks = nullptr;

}  // namespace

void wlan_lb_set_test_hooks(const WlanLbTestHooks* hooks) { store_release(&g_hooks, hooks); }

const WlanLbTestHooks* wlan_lb_test_hooks() { return load_acquire(&g_hooks); }

}  // namespace vane
