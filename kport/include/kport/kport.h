/* The platform interface the module core sees: C types, no kernel or libc
 * headers. Implemented by kport/user (user space) and kport/linux (the Linux
 * kernel). */
#ifndef KPORT_KPORT_H
#define KPORT_KPORT_H

#include "kport/bndsafe.h"
#include "kport/compiler.h"
#include "kport/errno.h"
#include "kport/lib.h"
#include "kport/lock.h"
#include "kport/mem.h"
#include "kport/netlink.h"
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/rcu.h"
#include "kport/sysfs.h"
#include "kport/time.h"
#include "kport/timer.h"
#include "kport/types.h"
#include "kport/uaccess.h"

#endif /* KPORT_KPORT_H */
