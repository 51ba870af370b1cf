/* Bounds-checked memory and formatting routines.
 *
 * On Linux these are exported by the kbndsafe module; in user space the
 * kport backend links the very same source. One contract for both:
 *
 *  memcpy_s(dest, destMax, src, count)
 *  memset_s(dest, destMax, c, count)
 *    0 (BND_OK) on success. On failure nothing beyond dest[destMax) is ever
 *    written and the result is nonzero:
 *      BND_EINVAL   dest is NULL, or destMax is above BND_MAX_LEN
 *                   (nothing written);
 *      BND_EINVAL_AND_RESET  src is NULL (memcpy_s): dest[0..destMax) zeroed;
 *      BND_ERANGE_AND_RESET  count > destMax: memcpy_s zeroes
 *                   dest[0..destMax), memset_s fills it with c;
 *      BND_EOVERLAP_AND_RESET  the ranges overlap (memcpy_s): dest zeroed.
 *    count 0 succeeds and writes nothing.
 *
 *  sprintf_s(dest, destMax, fmt, ...), vsprintf_s(dest, destMax, fmt, ap)
 *    Return the number of characters written (the terminator not counted).
 *    Return -1 when dest or fmt is NULL, destMax is 0 or above BND_MAX_LEN,
 *    or the output plus its terminator does not fit: truncation is an error,
 *    and dest then holds the empty string (when dest and destMax are usable).
 *
 *  snprintf_s(dest, destMax, count, fmt, ...)
 *    Writes at most min(count, destMax - 1) characters and a terminator.
 *    Returns the number written when the whole output fit; -1 when it was cut
 *    short (dest keeps the truncated, terminated text) or on the argument
 *    errors above (dest holds "" when usable). */
#ifndef KPORT_BNDSAFE_H
#define KPORT_BNDSAFE_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BND_OK 0
#define BND_EINVAL 22
#define BND_ERANGE 34
#define BND_EINVAL_AND_RESET (22 | 128)
#define BND_ERANGE_AND_RESET (34 | 128)
#define BND_EOVERLAP_AND_RESET (54 | 128)
#define BND_MAX_LEN 0x7fffffffUL

KPORT_EXTERN_C_BEGIN

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
int memset_s(void* dest, size_t destMax, int c, size_t count);
int sprintf_s(char* dest, size_t destMax, const char* format, ...) KPORT_PRINTF(3, 4);
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    KPORT_PRINTF(4, 5);
int vsprintf_s(char* dest, size_t destMax, const char* format, kport_va_list ap) KPORT_PRINTF(3, 0);

KPORT_EXTERN_C_END

#endif /* KPORT_BNDSAFE_H */
