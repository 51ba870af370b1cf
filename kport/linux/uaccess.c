/* Copies between kernel and user memory. The core passes user addresses as
 * plain pointers; they regain their __user annotation here. */
#include <linux/uaccess.h>

#include "kport/uaccess.h"

unsigned long kport_copy_from_user(void* to, const void* from, unsigned long n) {
  return copy_from_user(to, (const void __user*)from, n);
}

unsigned long kport_copy_to_user(void* to, const void* from, unsigned long n) {
  return copy_to_user((void __user*)to, from, n);
}
