// The debug text buffer and its one writer, bypass_debug_out.
//
// Context: every context of the module, concurrently, without a lock. Each
// call formats into a stack buffer first and then reserves its range of the
// buffer with one compare-and-swap on the fill length, so concurrent texts
// never overlap and the length never passes the text area. A reader of the
// text (the debug proc file) copies it as it stands: a snapshot that may end
// in a text still being written.
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/debug.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/printk.h"

u32 g_ulDebugLevel;
char* g_pstDebug;
u64 g_ulDebugLen;

namespace vane {
namespace {

constexpr char kFullLine[] = "\r\n********Buff is full********";

// Reserves up to `want` bytes at the end of the text; returns the start and
// sets *got, or returns false when the text is past the full mark.
bool reserve(u64 want, u64* start, u64* got, bool past_mark_ok) {
  u64 cur = load_relaxed(&g_ulDebugLen);
  for (;;) {
    if (cur > BYPASS_DEBUG_FULL_MARK && !past_mark_ok) return false;
    if (cur >= BYPASS_DEBUG_BUF_TEXT) {
      *got = 0;
      *start = cur;
      return true;
    }
    u64 room = BYPASS_DEBUG_BUF_TEXT - cur;
    u64 n = want < room ? want : room;
    if (cas_acq_rel(&g_ulDebugLen, &cur, cur + n)) {
      *start = cur;
      *got = n;
      return true;
    }
  }
}

// The first caller to find the text past the mark switches output off and
// writes the closing line; concurrent callers that lose the race write
// nothing.
void close_buffer(char* buf) {
  if (exchange_acq_rel(&g_ulDebugLevel, 0u) == 0) return;
  u64 start = 0;
  u64 got = 0;
  reserve(sizeof(kFullLine) - 1, &start, &got, true);
  __builtin_memcpy(buf + start, kFullLine, got);
}

}  // namespace

void debug_out_reset() {
  store_relaxed(&g_ulDebugLevel, 0);
  store_relaxed(&g_ulDebugLen, 0);
  store_release(&g_pstDebug, nullptr);
}

int debug_buffer_create() {
  auto* buf = static_cast<char*>(kport_kzalloc_atomic(BYPASS_DEBUG_BUF_ALLOC));
  if (buf == nullptr) return -KPORT_ENOMEM;
  store_relaxed(&g_ulDebugLen, 0);
  store_release(&g_pstDebug, buf);
  return 0;
}

void debug_buffer_destroy() {
  char* buf = exchange_acq_rel(&g_pstDebug, nullptr);
  kport_kfree(buf);
}

void debug_buffer_clear() {
  char* buf = load_acquire(&g_pstDebug);
  if (buf == nullptr) return;
  __builtin_memset(buf, 0, BYPASS_DEBUG_BUF_TEXT);
  store_release(&g_ulDebugLen, 0);
}

}  // namespace vane

extern "C" void bypass_debug_out(u64 ulLevel, const char* pcFormat, ...) {
  if ((vane::load_relaxed(&g_ulDebugLevel) & ulLevel) == 0 || pcFormat == nullptr) return;
  char* buf = vane::load_acquire(&g_pstDebug);
  if (buf == nullptr) return;
  if (vane::load_relaxed(&g_ulDebugLen) > BYPASS_DEBUG_FULL_MARK) {
    vane::close_buffer(buf);
    return;
  }
  char text[BYPASS_DEBUG_MSG_MAX + 1];
  kport_va_list ap;
  kport_va_start(ap, pcFormat);
  int n = kport_vsnprintf(text, sizeof(text), pcFormat, ap);
  kport_va_end(ap);
  if (n <= 0) return;
  u64 len = static_cast<u64>(n) < BYPASS_DEBUG_MSG_MAX ? static_cast<u64>(n) : BYPASS_DEBUG_MSG_MAX;
  u64 start = 0;
  u64 got = 0;
  if (!vane::reserve(len, &start, &got, false)) {
    vane::close_buffer(buf);
    return;
  }
  __builtin_memcpy(buf + start, text, got);
}
