// The HiGig2 header helpers: each known field is one byte (or three bits) of
// the header, unknown ids read 0 and write nothing, and a missing header
// answers 100.
#include "drv_vane/higig2.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>

namespace {

using Header = std::array<u8, 16>;

Header Ascending() {
  Header h;
  std::iota(h.begin(), h.end(), 0x10);  // every byte distinct and nonzero
  return h;
}

TEST(HiGig2Test, FieldsReadAndWriteTheirOwnBitsOnly) {
  for (const auto& [field, byte] : {std::pair<s32, size_t>{6, 4}, {9, 5}, {10, 3}, {14, 2}}) {
    Header h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), field), h[byte]) << field;
    bypass_higig2_field_set(h.data(), field, 0xC3);
    Header want = Ascending();
    want[byte] = 0xC3;
    EXPECT_EQ(h, want) << field;
  }
  // Field 7: the low three bits of byte 14, the rest of the byte kept.
  Header h{};
  h[14] = 0xFD;
  EXPECT_EQ(bypass_higig2_field_get(h.data(), 7), 5u);
  bypass_higig2_field_set(h.data(), 7, 0x0A);
  EXPECT_EQ(h[14], 0xFA);

  for (s32 field : {-1, 0, 5, 8, 11, 12, 13, 15, 0x7FFFFFFF}) {
    h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), field), 0u) << field;
    bypass_higig2_field_set(h.data(), field, 0xEE);
    EXPECT_EQ(h, Ascending()) << field;
  }
  for (s32 field : {0, 6, 7, 8, 14, 15}) EXPECT_EQ(bypass_higig2_field_get(nullptr, field), 100u);
  bypass_higig2_field_set(nullptr, 14, 1);  // must not crash
}

TEST(HiGig2Test, SwapReversesInPlaceAndDecodeFillsOnlyTheTwoByteFields) {
  Header h;
  std::iota(h.begin(), h.end(), 0);
  EXPECT_EQ(bypass_swapHgHdrOrder(h.data(), h.size()), 0u);
  for (size_t i = 0; i < h.size(); ++i) EXPECT_EQ(h[i], 15 - i);
  std::array<u8, 3> odd{0x0A, 0x0B, 0x0C};
  EXPECT_EQ(bypass_swapHgHdrOrder(odd.data(), odd.size()), 0u);
  EXPECT_EQ(odd, (std::array<u8, 3>{0x0C, 0x0B, 0x0A}));
  u8 one = 0x42;
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 1), 0u);
  EXPECT_EQ(one, 0x42);
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 0), 100u);
  EXPECT_EQ(bypass_swapHgHdrOrder(nullptr, 16), 100u);

  h = Header{};
  h[2] = 0x81;
  h[3] = 0x07;
  BYPASS_HG_DECODE_S d;
  std::memset(&d, 0x5A, sizeof(d));
  EXPECT_EQ(bypass_higDecode(h.data(), &d), 0u);
  EXPECT_EQ(d.usHgByte2, 129);
  EXPECT_EQ(d.usHgByte3, 7);
  for (u8 b : d.aucCaller) EXPECT_EQ(b, 0x5A);
  EXPECT_EQ(bypass_higDecode(nullptr, &d), 100u);
  EXPECT_EQ(bypass_higDecode(h.data(), nullptr), 100u);
}

}  // namespace
