// The WLAN status views. (Stub: filled in by the views' change.)
#include "wlan_lb/wlan_lb_internal.h"

extern "C" void WLAN_LB_InitSysfs(void) {}
extern "C" void WLAN_LB_ExitSysfs(void) {}
