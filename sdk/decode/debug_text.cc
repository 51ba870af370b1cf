// Decoder of the debug text image (/proc/bypassDebug/debug): the text up to
// its first zero byte, split into lines.
#include <string_view>

#include "drv_vane/debug.h"
#include "image.h"
#include "vane/decode.h"

static_assert(VANE_DEBUG_SIZE == BYPASS_DEBUG_BUF_TEXT);

namespace {

// The last line the module writes before it stops writing, as it writes it.
constexpr std::string_view kFullLine = "********Buff is full********";

}  // namespace

// Writers begin their texts with "\r\n" and some end them with "\n", so
// blank lines say nothing and are dropped.
extern "C" int vane_decode_debug(const uint8_t* img, size_t len,
                                 void (*line)(void* arg, const char* text, size_t n), void* arg,
                                 int* full) {
  if (line == nullptr || (img == nullptr && len != 0)) {
    return -EINVAL;
  }
  if (len > VANE_DEBUG_SIZE) {
    return -EMSGSIZE;
  }
  std::string_view text(reinterpret_cast<const char*>(img), len);
  text = text.substr(0, text.find('\0'));
  int lines = 0;
  std::string_view last;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    std::string_view piece = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    if (!piece.empty() && piece.back() == '\r') {
      piece.remove_suffix(1);
    }
    if (piece.empty()) {
      continue;
    }
    line(arg, piece.data(), piece.size());
    last = piece;
    ++lines;
  }
  if (full != nullptr) {
    *full = last == kFullLine ? 1 : 0;
  }
  return lines;
}

namespace vane::decode {

int Debug(const uint8_t* img, size_t len, DebugText* out) {
  if (out == nullptr) {
    return -EINVAL;
  }
  out->lines.clear();
  int full = 0;
  const int rc = vane_decode_debug(
      img, len,
      [](void* arg, const char* text, size_t n) {
        static_cast<DebugText*>(arg)->lines.emplace_back(text, n);
      },
      out, &full);
  out->full = full != 0;
  return rc < 0 ? rc : 0;
}

}  // namespace vane::decode
