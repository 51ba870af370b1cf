// Bounds-checked views over packet bytes. Every read of packet data in the
// core goes through ByteView: a read that does not fit yields false and
// leaves the output alone, so no test ever reads past the caller's length.
#ifndef VANE_BASE_BYTES_H
#define VANE_BASE_BYTES_H

#include "kport/types.h"

namespace vane {

class ByteView {
 public:
  constexpr ByteView() = default;
  constexpr ByteView(const u8* data, u32 len) : data_(data), len_(data ? len : 0) {}

  constexpr const u8* data() const { return data_; }
  constexpr u32 size() const { return len_; }
  constexpr bool empty() const { return len_ == 0; }

  // Whether [off, off + n) lies inside the view (overflow-safe).
  constexpr bool has(u64 off, u64 n) const { return off <= len_ && n <= len_ - off; }

  bool u8_at(u64 off, u8* out) const {
    if (!has(off, 1)) return false;
    *out = data_[off];
    return true;
  }
  bool be16(u64 off, u16* out) const {
    if (!has(off, 2)) return false;
    *out = static_cast<u16>((data_[off] << 8) | data_[off + 1]);
    return true;
  }
  bool be32(u64 off, u32* out) const {
    if (!has(off, 4)) return false;
    *out = (static_cast<u32>(data_[off]) << 24) | (static_cast<u32>(data_[off + 1]) << 16) |
           (static_cast<u32>(data_[off + 2]) << 8) | data_[off + 3];
    return true;
  }
  // Native-order u32 (the delivery prefix and control payloads).
  bool ne32(u64 off, u32* out) const {
    if (!has(off, 4)) return false;
    __builtin_memcpy(out, data_ + off, 4);
    return true;
  }
  // Pointer to n readable bytes at off, or nullptr.
  const u8* at(u64 off, u64 n) const { return has(off, n) ? data_ + off : nullptr; }
  // The bytes from off on (empty when off is past the end).
  ByteView from(u64 off) const {
    return off <= len_ ? ByteView(data_ + off, static_cast<u32>(len_ - off)) : ByteView();
  }

 private:
  const u8* data_ = nullptr;
  u32 len_ = 0;
};

inline u16 load_be16(const u8* p) { return static_cast<u16>((p[0] << 8) | p[1]); }
inline u32 load_be32(const u8* p) {
  return (static_cast<u32>(p[0]) << 24) | (static_cast<u32>(p[1]) << 16) |
         (static_cast<u32>(p[2]) << 8) | p[3];
}

}  // namespace vane

#endif  // VANE_BASE_BYTES_H
