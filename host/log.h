// vaned's log: one line per event on stderr, prefixed with the syslog
// priority ("<6>vaned: ...") so that the journal files it at that level.
// Thread-safe: a line is written with one call.
#ifndef VANE_HOST_LOG_H
#define VANE_HOST_LOG_H

#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace vane::host {

enum LogPriority { kLogErr = 3, kLogWarning = 4, kLogNotice = 5, kLogInfo = 6, kLogDebug = 7 };

void LogLine(LogPriority prio, std::string_view text);

template <typename... Args>
void Log(LogPriority prio, fmt::format_string<Args...> format, Args&&... args) {
  LogLine(prio, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace vane::host

#endif  // VANE_HOST_LOG_H
