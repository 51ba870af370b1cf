/* The kernel log and formatter. vprintk_emit takes the level as an argument,
 * so the core's text reaches the log exactly as formatted, with no prefix to
 * splice into it.
 *
 * The kernel keeps a record that does not end in a newline open for a
 * continuation, and readers of the log see it only once a later message
 * closes it; on a quiet controller that may be never. Each message is
 * therefore closed here: a newline is added where the text does not already
 * end with one. The kernel strips one trailing newline from a record, so
 * the text that readers see is the core's own, and a text ending in "\r\n"
 * gains no empty record. */
#include <linux/kernel.h>
#include <linux/printk.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kport/printk.h"

static_assert(KPORT_LOGLEVEL_EMERG == LOGLEVEL_EMERG && KPORT_LOGLEVEL_ALERT == LOGLEVEL_ALERT &&
                  KPORT_LOGLEVEL_ERR == LOGLEVEL_ERR && KPORT_LOGLEVEL_DEBUG == LOGLEVEL_DEBUG,
              "log levels");

static __printf(2, 3) void emit(int level, const char* fmt, ...) {
  va_list ap;

  va_start(ap, fmt);
  vprintk_emit(0, level, NULL, fmt, ap);
  va_end(ap);
}

static bool ends_with_newline(const char* s) {
  size_t n = strlen(s);

  return n > 0 && s[n - 1] == '\n';
}

void kport_printk(int level, const char* fmt, ...) {
  struct va_format vaf;
  va_list ap;
  char* text;

  va_start(ap, fmt);
  /* A format that ends in a literal newline closes its record itself. */
  if (ends_with_newline(fmt)) {
    vprintk_emit(0, level, NULL, fmt, ap);
    va_end(ap);
    return;
  }
  /* Otherwise only the formatted text tells; any context may log, so the
   * copy is atomic and its failure still closes the record. */
  text = kvasprintf(GFP_ATOMIC, fmt, ap);
  va_end(ap);
  if (text) {
    emit(level, "%s%s", text, ends_with_newline(text) ? "" : "\n");
    kfree(text);
    return;
  }
  va_start(ap, fmt);
  vaf.fmt = fmt;
  vaf.va = &ap;
  emit(level, "%pV\n", &vaf);
  va_end(ap);
}

int kport_vsnprintf(char* buf, size_t size, const char* fmt, kport_va_list ap) {
  return vsnprintf(buf, size, fmt, ap);
}
