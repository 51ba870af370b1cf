// Copies between "user" and kernel memory. In user space both are ordinary
// memory; what remains of the kernel's contract is that a copy can fault.
#include <cstring>

#include "internal.h"
#include "kport/errno.h"
#include "kport/procfs.h"
#include "kport/uaccess.h"

using kport::user::fault::Site;
using kport::user::internal::ShouldFail;

extern "C" {

unsigned long kport_copy_from_user(void* to, const void* from, unsigned long n) {
  if (ShouldFail(Site::kCopyFromUser)) {
    // The kernel zero-fills what it could not copy, so a caller that ignores
    // the result never acts on stale kernel memory.
    std::memset(to, 0, n);
    return n;
  }
  std::memcpy(to, from, n);
  return 0;
}

unsigned long kport_copy_to_user(void* to, const void* from, unsigned long n) {
  if (ShouldFail(Site::kCopyToUser)) return n;
  std::memcpy(to, from, n);
  return 0;
}

ssize_t kport_simple_read_from_buffer(char* to, size_t count, kport_loff_t* ppos, const void* from,
                                      size_t available) {
  const kport_loff_t pos = *ppos;
  if (pos < 0) return -KPORT_EINVAL;
  if (static_cast<unsigned long long>(pos) >= available || count == 0) return 0;
  if (count > available - static_cast<size_t>(pos)) count = available - static_cast<size_t>(pos);
  const unsigned long left = kport_copy_to_user(to, static_cast<const char*>(from) + pos, count);
  if (left == count) return -KPORT_EFAULT;
  count -= left;
  *ppos = pos + static_cast<kport_loff_t>(count);
  return static_cast<ssize_t>(count);
}

}  // extern "C"
