// Bounded text assembly over a caller's buffer, with the platform's bounded
// formatter. Once a piece does not fit, the writer stops appending and says
// so: the text stays terminated and never overruns its buffer.
#ifndef VANE_BASE_TEXT_H
#define VANE_BASE_TEXT_H

#include "kport/bndsafe.h"
#include "kport/compiler.h"
#include "kport/types.h"

namespace vane {

class TextWriter {
 public:
  TextWriter(char* buf, u32 cap) : buf_(buf), cap_(cap) {
    if (cap_ > 0) buf_[0] = '\0';
  }
  TextWriter(const TextWriter&) = delete;
  TextWriter& operator=(const TextWriter&) = delete;

  void append(const char* fmt, ...) KPORT_PRINTF(2, 3) {
    kport_va_list ap;
    kport_va_start(ap, fmt);
    vappend(fmt, ap);
    kport_va_end(ap);
  }
  void vappend(const char* fmt, kport_va_list ap) KPORT_PRINTF(2, 0) {
    if (truncated_ || len_ + 1 >= cap_) {
      truncated_ = true;
      return;
    }
    int n = vsprintf_s(buf_ + len_, cap_ - len_, fmt, ap);
    if (n < 0) {
      buf_[len_] = '\0';  // a piece that does not fit is dropped whole
      truncated_ = true;
      return;
    }
    len_ += static_cast<u32>(n);
  }

  // Appends bytes as they are, all or nothing, like one formatted piece.
  void append_raw(const char* text, u32 n) {
    if (truncated_ || n >= cap_ - len_) {
      truncated_ = true;
      return;
    }
    __builtin_memcpy(buf_ + len_, text, n);
    len_ += n;
    buf_[len_] = '\0';
  }

  const char* c_str() const { return buf_; }
  u32 size() const { return len_; }
  bool truncated() const { return truncated_; }

 private:
  char* buf_;
  u32 cap_;
  u32 len_ = 0;
  bool truncated_ = false;
};

// A TextWriter over its own stack storage; keep N small (kernel stacks).
template <u32 N>
class StackText : public TextWriter {
 public:
  StackText() : TextWriter(storage_, N) {}

 private:
  char storage_[N];
};

}  // namespace vane

#endif  // VANE_BASE_TEXT_H
