/* Module start-up and shut-down (process context, the module loader's). */
#ifndef DRV_VANE_ENTRY_H
#define DRV_VANE_ENTRY_H

#include "kport/compiler.h"

KPORT_EXTERN_C_BEGIN

/* The module's init: resets every module global to its load-time value, then
 * netlink_dev_init(). */
int vane_entry_init(void);
/* The module's exit: netlink_dev_exit(). Releases everything init made. */
void vane_entry_exit(void);

/* 0; -ENOMEM when a socket cannot be created; -EINVAL when bypass_dev_init
 * fails. A failure leaves nothing created behind. */
int netlink_dev_init(void);
/* Releases both sockets, then bypass_dev_exit(). Always 0. */
int netlink_dev_exit(void);

/* 0 or -ENOMEM (fragment tables, proc files, debug buffer, capture store);
 * a failure undoes what it created. Start-up only. */
int bypass_dev_init(void);
/* Removes the proc files and frees what bypass_dev_init made. Always 0. */
int bypass_dev_exit(void);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_ENTRY_H */
