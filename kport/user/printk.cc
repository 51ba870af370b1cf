// The kernel log: every kport_printk line is kept, with its level, for tests
// to inspect, and mirrored to stderr when KPORT_KLOG_STDERR is set.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>

#include "kport/printk.h"
#include "kport/user/testing.h"

namespace kport::user::klog {
namespace {

// Like the kernel's ring buffer the log is bounded: a long stress run that
// prints per packet drops its oldest lines instead of exhausting memory.
constexpr size_t kMaxLines = 1 << 16;

struct Log {
  std::mutex mu;
  std::deque<Line> lines;
  bool mirror = std::getenv("KPORT_KLOG_STDERR") != nullptr;
};

Log& TheLog() {
  // Never destroyed: a timer may still print while the process exits.
  static Log* log = new Log;
  return *log;
}

void Append(int level, std::string text) {
  Log& log = TheLog();
  std::lock_guard lock(log.mu);
  if (log.mirror) {
    const bool newline = !text.empty() && text.back() == '\n';
    std::fprintf(stderr, "<%d>%s%s", level, text.c_str(), newline ? "" : "\n");
  }
  if (log.lines.size() == kMaxLines) log.lines.pop_front();
  log.lines.push_back(Line{level, std::move(text)});
}

}  // namespace

std::vector<Line> Lines() {
  Log& log = TheLog();
  std::lock_guard lock(log.mu);
  return {log.lines.begin(), log.lines.end()};
}

void Clear() {
  Log& log = TheLog();
  std::lock_guard lock(log.mu);
  log.lines.clear();
}

bool Contains(int level, std::string_view text) {
  Log& log = TheLog();
  std::lock_guard lock(log.mu);
  for (const Line& line : log.lines) {
    if (line.level == level && line.text == text) return true;
  }
  return false;
}

bool ContainsFragment(std::string_view fragment) {
  Log& log = TheLog();
  std::lock_guard lock(log.mu);
  for (const Line& line : log.lines) {
    if (line.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

}  // namespace kport::user::klog

extern "C" {

void kport_printk(int level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string text;
  if (n > 0) {
    text.resize(static_cast<size_t>(n));
    // std::string keeps room for the terminator past size().
    std::vsnprintf(text.data(), text.size() + 1, fmt, again);
  }
  va_end(again);
  kport::user::klog::Append(level, std::move(text));
}

int kport_vsnprintf(char* buf, size_t size, const char* fmt, kport_va_list ap) {
  return std::vsnprintf(buf, size, fmt, ap);
}

}  // extern "C"
