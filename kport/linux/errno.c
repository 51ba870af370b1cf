/* The core spells error numbers with kport's constants; they must be the
 * kernel's, on every architecture the module is built for. Nothing here
 * generates code. */
#include <linux/build_bug.h>
#include <linux/errno.h>

#include "kport/errno.h"

static_assert(KPORT_EPERM == EPERM, "EPERM");
static_assert(KPORT_ENOENT == ENOENT, "ENOENT");
static_assert(KPORT_EIO == EIO, "EIO");
static_assert(KPORT_EAGAIN == EAGAIN, "EAGAIN");
static_assert(KPORT_ENOMEM == ENOMEM, "ENOMEM");
static_assert(KPORT_EFAULT == EFAULT, "EFAULT");
static_assert(KPORT_EBUSY == EBUSY, "EBUSY");
static_assert(KPORT_EEXIST == EEXIST, "EEXIST");
static_assert(KPORT_EINVAL == EINVAL, "EINVAL");
static_assert(KPORT_ERANGE == ERANGE, "ERANGE");
static_assert(KPORT_EBADFD == EBADFD, "EBADFD");
static_assert(KPORT_EMSGSIZE == EMSGSIZE, "EMSGSIZE");
static_assert(KPORT_EPROTONOSUPPORT == EPROTONOSUPPORT, "EPROTONOSUPPORT");
static_assert(KPORT_ECONNREFUSED == ECONNREFUSED, "ECONNREFUSED");
