/* Small library routines the kernel provides. */
#ifndef KPORT_LIB_H
#define KPORT_LIB_H

#include "kport/compiler.h"
#include "kport/types.h"

KPORT_EXTERN_C_BEGIN

/* simple_strtol(): an optional '-', then digits in `base`; base 0 takes
 * "0x"/"0X" + hex digit as 16, a leading '0' as 8, else 10. No leading white
 * space is skipped; parsing stops at the first non-digit (no digits: 0).
 * *endp, when given, points after the last digit used. */
long kport_simple_strtol(const char* cp, char** endp, unsigned int base);

KPORT_EXTERN_C_END

#endif /* KPORT_LIB_H */
