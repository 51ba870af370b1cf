/* Copies between kernel and user memory. Both return the number of bytes
 * that could NOT be copied (0 on success), as the kernel's do. They may
 * sleep on Linux: process context only. */
#ifndef KPORT_UACCESS_H
#define KPORT_UACCESS_H

#include "kport/compiler.h"
#include "kport/types.h"

KPORT_EXTERN_C_BEGIN

unsigned long kport_copy_from_user(void* to, const void* from, unsigned long n);
unsigned long kport_copy_to_user(void* to, const void* from, unsigned long n);

KPORT_EXTERN_C_END

#endif /* KPORT_UACCESS_H */
