/* The kernel log and the platform's formatter. Any context. */
#ifndef KPORT_PRINTK_H
#define KPORT_PRINTK_H

#include "kport/compiler.h"
#include "kport/types.h"

/* Kernel log levels, as in KERN_EMERG..KERN_DEBUG. */
#define KPORT_LOGLEVEL_EMERG 0
#define KPORT_LOGLEVEL_ALERT 1
#define KPORT_LOGLEVEL_CRIT 2
#define KPORT_LOGLEVEL_ERR 3
#define KPORT_LOGLEVEL_WARNING 4
#define KPORT_LOGLEVEL_NOTICE 5
#define KPORT_LOGLEVEL_INFO 6
#define KPORT_LOGLEVEL_DEBUG 7

KPORT_EXTERN_C_BEGIN

/* printk() at `level`; the text is passed as formatted, nothing is added. */
void kport_printk(int level, const char* fmt, ...) KPORT_PRINTF(2, 3);
/* vsnprintf(): writes at most size - 1 characters and a terminator (when
 * size > 0) and returns the length the whole output would have had. */
int kport_vsnprintf(char* buf, size_t size, const char* fmt, kport_va_list ap) KPORT_PRINTF(3, 0);

KPORT_EXTERN_C_END

#endif /* KPORT_PRINTK_H */
