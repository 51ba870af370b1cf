// simple_strtol(), with the kernel's exact parsing: the Linux backend calls
// the kernel's own, so both must agree on every input, odd ones included.
#include "kport/lib.h"

namespace {

// Base 0 picks the radix from the prefix; base 16 skips an "0x" prefix even
// when no hex digit follows it.
const char* FixupRadix(const char* s, unsigned int* base) {
  if (*base == 0) {
    if (s[0] == '0') {
      const bool hex_digit_follows =
          (s[1] | 0x20) == 'x' &&
          ((s[2] >= '0' && s[2] <= '9') || ((s[2] | 0x20) >= 'a' && (s[2] | 0x20) <= 'f'));
      *base = hex_digit_follows ? 16 : 8;
    } else {
      *base = 10;
    }
  }
  if (*base == 16 && s[0] == '0' && (s[1] | 0x20) == 'x') s += 2;
  return s;
}

// Only 0-9 and a-f are digits, whatever the base; overflow wraps.
unsigned long long StrToUll(const char* cp, char** endp, unsigned int base) {
  cp = FixupRadix(cp, &base);
  unsigned long long result = 0;
  for (;; ++cp) {
    const unsigned int c = static_cast<unsigned char>(*cp);
    const unsigned int lc = c | 0x20;
    unsigned int val;
    if (c >= '0' && c <= '9') {
      val = c - '0';
    } else if (lc >= 'a' && lc <= 'f') {
      val = lc - 'a' + 10;
    } else {
      break;
    }
    if (val >= base) break;
    result = result * base + val;
  }
  if (endp != nullptr) *endp = const_cast<char*>(cp);
  return result;
}

}  // namespace

extern "C" long kport_simple_strtol(const char* cp, char** endp, unsigned int base) {
  if (*cp == '-') return static_cast<long>(-StrToUll(cp + 1, endp, base));
  return static_cast<long>(StrToUll(cp, endp, base));
}
