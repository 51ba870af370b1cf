// The status views' pieces that stay inside the module: the attribute's
// handlers (registered by WLAN_LB_InitSysfs, never exported) and the reset
// of the view selectors.
#ifndef VANE_WLAN_LB_VIEWS_INTERNAL_H
#define VANE_WLAN_LB_VIEWS_INTERNAL_H

#include "drv_vane/wlan_lb.h"
#include "kport/sysfs.h"

KPORT_EXTERN_C_BEGIN

// The attribute's text for the selected view, at most 4095 characters and a
// terminator in the page; the length. Process context; reads the tables
// inside an RCU read-side section, takes no lock.
ssize_t wlan_lb_attr_show(struct device* dev, struct kport_device_attr* attr, char* page);
// Selects the view, or clears the seven message counters when the number's
// low 32 bits are 0; consumes the whole write. Process context; takes the
// writer lock for the clear.
ssize_t wlan_lb_attr_store(struct device* dev, struct kport_device_attr* attr, const char* buf,
                           size_t count);

KPORT_EXTERN_C_END

namespace vane {

// Load-time values of the selectors and the proc readers' locks: called
// first by WLAN_LB_InitSysfs, before any file exists.
void views_proc_init();
// Releases the proc readers' locks: WLAN_LB_ExitSysfs, once no file is left.
void views_proc_exit();

}  // namespace vane

#endif  // VANE_WLAN_LB_VIEWS_INTERNAL_H
