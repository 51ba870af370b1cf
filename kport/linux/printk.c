/* The kernel log and formatter. vprintk_emit takes the level as an argument,
 * so the core's text reaches the log exactly as formatted, with no prefix to
 * splice into it. */
#include <linux/kernel.h>
#include <linux/printk.h>

#include "kport/printk.h"

static_assert(KPORT_LOGLEVEL_EMERG == LOGLEVEL_EMERG && KPORT_LOGLEVEL_ALERT == LOGLEVEL_ALERT &&
                  KPORT_LOGLEVEL_ERR == LOGLEVEL_ERR && KPORT_LOGLEVEL_DEBUG == LOGLEVEL_DEBUG,
              "log levels");

void kport_printk(int level, const char* fmt, ...) {
  va_list ap;

  va_start(ap, fmt);
  vprintk_emit(0, level, NULL, fmt, ap);
  va_end(ap);
}

int kport_vsnprintf(char* buf, size_t size, const char* fmt, kport_va_list ap) {
  return vsnprintf(buf, size, fmt, ap);
}
