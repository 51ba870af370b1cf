/* Fixed-width types of the platform interface.
 *
 * The module core is compiled freestanding (no libc headers), so outside the
 * Linux C glue these are spelt with compiler built-ins. They are chosen to be
 * the very types the kernel uses (u64 is unsigned long long on every 64-bit
 * architecture), so a prototype reads the same from C glue and from C++. */
#ifndef KPORT_TYPES_H
#define KPORT_TYPES_H

#if defined(__KERNEL__) && !defined(__cplusplus)
#include <linux/types.h>
#else
typedef unsigned char u8;
typedef unsigned short u16;
typedef unsigned int u32;
typedef unsigned long long u64;
typedef signed char s8;
typedef short s16;
typedef int s32;
typedef long long s64;
typedef __SIZE_TYPE__ size_t;
typedef __PTRDIFF_TYPE__ ssize_t;
#if !defined(__cplusplus) && !defined(__bool_true_false_are_defined)
typedef _Bool bool;
#define true 1
#define false 0
#endif
#endif

#ifndef NULL
#ifdef __cplusplus
#define NULL nullptr
#else
#define NULL ((void*)0)
#endif
#endif

/* File positions. libc spells loff_t as long, the kernel as long long; a name
 * of our own keeps both happy in one translation unit. */
typedef long long kport_loff_t;

/* Variadic arguments without <stdarg.h>. */
typedef __builtin_va_list kport_va_list;
#define kport_va_start(ap, last) __builtin_va_start(ap, last)
#define kport_va_end(ap) __builtin_va_end(ap)
#define kport_va_copy(dst, src) __builtin_va_copy(dst, src)

#endif /* KPORT_TYPES_H */
