/* kbndsafe.ko: the bounds-checked routines of kport/bndsafe/bndsafe.c, the
 * very source the user-space backend links, exported to other modules.
 *
 * The module has neither init nor exit: it holds no state, and a module
 * without an exit routine could never be unloaded. */
#include <linux/export.h>
#include <linux/module.h>

#include "kport/bndsafe.h"

EXPORT_SYMBOL(memcpy_s);
EXPORT_SYMBOL(memset_s);
EXPORT_SYMBOL(sprintf_s);
EXPORT_SYMBOL(snprintf_s);
EXPORT_SYMBOL(vsprintf_s);

MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Bounds-checked memory and formatting routines");
MODULE_VERSION("1.0");
