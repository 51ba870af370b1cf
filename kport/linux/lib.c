/* Small library routines. The kernel's simple_strtol already has the
 * documented contract: no white space skipped, "0x" only before a hex digit. */
#include <linux/kernel.h>

#include "kport/lib.h"

long kport_simple_strtol(const char* cp, char** endp, unsigned int base) {
  return simple_strtol(cp, endp, base);
}
