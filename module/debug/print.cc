// Packet printers: the dispatch trace's hex dumps (debug buffer, level 4)
// and the packet dump of debug command 16 (kernel log).
//
// Context: the packet path. Texts are assembled in bounded buffers (stack,
// or one atomic allocation for the log dump) and appended as whole lines, so
// a concurrent trace line can only fall between lines, never inside one.
#include "base/atomic.h"
#include "base/bytes.h"
#include "base/text.h"
#include "bypass/config_internal.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "kport/mem.h"
#include "kport/printk.h"

namespace vane {
namespace {

constexpr u32 kPktDumpBytes = 64;
constexpr u32 kAllDumpBytes = 500;
constexpr u32 kLogDumpBytes = 90;
constexpr u32 kLogDumpCap = 1000;
constexpr u32 kHgHdrLen = 16;

bool tracing_packets() { return (load_relaxed(&g_ulDebugLevel) & BYPASS_DEBUG_LEVEL_PKT) != 0; }

enum class HexStyle { kPacked, kSpaced };  // "%02x" or "%02x " per byte

// Hex bytes with a break after every 32nd byte (up to and including byte
// `last_break`) and a space after every other 4th byte. Digits are written
// directly: a trace line costs one append, not one format per byte.
void append_hex(TextWriter& out, const u8* p, u32 n, HexStyle style, u32 last_break) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (u32 i = 1; i <= n; ++i) {
    char piece[6];
    u32 len = 0;
    piece[len++] = kDigits[p[i - 1] >> 4];
    piece[len++] = kDigits[p[i - 1] & 0x0F];
    if (style == HexStyle::kSpaced) piece[len++] = ' ';
    if (i % 32 == 0 && i <= last_break) {
      piece[len++] = '\r';
      piece[len++] = '\n';
    } else if (i % 4 == 0) {
      piece[len++] = ' ';
    }
    out.append_raw(piece, len);
  }
}

}  // namespace
}  // namespace vane

extern "C" void bypass_print_pkt(u8* pucPkt, u32 ulLen, u32 ulOffset, u32 ulSkipHgHdr) {
  using namespace vane;
  if (pucPkt == nullptr || !tracing_packets()) return;
  BYPASS_PKT_OFFSET_S cfg;
  config_snapshot(&cfg);
  ByteView pkt(pucPkt, ulLen);
  StackText<384> text;
  if (ulSkipHgHdr != 1 && cfg.ulIsNoHgHdr != 1) {
    // A header that would lie past the packet is left out rather than read.
    if (const u8* h = pkt.at(cfg.ulHgHdrOffset, kHgHdrLen)) {
      text.append(
          "\r\nHGHDR:\r\n%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x-%02x%02x%02x%02x", h[0],
          h[1], h[2], h[3], h[4], h[5], h[6], h[7], h[8], h[9], h[10], h[11], h[12], h[13], h[14],
          h[15]);
    }
  }
  const u64 min_len = static_cast<u64>(ulOffset) + 16;
  if (ulLen <= min_len) {
    text.append("\r\nData len:%d less than VP packet len:%u.", static_cast<int>(ulLen),
                static_cast<u32>(min_len));
  } else {
    const u32 n = ulLen - ulOffset;
    text.append("\r\nPaket Data Begin[len=%u]:\r\n", n);
    append_hex(text, pucPkt + ulOffset, n < kPktDumpBytes ? n : kPktDumpBytes, HexStyle::kPacked,
               32);
  }
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "%s", text.c_str());
}

extern "C" void bypass_print_All(u8* pucData, u32 ulLen) {
  using namespace vane;
  if (pucData == nullptr || !tracing_packets()) return;
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nAll Data Begin[len=%u]:\r\n", ulLen);
  const u32 n = ulLen < kAllDumpBytes ? ulLen : kAllDumpBytes;
  // One append per 32-byte row keeps each text well inside the per-call
  // limit.
  for (u32 row = 0; row < n; row += 32) {
    StackText<128> line;
    const u32 k = n - row < 32 ? n - row : 32;
    append_hex(line, pucData + row, k, HexStyle::kSpaced, 32);
    bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "%s", line.c_str());
  }
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nEnd");
}

extern "C" void bypass_print_pkt_data(u8* pucData, u32 ulLen) {
  using namespace vane;
  if (pucData == nullptr) return;
  auto* buf = static_cast<char*>(kport_kmalloc_atomic(kLogDumpCap));
  if (buf == nullptr) return;
  {
    TextWriter text(buf, kLogDumpCap);
    text.append("\r\nlen=%u,data start:\r\n", ulLen);
    append_hex(text, pucData, ulLen < kLogDumpBytes ? ulLen : kLogDumpBytes, HexStyle::kPacked,
               kLogDumpBytes);
    text.append("\r\ndata end.\r\n");
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\n%s", text.c_str());
  }
  kport_kfree(buf);
}
