// Shared checks of the image decoders: one place that says what a size
// mismatch and a missing argument answer, so every decoder answers the same.
#ifndef VANE_SDK_DECODE_IMAGE_H
#define VANE_SDK_DECODE_IMAGE_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vane::decode_detail {

// 0 when img holds exactly `size` bytes, else the decoders' code for it.
inline int CheckFixed(const uint8_t* img, size_t len, const void* out, size_t size) {
  if (out == nullptr || (img == nullptr && len != 0)) {
    return -EINVAL;
  }
  return len == size ? 0 : -EMSGSIZE;
}

// A record of the module's layout, copied out of the image so that the
// image needs no alignment.
template <typename T>
T Load(const uint8_t* img, size_t offset) {
  T v;
  std::memcpy(&v, img + offset, sizeof v);
  return v;
}

}  // namespace vane::decode_detail

#endif  // VANE_SDK_DECODE_IMAGE_H
