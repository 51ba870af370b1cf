/* The Linux error numbers the module reports (negated) or receives.
 * The Linux glue asserts at compile time that they equal the kernel's. */
#ifndef KPORT_ERRNO_H
#define KPORT_ERRNO_H

#define KPORT_EPERM 1
#define KPORT_ENOENT 2
#define KPORT_EIO 5
#define KPORT_EAGAIN 11
#define KPORT_ENOMEM 12
#define KPORT_EFAULT 14
#define KPORT_EBUSY 16
#define KPORT_EEXIST 17
#define KPORT_EINVAL 22
#define KPORT_ERANGE 34
#define KPORT_EBADFD 77
#define KPORT_EMSGSIZE 90
#define KPORT_EPROTONOSUPPORT 93
#define KPORT_ECONNREFUSED 111

#endif /* KPORT_ERRNO_H */
