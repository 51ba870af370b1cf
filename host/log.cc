// Formats and writes log lines; see log.h.
#include "log.h"

#include <unistd.h>

#include <string>

namespace vane::host {

void LogLine(LogPriority prio, std::string_view text) {
  std::string line = fmt::format("<{}>vaned: {}\n", static_cast<int>(prio), text);
  // One write(2): lines from several threads do not interleave.
  const ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

}  // namespace vane::host
