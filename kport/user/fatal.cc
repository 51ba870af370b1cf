// A broken contract ends the process where it broke (internal.h).
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "internal.h"

namespace kport::user::internal {

void Fatal(const char* fmt, ...) {
  std::fputs("kport: fatal: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace kport::user::internal
