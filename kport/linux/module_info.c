/* drv_vane's module entry and metadata. The core's entry points are C++ in
 * another object, and module_init can only alias a function of its own
 * translation unit, hence the two forwarders. */
#include <linux/init.h>
#include <linux/module.h>

#include "drv_vane/entry.h"

static int __init drv_vane_init(void) { return vane_entry_init(); }

static void __exit drv_vane_exit(void) { vane_entry_exit(); }

module_init(drv_vane_init);
module_exit(drv_vane_exit);

/* The channel and start-up code. */
MODULE_VERSION("1.0");
MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Enterprice ethernet switch's kernel mode vane stub function entry");

/* The dispatch, container and diagnostics code. */
MODULE_VERSION("1.0");
MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Enterprice ethernet switch's network testing function");
