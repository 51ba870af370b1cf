/* Bounds-checked memory and formatting routines.
 *
 * This file is compiled twice: into the user-space backend and into the
 * kbndsafe kernel module, whose wrapper exports the symbols. It therefore
 * uses only what both worlds provide: memset/memmove and vsnprintf. */
#ifdef __KERNEL__
#include <linux/kernel.h>
#include <linux/string.h>
#else
#include <stdio.h>
#include <string.h>
#endif

#include "kport/bndsafe.h"

/* An object larger than this cannot be meant; treating it as a bad argument
 * catches negative lengths that were converted to size_t. */
static int bnd_dest_usable(const void* dest, size_t destMax) {
  return dest != NULL && destMax <= BND_MAX_LEN;
}

static int bnd_overlaps(const void* a, const void* b, size_t count) {
  __UINTPTR_TYPE__ pa = (__UINTPTR_TYPE__)a;
  __UINTPTR_TYPE__ pb = (__UINTPTR_TYPE__)b;
  return pa < pb + count && pb < pa + count;
}

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
  if (!bnd_dest_usable(dest, destMax)) {
    return BND_EINVAL;
  }
  if (count == 0) {
    return BND_OK;
  }
  /* Every failure below leaves dest zeroed, so a caller that ignores the
   * result copies out zeros rather than stale or half-copied data. */
  if (src == NULL) {
    memset(dest, 0, destMax);
    return BND_EINVAL_AND_RESET;
  }
  if (count > destMax) {
    memset(dest, 0, destMax);
    return BND_ERANGE_AND_RESET;
  }
  if (bnd_overlaps(dest, src, count)) {
    memset(dest, 0, destMax);
    return BND_EOVERLAP_AND_RESET;
  }
  memmove(dest, src, count);
  return BND_OK;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
  if (!bnd_dest_usable(dest, destMax)) {
    return BND_EINVAL;
  }
  if (count > destMax) {
    memset(dest, c, destMax);
    return BND_ERANGE_AND_RESET;
  }
  if (count != 0) {
    memset(dest, c, count);
  }
  return BND_OK;
}

/* Formats at most `limit` characters plus a terminator into dest (which holds
 * at least limit + 1 bytes). The output length on success, -1 when it did not
 * fit or the formatter failed; dest is always terminated. */
static KPORT_PRINTF(3, 0) int bnd_format(char* dest, size_t limit, const char* format,
                                         kport_va_list ap) {
  int n = vsnprintf(dest, limit + 1, format, ap);
  if (n < 0) {
    dest[0] = '\0';
    return -1;
  }
  if ((size_t)n > limit) {
    return -1;
  }
  return n;
}

static int bnd_format_args_ok(char* dest, size_t destMax, const char* format) {
  if (dest == NULL || destMax == 0 || destMax > BND_MAX_LEN) {
    return 0;
  }
  if (format == NULL) {
    dest[0] = '\0';
    return 0;
  }
  return 1;
}

int vsprintf_s(char* dest, size_t destMax, const char* format, kport_va_list ap) {
  int n;
  if (!bnd_format_args_ok(dest, destMax, format)) {
    return -1;
  }
  n = bnd_format(dest, destMax - 1, format, ap);
  if (n < 0) {
    /* Truncated text is not handed out: a cut-off path or number reads as a
     * valid but wrong value. */
    dest[0] = '\0';
  }
  return n;
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
  kport_va_list ap;
  int n;
  kport_va_start(ap, format);
  n = vsprintf_s(dest, destMax, format, ap);
  kport_va_end(ap);
  return n;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
  kport_va_list ap;
  size_t limit;
  int n;
  if (!bnd_format_args_ok(dest, destMax, format)) {
    return -1;
  }
  limit = count < destMax - 1 ? count : destMax - 1;
  kport_va_start(ap, format);
  n = bnd_format(dest, limit, format, ap);
  kport_va_end(ap);
  return n;
}
